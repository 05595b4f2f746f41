// System control of the simulated chip: the clock tree as far as the firmware can see it (the
// frequency SysCtlClockGet reports), peripheral clock gating, the busy-wait delay and the software
// reset. The processor itself always runs at ns_per_cycle; the clock setting is what the firmware
// reads back to compute its dividers.
#include "registers.h"
#include "runtime.h"

#include "driverlib/sysctl.h"
#include "inc/hw_sysctl.h"

namespace sim {

namespace {

// Crystal frequencies selected by the XTAL field (bits 10:6), from 4 MHz on.
constexpr uint32_t xtal_hz[] = {4000000,  4096000,  4915200,  5000000,  5120000,  6000000,  6144000,
                                7372800,  8000000,  8192000,  10000000, 12000000, 12288000, 13560000,
                                14318180, 16000000, 16384000, 18000000, 20000000, 24000000, 25000000};

uint32_t oscillator_hz(uint32_t config) {
    switch (config & 0x30) {
    case SYSCTL_OSC_INT:
        return 16000000;
    case SYSCTL_OSC_INT4:
        return 4000000;
    case SYSCTL_OSC_INT30:
        return (config & 0x80000000u) ? 32768 : 30000;
    default: {
        uint32_t field = (config >> 6) & 0x1F;
        return field >= 6 && field - 6 < sizeof xtal_hz / sizeof xtal_hz[0] ? xtal_hz[field - 6] : 16000000;
    }
    }
}

// The system divider encoded in a SYSCTL_SYSDIV_* value, applied to `base_hz` (200 MHz from the
// PLL, or the oscillator); the half-step dividers divide the 400 MHz PLL output instead.
uint32_t divided_hz(uint32_t config, uint32_t base_hz, bool pll) {
    if (pll && (config & 0x40000000u)) {
        return 400000000u / (((config >> 22) & 0x7F) + 1);
    }
    if (config & 0x80000000u) {
        return base_hz / (((config >> 23) & 0x3F) + 1);
    }
    if (config & 0x00400000u) {
        return base_hz / (((config >> 23) & 0x0F) + 1);
    }
    return base_hz;
}

// Every register access asks whether its peripheral is clocked, mostly the same one as last time.
int find_periph(uint32_t periph) {
    Core& c = core();
    static int last = 0;
    if (last < c.periph_count && c.periph_enabled[last] == periph) {
        return last;
    }
    for (int i = 0; i < c.periph_count; ++i) {
        if (c.periph_enabled[i] == periph) {
            last = i;
            return i;
        }
    }
    return -1;
}

void add_periph(uint32_t periph) {
    Core& c = core();
    if (find_periph(periph) < 0 && c.periph_count < Core::max_periph) {
        c.periph_enabled[c.periph_count++] = periph;
    }
}

void remove_periph(uint32_t periph) {
    Core& c = core();
    int i = find_periph(periph);
    if (i >= 0) {
        c.periph_enabled[i] = c.periph_enabled[--c.periph_count];
    }
}

} // namespace

bool peripheral_enabled(uint32_t periph) {
    return find_periph(periph) >= 0;
}

uint32_t system_clock_hz() {
    return core().clock_hz;
}

[[noreturn]] void clock_fault(const char* module, uint32_t address) {
    message("bus fault: %s accessed at 0x%08X while its clock is off", module, address);
    if (core().in_fault_handler) {
        // A fault in the fault handler locks the processor up: nothing runs until a reset.
        message("a fault inside the hard-fault handler: the processor locks up");
        for (;;) {
            advance_ns(ns_per_ms);
        }
    }
    core().in_fault_handler = true;
    Handler fault = core().handlers[3];
    if (fault) {
        // The handler halts in a delay loop: time must pass in it so that the watchdog can end it.
        core().in_handler = false;
        fault();
    }
    power_off(PowerEvent::reset);
}

void require_clock(uint32_t periph, const char* module, uint32_t address) {
    if (find_periph(periph) < 0) {
        clock_fault(module, address);
    }
}

} // namespace sim

// ---------------------------------------------------------------- the register door

