// UART0 to UART7, reached through the TivaWare UART calls or through their registers: baud rate
// divisors, 16-deep transmit and receive FIFOs, the transmit shift register, and the receive,
// receive time-out and transmit interrupts.
//
// Both doors work on the same register images. The baud generator divides the module clock (the
// system clock, or the 16 MHz precision oscillator when the clock-source register selects it) by the
// divisor that the last line-control write latched from IBRD and FBRD: 16 clocks per bit, 8 in
// high-speed mode. A divisor worked out for another clock than the one selected therefore shows up
// as a wrong rate, as on the chip. The bit time is taken from the clock when a frame starts.
//
// Transmission: the shifter takes the next byte from the FIFO when the previous one has left and
// sends it in one frame (start bit, data bits, parity, stop bits); when the frame is done the byte
// leaves the board through the transmit sink. Reception: sim::uart_receive puts a complete byte into
// the receive FIFO at the current virtual time.
//
// Interrupts, as on the chip:
//   RX  set when the receive FIFO reaches its trigger level; cleared by reading below it or by
//       clearing it.
//   RT  set when the receive FIFO holds data and no byte has arrived for 32 bit periods; cleared by
//       emptying the FIFO or by clearing it.
//   TX  (FIFO mode) set when the transmit FIFO drains through its trigger level - a transition, not
//       a level; cleared explicitly or by filling the FIFO above the level. (End-of-transmission
//       mode) set when the last bit has left.
//   OE  a byte arrived with the receive FIFO full and was lost.
// The UART's vector is pending while any enabled interrupt is set.
#include "devices.h"
#include "registers.h"
#include "sim.h"

#include "driverlib/sysctl.h"
#include "driverlib/uart.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"
#include "inc/hw_uart.h"

