// The NVIC and the processor's interrupt mask as the firmware drives them. The fixed priorities of
// the board need no model: pending interrupts are taken lowest vector first, one at a time.
#include "runtime.h"

#include "driverlib/interrupt.h"

using namespace sim;

extern "C" {

bool IntMasterEnable(void) {
    spend_cycles(api_call_cycles);
    return int_master_enable();
}

bool IntMasterDisable(void) {
    spend_cycles(api_call_cycles);
    return int_master_disable();
}

// SysTick's interrupt is switched in the timer itself, as TivaWare does for FAULT_SYSTICK.
void IntEnable(uint32_t ui32Interrupt) {
    spend_cycles(api_call_cycles);
    if (ui32Interrupt == static_cast<uint32_t>(systick_vector)) {
        core().systick_int = true;
        return;
    }
    nvic_enable(static_cast<int>(ui32Interrupt), true);
}

void IntDisable(uint32_t ui32Interrupt) {
    spend_cycles(api_call_cycles);
    if (ui32Interrupt == static_cast<uint32_t>(systick_vector)) {
        core().systick_int = false;
        return;
    }
    nvic_enable(static_cast<int>(ui32Interrupt), false);
}

uint32_t IntIsEnabled(uint32_t ui32Interrupt) {
    spend_cycles(api_call_cycles);
    if (ui32Interrupt == static_cast<uint32_t>(systick_vector)) {
        return core().systick_int ? 1 : 0;
    }
    if (ui32Interrupt < 16 || ui32Interrupt >= static_cast<uint32_t>(num_vectors)) {
        return 0;
    }
    return core().enabled.test(ui32Interrupt) ? 1 : 0;
}

void IntPrioritySet(uint32_t ui32Interrupt, uint8_t ui8Priority) {
    spend_cycles(api_call_cycles);
}

int32_t IntPriorityGet(uint32_t ui32Interrupt) {
    spend_cycles(api_call_cycles);
    return 0;
}

void IntPendSet(uint32_t ui32Interrupt) {
    spend_cycles(api_call_cycles);
    set_pending(static_cast<int>(ui32Interrupt), true);
    dispatch_interrupts();
}

void IntPendClear(uint32_t ui32Interrupt) {
    spend_cycles(api_call_cycles);
    set_pending(static_cast<int>(ui32Interrupt), false);
}

} // extern "C"
