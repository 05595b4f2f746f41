// The four SSI (SPI) modules, reached through the TivaWare SSI calls or through their registers,
// with the chips hanging on them.
//
// Chip selects of the serial flash socket on SSI2 (PB4 clock, PB6 receive, PB7 transmit):
//   chip 0: PB5, chip 1: PE4, both active low, driven by the firmware as plain GPIO outputs.
// SSI0 (microSD card, select PA3) and SSI3 (ADC, select PD1) get their chips through ssi_attach.
//
// A master shifts one frame out of its 8-entry transmit FIFO at a time, taking data width x bit time.
// The bit clock is the module clock (the system clock, or the 16 MHz precision oscillator when the
// clock-source register selects it) divided by CPSR x (1 + SCR), taken when the frame starts; a
// divider worked out for another clock shows up as a wrong rate, as on the chip. When a frame
// completes, every chip whose select is asserted sees it and the chips' answer goes into the 8-entry
// receive FIFO (lost, with the overrun flag, when that is full). With no chip selected the receive
// line floats high: 0xFF. A select pad handed to the module itself (its frame-select function) is
// asserted only during frames and, in the SPI modes with phase 0, released between frames, as the
// hardware pulses it. Frames of up to 8 bits carry one byte; wider frames two, high byte first.
//
// A chip that is clocked faster than it allows still answers, but the simulator reports it: a board
// whose firmware does that works on some parts and not on others.
#include "devices.h"
#include "registers.h"
#include "runtime.h"
#include "sim.h"

#include "driverlib/gpio.h"
#include "driverlib/ssi.h"
#include "driverlib/sysctl.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"
#include "inc/hw_ssi.h"

#include <algorithm>
#include <vector>