namespace sim::dev {

namespace {

// Start-up of the main oscillator after MOSCDIS clears, and the PLL's lock after it powers up or its
// reference changes (datasheet-typical orders of magnitude; the firmware waits on the status bits).
constexpr uint64_t mosc_start_ns = 2 * ns_per_ms;
constexpr uint64_t pll_lock_ns = 500 * 1000;
constexpr uint32_t ris_plllris = 0x40;
constexpr uint32_t ris_mosc_pup = 0x100;
constexpr uint32_t rcc_reset = 0x078E3AD1;
constexpr uint32_t rcc2_reset = 0x07C06810;
constexpr uint32_t rcc2_oscsrc2_m = 0x70;

struct SysCtlRegs {
    uint32_t rcc, rcc2;
    uint32_t ris_latched;   // PLL lock and oscillator power-up, cleared through MISC
    uint64_t mosc_ready_ns; // UINT64_MAX while the oscillator is off (or has no crystal)
    uint64_t pll_lock_ns;   // UINT64_MAX while the PLL is powered down
    uint32_t pll_config;    // what the lock was acquired for
    uint32_t bank[4][64];   // PP, SR, RCGC, DCGC/SCGC images by register offset
    uint32_t gpiohbctl, moscctl, pborctl, imc;
    bool stopped_reported;
};

SysCtlRegs regs;

bool crystal_fitted() {
    return scenario_num("board.xtal", 1) != 0;
}

bool mosc_running() {
    return regs.mosc_ready_ns != UINT64_MAX && now_ns() >= regs.mosc_ready_ns;
}

bool use_rcc2() {
    return (regs.rcc2 & SYSCTL_RCC2_USERCC2) != 0;
}

uint32_t oscillator_source() {
    return use_rcc2() ? (regs.rcc2 & rcc2_oscsrc2_m) : (regs.rcc & SYSCTL_RCC_OSCSRC_M);
}

bool pll_powered() {
    return use_rcc2() ? (regs.rcc2 & SYSCTL_RCC2_PWRDN2) == 0 : (regs.rcc & SYSCTL_RCC_PWRDN) == 0;
}

bool bypassed() {
    return use_rcc2() ? (regs.rcc2 & SYSCTL_RCC2_BYPASS2) != 0 : (regs.rcc & SYSCTL_RCC_BYPASS) != 0;
}

// The oscillator feeding the PLL or, in bypass, the system clock; 0 when it does not run.
uint32_t source_hz() {
    switch (oscillator_source()) {
    case 0x00:
        return mosc_running() ? oscillator_hz(regs.rcc & SYSCTL_RCC_XTAL_M) : 0;
    case 0x10:
        return piosc_hz;
    case 0x20:
        return piosc_hz / 4;
    case 0x30:
        return 30000;
    default:
        return 32768;
    }
}

bool pll_locked() {
    return pll_powered() && source_hz() != 0 && regs.pll_lock_ns != UINT64_MAX &&
           now_ns() >= regs.pll_lock_ns;
}

uint32_t system_divisor() {
    if (!use_rcc2()) {
        return ((regs.rcc & SYSCTL_RCC_SYSDIV_M) >> SYSCTL_RCC_SYSDIV_S) + 1;
    }
    uint32_t div2 = (regs.rcc2 & SYSCTL_RCC2_SYSDIV2_M) >> SYSCTL_RCC2_SYSDIV2_S;
    if (regs.rcc2 & SYSCTL_RCC2_DIV400) {
        return ((div2 << 1) | ((regs.rcc2 & SYSCTL_RCC2_SYSDIV2LSB) ? 1 : 0)) + 1;
    }
    return div2 + 1;
}

// The processor clock the registers select now. A PLL that has not locked gives no usable clock;
// the chip then runs on whatever its bypass selects, which is what the model reports too.
uint32_t effective_hz() {
    bool use_div = (regs.rcc & SYSCTL_RCC_USESYSDIV) != 0;
    if (bypassed()) {
        uint32_t hz = source_hz();
        return use_div ? hz / system_divisor() : hz;
    }
    bool div400 = use_rcc2() && (regs.rcc2 & SYSCTL_RCC2_DIV400);
    uint32_t pll = div400 ? 400000000u : 200000000u;
    if (!pll_locked()) {
        return 0;
    }
    return pll / system_divisor();
}

void update_clock() {
    uint32_t hz = effective_hz();
    if (hz == 0) {
        if (!regs.stopped_reported) {
            regs.stopped_reported = true;
            message("the system clock stopped: RCC 0x%08X RCC2 0x%08X select %s", regs.rcc, regs.rcc2,
                    bypassed() ? "an oscillator that does not run" : "a PLL that has not locked");
        }
        return; // the processor keeps the clock it had: the model cannot run on nothing
    }
    core().clock_hz = hz;
}

// The PLL restarts its lock when it powers up or its reference changes.
void watch_pll() {
    uint32_t config = (regs.rcc & (SYSCTL_RCC_XTAL_M | SYSCTL_RCC_OSCSRC_M)) | (regs.rcc2 & rcc2_oscsrc2_m) |
                      (use_rcc2() ? 1u : 0u);
    if (!pll_powered()) {
        regs.pll_lock_ns = UINT64_MAX;
        return;
    }
    if (regs.pll_lock_ns == UINT64_MAX || config != regs.pll_config) {
        regs.pll_config = config;
        regs.pll_lock_ns = now_ns() + pll_lock_ns;
        regs.ris_latched &= ~ris_plllris;
    }
}

void watch_mosc() {
    bool enabled = (regs.rcc & SYSCTL_RCC_MOSCDIS) == 0;
    if (!enabled || !crystal_fitted()) {
        regs.mosc_ready_ns = UINT64_MAX;
        return;
    }
    if (regs.mosc_ready_ns == UINT64_MAX) {
        regs.mosc_ready_ns = now_ns() + mosc_start_ns;
    }
}

uint32_t raw_interrupt_status() {
    if (pll_locked()) {
        regs.ris_latched |= ris_plllris;
    }
    if (mosc_running()) {
        regs.ris_latched |= ris_mosc_pup;
    }
    return regs.ris_latched;
}

// The peripheral banks: PP at 0x300, SR at 0x500, RCGC at 0x600, SCGC 0x700, DCGC 0x800, PR 0xA00.
// A peripheral's SYSCTL_PERIPH_* value carries its register offset within a bank and its bit.
uint32_t periph_id(uint32_t reg_offset, uint32_t bit) {
    return 0xF0000000u | ((reg_offset & 0xFF) << 8) | bit;
}

uint32_t rcgc_read(uint32_t reg) {
    uint32_t v = 0;
    for (uint32_t bit = 0; bit < 32; ++bit) {
        if (peripheral_enabled(periph_id(reg, bit))) {
            v |= 1u << bit;
        }
    }
    return v;
}

void rcgc_write(uint32_t reg, uint32_t value) {
    for (uint32_t bit = 0; bit < 32; ++bit) {
        if (value & (1u << bit)) {
            add_periph(periph_id(reg, bit));
        } else {
            remove_periph(periph_id(reg, bit));
        }
    }
}

} // namespace

void sysctl_reg_reset() {
    regs = SysCtlRegs{};
    regs.rcc = rcc_reset;
    regs.rcc2 = rcc2_reset;
    regs.mosc_ready_ns = UINT64_MAX;
    regs.pll_lock_ns = UINT64_MAX;
    core().clock_hz = piosc_hz;
}

uint32_t sysctl_reg_read(uint32_t offset) {
    if (offset >= 0x300 && offset < 0x400) {
        return 0xFF; // every module of the part is present (the board uses only those that exist)
    }
    if (offset >= 0x600 && offset < 0x700) {
        return rcgc_read(offset);
    }
    if (offset >= 0xA00 && offset < 0xB00) {
        return rcgc_read(offset); // ready as soon as its clock runs
    }
    switch (offset) {
    case 0x000:
        return 0x18050102; // DID0: TM4C123 class, revision
    case 0x004:
        return 0x10A1606E; // DID1: TM4C123GH6PM, 64-pin LQFP, industrial range
    case 0x030:
        return regs.pborctl;
    case 0x050:
        return raw_interrupt_status();
    case 0x054:
        return regs.imc;
    case 0x058:
        return raw_interrupt_status() & regs.imc;
    case 0x05C:
        return core().reset_cause;
    case 0x060:
        return regs.rcc;
    case 0x06C:
        return regs.gpiohbctl;
    case 0x070:
        return regs.rcc2;
    case 0x07C:
        return regs.moscctl;
    case 0x168:
        return pll_locked() ? 1 : 0; // PLLSTAT
    default:
        if (offset >= 0x500 && offset < 0x900) {
            return regs.bank[(offset >> 8) - 5][(offset & 0xFF) >> 2];
        }
        return 0;
    }
}

void sysctl_reg_write(uint32_t offset, uint32_t value) {
    if (offset >= 0x600 && offset < 0x700) {
        rcgc_write(offset, value);
        return;
    }
    if (offset >= 0x500 && offset < 0x900) {
        regs.bank[(offset >> 8) - 5][(offset & 0xFF) >> 2] = value;
        return;
    }
    switch (offset) {
    case 0x030:
        regs.pborctl = value;
        break;
    case 0x054:
        regs.imc = value;
        break;
    case 0x058:
        regs.ris_latched &= ~value; // write 1 to clear
        break;
    case 0x05C:
        core().reset_cause = value;
        break;
    case 0x060:
        regs.rcc = value;
        watch_mosc();
        watch_pll();
        update_clock();
        break;
    case 0x06C:
        regs.gpiohbctl = value;
        break;
    case 0x070:
        regs.rcc2 = value;
        watch_pll();
        update_clock();
        break;
    case 0x07C:
        regs.moscctl = value;
        break;
    default:
        break;
    }
}

} // namespace sim::dev

