// The instrument serial ports UART2 to UART7.
//
// Port 4 carries the CTD. Its interrupt handler moves received bytes into a ring buffer; the main loop
// reads them. Only the tail index is written by the reader, and the head only by the handler or with
// the port's interrupt masked, so reading needs no lock. The readers also do the handler's work first,
// so polling sees bytes with interrupts masked and every poll costs a register access (a polling loop
// is never a pure memory spin). Transmission goes straight into the 16-byte FIFO: the commands are a
// few bytes.
//
// The other ports have no driver yet. A port that interrupts has its received bytes read and dropped
// and its interrupt cleared, so an instrument talking on an unused port cannot keep the processor in
// its handler.
#include "ports/uarts.h"

#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/uart.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"

namespace {

// More than a full 16-byte FIFO, so a byte arriving during the drain is taken as well.
constexpr uint32_t max_drain_reads = 32;
// Polls of the peripheral-ready flag after enabling a clock gate.
constexpr uint32_t ready_polls = 1000;
// Baud clock value that selects the precision internal oscillator.
constexpr uint32_t piosc_hz = 16000000;
// A transmit wait gives up after this many pauses of about 10 us (SysCtlDelay spends three cycles per
// count at 50 MHz): 0.4 s, far more than 17 characters at 9600 baud need.
constexpr uint32_t tx_wait_polls = 40000;
constexpr uint32_t poll_pause_counts = 167;

constexpr uint32_t rx4_mask = UART4_RX_BUFFER_SIZE - 1;
static_assert((UART4_RX_BUFFER_SIZE & rx4_mask) == 0, "receive ring size must be a power of two");

// Free-running indices: count = head - tail, slot = index & mask.
uint8_t rx4_buf[UART4_RX_BUFFER_SIZE];
volatile uint32_t rx4_head = 0;
volatile uint32_t rx4_tail = 0;
volatile bool echo4_on = false;
volatile bool uart4_ready = false;

void drain_and_clear(uint32_t base) {
    uint32_t status = UARTIntStatus(base, true);
    UARTIntClear(base, status);
    for (uint32_t i = 0; i < max_drain_reads && UARTCharsAvail(base); i++) {
        UARTCharGetNonBlocking(base);
    }
}

// Moves received bytes from the FIFO into the ring; runs in the handler or with its interrupt masked.
// A byte that finds the ring full is lost, as with a full hardware FIFO.
void rx4_take_fifo() {
    for (uint32_t i = 0; i < max_drain_reads && UARTCharsAvail(UART4_BASE); i++) {
        int32_t c = UARTCharGetNonBlocking(UART4_BASE);
        if (c < 0) {
            break;
        }
        if (echo4_on) {
            UARTCharPutNonBlocking(UART4_BASE, static_cast<unsigned char>(c));
        }
        if (rx4_head - rx4_tail < UART4_RX_BUFFER_SIZE) {
            rx4_buf[rx4_head & rx4_mask] = static_cast<uint8_t>(c);
            rx4_head = rx4_head + 1;
        }
    }
}

void enable_peripheral(uint32_t periph) {
    if (SysCtlPeripheralReady(periph)) {
        return;
    }
    SysCtlPeripheralEnable(periph);
    for (uint32_t i = 0; i < ready_polls && !SysCtlPeripheralReady(periph); i++) {
    }
}

} // namespace

void uart4_init(uint32_t baud, uint32_t srcClock) {
    IntDisable(INT_UART4);
    enable_peripheral(SYSCTL_PERIPH_UART4);
    enable_peripheral(SYSCTL_PERIPH_GPIOC);

    UARTDisable(UART4_BASE);
    UARTClockSourceSet(UART4_BASE, srcClock == piosc_hz ? UART_CLOCK_PIOSC : UART_CLOCK_SYSTEM);
    UARTConfigSetExpClk(UART4_BASE, srcClock, baud,
                        UART_CONFIG_WLEN_8 | UART_CONFIG_STOP_ONE | UART_CONFIG_PAR_NONE);
    UARTFIFOLevelSet(UART4_BASE, UART_FIFO_TX1_8, UART_FIFO_RX1_8);
    UARTFIFOEnable(UART4_BASE);
    UARTIntDisable(UART4_BASE, UART_INT_TX | UART_INT_RX | UART_INT_RT);
    UARTIntClear(UART4_BASE, UARTIntStatus(UART4_BASE, false));
    UARTIntEnable(UART4_BASE, UART_INT_RX | UART_INT_RT);
    UARTEnable(UART4_BASE);

    rx4_tail = rx4_head;
    echo4_on = false;
    uart4_ready = true;
    IntEnable(INT_UART4);
}

void uart4_echo_set(bool enable) {
    echo4_on = enable;
}

void uart4_service(void) {
    if (!uart4_ready) {
        return;
    }
    IntDisable(INT_UART4);
    rx4_take_fifo();
    IntEnable(INT_UART4);
}

uint32_t uart4_rx_avail(void) {
    uart4_service();
    return rx4_head - rx4_tail;
}

int32_t uart4_getc(void) {
    if (uart4_rx_avail() == 0) {
        return -1;
    }
    uint8_t c = rx4_buf[rx4_tail & rx4_mask];
    rx4_tail = rx4_tail + 1;
    return c;
}

void uart4_flush_rx(void) {
    if (uart4_ready) {
        IntDisable(INT_UART4);
        for (uint32_t i = 0; i < max_drain_reads && UARTCharsAvail(UART4_BASE); i++) {
            UARTCharGetNonBlocking(UART4_BASE);
        }
        IntEnable(INT_UART4);
    }
    rx4_tail = rx4_head;
}

void uart4_write(const char* buf, uint32_t len) {
    if (buf == nullptr || !uart4_ready) {
        return;
    }
    for (uint32_t i = 0; i < len; i++) {
        UARTCharPut(UART4_BASE, static_cast<unsigned char>(buf[i]));
    }
}

void uart4_flush_tx(void) {
    if (!uart4_ready) {
        return;
    }
    for (uint32_t i = 0; i < tx_wait_polls && UARTBusy(UART4_BASE); i++) {
        SysCtlDelay(poll_pause_counts);
    }
}

extern "C" void uart2_isr(void) {
    drain_and_clear(UART2_BASE);
}
extern "C" void uart3_isr(void) {
    drain_and_clear(UART3_BASE);
}

extern "C" void uart4_isr(void) {
    uint32_t status = UARTIntStatus(UART4_BASE, true);
    UARTIntClear(UART4_BASE, status);
    rx4_take_fifo();
}

extern "C" void uart5_isr(void) {
    drain_and_clear(UART5_BASE);
}
extern "C" void uart6_isr(void) {
    drain_and_clear(UART6_BASE);
}
extern "C" void uart7_isr(void) {
    drain_and_clear(UART7_BASE);
}
