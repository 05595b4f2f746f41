// The Cortex-M SysTick timer: a 24-bit down-counter on the processor clock. The event loop in
// virtual_time.cpp raises its interrupt at every wrap; here the firmware configures it and reads it.
#include "runtime.h"

#include "driverlib/systick.h"

using namespace sim;

namespace {

uint64_t period_ns() {
    return systick_period_ns();
}

} // namespace

extern "C" {

// The count restarts from the period when the counter is switched on.
void SysTickEnable(void) {
    spend_cycles(api_call_cycles);
    Core& c = core();
    if (!c.systick_enabled && c.systick_period > 0) {
        c.systick_enabled = true;
        c.systick_next_ns = now_ns() + period_ns();
    }
}

void SysTickDisable(void) {
    spend_cycles(api_call_cycles);
    core().systick_enabled = false;
}

void SysTickIntEnable(void) {
    spend_cycles(api_call_cycles);
    core().systick_int = true;
}

void SysTickIntDisable(void) {
    spend_cycles(api_call_cycles);
    core().systick_int = false;
    set_pending(systick_vector, false);
}

// A new period takes effect at the next wrap, as a new reload value does.
void SysTickPeriodSet(uint32_t ui32Period) {
    spend_cycles(api_call_cycles);
    if (ui32Period == 0 || ui32Period > (1u << 24)) {
        return;
    }
    core().systick_period = ui32Period;
}

uint32_t SysTickPeriodGet(void) {
    spend_cycles(api_call_cycles);
    return core().systick_period;
}

uint32_t SysTickValueGet(void) {
    spend_cycles(api_call_cycles);
    const Core& c = core();
    uint64_t now = now_ns();
    if (!c.systick_enabled || c.systick_period == 0 || c.systick_next_ns <= now) {
        return 0;
    }
    return static_cast<uint32_t>(((c.systick_next_ns - now) / ns_per_cycle) % c.systick_period);
}

} // extern "C"