using namespace sim;

namespace {
bool g_clock_failed = false;
}

extern "C" {

// Without a running crystal (scenario board.xtal = 0) a clock from the main oscillator cannot be
// had: the chip stays on the internal oscillator and the failure is remembered.
void SysCtlClockSet(uint32_t ui32Config) {
    spend_cycles(api_call_cycles);
    bool pll = (ui32Config & SYSCTL_USE_OSC) != SYSCTL_USE_OSC;
    bool main_osc = (ui32Config & 0x30) == SYSCTL_OSC_MAIN;
    g_clock_failed = main_osc && !dev::crystal_fitted();
    if (g_clock_failed) {
        core().clock_hz = piosc_hz;
        return;
    }
    uint32_t base = pll ? 200000000u : oscillator_hz(ui32Config);
    core().clock_hz = divided_hz(ui32Config, base, pll);
}

bool SysCtlClockSetFailed(void) {
    spend_cycles(api_call_cycles);
    return g_clock_failed;
}

uint32_t SysCtlClockGet(void) {
    spend_cycles(api_call_cycles);
    return core().clock_hz;
}

void SysCtlPeripheralEnable(uint32_t ui32Peripheral) {
    spend_cycles(api_call_cycles);
    add_periph(ui32Peripheral);
}

void SysCtlPeripheralDisable(uint32_t ui32Peripheral) {
    spend_cycles(api_call_cycles);
    remove_periph(ui32Peripheral);
}

bool SysCtlPeripheralReady(uint32_t ui32Peripheral) {
    spend_cycles(api_call_cycles);
    return find_periph(ui32Peripheral) >= 0;
}

bool SysCtlPeripheralPresent(uint32_t ui32Peripheral) {
    spend_cycles(api_call_cycles);
    return true;
}

void SysCtlPeripheralReset(uint32_t ui32Peripheral) {
    spend_cycles(api_call_cycles);
}

// Three cycles per count. A count of 0 runs the loop 2^32 times, as on the chip.
void SysCtlDelay(uint32_t ui32Count) {
    uint64_t counts = ui32Count == 0 ? (1ull << 32) : ui32Count;
    advance_ns(counts * 3 * ns_per_cycle);
}

void SysCtlReset(void) {
    power_off(PowerEvent::reset);
}

uint32_t SysCtlResetCauseGet(void) {
    spend_cycles(api_call_cycles);
    return core().reset_cause;
}

void SysCtlResetCauseClear(uint32_t ui32Causes) {
    spend_cycles(api_call_cycles);
    core().reset_cause &= ~ui32Causes;
}

void SysCtlSleep(void) {
    wait_for_interrupt();
}

} // extern "C"