namespace sim::dev {

namespace {

constexpr int modules = 4;
constexpr uint8_t fifo_depth = 8;
constexpr uint32_t access_cycles = 4;
constexpr uint64_t idle_step_ns = 10 * 1000;

constexpr uint32_t cr0_bits = SSI_CR0_SCR_M | SSI_CR0_SPH | SSI_CR0_SPO | SSI_CR0_FRF_M | SSI_CR0_DSS_M;
constexpr uint32_t cr1_bits = SSI_CR1_EOT | SSI_CR1_SOD | SSI_CR1_MS | SSI_CR1_SSE | SSI_CR1_LBM;
constexpr uint32_t int_bits = SSI_TXFF | SSI_RXFF | SSI_RXTO | SSI_RXOR;
constexpr uint32_t latched_bits = SSI_RXTO | SSI_RXOR; // the FIFO level flags follow the FIFOs

// The identification registers from 0xFD0 on.
constexpr uint8_t id_bytes[12] = {0x00, 0x00, 0x00, 0x00, 0x22, 0x00, 0x18, 0x01, 0x0D, 0xF0, 0x05, 0xB1};

struct Attachment {
    SpiDevice* device;
    int cs_port;
    uint8_t cs_pin;
    bool selected;
    bool limit_reported; // this power-on period
};

struct Ssi {
    // Register images.
    uint32_t cr0, cr1, cpsr, im, cc;
    uint32_t ris; // SSI_RXOR and SSI_RXTO latched; the FIFO levels are computed
    Fifo tx, rx;
    bool shifting;
    uint16_t frame;
    uint64_t done_ns;
    uint32_t frame_rate_hz; // the bit rate of the frame in progress
    std::vector<Attachment> chips;
};

Ssi ssis[modules];
// Ports that carry a chip select (bit per port), so that other pad changes cost nothing here.
uint8_t select_ports = 0;
// The earliest frame end of all modules; recomputed after a change.
uint64_t next_event = UINT64_MAX;
bool next_event_stale = true;
const int vectors[modules] = {INT_SSI0, INT_SSI1, INT_SSI2, INT_SSI3};
const char* const names[modules] = {"SSI0", "SSI1", "SSI2", "SSI3"};
bool flash_attached = false;
uint32_t clock_violations = 0;

int module_index(uint32_t base) {
    switch (base) {
    case SSI0_BASE:
        return 0;
    case SSI1_BASE:
        return 1;
    case SSI2_BASE:
        return 2;
    case SSI3_BASE:
        return 3;
    default:
        return -1;
    }
}

bool enabled(const Ssi& s) {
    return (s.cr1 & SSI_CR1_SSE) != 0;
}

bool master(const Ssi& s) {
    return (s.cr1 & SSI_CR1_MS) == 0;
}

// Data sizes below 4 bits are reserved; such a setting shifts bytes.
uint32_t width(const Ssi& s) {
    uint32_t dss = s.cr0 & SSI_CR0_DSS_M;
    return dss >= 3 ? dss + 1 : 8;
}

// SPI modes 1 and 3 (Freescale format with the second-edge phase) keep the frame select low
// between back-to-back frames.
bool phase1(const Ssi& s) {
    return (s.cr0 & SSI_CR0_SPH) != 0 && (s.cr0 & SSI_CR0_FRF_M) == 0;
}

uint32_t module_clock_hz(const Ssi& s) {
    return (s.cc & 0xF) == SSI_CLOCK_PIOSC ? piosc_hz : system_clock_hz();
}

// Module clocks per bit. A prescaler of 0 (the reset value, which no driver leaves) divides as the
// smallest legal one, 2.
uint32_t clocks_per_bit(const Ssi& s) {
    uint32_t cpsr = s.cpsr >= 2 ? s.cpsr : 2;
    return cpsr * (1 + ((s.cr0 & SSI_CR0_SCR_M) >> SSI_CR0_SCR_S));
}

uint32_t bit_rate_hz(const Ssi& s) {
    return module_clock_hz(s) / clocks_per_bit(s);
}

uint64_t bit_ns(const Ssi& s) {
    uint32_t clock = module_clock_hz(s);
    if (clock == 0) {
        return 1;
    }
    uint64_t ns = static_cast<uint64_t>(clocks_per_bit(s)) * ns_per_s / clock;
    return ns > 0 ? ns : 1;
}

uint32_t raw_status(const Ssi& s) {
    uint32_t st = s.ris;
    if (s.tx.count <= fifo_depth / 2) {
        st |= SSI_TXFF;
    }
    if (s.rx.count >= fifo_depth / 2) {
        st |= SSI_RXFF;
    }
    return st;
}

void update_irq(int i) {
    set_pending(vectors[i], (raw_status(ssis[i]) & ssis[i].im) != 0);
}

bool select_asserted(const Attachment& a, bool in_frame) {
    if (gpio_alternate(a.cs_port, a.cs_pin)) {
        return in_frame;
    }
    return gpio_driven_low(a.cs_port, a.cs_pin);
}

void set_selected(Attachment& a, bool selected) {
    if (a.selected != selected) {
        a.selected = selected;
        a.device->select(selected);
    }
}

void start_frame(Ssi& s, uint64_t at_ns) {
    if (s.shifting || !enabled(s) || !master(s) || s.tx.count == 0) {
        return;
    }
    s.frame = s.tx.pop();
    s.shifting = true;
    next_event_stale = true;
    s.frame_rate_hz = bit_rate_hz(s);
    s.done_ns = at_ns + width(s) * bit_ns(s);
}

// A selected chip clocked beyond its limit: counted at every frame, reported once a period.
void check_clock(int i, Attachment& a) {
    uint32_t limit = a.device->max_clock_hz();
    uint32_t rate = ssis[i].frame_rate_hz;
    if (limit == 0 || rate <= limit) {
        return;
    }
    ++clock_violations;
    if (a.limit_reported) {
        return;
    }
    a.limit_reported = true;
    message("SSI%d bit clock %u Hz exceeds the %s's limit of %u Hz", i, rate, a.device->name(), limit);
}

uint8_t exchange_byte(Ssi& s, uint8_t out) {
    uint8_t in = 0xFF;
    for (Attachment& a : s.chips) {
        if (a.selected) {
            in &= a.device->exchange(out);
        }
    }
    return in;
}

void finish_frame(int i) {
    Ssi& s = ssis[i];
    s.shifting = false;
    next_event_stale = true;
    for (Attachment& a : s.chips) {
        set_selected(a, select_asserted(a, true));
        if (a.selected) {
            check_clock(i, a);
        }
    }
    uint32_t bits = width(s);
    uint16_t mask = static_cast<uint16_t>((1u << bits) - 1);
    uint16_t out = s.frame & mask;
    uint16_t in;
    if (bits <= 8) {
        in = exchange_byte(s, static_cast<uint8_t>(out));
    } else {
        uint8_t hi = exchange_byte(s, static_cast<uint8_t>(out >> 8));
        uint8_t lo = exchange_byte(s, static_cast<uint8_t>(out));
        in = static_cast<uint16_t>((hi << 8) | lo);
    }
    if (!s.rx.push(in & mask, fifo_depth)) {
        s.ris |= SSI_RXOR;
    }
    // The module's own frame select goes high between frames (phase 0) or when the FIFO runs dry.
    bool more = s.tx.count > 0;
    for (Attachment& a : s.chips) {
        if (gpio_alternate(a.cs_port, a.cs_pin) && (!phase1(s) || !more)) {
            set_selected(a, false);
        }
    }
    start_frame(s, s.done_ns);
    update_irq(i);
}

void service_module(int i, uint64_t now) {
    while (ssis[i].shifting && ssis[i].done_ns <= now) {
        finish_frame(i);
    }
}

// The API door without its access time (the caller spends it).
Ssi* module_at(uint32_t base, int* index) {
    int i = module_index(base);
    if (i < 0) {
        return nullptr;
    }
    require_clock(SYSCTL_PERIPH_SSI0 + static_cast<uint32_t>(i), names[i], base);
    *index = i;
    return &ssis[i];
}

// The API door: an unclocked module is a bus fault, as its registers would be.
Ssi* module_of(uint32_t base, int* index) {
    access(access_cycles);
    return module_at(base, index);
}

// Inside an interrupt handler virtual time stands still, so a blocking call cannot wait for the
// frame in progress: it completes at once instead. False when no frame is in progress.
bool hurry(int i) {
    Ssi& s = ssis[i];
    if (!s.shifting) {
        return false;
    }
    s.done_ns = now_ns();
    next_event_stale = true;
    finish_frame(i);
    return true;
}

// False when the transmit FIFO is full: the data is lost, as a write to the full FIFO is.
bool push_frame(int i, uint32_t data) {
    Ssi& s = ssis[i];
    if (!s.tx.push(static_cast<uint16_t>(data), fifo_depth)) {
        return false;
    }
    start_frame(s, now_ns());
    update_irq(i);
    return true;
}

uint32_t pop_frame(int i) {
    uint32_t v = ssis[i].rx.pop();
    update_irq(i);
    return v;
}

void write_cr1(int i, uint32_t value) {
    ssis[i].cr1 = value & cr1_bits;
    start_frame(ssis[i], now_ns());
    update_irq(i);
}

uint32_t status(const Ssi& s) {
    uint32_t sr = 0;
    if (s.tx.count == 0) {
        sr |= SSI_SR_TFE;
    }
    if (s.tx.count < fifo_depth) {
        sr |= SSI_SR_TNF;
    }
    if (s.rx.count > 0) {
        sr |= SSI_SR_RNE;
    }
    if (s.rx.count >= fifo_depth) {
        sr |= SSI_SR_RFF;
    }
    if (s.shifting || s.tx.count > 0) {
        sr |= SSI_SR_BSY;
    }
    return sr;
}

void ensure_flash() {
    if (flash_attached) {
        return;
    }
    flash_attached = true;
    ssi_attach(2, &flash_device(0), GPIO_PORTB_BASE, GPIO_PIN_5);
    ssi_attach(2, &flash_device(1), GPIO_PORTE_BASE, GPIO_PIN_4);
}

} // namespace

void ssi_attach(int ssi, SpiDevice* device, uint32_t cs_port_base, uint8_t cs_pin) {
    int port = gpio_port_index(cs_port_base);
    if (ssi < 0 || ssi >= modules || port < 0 || !device) {
        return;
    }
    ssis[ssi].chips.push_back(Attachment{device, port, cs_pin, false, false});
    select_ports |= static_cast<uint8_t>(1u << port);
}

void ssi_pads_changed(int port) {
    if (!(select_ports & (1u << port))) {
        return;
    }
    for (Ssi& s : ssis) {
        for (Attachment& a : s.chips) {
            if (a.cs_port == port) {
                set_selected(a, select_asserted(a, false));
            }
        }
    }
}

void ssi_reset() {
    ensure_flash();
    clock_violations = 0;
    for (int i = 0; i < modules; ++i) {
        Ssi& s = ssis[i];
        std::vector<Attachment> chips = std::move(s.chips);
        s = Ssi{};
        s.chips = std::move(chips);
        for (Attachment& a : s.chips) {
            a.selected = false;
            a.limit_reported = false;
            a.device->power_on();
        }
        set_pending(vectors[i], false);
    }
    next_event_stale = true;
}

uint64_t ssi_next_event_ns() {
    if (!next_event_stale) {
        return next_event;
    }
    uint64_t next = UINT64_MAX;
    for (const Ssi& s : ssis) {
        if (s.shifting && s.done_ns < next) {
            next = s.done_ns;
        }
    }
    next_event = next;
    next_event_stale = false;
    return next;
}

void ssi_service(uint64_t now) {
    for (int i = 0; i < modules; ++i) {
        service_module(i, now);
    }
}

uint32_t ssi_bit_rate_hz(int module) {
    if (module < 0 || module >= modules) {
        return 0;
    }
    return bit_rate_hz(ssis[module]);
}

uint32_t ssi_clock_violations() {
    return clock_violations;
}

uint32_t ssi_reg_read(int module, uint32_t offset) {
    if (module < 0 || module >= modules) {
        return 0;
    }
    service_module(module, now_ns());
    const Ssi& s = ssis[module];
    switch (offset) {
    case SSI_O_CR0:
        return s.cr0;
    case SSI_O_CR1:
        return s.cr1;
    case SSI_O_DR:
        return pop_frame(module);
    case SSI_O_SR:
        return status(s);
    case SSI_O_CPSR:
        return s.cpsr;
    case SSI_O_IM:
        return s.im;
    case SSI_O_RIS:
        return raw_status(s);
    case SSI_O_MIS:
        return raw_status(s) & s.im;
    case SSI_O_CC:
        return s.cc;
    default:
        return peripheral_id_word(id_bytes, offset);
    }
}

void ssi_reg_write(int module, uint32_t offset, uint32_t value) {
    if (module < 0 || module >= modules) {
        return;
    }
    service_module(module, now_ns());
    Ssi& s = ssis[module];
    switch (offset) {
    case SSI_O_CR0:
        s.cr0 = value & cr0_bits;
        return;
    case SSI_O_CR1:
        write_cr1(module, value);
        return;
    case SSI_O_DR:
        push_frame(module, value);
        return;
    case SSI_O_CPSR:
        s.cpsr = value & 0xFE; // the prescaler is even: bit 0 reads as 0
        return;
    case SSI_O_IM:
        s.im = value & int_bits;
        update_irq(module);
        return;
    case SSI_O_ICR:
        s.ris &= ~(value & latched_bits);
        update_irq(module);
        return;
    case SSI_O_CC:
        s.cc = value & 0xF;
        return;
    default:
        return; // read-only or not modelled
    }
}

} // namespace sim::dev

