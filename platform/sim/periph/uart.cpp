// UART0 to UART7 behind the TivaWare UART calls: baud rate divisors, 16-deep transmit and receive
// FIFOs, the transmit shift register, and the receive, receive time-out and transmit interrupts.
//
// Transmission: the shifter takes the next byte from the FIFO when the previous one has left and
// sends it in one frame (start bit, data bits, parity, stop bits) at the bit time that the divisors
// give; when the frame is done the byte leaves the board through the transmit sink. Reception:
// sim::uart_receive puts a complete byte into the receive FIFO at the current virtual time.
//
// Interrupts, as on the chip:
//   RX  set when the receive FIFO reaches its trigger level; cleared by reading below it or by
//       UARTIntClear.
//   RT  set when the receive FIFO holds data and no byte has arrived for 32 bit periods; cleared by
//       emptying the FIFO or by UARTIntClear.
//   TX  (FIFO mode) set when the transmit FIFO drains through its trigger level - a transition, not
//       a level; cleared by UARTIntClear or by filling the FIFO above the level. (End-of-transmission
//       mode) set when the last bit has left.
//   OE  a byte arrived with the receive FIFO full and was lost.
// The UART's vector is pending while any enabled interrupt is set.
//
// The divisors are computed from the clock the firmware passes to UARTConfigSetExpClk; the model
// trusts that this is the clock actually selected with UARTClockSourceSet.
#include "devices.h"
#include "sim.h"

#include "driverlib/uart.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"

