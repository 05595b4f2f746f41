// The floating-point unit: the host computes in its own floating point; the settings are only noted.
#include "runtime.h"

#include "driverlib/fpu.h"

using namespace sim;

extern "C" {

void FPUEnable(void) {
    spend_cycles(api_call_cycles);
    core().fpu_enabled = true;
}

void FPUDisable(void) {
    spend_cycles(api_call_cycles);
    core().fpu_enabled = false;
}

void FPUStackingEnable(void) {
    spend_cycles(api_call_cycles);
    core().fpu_lazy_stacking = false;
}

void FPULazyStackingEnable(void) {
    spend_cycles(api_call_cycles);
    core().fpu_lazy_stacking = true;
}

void FPUStackingDisable(void) {
    spend_cycles(api_call_cycles);
    core().fpu_lazy_stacking = false;
}

} // extern "C"