using namespace sim::dev;

extern "C" {

// Bit rate = clock / (CPSR x (1 + SCR)), the prescaler even, found the way the chip's driver finds
// it from the clock the caller names. Like that driver it rewrites CR1, which leaves the module
// disabled until SSIEnable.
void SSIConfigSetExpClk(uint32_t ui32Base, uint32_t ui32SSIClk, uint32_t ui32Protocol, uint32_t ui32Mode,
                        uint32_t ui32BitRate, uint32_t ui32DataWidth) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    if (!s || ui32BitRate == 0 || ui32SSIClk == 0) {
        return;
    }
    uint32_t cr1 = ui32Mode == SSI_MODE_SLAVE_OD ? SSI_CR1_SOD : 0;
    cr1 |= ui32Mode == SSI_MODE_MASTER ? 0 : SSI_CR1_MS;
    write_cr1(i, cr1);

    // The smallest divisor CPSR x (1 + SCR) that is at least clock / rate: the bit clock is never
    // faster than asked (an SD card in identification allows 400 kHz at most).
    uint32_t wanted = ui32SSIClk / ui32BitRate + (ui32SSIClk % ui32BitRate != 0 ? 1 : 0);
    uint32_t prescale = 254;
    uint32_t scr = 255;
    for (uint32_t p = 2; p <= 254; p += 2) {
        uint32_t steps = std::max<uint32_t>(1, (wanted + p - 1) / p);
        if (steps <= 256 && p * steps < prescale * (scr + 1)) {
            prescale = p;
            scr = steps - 1;
        }
    }
    s->cpsr = prescale;

    // SSI_FRF_MOTO_MODE_n carries SPO in bit 0 and SPH in bit 1.
    uint32_t polarity_phase = (ui32Protocol & 0x3) << 6;
    uint32_t format = ui32Protocol & SSI_CR0_FRF_M;
    uint32_t bits = (ui32DataWidth >= 4 && ui32DataWidth <= 16) ? ui32DataWidth : 8;
    s->cr0 = ((scr & 0xFF) << SSI_CR0_SCR_S) | polarity_phase | format | (bits - 1);
}

