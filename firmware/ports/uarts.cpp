// The instrument serial ports UART2 to UART7.
//
// Each usable port's interrupt handler moves received bytes into the port's ring; the instrument
// drivers read them from the main loop. Only the tail index is written by the reader, and the head
// only by the handler or with the port's interrupt masked, so reading needs no lock. The readers also
// do the handler's work first, so polling sees bytes with interrupts masked and every poll costs a
// register access (a polling loop is never a pure memory spin). Transmission goes straight into the
// 16-byte FIFO, waiting a bounded time for room: the commands are a few bytes.
//
// A port that is not brought out, or not opened, still has its interrupt cleared and its FIFO
// drained, so an instrument talking on an unused port cannot keep the processor in its handler.
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
// count at 50 MHz): 0.4 s, far more than a FIFO's worth of characters needs at 9600 baud.
constexpr uint32_t tx_wait_polls = 40000;
constexpr uint32_t poll_pause_counts = 167;

constexpr uint32_t first_port = 2;
constexpr uint32_t last_port = 7;
constexpr uint32_t port_count = last_port - first_port + 1;

constexpr uint32_t ring_mask = UART_RX_RING_SIZE - 1;
static_assert((UART_RX_RING_SIZE & ring_mask) == 0, "receive ring size must be a power of two");

struct UartHw {
    uint32_t base;
    uint32_t periph;
    uint32_t interrupt;
    bool usable; // brought out on this board's pins
};

const UartHw hw[port_count] = {
    {UART2_BASE, SYSCTL_PERIPH_UART2, INT_UART2, true}, {UART3_BASE, SYSCTL_PERIPH_UART3, INT_UART3, true},
    {UART4_BASE, SYSCTL_PERIPH_UART4, INT_UART4, true}, {UART5_BASE, SYSCTL_PERIPH_UART5, INT_UART5, false},
    {UART6_BASE, SYSCTL_PERIPH_UART6, INT_UART6, true}, {UART7_BASE, SYSCTL_PERIPH_UART7, INT_UART7, false},
};

// Free-running indices: count = head - tail, slot = index & mask.
struct UartRx {
    uint8_t buf[UART_RX_RING_SIZE];
    volatile uint32_t head;
    volatile uint32_t tail;
    volatile uint32_t lost;
    volatile bool echo;
    volatile bool ready;
};

UartRx rx[port_count];

const UartHw* hw_of(uint32_t port) {
    if (port < first_port || port > last_port) {
        return nullptr;
    }
    return &hw[port - first_port];
}

UartRx* open_rx(uint32_t port) {
    if (port < first_port || port > last_port || !rx[port - first_port].ready) {
        return nullptr;
    }
    return &rx[port - first_port];
}

// Moves received bytes from the FIFO into the ring; runs in the handler or with its interrupt masked.
// A byte that finds the ring full is lost and counted, as is an overrun of the hardware FIFO.
void take_fifo(const UartHw& h, UartRx& r) {
    if (UARTRxErrorGet(h.base) & UART_RXERROR_OVERRUN) {
        r.lost = r.lost + 1;
    }
    UARTRxErrorClear(h.base);
    for (uint32_t i = 0; i < max_drain_reads && UARTCharsAvail(h.base); i++) {
        int32_t c = UARTCharGetNonBlocking(h.base);
        if (c < 0) {
            break;
        }
        if (r.echo) {
            UARTCharPutNonBlocking(h.base, static_cast<unsigned char>(c));
        }
        if (r.head - r.tail >= UART_RX_RING_SIZE) {
            r.lost = r.lost + 1;
            continue;
        }
        r.buf[r.head & ring_mask] = static_cast<uint8_t>(c);
        r.head = r.head + 1;
    }
}

void drain_and_clear(uint32_t base) {
    UARTIntClear(base, UARTIntStatus(base, true));
    for (uint32_t i = 0; i < max_drain_reads && UARTCharsAvail(base); i++) {
        UARTCharGetNonBlocking(base);
    }
}

void handle_interrupt(uint32_t port) {
    const UartHw& h = hw[port - first_port];
    UartRx* r = open_rx(port);
    if (r == nullptr) {
        drain_and_clear(h.base);
        return;
    }
    UARTIntClear(h.base, UARTIntStatus(h.base, true));
    take_fifo(h, *r);
}

} // namespace

void uart_peripheral_on(uint32_t periph) {
    if (SysCtlPeripheralReady(periph)) {
        return;
    }
    SysCtlPeripheralEnable(periph);
    for (uint32_t i = 0; i < ready_polls && !SysCtlPeripheralReady(periph); i++) {
    }
}

