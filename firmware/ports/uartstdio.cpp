// Console layer on UART0: ring-buffered, interrupt-driven output and input for the menus, the
// command line and the host link.
//
// Sharing with the interrupt: the interrupt handler moves received bytes into the receive ring
// (echoing them when echo is on) and refills the transmit FIFO from the transmit ring. The main thread
// changes ring indices only with the UART0 interrupt masked in the NVIC (console_lock), so each index
// change is atomic with respect to the handler; a backspace may take back the newest received byte,
// which is why even reads take the lock.
//
// Progress without interrupts: every wait in this module services the UART itself (moves bytes from
// the receive FIFO into the ring and from the transmit ring into the FIFO) before polling again. Output
// therefore keeps flowing with the processor's interrupts masked, in the fault handler, or before the
// handler ever ran, because the hardware empties the FIFO on its own. A wait for output gives up when
// no byte could leave for a long stretch (UART stopped), so no output wait hangs forever. Waits for
// input (getChar, UARTgets) last until the operator types, by contract; callers poll UARTrdy or
// UARTPeek first.
#include "ports/uartstdio.h"
#include "ports/uarts.h"

#include <cstdarg>
#include <cstdio>

#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/uart.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"

uint32_t dbg_flag = 1;
char prnBuf[PRNBUF_SIZE];

