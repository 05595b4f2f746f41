// The four SSI (SPI) modules behind the TivaWare SSI calls, with the chips hanging on them.
//
// Chip selects of the serial flash socket on SSI2 (PB4 clock, PB6 receive, PB7 transmit):
//   chip 0: PB5, chip 1: PE4, both active low, driven by the firmware as plain GPIO outputs.
// SSI0 (microSD card, select PA3) and SSI3 (ADC, select PD1) get their chips through ssi_attach.
//
// A master shifts one frame out of its 8-entry transmit FIFO at a time, taking data width x bit time
// (the bit rate follows from the clock and the prescaler and serial clock rate that
// SSIConfigSetExpClk works out, as on the chip). When a frame completes, every chip whose select is
// asserted sees it and the chips' answer goes into the 8-entry receive FIFO (lost, with the overrun
// flag, when that is full). With no chip selected the receive line floats high: 0xFF. A select pad
// handed to the module itself (its frame-select function) is asserted only during frames and, in the
// SPI modes with phase 0, released between frames, as the hardware pulses it.
// Frames of up to 8 bits carry one byte; wider frames two, high byte first.
#include "devices.h"
#include "sim.h"

#include "driverlib/gpio.h"
#include "driverlib/ssi.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"

#include <vector>

namespace sim::dev {

namespace {

constexpr int modules = 4;
constexpr uint8_t fifo_depth = 8;
constexpr uint32_t access_cycles = 4;
constexpr uint64_t idle_step_ns = 10 * 1000;

struct Attachment {
    SpiDevice* device;
    int cs_port;
    uint8_t cs_pin;
    bool selected;
};

struct Ssi {
    bool enabled;
    bool master;
    bool phase1; // SPI modes 1 and 3
    uint32_t width;
    uint64_t bit_ns;
    uint32_t clock_source;
    Fifo tx, rx;
    bool shifting;
    uint16_t frame;
    uint64_t done_ns;
    uint32_t ris; // SSI_RXOR latched; the FIFO levels are computed
    uint32_t im;
    std::vector<Attachment> chips;
};

Ssi ssis[modules];
// Ports that carry a chip select (bit per port), so that other pad changes cost nothing here.
uint8_t select_ports = 0;
// The earliest frame end of all modules; recomputed after a change.
uint64_t next_event = UINT64_MAX;
bool next_event_stale = true;
const int vectors[modules] = {INT_SSI0, INT_SSI1, INT_SSI2, INT_SSI3};
bool flash_attached = false;

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
    if (s.shifting || !s.enabled || !s.master || s.tx.count == 0) {
        return;
    }
    s.frame = s.tx.pop();
    s.shifting = true;
    next_event_stale = true;
    s.done_ns = at_ns + s.width * s.bit_ns;
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
    }
    uint16_t mask = static_cast<uint16_t>((1u << s.width) - 1);
    uint16_t out = s.frame & mask;
    uint16_t in;
    if (s.width <= 8) {
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
        if (gpio_alternate(a.cs_port, a.cs_pin) && (!s.phase1 || !more)) {
            set_selected(a, false);
        }
    }
    start_frame(s, s.done_ns);
    update_irq(i);
}

Ssi* module_of(uint32_t base, int* index) {
    access(access_cycles);
    int i = module_index(base);
    if (i < 0) {
        return nullptr;
    }
    *index = i;
    return &ssis[i];
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
    ssis[ssi].chips.push_back(Attachment{device, port, cs_pin, false});
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
    for (int i = 0; i < modules; ++i) {
        Ssi& s = ssis[i];
        std::vector<Attachment> chips = std::move(s.chips);
        s = Ssi{};
        s.chips = std::move(chips);
        s.master = true;
        s.width = 8;
        s.bit_ns = 1000;
        for (Attachment& a : s.chips) {
            a.selected = false;
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
        while (ssis[i].shifting && ssis[i].done_ns <= now) {
            finish_frame(i);
        }
    }
}

} // namespace sim::dev

