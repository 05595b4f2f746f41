// GPIO ports A to F of the simulated board: the data, direction, alternate-function, pad and
// interrupt registers behind the TivaWare GPIO calls, the level on every pad, and the external
// watchdog that hangs on port F.
//
// Board lines modelled here: PF0 enables the external watchdog (armed while high), a rising edge on
// PF1 feeds it, PF2 and PF3 are the red and green LEDs (observable through sim::gpio_level). PF4
// (RTS of the spectrometer port) is read by the spectrometer model through gpio_driven_high.
// The watchdog resets the board 60 s after the latest feed, or after it was armed.
#include "devices.h"
#include "registers.h"
#include "sim.h"

#include "driverlib/gpio.h"
#include "driverlib/sysctl.h"
#include "inc/hw_gpio.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"

#include <cstdint>

namespace sim::dev {

namespace {

constexpr uint64_t watchdog_timeout_ns = 60 * ns_per_s;
constexpr uint8_t wdog_enable_pin = 0x01; // PF0
constexpr uint8_t wdog_feed_pin = 0x02;   // PF1
constexpr int port_f = 5;

// The registers of one port that shape what its pads do.
struct Port {
    uint8_t data;  // output latch
    uint8_t dir;   // 1: output
    uint8_t afsel; // 1: peripheral function
    uint8_t odr;   // open drain
    uint8_t pur;
    uint8_t pdr;
    uint8_t den;
    uint8_t amsel;
    uint8_t dr2r, dr4r, dr8r, slr;
    uint8_t is, ibe, iev, im, ris; // interrupt sense, both edges, event, mask, raw status
    uint32_t pctl;                 // 4 bits of function select per pin
    uint8_t cr;                    // commit: AFSEL, PUR, PDR and DEN of a 0 bit cannot be written
    bool unlocked;                 // the lock key was written: the commit register takes writes
    uint8_t ext_mask;              // pads driven by a chip outside the microcontroller
    uint8_t ext_level;
    uint8_t levels; // pad levels at the last refresh
};

Port ports[gpio_ports];

struct PollMemo {
    bool valid;
    uint8_t pins;
    uint8_t value;
};

struct Watchdog {
    bool armed;
    uint64_t last_feed_ns;
};
Watchdog wdog;

const int port_vectors[gpio_ports] = {INT_GPIOA, INT_GPIOB, INT_GPIOC, INT_GPIOD, INT_GPIOE, INT_GPIOF};
const char* const port_names[gpio_ports] = {"GPIOA", "GPIOB", "GPIOC", "GPIOD", "GPIOE", "GPIOF"};

// The cost of one GPIO register access through the API (a few bus cycles).
constexpr uint32_t access_cycles = 4;

uint8_t compute_levels(const Port& p) {
    // A pad whose digital function is off drives nothing.
    uint8_t driven = p.dir & static_cast<uint8_t>(~p.afsel) & p.den;
    // An open-drain output only pulls down; when released, the pad follows the pulls or the outside.
    uint8_t released_od = driven & p.odr & p.data;
    driven &= static_cast<uint8_t>(~released_od);
    uint8_t outside = p.ext_mask & static_cast<uint8_t>(~driven);
    uint8_t floating = static_cast<uint8_t>(~driven & ~p.ext_mask);
    // A released open-drain line has its pull-up on the board.
    uint8_t pulled_high = floating & (p.pur | (released_od & static_cast<uint8_t>(~p.pdr)));
    return static_cast<uint8_t>((p.data & driven) | (p.ext_level & outside) | pulled_high);
}

void update_irq(int port) {
    const Port& p = ports[port];
    set_pending(port_vectors[port], (p.ris & p.im) != 0);
}

void watch_watchdog(uint8_t before, uint8_t after) {
    uint8_t rising = static_cast<uint8_t>(~before & after);
    uint8_t falling = static_cast<uint8_t>(before & ~after);
    if (rising & wdog_enable_pin) {
        wdog.armed = true;
        wdog.last_feed_ns = now_ns();
    }
    if (falling & wdog_enable_pin) {
        wdog.armed = false;
    }
    if (wdog.armed && (rising & wdog_feed_pin)) {
        wdog.last_feed_ns = now_ns();
    }
}

// Recomputes the pads of a port after any register or outside change and lets everything that
// watches them react: edge and level interrupts, the watchdog, chip selects.
void refresh(int port) {
    Port& p = ports[port];
    uint8_t before = p.levels;
    uint8_t after = compute_levels(p);
    p.levels = after;

    uint8_t rising = static_cast<uint8_t>(~before & after);
    uint8_t falling = static_cast<uint8_t>(before & ~after);
    uint8_t edge_pins = static_cast<uint8_t>(~p.is);
    uint8_t edges =
        static_cast<uint8_t>((p.ibe & (rising | falling)) | (static_cast<uint8_t>(~p.ibe) & p.iev & rising) |
                             (static_cast<uint8_t>(~p.ibe) & static_cast<uint8_t>(~p.iev) & falling));
    p.ris |= edges & edge_pins;
    uint8_t level_hits = static_cast<uint8_t>((p.iev & after) | (static_cast<uint8_t>(~p.iev) & ~after));
    p.ris = static_cast<uint8_t>((p.ris & edge_pins) | (level_hits & p.is));
    update_irq(port);

    if (port == port_f) {
        watch_watchdog(before, after);
    }
    // Selection depends on direction and latch as well as on the level, so chip selects always look.
    ssi_pads_changed(port);
}

// The pins whose commit bit the lock guards: PD7 and PF0, which can serve as NMI inputs. The commit
// bits of all other pins stay 1.
uint8_t lockable_pins(int port) {
    if (port == 3) {
        return 0x80;
    }
    return port == port_f ? 0x01 : 0x00;
}

// A port's registers on the APB aperture (for the bus-fault report).
uint32_t apb_base(int port) {
    return port < 4 ? GPIO_PORTA_BASE + 0x1000u * static_cast<uint32_t>(port)
                    : GPIO_PORTE_BASE + 0x1000u * static_cast<uint32_t>(port - 4);
}

Port* port_of(uint32_t base, int* index) {
    access(access_cycles);
    int i = gpio_port_index(base);
    if (i < 0) {
        return nullptr;
    }
    require_clock(SYSCTL_PERIPH_GPIOA + static_cast<uint32_t>(i), port_names[i], base);
    *index = i;
    return &ports[i];
}

void set_bits(uint8_t& reg, uint8_t pins, bool on) {
    reg = on ? static_cast<uint8_t>(reg | pins) : static_cast<uint8_t>(reg & ~pins);
}

void dir_mode_set(uint32_t base, uint8_t pins, uint32_t mode) {
    int i = 0;
    Port* p = port_of(base, &i);
    if (!p) {
        return;
    }
    set_bits(p->dir, pins, (mode & GPIO_DIR_MODE_OUT) != 0);
    set_bits(p->afsel, pins & p->cr, (mode & GPIO_DIR_MODE_HW) != 0);
    refresh(i);
}

void pad_config_set(uint32_t base, uint8_t pins, uint32_t strength, uint32_t type) {
    int i = 0;
    Port* p = port_of(base, &i);
    if (!p) {
        return;
    }
    set_bits(p->dr2r, pins, (strength & 0x1) != 0);
    set_bits(p->dr4r, pins, (strength & 0x2) != 0);
    set_bits(p->dr8r, pins, (strength & 0x4) != 0);
    set_bits(p->slr, pins, (strength & 0x8) != 0);
    set_bits(p->odr, pins, (type & 0x1) != 0);
    uint8_t open = pins & p->cr;
    set_bits(p->pur, open, (type & 0x2) != 0);
    set_bits(p->pdr, open, (type & 0x4) != 0);
    set_bits(p->den, open, (type & 0x8) != 0);
    set_bits(p->amsel, pins, type == GPIO_PIN_TYPE_ANALOG);
    refresh(i);
}

void peripheral_pins(uint32_t base, uint8_t pins, uint32_t type) {
    dir_mode_set(base, pins, GPIO_DIR_MODE_HW);
    pad_config_set(base, pins, GPIO_STRENGTH_2MA, type);
}

} // namespace

int gpio_port_index(uint32_t base) {
    switch (base) {
    case GPIO_PORTA_BASE:
    case GPIO_PORTA_AHB_BASE:
        return 0;
    case GPIO_PORTB_BASE:
    case GPIO_PORTB_AHB_BASE:
        return 1;
    case GPIO_PORTC_BASE:
    case GPIO_PORTC_AHB_BASE:
        return 2;
    case GPIO_PORTD_BASE:
    case GPIO_PORTD_AHB_BASE:
        return 3;
    case GPIO_PORTE_BASE:
    case GPIO_PORTE_AHB_BASE:
        return 4;
    case GPIO_PORTF_BASE:
    case GPIO_PORTF_AHB_BASE:
        return 5;
    default:
        return -1;
    }
}

uint8_t gpio_pad_levels(int port) {
    return ports[port].levels;
}

bool gpio_driven_low(int port, uint8_t pins) {
    const Port& p = ports[port];
    uint8_t outputs = p.dir & static_cast<uint8_t>(~p.afsel);
    return (outputs & pins) == pins && (p.data & pins) == 0;
}

// An open-drain output set high lets go of its pad instead of driving it.
bool gpio_driven_high(int port, uint8_t pins) {
    const Port& p = ports[port];
    uint8_t push_pull_outputs = p.dir & p.den & static_cast<uint8_t>(~p.afsel & ~p.odr);
    return (push_pull_outputs & pins) == pins && (p.data & pins) == pins;
}

bool gpio_alternate(int port, uint8_t pins) {
    return (ports[port].afsel & pins) == pins;
}

void gpio_drive_input(uint32_t port_base, uint8_t pins, bool level) {
    int i = gpio_port_index(port_base);
    if (i < 0) {
        return;
    }
    ports[i].ext_mask |= pins;
    set_bits(ports[i].ext_level, pins, level);
    refresh(i);
}

void gpio_release_input(uint32_t port_base, uint8_t pins) {
    int i = gpio_port_index(port_base);
    if (i < 0) {
        return;
    }
    ports[i].ext_mask &= static_cast<uint8_t>(~pins);
    refresh(i);
}

// At power-on every pad is an input with its digital function off, no pulls and no interrupts; the
// watchdog is disarmed until the firmware raises its enable line. Outside drivers stay where they
// are: they belong to the other chips on the board.
void gpio_reset() {
    for (int i = 0; i < gpio_ports; ++i) {
        Port& p = ports[i];
        uint8_t ext_mask = p.ext_mask;
        uint8_t ext_level = p.ext_level;
        p = Port{};
        // PD7 and PF0 come out of reset locked (NMI-capable pins); GPIOUnlockPin opens them.
        p.cr = static_cast<uint8_t>(~lockable_pins(i));
        p.dr2r = 0xff; // every pad starts at 2 mA drive
        p.ext_mask = ext_mask;
        p.ext_level = ext_level;
        p.levels = compute_levels(p);
        set_pending(port_vectors[i], false);
    }
    wdog = Watchdog{};
}

// ---------------------------------------------------------------- register door

namespace {

// Registers that simply hold what was written; the pads follow them at the next refresh.
uint8_t* plain_register(Port& p, uint32_t offset) {
    switch (offset) {
    case GPIO_O_DIR:
        return &p.dir;
    case GPIO_O_IS:
        return &p.is;
    case GPIO_O_IBE:
        return &p.ibe;
    case GPIO_O_IEV:
        return &p.iev;
    case GPIO_O_IM:
        return &p.im;
    case GPIO_O_ODR:
        return &p.odr;
    case GPIO_O_SLR:
        return &p.slr;
    case GPIO_O_AMSEL:
        return &p.amsel;
    default:
        return nullptr;
    }
}

// Registers whose bits change only where the commit register allows it.
uint8_t* committed_register(Port& p, uint32_t offset) {
    switch (offset) {
    case GPIO_O_AFSEL:
        return &p.afsel;
    case GPIO_O_PUR:
        return &p.pur;
    case GPIO_O_PDR:
        return &p.pdr;
    case GPIO_O_DEN:
        return &p.den;
    default:
        return nullptr;
    }
}

// A pin has one drive strength: selecting it in one register drops it from the other two.
void select_drive(Port& p, uint32_t offset, uint8_t pins) {
    uint8_t* regs[3] = {&p.dr2r, &p.dr4r, &p.dr8r};
    int chosen = static_cast<int>((offset - GPIO_O_DR2R) / 4);
    for (int k = 0; k < 3; ++k) {
        *regs[k] = k == chosen ? pins : static_cast<uint8_t>(*regs[k] & ~pins);
    }
}

uint32_t read_other(const Port& p, uint32_t offset) {
    switch (offset) {
    case GPIO_O_DR2R:
        return p.dr2r;
    case GPIO_O_DR4R:
        return p.dr4r;
    case GPIO_O_DR8R:
        return p.dr8r;
    case GPIO_O_RIS:
        return p.ris;
    case GPIO_O_MIS:
        return static_cast<uint32_t>(p.ris & p.im);
    case GPIO_O_LOCK:
        return p.unlocked ? GPIO_LOCK_UNLOCKED : GPIO_LOCK_LOCKED;
    case GPIO_O_CR:
        return p.cr;
    case GPIO_O_PCTL:
        return p.pctl;
    default:
        return 0;
    }
}

void write_other(Port& p, int port, uint32_t offset, uint32_t value) {
    uint8_t v = static_cast<uint8_t>(value);
    switch (offset) {
    case GPIO_O_DR2R:
    case GPIO_O_DR4R:
    case GPIO_O_DR8R:
        select_drive(p, offset, v);
        break;
    case GPIO_O_ICR:
        // A level-sensitive pin stays flagged while its level lasts.
        p.ris &= static_cast<uint8_t>(~(v & ~p.is));
        break;
    case GPIO_O_LOCK:
        // Any value other than the key closes the lock again.
        p.unlocked = value == GPIO_LOCK_KEY;
        break;
    case GPIO_O_CR:
        if (p.unlocked) {
            uint8_t lockable = lockable_pins(port);
            p.cr = static_cast<uint8_t>(~lockable | (v & lockable));
        }
        break;
    case GPIO_O_PCTL:
        p.pctl = value;
        break;
    default:
        break;
    }
}

} // namespace

// Bits 9:2 of a data-window offset select the pins a read sees and a write changes.
uint32_t gpio_reg_read(int port, uint32_t offset) {
    if (port < 0 || port >= gpio_ports) {
        return 0;
    }
    Port& p = ports[port];
    if (offset < GPIO_O_DIR) {
        uint8_t pins = static_cast<uint8_t>(offset >> 2);
        return static_cast<uint32_t>(p.levels & p.den & pins);
    }
    if (const uint8_t* r = plain_register(p, offset)) {
        return *r;
    }
    if (const uint8_t* r = committed_register(p, offset)) {
        return *r;
    }
    return read_other(p, offset);
}

void gpio_reg_write(int port, uint32_t offset, uint32_t value) {
    if (port < 0 || port >= gpio_ports) {
        return;
    }
    Port& p = ports[port];
    uint8_t v = static_cast<uint8_t>(value);
    if (offset < GPIO_O_DIR) {
        uint8_t pins = static_cast<uint8_t>(offset >> 2);
        p.data = static_cast<uint8_t>((p.data & ~pins) | (v & pins));
    } else if (uint8_t* r = plain_register(p, offset)) {
        *r = v;
    } else if (uint8_t* r = committed_register(p, offset)) {
        *r = static_cast<uint8_t>((*r & ~p.cr) | (v & p.cr));
    } else {
        write_other(p, port, offset, value);
    }
    refresh(port);
}

} // namespace sim::dev