namespace {

constexpr uint32_t tx_mask = UART_TX_BUFFER_SIZE - 1;
constexpr uint32_t rx_mask = UART_RX_BUFFER_SIZE - 1;
static_assert((UART_TX_BUFFER_SIZE & tx_mask) == 0, "transmit ring size must be a power of two");
static_assert((UART_RX_BUFFER_SIZE & rx_mask) == 0, "receive ring size must be a power of two");

// Output waits give up when no byte could leave for 4 times the time the hardware holds (16 FIFO bytes
// and the shift register) at the configured rate. Each idle poll pauses about 10 us (SysCtlDelay
// spends three cycles per count, 50 MHz system clock), which keeps the bound a time, not a loop count.
constexpr uint32_t poll_pause_us = 10;
constexpr uint32_t poll_pause_counts = 167;
constexpr uint32_t hw_held_chars = 17;
// Reads that empty the 16-byte receive FIFO even while a byte or two more arrive.
constexpr uint32_t fifo_flush_reads = 32;

// Free-running indices: count = head - tail, slot = index & mask.
uint8_t tx_buf[UART_TX_BUFFER_SIZE];
volatile uint32_t tx_head = 0;
volatile uint32_t tx_tail = 0;
uint8_t rx_buf[UART_RX_BUFFER_SIZE];
volatile uint32_t rx_head = 0;
volatile uint32_t rx_tail = 0;

volatile bool echo_on = true;
volatile bool last_was_cr = false; // for swallowing the LF of a CR LF pair while echoing
volatile bool configured = false;  // UART0 clocked and set up: registers may be touched
volatile bool int_enabled = false; // INT_UART0 enabled in the NVIC by UARTStdioConfig
volatile bool tx_int_enabled = false;
uint32_t baud_rate = 115200;

char fmt_buf[UART_PRINTF_BUFFER_SIZE];

void console_lock() {
    if (int_enabled) {
        IntDisable(INT_UART0);
    }
}

void console_unlock() {
    if (int_enabled) {
        IntEnable(INT_UART0);
    }
}

uint32_t tx_count() {
    return tx_head - tx_tail;
}
uint32_t rx_count() {
    return rx_head - rx_tail;
}

// The helpers below run in the handler or with the console lock held.

void tx_put(uint8_t c) {
    if (tx_count() >= UART_TX_BUFFER_SIZE) {
        return; // echo only: the main thread waits for room before it queues
    }
    tx_buf[tx_head & tx_mask] = c;
    tx_head = tx_head + 1;
}

void tx_put_text(const char* s) {
    for (; *s != '\0'; s++) {
        tx_put(static_cast<uint8_t>(*s));
    }
}

// Moves queued bytes into the transmit FIFO while it has room; the transmit interrupt stays enabled
// only while bytes remain queued. Returns the number of bytes moved.
uint32_t tx_fill_fifo() {
    if (!configured) {
        return 0;
    }
    uint32_t moved = 0;
    while (tx_count() > 0 && UARTSpaceAvail(UART0_BASE)) {
        UARTCharPutNonBlocking(UART0_BASE, tx_buf[tx_tail & tx_mask]);
        tx_tail = tx_tail + 1;
        moved++;
    }
    bool want = tx_count() > 0;
    if (want != tx_int_enabled) {
        if (want) {
            UARTIntEnable(UART0_BASE, UART_INT_TX);
        } else {
            UARTIntDisable(UART0_BASE, UART_INT_TX);
        }
        tx_int_enabled = want;
    }
    return moved;
}

bool is_line_end(uint8_t c) {
    return c == '\r' || c == '\n';
}

// A full ring loses the byte, as a full hardware FIFO would; but a line end then takes the place of
// the last byte, so that a line longer than the ring still ends (cut short) and the menu or command
// reading it is not left waiting for an end that was dropped.
void rx_store(uint8_t c) {
    if (rx_count() >= UART_RX_BUFFER_SIZE) {
        if (is_line_end(c)) {
            rx_buf[(rx_head - 1) & rx_mask] = c;
        }
        return;
    }
    rx_buf[rx_head & rx_mask] = c;
    rx_head = rx_head + 1;
}

// Line editing while echo is on: backspace takes back the last character of the line being typed, a CR,
// an LF or a CR LF pair ends the line as one CR (shown as CR LF), printable characters are shown.
// With echo off the bytes are kept exactly as received (the host link frames its own lines).
void rx_accept(uint8_t c) {
    if (!echo_on) {
        last_was_cr = false;
        rx_store(c);
        return;
    }
    if (c == '\b' || c == 0x7f) {
        last_was_cr = false;
        if (rx_count() > 0 && !is_line_end(rx_buf[(rx_head - 1) & rx_mask])) {
            rx_head = rx_head - 1;
            tx_put_text("\b \b");
        }
        return;
    }
    if (c == '\n' && last_was_cr) {
        last_was_cr = false;
        return;
    }
    if (is_line_end(c)) {
        last_was_cr = (c == '\r');
        tx_put_text("\r\n");
        rx_store('\r');
        return;
    }
    last_was_cr = false;
    if (c >= 0x20 && c < 0x7f) {
        tx_put(c);
    }
    rx_store(c);
}

void rx_drain_fifo() {
    if (!configured) {
        return;
    }
    while (UARTCharsAvail(UART0_BASE)) {
        int32_t c = UARTCharGetNonBlocking(UART0_BASE);
        if (c < 0) {
            break;
        }
        rx_accept(static_cast<uint8_t>(c));
    }
}

// One step of a wait in the main thread: do the interrupt's work. Returns the bytes sent to the FIFO.
uint32_t service_uart() {
    console_lock();
    rx_drain_fifo();
    uint32_t moved = tx_fill_fifo();
    console_unlock();
    return moved;
}

// Idle polls after which an output wait decides the transmitter has stopped.
uint32_t stall_polls() {
    uint32_t char_us = 10000000u / baud_rate + 1; // 10 bits a character
    return 4 * hw_held_chars * char_us / poll_pause_us + 100;
}

// Waits until the transmit ring is empty or the transmitter has stalled. Returns false on a stall.
bool wait_tx_ring_empty() {
    uint32_t idle = 0;
    const uint32_t limit = stall_polls();
    while (tx_count() > 0) {
        if (!configured) {
            return false;
        }
        if (service_uart() > 0) {
            idle = 0;
            continue;
        }
        if (++idle > limit) {
            return false;
        }
        SysCtlDelay(poll_pause_counts);
    }
    return true;
}

void start_empty() {
    int_enabled = false;
    configured = false;
    tx_int_enabled = false;
    tx_head = 0;
    tx_tail = 0;
    rx_head = 0;
    rx_tail = 0;
    echo_on = true;
    last_was_cr = false;
}

int vprint(const char* fmt, va_list ap) {
    int n = vsnprintf(fmt_buf, sizeof(fmt_buf), fmt, ap);
    if (n <= 0) {
        return 0;
    }
    uint32_t len = static_cast<uint32_t>(n);
    if (len >= sizeof(fmt_buf)) {
        len = sizeof(fmt_buf) - 1; // truncated to what the buffer holds
    }
    return UARTwrite(fmt_buf, len);
}

} // namespace

void UARTStdioConfig(uint32_t port, uint32_t baud, uint32_t srcClock) {
    if (port != 0) {
        return;
    }
    if (!SysCtlPeripheralReady(SYSCTL_PERIPH_UART0)) {
        // The UART was off since the last reset, so nothing queued can belong to this console.
        start_empty();
    } else if (configured) {
        // Let pending output leave at the old rate before the rate changes under it.
        wait_consoleTx();
        IntDisable(INT_UART0);
        int_enabled = false;
    }

    baud_rate = baud > 0 ? baud : 1;
    uart_peripheral_on(SYSCTL_PERIPH_GPIOA);
    // The transmit interrupt is enabled only while output is queued (tx_fill_fifo).
    tx_int_enabled = false;
    uart_setup(UART0_BASE, SYSCTL_PERIPH_UART0, baud, srcClock, UART_INT_RX | UART_INT_RT);
    configured = true;

    IntEnable(INT_UART0);
    int_enabled = true;
}