namespace sim::dev {

namespace {

constexpr int ports = 8;
constexpr uint8_t fifo_depth = 16;
constexpr uint32_t access_cycles = 4;
constexpr uint64_t unconfigured_step_ns = 100 * 1000;

// Receive status (UARTRxErrorGet).
constexpr uint32_t rsr_oe = 0x8;

struct Uart {
    bool uarten, txe, rxe, fen;
    bool eot_mode;        // transmit interrupt at end of transmission instead of at the FIFO level
    uint32_t lcrh_config; // word length, parity and stop bits as given to UARTConfigSetExpClk
    uint32_t ifls;        // FIFO trigger levels
    uint32_t im, ris, rsr;
    uint32_t clock_source;
    uint32_t baud;     // what the firmware asked for
    uint32_t clock_hz; // the clock it named
    uint32_t divisor;  // 64ths: IBRD * 64 + FBRD
    bool hse;          // high-speed: 8 clocks per bit instead of 16
    uint64_t bit_ns;
    uint64_t frame_ns;
    Fifo tx, rx;
    bool shifting;
    uint8_t shift_byte;
    uint64_t shift_done_ns;
    uint64_t rt_deadline_ns; // UINT64_MAX when no time-out is running
};

Uart us[ports];
TxSink tx_sink = nullptr;
// The earliest shifter or time-out event of all ports; recomputed after a change (the runtime asks
// for it at every step of virtual time).
uint64_t next_event = UINT64_MAX;
bool next_event_stale = true;

const uint32_t bases[ports] = {UART0_BASE, UART1_BASE, UART2_BASE, UART3_BASE,
                               UART4_BASE, UART5_BASE, UART6_BASE, UART7_BASE};
const int vectors[ports] = {INT_UART0, INT_UART1, INT_UART2, INT_UART3,
                            INT_UART4, INT_UART5, INT_UART6, INT_UART7};

int port_index(uint32_t base) {
    for (int i = 0; i < ports; ++i) {
        if (bases[i] == base) {
            return i;
        }
    }
    return -1;
}

uint8_t depth(const Uart& u) {
    return u.fen ? fifo_depth : 1;
}

// Transmit trigger: the interrupt comes when the FIFO holds this many bytes or fewer.
uint8_t tx_level(const Uart& u) {
    if (!u.fen) {
        return 0;
    }
    static const uint8_t levels[] = {2, 4, 8, 12, 14};
    uint32_t sel = u.ifls & 0x7;
    return sel < 5 ? levels[sel] : 8;
}

// Receive trigger: the interrupt comes when the FIFO holds this many bytes or more.
uint8_t rx_level(const Uart& u) {
    if (!u.fen) {
        return 1;
    }
    static const uint8_t levels[] = {2, 4, 8, 12, 14};
    uint32_t sel = (u.ifls >> 3) & 0x7;
    return sel < 5 ? levels[sel] : 8;
}

uint32_t frame_bits(uint32_t config) {
    uint32_t data_bits = 5 + ((config & UART_CONFIG_WLEN_MASK) >> 5);
    uint32_t parity = (config & UART_CONFIG_PAR_MASK) ? 1 : 0;
    uint32_t stop = (config & UART_CONFIG_STOP_TWO) ? 2 : 1;
    return 1 + data_bits + parity + stop;
}

void update_irq(int i) {
    set_pending(vectors[i], (us[i].ris & us[i].im) != 0);
}

bool transmitter_on(const Uart& u) {
    return u.uarten && u.txe && u.frame_ns > 0;
}

// Moves the next byte into the shift register if it is free; the frame starts at `at_ns`.
void start_shifting(Uart& u, uint64_t at_ns) {
    if (u.shifting || !transmitter_on(u) || u.tx.count == 0) {
        return;
    }
    uint8_t before = u.tx.count;
    next_event_stale = true;
    u.shift_byte = static_cast<uint8_t>(u.tx.pop());
    u.shifting = true;
    u.shift_done_ns = at_ns + u.frame_ns;
    if (!u.eot_mode && before > tx_level(u) && u.tx.count <= tx_level(u)) {
        u.ris |= UART_INT_TX;
    }
}

void finish_shifting(int i) {
    Uart& u = us[i];
    u.shifting = false;
    next_event_stale = true;
    uint64_t done = u.shift_done_ns;
    if (i == 0) {
        stats().tx_bytes++;
    }
    uint8_t byte = u.shift_byte;
    start_shifting(u, done);
    if (u.eot_mode && !u.shifting && u.tx.count == 0) {
        u.ris |= UART_INT_TX;
    }
    update_irq(i);
    if (tx_sink) {
        tx_sink(i, byte);
    }
}

void receive_timeout(int i) {
    Uart& u = us[i];
    u.rt_deadline_ns = UINT64_MAX;
    next_event_stale = true;
    if (u.rx.count > 0) {
        u.ris |= UART_INT_RT;
        update_irq(i);
    }
}

Uart* uart_of(uint32_t base, int* index) {
    access(access_cycles);
    int i = port_index(base);
    if (i < 0) {
        return nullptr;
    }
    *index = i;
    return &us[i];
}

void put_byte(int i, uint8_t byte) {
    Uart& u = us[i];
    u.tx.push(byte, depth(u));
    if (!u.eot_mode && u.tx.count > tx_level(u)) {
        u.ris &= ~UART_INT_TX;
    }
    if (u.eot_mode) {
        u.ris &= ~UART_INT_TX;
    }
    start_shifting(u, now_ns());
    update_irq(i);
}

int32_t take_byte(int i) {
    Uart& u = us[i];
    int32_t v = u.rx.pop();
    if (u.rx.count < rx_level(u)) {
        u.ris &= ~UART_INT_RX;
    }
    if (u.rx.count == 0) {
        u.ris &= ~UART_INT_RT;
        u.rt_deadline_ns = UINT64_MAX;
        next_event_stale = true;
    }
    update_irq(i);
    return v;
}

// How long a blocked call waits between looks when only the outside world can unblock it.
uint64_t poll_step(const Uart& u) {
    return u.frame_ns > 0 ? u.frame_ns / 4 + 1 : unconfigured_step_ns;
}

// Inside an interrupt handler virtual time stands still, so a blocking call cannot wait for the
// shifter: the byte in it is sent at once instead. False when nothing is being sent.
bool hurry(int i) {
    Uart& u = us[i];
    if (!u.shifting) {
        return false;
    }
    u.shift_done_ns = now_ns();
    next_event_stale = true;
    finish_shifting(i);
    return true;
}

void disable(Uart& u) {
    u.fen = false;
    u.uarten = u.txe = u.rxe = false;
}

} // namespace

void uart_reset() {
    for (int i = 0; i < ports; ++i) {
        Uart& u = us[i];
        u = Uart{};
        u.txe = u.rxe = true; // the control register's reset value enables both directions
        u.ifls = UART_FIFO_TX4_8 | UART_FIFO_RX4_8;
        u.rt_deadline_ns = UINT64_MAX;
        set_pending(vectors[i], false);
    }
    next_event_stale = true;
}

uint64_t uart_next_event_ns() {
    if (!next_event_stale) {
        return next_event;
    }
    uint64_t next = UINT64_MAX;
    for (const Uart& u : us) {
        if (u.shifting && u.shift_done_ns < next) {
            next = u.shift_done_ns;
        }
        if (u.rt_deadline_ns < next) {
            next = u.rt_deadline_ns;
        }
    }
    next_event = next;
    next_event_stale = false;
    return next;
}

void uart_service(uint64_t now) {
    for (int i = 0; i < ports; ++i) {
        while (us[i].shifting && us[i].shift_done_ns <= now) {
            finish_shifting(i);
        }
        if (us[i].rt_deadline_ns <= now) {
            receive_timeout(i);
        }
    }
}

} // namespace sim::dev