namespace sim {

bool gpio_level(uint32_t port_base, uint8_t pin_mask) {
    int i = dev::gpio_port_index(port_base);
    if (i < 0) {
        return false;
    }
    return (dev::gpio_pad_levels(i) & pin_mask) == pin_mask;
}

uint64_t watchdog_deadline_ns() {
    if (!dev::wdog.armed) {
        return UINT64_MAX;
    }
    return dev::wdog.last_feed_ns + dev::watchdog_timeout_ns;
}

} // namespace sim

using namespace sim::dev;

extern "C" {

void GPIODirModeSet(uint32_t ui32Port, uint8_t ui8Pins, uint32_t ui32PinIO) {
    dir_mode_set(ui32Port, ui8Pins, ui32PinIO);
}

uint32_t GPIODirModeGet(uint32_t ui32Port, uint8_t ui8Pin) {
    int i = 0;
    Port* p = port_of(ui32Port, &i);
    if (!p) {
        return 0;
    }
    uint32_t mode = (p->dir & ui8Pin) ? GPIO_DIR_MODE_OUT : GPIO_DIR_MODE_IN;
    return mode | ((p->afsel & ui8Pin) ? GPIO_DIR_MODE_HW : 0);
}

void GPIOIntTypeSet(uint32_t ui32Port, uint8_t ui8Pins, uint32_t ui32IntType) {
    int i = 0;
    Port* p = port_of(ui32Port, &i);
    if (!p) {
        return;
    }
    set_bits(p->ibe, ui8Pins, (ui32IntType & 0x1) != 0);
    set_bits(p->is, ui8Pins, (ui32IntType & 0x2) != 0);
    set_bits(p->iev, ui8Pins, (ui32IntType & 0x4) != 0);
    refresh(i);
}

void GPIOPadConfigSet(uint32_t ui32Port, uint8_t ui8Pins, uint32_t ui32Strength, uint32_t ui32PadType) {
    pad_config_set(ui32Port, ui8Pins, ui32Strength, ui32PadType);
}

void GPIOPadConfigGet(uint32_t ui32Port, uint8_t ui8Pin, uint32_t* pui32Strength, uint32_t* pui32PadType) {
    int i = 0;
    Port* p = port_of(ui32Port, &i);
    if (!p) {
        return;
    }
    if (pui32Strength) {
        *pui32Strength = ((p->dr2r & ui8Pin) ? 0x1u : 0u) | ((p->dr4r & ui8Pin) ? 0x2u : 0u) |
                         ((p->dr8r & ui8Pin) ? 0x4u : 0u) | ((p->slr & ui8Pin) ? 0x8u : 0u);
    }
    if (pui32PadType) {
        *pui32PadType = ((p->odr & ui8Pin) ? 0x1u : 0u) | ((p->pur & ui8Pin) ? 0x2u : 0u) |
                        ((p->pdr & ui8Pin) ? 0x4u : 0u) | ((p->den & ui8Pin) ? 0x8u : 0u);
    }
}

void GPIOIntEnable(uint32_t ui32Port, uint32_t ui32IntFlags) {
    int i = 0;
    Port* p = port_of(ui32Port, &i);
    if (!p) {
        return;
    }
    p->im |= static_cast<uint8_t>(ui32IntFlags);
    update_irq(i);
}

void GPIOIntDisable(uint32_t ui32Port, uint32_t ui32IntFlags) {
    int i = 0;
    Port* p = port_of(ui32Port, &i);
    if (!p) {
        return;
    }
    p->im &= static_cast<uint8_t>(~ui32IntFlags);
    update_irq(i);
}

uint32_t GPIOIntStatus(uint32_t ui32Port, bool bMasked) {
    int i = 0;
    Port* p = port_of(ui32Port, &i);
    if (!p) {
        return 0;
    }
    return bMasked ? static_cast<uint32_t>(p->ris & p->im) : p->ris;
}

// Clears edge-detected status; a level source stays set while its level lasts.
void GPIOIntClear(uint32_t ui32Port, uint32_t ui32IntFlags) {
    int i = 0;
    Port* p = port_of(ui32Port, &i);
    if (!p) {
        return;
    }
    p->ris &= static_cast<uint8_t>(~(ui32IntFlags & ~p->is));
    update_irq(i);
}

// A loop that polls a line driven by another chip (a converter's data-ready) sees nothing new before
// that chip's next event. A read that repeats the previous one lets time run to that event, at most
// 1 ms at a time so that the firmware's own millisecond time-outs still see time pass in steps.
// The line is seen change at the same virtual time as with a tight loop, at a fraction of the host's
// work.
static void fast_forward_idle_poll(int port, uint8_t pins, uint8_t value) {
    static PollMemo memo[gpio_ports];
    PollMemo& m = memo[port];
    bool repeat = m.valid && m.pins == pins && m.value == value && (pins & ports[port].ext_mask) != 0;
    m = PollMemo{true, pins, value};
    if (!repeat) {
        return;
    }
    uint64_t now = sim::now_ns();
    uint64_t next = sim::devices_next_event_ns();
    uint64_t until = next < now + sim::ns_per_ms ? next : now + sim::ns_per_ms;
    if (until > now) {
        sim::advance_ns(until - now);
    }
}

int32_t GPIOPinRead(uint32_t ui32Port, uint8_t ui8Pins) {
    int i = 0;
    Port* p = port_of(ui32Port, &i);
    if (!p) {
        return 0;
    }
    // A pad with its digital function off reads 0, whatever its level.
    uint8_t value = p->levels & p->den & ui8Pins;
    fast_forward_idle_poll(i, ui8Pins, value);
    return value;
}

void GPIOPinWrite(uint32_t ui32Port, uint8_t ui8Pins, uint8_t ui8Val) {
    int i = 0;
    Port* p = port_of(ui32Port, &i);
    if (!p) {
        return;
    }
    p->data = static_cast<uint8_t>((p->data & ~ui8Pins) | (ui8Val & ui8Pins));
    refresh(i);
}

// The lock key opens the commit register for the pins given; the lock closes again afterwards.
void GPIOUnlockPin(uint32_t ui32Port, uint8_t ui8Pins) {
    int i = 0;
    Port* p = port_of(ui32Port, &i);
    if (!p) {
        return;
    }
    p->cr |= ui8Pins;
}

// The pin's function code goes into its 4-bit field of the port control register.
void GPIOPinConfigure(uint32_t ui32PinConfig) {
    access(access_cycles);
    uint32_t port = (ui32PinConfig >> 16) & 0xff;
    uint32_t shift = (ui32PinConfig >> 8) & 0xff;
    if (port >= static_cast<uint32_t>(gpio_ports) || shift > 28) {
        return;
    }
    sim::require_clock(SYSCTL_PERIPH_GPIOA + port, port_names[port], apb_base(static_cast<int>(port)));
    Port& p = ports[port];
    p.pctl = (p.pctl & ~(0xfu << shift)) | ((ui32PinConfig & 0xfu) << shift);
}

void GPIOPinTypeGPIOOutput(uint32_t ui32Port, uint8_t ui8Pins) {
    pad_config_set(ui32Port, ui8Pins, GPIO_STRENGTH_2MA, GPIO_PIN_TYPE_STD);
    dir_mode_set(ui32Port, ui8Pins, GPIO_DIR_MODE_OUT);
}

void GPIOPinTypeGPIOOutputOD(uint32_t ui32Port, uint8_t ui8Pins) {
    pad_config_set(ui32Port, ui8Pins, GPIO_STRENGTH_2MA, GPIO_PIN_TYPE_OD);
    dir_mode_set(ui32Port, ui8Pins, GPIO_DIR_MODE_OUT);
}

void GPIOPinTypeGPIOInput(uint32_t ui32Port, uint8_t ui8Pins) {
    dir_mode_set(ui32Port, ui8Pins, GPIO_DIR_MODE_IN);
    pad_config_set(ui32Port, ui8Pins, GPIO_STRENGTH_2MA, GPIO_PIN_TYPE_STD);
}

void GPIOPinTypeADC(uint32_t ui32Port, uint8_t ui8Pins) {
    dir_mode_set(ui32Port, ui8Pins, GPIO_DIR_MODE_IN);
    pad_config_set(ui32Port, ui8Pins, GPIO_STRENGTH_2MA, GPIO_PIN_TYPE_ANALOG);
}

void GPIOPinTypeUART(uint32_t ui32Port, uint8_t ui8Pins) {
    peripheral_pins(ui32Port, ui8Pins, GPIO_PIN_TYPE_STD);
}

void GPIOPinTypeSSI(uint32_t ui32Port, uint8_t ui8Pins) {
    peripheral_pins(ui32Port, ui8Pins, GPIO_PIN_TYPE_STD);
}

void GPIOPinTypeI2C(uint32_t ui32Port, uint8_t ui8Pins) {
    peripheral_pins(ui32Port, ui8Pins, GPIO_PIN_TYPE_OD);
}

void GPIOPinTypeI2CSCL(uint32_t ui32Port, uint8_t ui8Pins) {
    peripheral_pins(ui32Port, ui8Pins, GPIO_PIN_TYPE_STD);
}

void GPIOPinTypePWM(uint32_t ui32Port, uint8_t ui8Pins) {
    peripheral_pins(ui32Port, ui8Pins, GPIO_PIN_TYPE_STD);
}

void GPIOPinTypeTimer(uint32_t ui32Port, uint8_t ui8Pins) {
    peripheral_pins(ui32Port, ui8Pins, GPIO_PIN_TYPE_STD);
}

} // extern "C"
