// System control of the simulated chip: the clock tree as far as the firmware can see it (the
// frequency SysCtlClockGet reports), peripheral clock gating, the busy-wait delay and the software
// reset. The processor itself always runs at ns_per_cycle; the clock setting is what the firmware
// reads back to compute its dividers.
#include "runtime.h"

#include "driverlib/sysctl.h"

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

int find_periph(uint32_t periph) {
    Core& c = core();
    for (int i = 0; i < c.periph_count; ++i) {
        if (c.periph_enabled[i] == periph) {
            return i;
        }
    }
    return -1;
}

} // namespace

bool peripheral_enabled(uint32_t periph) {
    return find_periph(periph) >= 0;
}

} // namespace sim

using namespace sim;

extern "C" {

void SysCtlClockSet(uint32_t ui32Config) {
    spend_cycles(api_call_cycles);
    bool pll = (ui32Config & SYSCTL_USE_OSC) != SYSCTL_USE_OSC;
    uint32_t base = pll ? 200000000u : oscillator_hz(ui32Config);
    core().clock_hz = divided_hz(ui32Config, base, pll);
}

uint32_t SysCtlClockGet(void) {
    spend_cycles(api_call_cycles);
    return core().clock_hz;
}

void SysCtlPeripheralEnable(uint32_t ui32Peripheral) {
    spend_cycles(api_call_cycles);
    Core& c = core();
    if (find_periph(ui32Peripheral) < 0 && c.periph_count < Core::max_periph) {
        c.periph_enabled[c.periph_count++] = ui32Peripheral;
    }
}

void SysCtlPeripheralDisable(uint32_t ui32Peripheral) {
    spend_cycles(api_call_cycles);
    Core& c = core();
    int i = find_periph(ui32Peripheral);
    if (i >= 0) {
        c.periph_enabled[i] = c.periph_enabled[--c.periph_count];
    }
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