void SSIEnable(uint32_t ui32Base) {
    int i = 0;
    if (Ssi* s = module_of(ui32Base, &i)) {
        write_cr1(i, s->cr1 | SSI_CR1_SSE);
    }
}

void SSIDisable(uint32_t ui32Base) {
    int i = 0;
    if (Ssi* s = module_of(ui32Base, &i)) {
        write_cr1(i, s->cr1 & ~SSI_CR1_SSE);
    }
}

void SSIDataPut(uint32_t ui32Base, uint32_t ui32Data) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    if (!s) {
        return;
    }
    while (s->tx.count >= fifo_depth) {
        if (!wait_for(s->shifting ? s->done_ns : UINT64_MAX, idle_step_ns) && !hurry(i)) {
            return; // a stopped module inside a handler: the frame is lost
        }
    }
    push_frame(i, ui32Data);
}

int32_t SSIDataPutNonBlocking(uint32_t ui32Base, uint32_t ui32Data) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    return s && push_frame(i, ui32Data) ? 1 : 0;
}

void SSIDataGet(uint32_t ui32Base, uint32_t* pui32Data) {
    int i = 0;
    Ssi* s = module_at(ui32Base, &i);
    if (!s) {
        return;
    }
    // The read's own access time and the wait for the frame still shifting overlap: one step of
    // virtual time covers both (a byte of the card costs two steps, not three).
    uint64_t ready = sim::now_ns() + access_cycles * sim::ns_per_cycle;
    if (s->rx.count == 0 && s->shifting && s->done_ns > ready) {
        ready = s->done_ns;
    }
    wait_for(ready, idle_step_ns);
    while (s->rx.count == 0) {
        if (!wait_for(s->shifting ? s->done_ns : UINT64_MAX, idle_step_ns) && !hurry(i)) {
            *pui32Data = 0xFF;
            return;
        }
    }
    *pui32Data = pop_frame(i);
}

