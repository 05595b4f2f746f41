// Floating-point unit access (coprocessors 10 and 11) and how exceptions save its registers.
#include "driverlib/fpu.h"

#include "inc/hw_nvic.h"
#include "inc/hw_types.h"

extern "C" {

// The barriers make the new access rights apply before the next instruction.
void FPUEnable(void) {
    uint32_t cpac = HWREG(NVIC_CPAC) & ~(NVIC_CPAC_CP10_M | NVIC_CPAC_CP11_M);
    HWREG(NVIC_CPAC) = cpac | NVIC_CPAC_CP10_FULL | NVIC_CPAC_CP11_FULL;
    __asm volatile("dsb\n\tisb" : : : "memory");
}

void FPUDisable(void) {
    HWREG(NVIC_CPAC) &= ~(NVIC_CPAC_CP10_M | NVIC_CPAC_CP11_M);
    __asm volatile("dsb\n\tisb" : : : "memory");
}

// Every exception reserves and saves the FP context.
void FPUStackingEnable(void) {
    uint32_t fpcc = HWREG(NVIC_FPCC) & ~NVIC_FPCC_LSPEN;
    HWREG(NVIC_FPCC) = fpcc | NVIC_FPCC_ASPEN;
}

// Space is reserved on exception entry; registers are saved only if the handler uses the FPU.
void FPULazyStackingEnable(void) {
    HWREG(NVIC_FPCC) |= NVIC_FPCC_ASPEN | NVIC_FPCC_LSPEN;
}

void FPUStackingDisable(void) {
    HWREG(NVIC_FPCC) &= ~(NVIC_FPCC_ASPEN | NVIC_FPCC_LSPEN);
}

} // extern "C"