using namespace sim::dev;

extern "C" {

// Bit rate = clock / (prescaler x (1 + serial clock rate)), the prescaler even, found the way the
// chip's driver does it.
void SSIConfigSetExpClk(uint32_t ui32Base, uint32_t ui32SSIClk, uint32_t ui32Protocol, uint32_t ui32Mode,
                        uint32_t ui32BitRate, uint32_t ui32DataWidth) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    if (!s || ui32BitRate == 0 || ui32SSIClk == 0) {
        return;
    }
    uint32_t max_ratio = ui32SSIClk / ui32BitRate;
    uint32_t prediv = 0;
    uint32_t scr = 0;
    do {
        prediv += 2;
        scr = max_ratio / prediv;
        scr = scr > 0 ? scr - 1 : 0;
    } while (scr > 255);
    s->bit_ns = static_cast<uint64_t>(prediv) * (scr + 1) * sim::ns_per_s / ui32SSIClk;
    if (s->bit_ns == 0) {
        s->bit_ns = 1;
    }
    s->master = ui32Mode == SSI_MODE_MASTER;
    s->phase1 = (ui32Protocol & 0x2) != 0 && (ui32Protocol & (SSI_FRF_TI | SSI_FRF_NMW)) == 0;
    s->width = (ui32DataWidth >= 4 && ui32DataWidth <= 16) ? ui32DataWidth : 8;
}

void SSIEnable(uint32_t ui32Base) {
    int i = 0;
    if (Ssi* s = module_of(ui32Base, &i)) {
        s->enabled = true;
        start_frame(*s, sim::now_ns());
    }
}

void SSIDisable(uint32_t ui32Base) {
    int i = 0;
    if (Ssi* s = module_of(ui32Base, &i)) {
        s->enabled = false;
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
    s->tx.push(static_cast<uint16_t>(ui32Data), fifo_depth);
    start_frame(*s, sim::now_ns());
    update_irq(i);
}

int32_t SSIDataPutNonBlocking(uint32_t ui32Base, uint32_t ui32Data) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    if (!s || !s->tx.push(static_cast<uint16_t>(ui32Data), fifo_depth)) {
        return 0;
    }
    start_frame(*s, sim::now_ns());
    update_irq(i);
    return 1;
}

void SSIDataGet(uint32_t ui32Base, uint32_t* pui32Data) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    if (!s) {
        return;
    }
    while (s->rx.count == 0) {
        if (!wait_for(s->shifting ? s->done_ns : UINT64_MAX, idle_step_ns) && !hurry(i)) {
            *pui32Data = 0xFF;
            return;
        }
    }
    *pui32Data = s->rx.pop();
    update_irq(i);
}

int32_t SSIDataGetNonBlocking(uint32_t ui32Base, uint32_t* pui32Data) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    if (!s || s->rx.count == 0) {
        return 0;
    }
    *pui32Data = s->rx.pop();
    update_irq(i);
    return 1;
}

bool SSIBusy(uint32_t ui32Base) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    return s && (s->shifting || s->tx.count > 0);
}

void SSIClockSourceSet(uint32_t ui32Base, uint32_t ui32Source) {
    int i = 0;
    if (Ssi* s = module_of(ui32Base, &i)) {
        s->clock_source = ui32Source;
    }
}

uint32_t SSIClockSourceGet(uint32_t ui32Base) {
    int i = 0;
    Ssi* s = module_of(ui32Base, &i);
    return s ? s->clock_source : 0;
}

void SSIIntEnable(uint32_t ui32Base, uint32_t ui32IntFlags) {
    int i = 0;
    if (Ssi* s = module_of(ui32Base, &i)) {
        s->im |= ui32IntFlags & (SSI_TXFF | SSI_RXFF | SSI_RXTO | SSI_RXOR);
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
        s->ris &= ~(ui32IntFlags & (SSI_RXOR | SSI_RXTO));
        update_irq(i);
    }
}

} // extern "C"
