// SysTick, the Cortex-M4 24-bit down-counter clocked by the system clock.
#include "driverlib/systick.h"

#include "inc/hw_nvic.h"
#include "inc/hw_types.h"

extern "C" {

void SysTickEnable(void) {
    HWREG(NVIC_ST_CTRL) |= NVIC_ST_CTRL_CLK_SRC | NVIC_ST_CTRL_ENABLE;
}

void SysTickDisable(void) {
    HWREG(NVIC_ST_CTRL) &= ~NVIC_ST_CTRL_ENABLE;
}

void SysTickIntEnable(void) {
    HWREG(NVIC_ST_CTRL) |= NVIC_ST_CTRL_INTEN;
}

void SysTickIntDisable(void) {
    HWREG(NVIC_ST_CTRL) &= ~NVIC_ST_CTRL_INTEN;
}

// The period in clocks, 1 to 2^24; the counter reloads with period - 1.
void SysTickPeriodSet(uint32_t ui32Period) {
    HWREG(NVIC_ST_RELOAD) = (ui32Period - 1) & NVIC_ST_RELOAD_M;
}

uint32_t SysTickPeriodGet(void) {
    return HWREG(NVIC_ST_RELOAD) + 1;
}

uint32_t SysTickValueGet(void) {
    return HWREG(NVIC_ST_CURRENT) & NVIC_ST_CURRENT_M;
}

} // extern "C"
