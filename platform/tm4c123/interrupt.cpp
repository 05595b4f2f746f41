// Interrupt control: the processor's global mask (PRIMASK) and the NVIC enable, pending and
// priority registers, including the system handlers that have their own enable bits.
#include "driverlib/interrupt.h"

#include "inc/hw_ints.h"
#include "inc/hw_nvic.h"
#include "inc/hw_types.h"

namespace {

uint32_t nvic_reg(uint32_t bank, uint32_t interrupt) {
    return bank + ((interrupt - 16) / 32) * 4;
}

uint32_t nvic_bit(uint32_t interrupt) {
    return 1u << ((interrupt - 16) % 32);
}

// Byte-wide priority register of an exception (4..15) or interrupt (16 and up); 0 if none.
uint32_t priority_reg(uint32_t interrupt) {
    if (interrupt >= 16 && interrupt < NUM_INTERRUPTS) {
        return NVIC_PRI0 + (interrupt - 16);
    }
    if (interrupt >= FAULT_MPU && interrupt < 16) {
        return NVIC_SYS_PRI1 + (interrupt - FAULT_MPU);
    }
    return 0;
}

} // namespace

extern "C" {

// Both return whether interrupts were disabled before the call.
bool IntMasterEnable(void) {
    uint32_t primask;
    __asm volatile("mrs %0, primask\n"
                   "cpsie i\n"
                   : "=r"(primask)
                   :
                   : "memory");
    return (primask & 1) != 0;
}

bool IntMasterDisable(void) {
    uint32_t primask;
    __asm volatile("mrs %0, primask\n"
                   "cpsid i\n"
                   : "=r"(primask)
                   :
                   : "memory");
    return (primask & 1) != 0;
}

void IntEnable(uint32_t ui32Interrupt) {
    if (ui32Interrupt == FAULT_MPU) {
        HWREG(NVIC_SYS_HND_CTRL) |= NVIC_SYS_HND_CTRL_MEM;
    } else if (ui32Interrupt == FAULT_BUS) {
        HWREG(NVIC_SYS_HND_CTRL) |= NVIC_SYS_HND_CTRL_BUS;
    } else if (ui32Interrupt == FAULT_USAGE) {
        HWREG(NVIC_SYS_HND_CTRL) |= NVIC_SYS_HND_CTRL_USAGE;
    } else if (ui32Interrupt == FAULT_SYSTICK) {
        HWREG(NVIC_ST_CTRL) |= NVIC_ST_CTRL_INTEN;
    } else if (ui32Interrupt >= 16 && ui32Interrupt < NUM_INTERRUPTS) {
        HWREG(nvic_reg(NVIC_EN0, ui32Interrupt)) = nvic_bit(ui32Interrupt);
    }
}

void IntDisable(uint32_t ui32Interrupt) {
    if (ui32Interrupt == FAULT_MPU) {
        HWREG(NVIC_SYS_HND_CTRL) &= ~NVIC_SYS_HND_CTRL_MEM;
    } else if (ui32Interrupt == FAULT_BUS) {
        HWREG(NVIC_SYS_HND_CTRL) &= ~NVIC_SYS_HND_CTRL_BUS;
    } else if (ui32Interrupt == FAULT_USAGE) {
        HWREG(NVIC_SYS_HND_CTRL) &= ~NVIC_SYS_HND_CTRL_USAGE;
    } else if (ui32Interrupt == FAULT_SYSTICK) {
        HWREG(NVIC_ST_CTRL) &= ~NVIC_ST_CTRL_INTEN;
    } else if (ui32Interrupt >= 16 && ui32Interrupt < NUM_INTERRUPTS) {
        HWREG(nvic_reg(NVIC_DIS0, ui32Interrupt)) = nvic_bit(ui32Interrupt);
    }
}

uint32_t IntIsEnabled(uint32_t ui32Interrupt) {
    if (ui32Interrupt == FAULT_MPU) {
        return HWREG(NVIC_SYS_HND_CTRL) & NVIC_SYS_HND_CTRL_MEM;
    }
    if (ui32Interrupt == FAULT_BUS) {
        return HWREG(NVIC_SYS_HND_CTRL) & NVIC_SYS_HND_CTRL_BUS;
    }
    if (ui32Interrupt == FAULT_USAGE) {
        return HWREG(NVIC_SYS_HND_CTRL) & NVIC_SYS_HND_CTRL_USAGE;
    }
    if (ui32Interrupt == FAULT_SYSTICK) {
        return HWREG(NVIC_ST_CTRL) & NVIC_ST_CTRL_INTEN;
    }
    if (ui32Interrupt >= 16 && ui32Interrupt < NUM_INTERRUPTS) {
        return HWREG(nvic_reg(NVIC_EN0, ui32Interrupt)) & nvic_bit(ui32Interrupt);
    }
    return 0;
}

// Only the top three bits of a priority are implemented (eight levels).
void IntPrioritySet(uint32_t ui32Interrupt, uint8_t ui8Priority) {
    uint32_t reg = priority_reg(ui32Interrupt);
    if (reg != 0) {
        HWREGB(reg) = ui8Priority;
    }
}

int32_t IntPriorityGet(uint32_t ui32Interrupt) {
    uint32_t reg = priority_reg(ui32Interrupt);
    return reg != 0 ? HWREGB(reg) : -1;
}

void IntPendSet(uint32_t ui32Interrupt) {
    if (ui32Interrupt == FAULT_NMI) {
        HWREG(NVIC_INT_CTRL) = NVIC_INT_CTRL_NMI_SET;
    } else if (ui32Interrupt == FAULT_PENDSV) {
        HWREG(NVIC_INT_CTRL) = NVIC_INT_CTRL_PEND_SV;
    } else if (ui32Interrupt == FAULT_SYSTICK) {
        HWREG(NVIC_INT_CTRL) = NVIC_INT_CTRL_PENDSTSET;
    } else if (ui32Interrupt >= 16 && ui32Interrupt < NUM_INTERRUPTS) {
        HWREG(nvic_reg(NVIC_PEND0, ui32Interrupt)) = nvic_bit(ui32Interrupt);
    }
}

void IntPendClear(uint32_t ui32Interrupt) {
    if (ui32Interrupt == FAULT_PENDSV) {
        HWREG(NVIC_INT_CTRL) = NVIC_INT_CTRL_UNPEND_SV;
    } else if (ui32Interrupt == FAULT_SYSTICK) {
        HWREG(NVIC_INT_CTRL) = NVIC_INT_CTRL_PENDSTCLR;
    } else if (ui32Interrupt >= 16 && ui32Interrupt < NUM_INTERRUPTS) {
        HWREG(nvic_reg(NVIC_UNPEND0, ui32Interrupt)) = nvic_bit(ui32Interrupt);
    }
}

} // extern "C"