extern "C" void UARTStdioIntHandler(void) {
    uint32_t status = UARTIntStatus(UART0_BASE, true);
    UARTIntClear(UART0_BASE, status);
    rx_drain_fifo();
    tx_fill_fifo(); // also sends any echo the received bytes produced
}

int UARTwrite(const char* buf, uint32_t len) {
    if (buf == nullptr || !configured) {
        return 0; // no console yet: dropped
    }
    uint32_t sent = 0;
    uint32_t idle = 0;
    const uint32_t limit = stall_polls();
    while (sent < len) {
        console_lock();
        uint32_t room = UART_TX_BUFFER_SIZE - tx_count();
        uint32_t n = 0;
        for (; n < room && sent + n < len; n++) {
            tx_buf[(tx_head + n) & tx_mask] = static_cast<uint8_t>(buf[sent + n]);
        }
        tx_head = tx_head + n;
        uint32_t moved = tx_fill_fifo();
        console_unlock();
        sent += n;

        if (n > 0 || moved > 0) {
            idle = 0;
            continue;
        }
        if (++idle > limit) {
            break; // the transmitter stopped: the rest is dropped
        }
        SysCtlDelay(poll_pause_counts);
    }
    return static_cast<int>(sent);
}

int uprintf(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vprint(fmt, ap);
    va_end(ap);
    return n;
}

int dbg_printf(const char* fmt, ...) {
    if (dbg_flag == 0) {
        return 0;
    }
    va_list ap;
    va_start(ap, fmt);
    int n = vprint(fmt, ap);
    va_end(ap);
    return n;
}

unsigned char getChar(void) {
    while (true) {
        console_lock();
        if (rx_count() > 0) {
            uint8_t c = rx_buf[rx_tail & rx_mask];
            rx_tail = rx_tail + 1;
            console_unlock();
            return c;
        }
        console_unlock();
        service_uart();
        if (rx_count() == 0) {
            SysCtlDelay(poll_pause_counts);
        }
    }
}

int UARTgets(char* buf, uint32_t len) {
    if (buf == nullptr || len == 0) {
        return 0;
    }
    uint32_t count = 0;
    while (true) {
        unsigned char c = getChar();
        if (is_line_end(c)) {
            break;
        }
        if (count < len - 1) {
            buf[count++] = static_cast<char>(c);
        }
    }
    buf[count] = '\0';
    return static_cast<int>(count);
}

int UARTPeek(unsigned char c) {
    service_uart();
    console_lock();
    int found = -1;
    uint32_t n = rx_count();
    for (uint32_t i = 0; i < n; i++) {
        if (rx_buf[(rx_tail + i) & rx_mask] == c) {
            found = static_cast<int>(i);
            break;
        }
    }
    console_unlock();
    return found;
}

int UARTrdy(void) {
    service_uart();
    return rx_count() > 0 ? 1 : 0;
}

int UARTRxBytesAvail(void) {
    service_uart();
    return static_cast<int>(rx_count());
}

int UARTTxBytesFree(void) {
    return static_cast<int>(UART_TX_BUFFER_SIZE - tx_count());
}

void UARTFlushRx(void) {
    console_lock();
    if (configured) {
        // Bytes still in the hardware FIFO are pending input too.
        for (uint32_t i = 0; i < fifo_flush_reads && UARTCharsAvail(UART0_BASE); i++) {
            UARTCharGetNonBlocking(UART0_BASE);
        }
    }
    rx_tail = rx_head;
    last_was_cr = false;
    console_unlock();
}

void UARTFlushTx(bool discard) {
    if (discard) {
        console_lock();
        tx_tail = tx_head;
        console_unlock();
        return;
    }
    wait_tx_ring_empty();
}

void UARTEchoSet(bool enable) {
    echo_on = enable;
}

void wait_consoleTx(void) {
    if (!configured || !wait_tx_ring_empty()) {
        return;
    }
    const uint32_t limit = stall_polls();
    for (uint32_t i = 0; i < limit && UARTBusy(UART0_BASE); i++) {
        SysCtlDelay(poll_pause_counts);
    }
}