int32_t SSIDataGetNonBlocking(uint32_t ui32Base, uint32_t* pui32Data) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    if (!s || s->rx.count == 0) {
        return 0;
    }
    *pui32Data = pop_frame(i);
    return 1;
}

// A polling loop would only spin until the frame on the wire ends: time runs on to its end at once.
bool SSIBusy(uint32_t ui32Base) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    if (!s) {
        return false;
    }
    if (s->shifting && s->done_ns > sim::now_ns()) {
        wait_for(s->done_ns, idle_step_ns);
    }
    return (status(*s) & SSI_SR_BSY) != 0;
}

void SSIClockSourceSet(uint32_t ui32Base, uint32_t ui32Source) {
    int i = 0;
    if (Ssi* s = module_of(ui32Base, &i)) {
        s->cc = ui32Source & 0xF;
    }
}

uint32_t SSIClockSourceGet(uint32_t ui32Base) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    return s ? s->cc : 0;
}

void SSIIntEnable(uint32_t ui32Base, uint32_t ui32IntFlags) {
    int i = 0;
    if (Ssi* s = module_of(ui32Base, &i)) {
        s->im |= ui32IntFlags & int_bits;
        update_irq(i);
    }
}

void SSIIntDisable(uint32_t ui32Base, uint32_t ui32IntFlags) {
    int i = 0;
    if (Ssi* s = module_of(ui32Base, &i)) {
        s->im &= ~ui32IntFlags;
        update_irq(i);
    }
}

uint32_t SSIIntStatus(uint32_t ui32Base, bool bMasked) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    if (!s) {
        return 0;
    }
    uint32_t st = raw_status(*s);
    return bMasked ? (st & s->im) : st;
}

// Only the overrun (and time-out) flags are latched; the FIFO level flags follow the FIFOs.
void SSIIntClear(uint32_t ui32Base, uint32_t ui32IntFlags) {
    int i = 0;
    if (Ssi* s = module_of(ui32Base, &i)) {
        s->ris &= ~(ui32IntFlags & latched_bits);
        update_irq(i);
    }
}

} // extern "C"