namespace sim::dev {

namespace {

constexpr int ports = 8;
constexpr uint8_t fifo_depth = 16;
constexpr uint32_t access_cycles = 4;
constexpr uint64_t unconfigured_step_ns = 100 * 1000;

// Receive status (RSR, UARTRxErrorGet).
constexpr uint32_t rsr_oe = 0x8;

// Writable bits of the registers that keep what is written.
constexpr uint32_t ctl_bits = UART_CTL_CTSEN | UART_CTL_RTSEN | UART_CTL_RTS | UART_CTL_RXE | UART_CTL_TXE |
                              UART_CTL_LBE | UART_CTL_HSE | UART_CTL_EOT | UART_CTL_SMART | UART_CTL_SIRLP |
                              UART_CTL_SIREN | UART_CTL_UARTEN;
constexpr uint32_t int_bits = UART_INT_9BIT | UART_INT_OE | UART_INT_BE | UART_INT_PE | UART_INT_FE |
                              UART_INT_RT | UART_INT_TX | UART_INT_RX | UART_INT_CTS;
constexpr uint32_t frame_format_bits =
    UART_LCRH_SPS | UART_LCRH_WLEN_M | UART_LCRH_STP2 | UART_LCRH_EPS | UART_LCRH_PEN;

// Peripheral properties (smart card and 9-bit modes present) and the identification registers.
constexpr uint32_t o_pp = 0xFC0;
constexpr uint8_t id_bytes[12] = {0x00, 0x00, 0x00, 0x00, 0x60, 0x00, 0x18, 0x01, 0x0D, 0xF0, 0x05, 0xB1};

struct Uart {
    // Register images.
    uint32_t ctl;  // UARTEN, TXE, RXE, HSE, EOT act; the other bits are kept as written
    uint32_t lcrh; // FEN, frame format; BRK is kept (nothing outside listens for a break)
    uint32_t ibrd, fbrd;
    uint32_t ifls, im, ris, rsr, cc, ilpr;
    uint32_t divisor;  // 64ths: IBRD * 64 + FBRD as latched by the last LCRH write
    bool overrun_live; // DR's OE: a byte was lost and none has entered the FIFO since
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
const char* const names[ports] = {"UART0", "UART1", "UART2", "UART3", "UART4", "UART5", "UART6", "UART7"};

int port_index(uint32_t base) {
    for (int i = 0; i < ports; ++i) {
        if (bases[i] == base) {
            return i;
        }
    }
    return -1;
}

bool ctl_on(const Uart& u, uint32_t bit) {
    return (u.ctl & bit) != 0;
}

bool fifo_on(const Uart& u) {
    return (u.lcrh & UART_LCRH_FEN) != 0;
}

uint8_t depth(const Uart& u) {
    return fifo_on(u) ? fifo_depth : 1;
}

// Transmit trigger: the interrupt comes when the FIFO holds this many bytes or fewer.
uint8_t tx_level(const Uart& u) {
    if (!fifo_on(u)) {
        return 0;
    }
    static const uint8_t levels[] = {2, 4, 8, 12, 14};
    uint32_t sel = u.ifls & 0x7;
    return sel < 5 ? levels[sel] : 8;
}

// Receive trigger: the interrupt comes when the FIFO holds this many bytes or more.
uint8_t rx_level(const Uart& u) {
    if (!fifo_on(u)) {
        return 1;
    }
    static const uint8_t levels[] = {2, 4, 8, 12, 14};
    uint32_t sel = (u.ifls >> 3) & 0x7;
    return sel < 5 ? levels[sel] : 8;
}

uint32_t frame_bits(uint32_t lcrh) {
    uint32_t data_bits = 5 + ((lcrh & UART_LCRH_WLEN_M) >> 5);
    uint32_t parity = (lcrh & UART_LCRH_PEN) ? 1 : 0;
    uint32_t stop = (lcrh & UART_LCRH_STP2) ? 2 : 1;
    return 1 + data_bits + parity + stop;
}

uint32_t module_clock_hz(const Uart& u) {
    return (u.cc & 0xF) == UART_CLOCK_PIOSC ? piosc_hz : system_clock_hz();
}

// Module clocks per bit, in 64ths; 0 while the divisor cannot run the baud generator (an integer
// part of 0).
uint64_t clocks_per_bit_x64(const Uart& u) {
    if (u.divisor < 64) {
        return 0;
    }
    return static_cast<uint64_t>(ctl_on(u, UART_CTL_HSE) ? 8 : 16) * u.divisor;
}

// The duration of `bits` bit periods at the current clock; 0 when the baud generator does not run.
uint64_t bits_ns(const Uart& u, uint32_t bits) {
    uint64_t per_bit = clocks_per_bit_x64(u);
    uint32_t clock = module_clock_hz(u);
    if (per_bit == 0 || clock == 0) {
        return 0;
    }
    return per_bit * bits * ns_per_s / (64ull * clock);
}

uint64_t frame_ns(const Uart& u) {
    return bits_ns(u, frame_bits(u.lcrh));
}

uint32_t actual_baud(const Uart& u) {
    uint64_t per_bit = clocks_per_bit_x64(u);
    if (per_bit == 0) {
        return 0;
    }
    return static_cast<uint32_t>((64ull * module_clock_hz(u) + per_bit / 2) / per_bit);
}

void update_irq(int i) {
    set_pending(vectors[i], (us[i].ris & us[i].im) != 0);
}

bool transmitter_on(const Uart& u) {
    return ctl_on(u, UART_CTL_UARTEN) && ctl_on(u, UART_CTL_TXE) && frame_ns(u) > 0;
}

// Moves the next byte into the shift register if it is free; the frame starts at `at_ns`.
void start_shifting(Uart& u, uint64_t at_ns) {
    if (u.shifting || u.tx.count == 0 || !transmitter_on(u)) {
        return;
    }
    uint8_t before = u.tx.count;
    next_event_stale = true;
    u.shift_byte = static_cast<uint8_t>(u.tx.pop());
    u.shifting = true;
    u.shift_done_ns = at_ns + frame_ns(u);
    if (!ctl_on(u, UART_CTL_EOT) && before > tx_level(u) && u.tx.count <= tx_level(u)) {
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
    if (ctl_on(u, UART_CTL_EOT) && !u.shifting && u.tx.count == 0) {
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

// Brings one port's shifter and receive time-out up to `now`.
void service_port(int i, uint64_t now) {
    while (us[i].shifting && us[i].shift_done_ns <= now) {
        finish_shifting(i);
    }
    if (us[i].rt_deadline_ns <= now) {
        receive_timeout(i);
    }
}

// The API door: an unclocked module is a bus fault, as its registers would be.
Uart* uart_of(uint32_t base, int* index) {
    access(access_cycles);
    int i = port_index(base);
    if (i < 0) {
        return nullptr;
    }
    require_clock(SYSCTL_PERIPH_UART0 + static_cast<uint32_t>(i), names[i], base);
    *index = i;
    return &us[i];
}

void put_byte(int i, uint8_t byte) {
    Uart& u = us[i];
    u.tx.push(byte, depth(u));
    if (ctl_on(u, UART_CTL_EOT) || u.tx.count > tx_level(u)) {
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
    uint64_t frame = frame_ns(u);
    return frame > 0 ? frame / 4 + 1 : unconfigured_step_ns;
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

// The line-control write is what makes new divisors take effect.
void write_lcrh(Uart& u, uint32_t value) {
    u.lcrh = value & 0xFF;
    u.divisor = u.ibrd * 64 + u.fbrd;
}

// A frame already in the shifter completes even when the transmitter is switched off.
void write_ctl(int i, uint32_t value) {
    Uart& u = us[i];
    u.ctl = value & ctl_bits;
    start_shifting(u, now_ns());
    update_irq(i);
}

uint32_t flags(const Uart& u) {
    uint32_t fr = 0;
    if (u.tx.count == 0) {
        fr |= UART_FR_TXFE;
    }
    if (u.rx.count >= depth(u)) {
        fr |= UART_FR_RXFF;
    }
    if (u.tx.count >= depth(u)) {
        fr |= UART_FR_TXFF;
    }
    if (u.rx.count == 0) {
        fr |= UART_FR_RXFE;
    }
    if (u.shifting || u.tx.count > 0) {
        fr |= UART_FR_BUSY;
    }
    return fr;
}

// A read of the empty FIFO returns nothing and changes nothing.
uint32_t read_dr(int i) {
    Uart& u = us[i];
    if (u.rx.count == 0) {
        return 0;
    }
    uint32_t error = u.overrun_live ? UART_DR_OE : 0;
    return static_cast<uint32_t>(take_byte(i)) | error;
}

// A write to a full FIFO is lost.
void write_dr(int i, uint32_t value) {
    if (us[i].tx.count >= depth(us[i])) {
        return;
    }
    put_byte(i, static_cast<uint8_t>(value));
}

uint32_t id_register(uint32_t offset) {
    if (offset == o_pp) {
        return 0x3;
    }
    return peripheral_id_word(id_bytes, offset);
}

} // namespace

void uart_reset() {
    for (int i = 0; i < ports; ++i) {
        Uart& u = us[i];
        u = Uart{};
        u.ctl = UART_CTL_RXE | UART_CTL_TXE;
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
        service_port(i, now);
    }
}

uint32_t uart_actual_baud(int port) {
    if (port < 0 || port >= ports) {
        return 0;
    }
    return actual_baud(us[port]);
}

uint32_t uart_reg_read(int port, uint32_t offset) {
    if (port < 0 || port >= ports) {
        return 0;
    }
    service_port(port, now_ns());
    const Uart& u = us[port];
    switch (offset) {
    case UART_O_DR:
        return read_dr(port);
    case UART_O_RSR:
        return u.rsr & 0xF;
    case UART_O_FR:
        return flags(u);
    case UART_O_ILPR:
        return u.ilpr;
    case UART_O_IBRD:
        return u.ibrd;
    case UART_O_FBRD:
        return u.fbrd;
    case UART_O_LCRH:
        return u.lcrh;
    case UART_O_CTL:
        return u.ctl;
    case UART_O_IFLS:
        return u.ifls;
    case UART_O_IM:
        return u.im;
    case UART_O_RIS:
        return u.ris;
    case UART_O_MIS:
        return u.ris & u.im;
    case UART_O_CC:
        return u.cc;
    default:
        return id_register(offset);
    }
}

void uart_reg_write(int port, uint32_t offset, uint32_t value) {
    if (port < 0 || port >= ports) {
        return;
    }
    service_port(port, now_ns());
    Uart& u = us[port];
    switch (offset) {
    case UART_O_DR:
        write_dr(port, value);
        return;
    case UART_O_ECR:
        u.rsr = 0;
        return;
    case UART_O_ILPR:
        u.ilpr = value & 0xFF;
        return;
    case UART_O_IBRD:
        u.ibrd = value & 0xFFFF;
        return;
    case UART_O_FBRD:
        u.fbrd = value & 0x3F;
        return;
    case UART_O_LCRH:
        write_lcrh(u, value);
        return;
    case UART_O_CTL:
        write_ctl(port, value);
        return;
    case UART_O_IFLS:
        u.ifls = value & (UART_IFLS_TX_M | UART_IFLS_RX_M);
        return;
    case UART_O_IM:
        u.im = value & int_bits;
        update_irq(port);
        return;
    case UART_O_ICR:
        u.ris &= ~value;
        update_irq(port);
        return;
    case UART_O_CC:
        u.cc = value & 0xF;
        return;
    default:
        return; // read-only or not modelled
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
    if (!ctl_on(u, UART_CTL_UARTEN) || !ctl_on(u, UART_CTL_RXE)) {
        return; // a receiver that is off does not see the line
    }
    if (!u.rx.push(byte, depth(u))) {
        u.rsr |= rsr_oe;
        u.overrun_live = true;
        u.ris |= UART_INT_OE;
        update_irq(port);
        return;
    }
    u.overrun_live = false;
    if (u.rx.count >= rx_level(u)) {
        u.ris |= UART_INT_RX;
    }
    uint64_t bit = bits_ns(u, 1);
    u.rt_deadline_ns = bit > 0 ? now_ns() + 32 * bit : UINT64_MAX;
    next_event_stale = true;
    update_irq(port);
}

uint32_t uart_baud(int port) {
    if (port < 0 || port >= dev::ports) {
        return 0;
    }
    const dev::Uart& u = dev::us[port];
    return (dev::ctl_on(u, UART_CTL_UARTEN) && dev::frame_ns(u) > 0) ? dev::actual_baud(u) : 0;
}

} // namespace sim

using namespace sim::dev;

extern "C" {

// The divisor in 64ths, rounded: (8 * clock / baud + 1) / 2, worked out from the clock the caller
// names; above clock / 16 high-speed mode halves the clocks per bit. The divisors take effect with
// the line-control write, as the chip wants.
void UARTConfigSetExpClk(uint32_t ui32Base, uint32_t ui32UARTClk, uint32_t ui32Baud, uint32_t ui32Config) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return;
    }
    UARTDisable(ui32Base);
    uint32_t baud = ui32Baud;
    if (static_cast<uint64_t>(baud) * 16 > ui32UARTClk) {
        u->ctl |= UART_CTL_HSE;
        baud /= 2;
    } else {
        u->ctl &= ~UART_CTL_HSE;
    }
    uint32_t div =
        baud ? static_cast<uint32_t>(((static_cast<uint64_t>(ui32UARTClk) * 8 / baud) + 1) / 2) : 0;
    u->ibrd = (div / 64) & 0xFFFF;
    u->fbrd = div % 64;
    write_lcrh(*u, ui32Config & frame_format_bits);
    UARTEnable(ui32Base);
}

// The rate the divisors give from the clock the caller names.
void UARTConfigGetExpClk(uint32_t ui32Base, uint32_t ui32UARTClk, uint32_t* pui32Baud,
                         uint32_t* pui32Config) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return;
    }
    if (pui32Baud) {
        uint64_t div = static_cast<uint64_t>(u->ibrd) * 64 + u->fbrd;
        uint64_t per_bit_x64 = (ctl_on(*u, UART_CTL_HSE) ? 8 : 16) * div;
        *pui32Baud = per_bit_x64 ? static_cast<uint32_t>(64ull * ui32UARTClk / per_bit_x64) : 0;
    }
    if (pui32Config) {
        *pui32Config = u->lcrh & frame_format_bits;
    }
}

void UARTEnable(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return;
    }
    u->lcrh |= UART_LCRH_FEN;
    write_ctl(i, u->ctl | UART_CTL_UARTEN | UART_CTL_TXE | UART_CTL_RXE);
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
    u->lcrh &= ~UART_LCRH_FEN;
    write_ctl(i, u->ctl & ~(UART_CTL_UARTEN | UART_CTL_TXE | UART_CTL_RXE));
}

void UARTFIFOEnable(uint32_t ui32Base) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->lcrh |= UART_LCRH_FEN;
    }
}

void UARTFIFODisable(uint32_t ui32Base) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->lcrh &= ~UART_LCRH_FEN;
    }
}