void uart_setup(uint32_t base, uint32_t periph, uint32_t baud, uint32_t srcClock, uint32_t int_flags) {
    uart_peripheral_on(periph);
    UARTDisable(base);
    UARTClockSourceSet(base, srcClock == piosc_hz ? UART_CLOCK_PIOSC : UART_CLOCK_SYSTEM);
    UARTConfigSetExpClk(base, srcClock, baud,
                        UART_CONFIG_WLEN_8 | UART_CONFIG_STOP_ONE | UART_CONFIG_PAR_NONE);
    UARTFIFOLevelSet(base, UART_FIFO_TX1_8, UART_FIFO_RX1_8);
    UARTFIFOEnable(base);
    UARTIntDisable(base, UART_INT_TX | UART_INT_RX | UART_INT_RT | UART_INT_OE);
    UARTIntClear(base, UARTIntStatus(base, false));
    UARTRxErrorClear(base);
    UARTIntEnable(base, int_flags);
    UARTEnable(base);
}

bool uart_port_usable(uint32_t port) {
    const UartHw* h = hw_of(port);
    return h != nullptr && h->usable;
}

bool uart_init(uint32_t port, uint32_t baud, uint32_t srcClock) {
    if (!uart_port_usable(port)) {
        return false;
    }
    const UartHw& h = *hw_of(port);
    UartRx& r = rx[port - first_port];
    IntDisable(h.interrupt);
    // Overruns interrupt too, so that the handler counts them.
    uart_setup(h.base, h.periph, baud, srcClock, UART_INT_RX | UART_INT_RT | UART_INT_OE);

    r.tail = r.head;
    r.lost = 0;
    r.echo = false;
    r.ready = true;
    IntEnable(h.interrupt);
    return true;
}

void uart_echo_set(uint32_t port, bool enable) {
    UartRx* r = open_rx(port);
    if (r != nullptr) {
        r->echo = enable;
    }
}

void uart_service(uint32_t port) {
    UartRx* r = open_rx(port);
    if (r == nullptr) {
        return;
    }
    const UartHw& h = *hw_of(port);
    IntDisable(h.interrupt);
    take_fifo(h, *r);
    IntEnable(h.interrupt);
}

uint32_t uart_rx_avail(uint32_t port) {
    UartRx* r = open_rx(port);
    if (r == nullptr) {
        return 0;
    }
    uart_service(port);
    return r->head - r->tail;
}

int32_t uart_getc(uint32_t port) {
    if (uart_rx_avail(port) == 0) {
        return -1;
    }
    UartRx& r = *open_rx(port);
    uint8_t c = r.buf[r.tail & ring_mask];
    r.tail = r.tail + 1;
    return c;
}

void uart_flush_rx(uint32_t port) {
    UartRx* r = open_rx(port);
    if (r == nullptr) {
        return;
    }
    const UartHw& h = *hw_of(port);
    IntDisable(h.interrupt);
    for (uint32_t i = 0; i < max_drain_reads && UARTCharsAvail(h.base); i++) {
        UARTCharGetNonBlocking(h.base);
    }
    IntEnable(h.interrupt);
    r->tail = r->head;
}

void uart_putc(uint32_t port, char c) {
    if (open_rx(port) == nullptr) {
        return;
    }
    uint32_t base = hw_of(port)->base;
    for (uint32_t i = 0; i < tx_wait_polls; i++) {
        if (UARTCharPutNonBlocking(base, static_cast<unsigned char>(c))) {
            return;
        }
        SysCtlDelay(poll_pause_counts);
    }
}

void uart_puts(uint32_t port, const char* text) {
    if (text == nullptr) {
        return;
    }
    for (const char* p = text; *p != '\0'; p++) {
        uart_putc(port, *p);
    }
}

void uart_flush_tx(uint32_t port) {
    if (open_rx(port) == nullptr) {
        return;
    }
    uint32_t base = hw_of(port)->base;
    for (uint32_t i = 0; i < tx_wait_polls && UARTBusy(base); i++) {
        SysCtlDelay(poll_pause_counts);
    }
}

uint32_t uart_overruns(uint32_t port) {
    UartRx* r = open_rx(port);
    return r == nullptr ? 0 : r->lost;
}

extern "C" void uart2_isr(void) {
    handle_interrupt(2);
}
extern "C" void uart3_isr(void) {
    handle_interrupt(3);
}
extern "C" void uart4_isr(void) {
    handle_interrupt(4);
}
extern "C" void uart5_isr(void) {
    handle_interrupt(5);
}
extern "C" void uart6_isr(void) {
    handle_interrupt(6);
}
extern "C" void uart7_isr(void) {
    handle_interrupt(7);
}