namespace sim {

void set_uart_tx_sink(TxSink sink) {
    dev::tx_sink = sink;
}

void uart_receive(int port, uint8_t byte) {
    using namespace dev;
    if (port < 0 || port >= ports) {
        return;
    }
    Uart& u = us[port];
    if (!u.uarten || !u.rxe) {
        return; // a receiver that is off does not see the line
    }
    if (!u.rx.push(byte, depth(u))) {
        u.rsr |= rsr_oe;
        u.ris |= UART_INT_OE;
        update_irq(port);
        return;
    }
    if (u.rx.count >= rx_level(u)) {
        u.ris |= UART_INT_RX;
    }
    u.rt_deadline_ns = u.bit_ns > 0 ? now_ns() + 32 * u.bit_ns : UINT64_MAX;
    next_event_stale = true;
    update_irq(port);
}

uint32_t uart_baud(int port) {
    if (port < 0 || port >= dev::ports) {
        return 0;
    }
    const dev::Uart& u = dev::us[port];
    return (u.uarten && u.frame_ns > 0) ? u.baud : 0;
}

} // namespace sim

using namespace sim::dev;

extern "C" {

// Divisor in 64ths of the bit clock: (8 * clock / baud + 1) / 2; above clock / 16 the high-speed
// mode halves the clocks per bit.
void UARTConfigSetExpClk(uint32_t ui32Base, uint32_t ui32UARTClk, uint32_t ui32Baud, uint32_t ui32Config) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return;
    }
    UARTDisable(ui32Base);
    u->baud = ui32Baud;
    u->clock_hz = ui32UARTClk;
    u->lcrh_config = ui32Config & (UART_CONFIG_WLEN_MASK | UART_CONFIG_STOP_MASK | UART_CONFIG_PAR_MASK);
    uint32_t baud = ui32Baud;
    u->hse = static_cast<uint64_t>(baud) * 16 > ui32UARTClk;
    if (u->hse) {
        baud /= 2;
    }
    u->divisor = baud ? static_cast<uint32_t>(((static_cast<uint64_t>(ui32UARTClk) * 8 / baud) + 1) / 2) : 0;
    if (u->divisor < 64 || ui32UARTClk == 0) {
        // An integer divisor of 0 does not run the baud generator.
        u->bit_ns = 0;
        u->frame_ns = 0;
    } else {
        uint64_t clocks_per_bit_x64 = static_cast<uint64_t>(u->hse ? 8 : 16) * u->divisor;
        u->bit_ns = clocks_per_bit_x64 * sim::ns_per_s / (64ull * ui32UARTClk);
        u->frame_ns = clocks_per_bit_x64 * frame_bits(u->lcrh_config) * sim::ns_per_s / (64ull * ui32UARTClk);
    }
    UARTEnable(ui32Base);
}

void UARTConfigGetExpClk(uint32_t ui32Base, uint32_t ui32UARTClk, uint32_t* pui32Baud,
                         uint32_t* pui32Config) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return;
    }
    if (pui32Baud) {
        uint64_t per_bit_x64 = static_cast<uint64_t>(u->hse ? 8 : 16) * u->divisor;
        *pui32Baud = per_bit_x64 ? static_cast<uint32_t>(64ull * ui32UARTClk / per_bit_x64) : 0;
    }
    if (pui32Config) {
        *pui32Config = u->lcrh_config;
    }
}