void UARTFIFOLevelSet(uint32_t ui32Base, uint32_t ui32TxLevel, uint32_t ui32RxLevel) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->ifls = (ui32TxLevel & UART_IFLS_TX_M) | (ui32RxLevel & UART_IFLS_RX_M);
    }
}

void UARTFIFOLevelGet(uint32_t ui32Base, uint32_t* pui32TxLevel, uint32_t* pui32RxLevel) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    if (!u) {
        return;
    }
    if (pui32TxLevel) {
        *pui32TxLevel = u->ifls & UART_IFLS_TX_M;
    }
    if (pui32RxLevel) {
        *pui32RxLevel = u->ifls & UART_IFLS_RX_M;
    }
}

void UARTTxIntModeSet(uint32_t ui32Base, uint32_t ui32Mode) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->ctl = (u->ctl & ~UART_CTL_EOT) | (ui32Mode & UART_CTL_EOT);
    }
}

uint32_t UARTTxIntModeGet(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    return u ? (u->ctl & UART_CTL_EOT) : UART_TXINT_MODE_FIFO;
}

void UARTClockSourceSet(uint32_t ui32Base, uint32_t ui32Source) {
    int i = 0;
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->cc = ui32Source & 0xF;
    }
}

uint32_t UARTClockSourceGet(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    return u ? u->cc : UART_CLOCK_SYSTEM;
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
    if (Uart* u = uart_of(ui32Base, &i)) {
        u->lcrh = bBreakState ? (u->lcrh | UART_LCRH_BRK) : (u->lcrh & ~UART_LCRH_BRK);
    }
}

// Busy while the FIFO or the shift register holds bits.
bool UARTBusy(uint32_t ui32Base) {
    int i = 0;
    Uart* u = uart_of(ui32Base, &i);
    return u && (flags(*u) & UART_FR_BUSY) != 0;
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