void UARTEnable(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return;
    }
    u->fen = true;
    u->uarten = u->txe = u->rxe = true;
    start_shifting(*u, sim::now_ns());
    update_irq(i);
}

// Lets the transmitter finish what it holds, then switches the UART and its FIFOs off.
void UARTDisable(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return;
    }
    while (transmitter_on(*u) && (u->shifting || u->tx.count > 0)) {
        if (!wait_for(u->shift_done_ns, poll_step(*u)) && !hurry(i)) {
            break;
        }
    }
    disable(*u);
}

void UARTFIFOEnable(uint32_t ui32Base) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->fen = true;
    }
}

void UARTFIFODisable(uint32_t ui32Base) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->fen = false;
    }
}

void UARTFIFOLevelSet(uint32_t ui32Base, uint32_t ui32TxLevel, uint32_t ui32RxLevel) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->ifls = (ui32TxLevel & 0x7) | (ui32RxLevel & 0x38);
    }
}

void UARTFIFOLevelGet(uint32_t ui32Base, uint32_t* pui32TxLevel, uint32_t* pui32RxLevel) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return;
    }
    if (pui32TxLevel) {
        *pui32TxLevel = u->ifls & 0x7;
    }
    if (pui32RxLevel) {
        *pui32RxLevel = u->ifls & 0x38;
    }
}

void UARTTxIntModeSet(uint32_t ui32Base, uint32_t ui32Mode) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->eot_mode = (ui32Mode & UART_TXINT_MODE_EOT) != 0;
    }
}

uint32_t UARTTxIntModeGet(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    return (u && u->eot_mode) ? UART_TXINT_MODE_EOT : UART_TXINT_MODE_FIFO;
}

void UARTClockSourceSet(uint32_t ui32Base, uint32_t ui32Source) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->clock_source = ui32Source;
    }
}

uint32_t UARTClockSourceGet(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    return u ? u->clock_source : UART_CLOCK_SYSTEM;
}

bool UARTCharsAvail(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    return u && u->rx.count > 0;
}

bool UARTSpaceAvail(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    return u && u->tx.count < depth(*u);
}

int32_t UARTCharGetNonBlocking(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u || u->rx.count == 0) {
        return -1;
    }
    return take_byte(i);
}

int32_t UARTCharGet(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return -1;
    }
    while (u->rx.count == 0) {
        if (!wait_for(UINT64_MAX, poll_step(*u))) {
            return -1; // nothing can arrive while time stands still
        }
    }
    return take_byte(i);
}

bool UARTCharPutNonBlocking(uint32_t ui32Base, unsigned char ucData) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u || u->tx.count >= depth(*u)) {
        return false;
    }
    put_byte(i, ucData);
    return true;
}

void UARTCharPut(uint32_t ui32Base, unsigned char ucData) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return;
    }
    while (u->tx.count >= depth(*u)) {
        if (!wait_for(u->shifting ? u->shift_done_ns : UINT64_MAX, poll_step(*u)) && !hurry(i)) {
            return; // a stopped transmitter inside a handler: the byte is lost
        }
    }
    put_byte(i, ucData);
}

// A break holds the transmit line low; nothing outside the board listens for one.
void UARTBreakCtl(uint32_t ui32Base, bool bBreakState) {
    int i = 0;
    uart_of(ui32Base, &i);
}

// Busy while the FIFO or the shift register holds bits.
bool UARTBusy(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    return u && (u->shifting || u->tx.count > 0);
}

void UARTIntEnable(uint32_t ui32Base, uint32_t ui32IntFlags) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->im |= ui32IntFlags;
        update_irq(i);
    }
}

void UARTIntDisable(uint32_t ui32Base, uint32_t ui32IntFlags) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->im &= ~ui32IntFlags;
        update_irq(i);
    }
}

uint32_t UARTIntStatus(uint32_t ui32Base, bool bMasked) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return 0;
    }
    return bMasked ? (u->ris & u->im) : u->ris;
}

void UARTIntClear(uint32_t ui32Base, uint32_t ui32IntFlags) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->ris &= ~ui32IntFlags;
        update_irq(i);
    }
}

uint32_t UARTRxErrorGet(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    return u ? (u->rsr & 0xf) : 0;
}

void UARTRxErrorClear(uint32_t ui32Base) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->rsr = 0;
    }
}

} // extern "C"
