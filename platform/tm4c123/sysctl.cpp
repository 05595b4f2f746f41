// System control of the TM4C123: the run-mode clock (main oscillator, PLL, system divider),
// peripheral clock gating and reset, the calibrated busy-wait and the software reset.
#include "driverlib/sysctl.h"

#include "inc/hw_memmap.h"
#include "inc/hw_nvic.h"
#include "inc/hw_sysctl.h"
#include "inc/hw_types.h"

namespace {

// The PLL runs at 400 MHz; the system divider sees it halved unless RCC2.DIV400 is set.
constexpr uint32_t PLL_HZ = 400000000;
constexpr uint32_t PIOSC_HZ = 16000000;

// Crystal frequencies by RCC.XTAL code, from code 0x06 (4 MHz) upward.
constexpr uint32_t XTAL_HZ[] = {4000000,  4096000,  4915200,  5000000,  5120000,  6000000,  6144000,
                                7372800,  8000000,  8192000,  10000000, 12000000, 12288000, 13560000,
                                14318180, 16000000, 16384000, 18000000, 20000000, 24000000, 25000000};
constexpr uint32_t XTAL_FIRST_CODE = 0x06;

// Loop bounds for hardware waits, generous at any clock.
constexpr uint32_t OSC_WAIT_LOOPS = 524288;
constexpr uint32_t PLL_WAIT_LOOPS = 32768;
constexpr uint32_t READY_WAIT_LOOPS = 1000;

// Register address of a peripheral in one of the per-class banks (RCGC, SR, PR, PP).
uint32_t periph_reg(uint32_t bank, uint32_t peripheral) {
    return SYSCTL_BASE + bank + ((peripheral >> 8) & 0xFF);
}

uint32_t periph_bit(uint32_t peripheral) {
    return peripheral & 0xFF;
}

constexpr uint32_t BANK_PP = 0x300;
constexpr uint32_t BANK_SR = 0x500;
constexpr uint32_t BANK_RCGC = 0x600;
constexpr uint32_t BANK_PR = 0xA00;

// Set when the last SysCtlClockSet had to fall back to the internal oscillator.
bool clock_set_failed = false;

// Bounded wait for a raw interrupt status flag (oscillator ready, PLL lock).
bool wait_for_status(uint32_t flag, uint32_t loops) {
    for (uint32_t i = 0; i < loops; ++i) {
        if (HWREG(SYSCTL_RIS) & flag) {
            return true;
        }
    }
    return false;
}

// A dead crystal or a PLL that never locks would stop the processor if the clock switched to them.
// The precision internal oscillator needs nothing outside the chip: run from it undivided, 16 MHz,
// bypassing the PLL. The source changes first; the main oscillator and the PLL are powered down
// only once nothing runs from them.
void fall_back_to_piosc(uint32_t rcc, uint32_t rcc2) {
    rcc &= ~(SYSCTL_RCC_OSCSRC_M | SYSCTL_RCC_USESYSDIV | SYSCTL_RCC_IOSCDIS);
    rcc |= SYSCTL_RCC_OSCSRC_INT | SYSCTL_RCC_BYPASS;
    rcc2 &= ~SYSCTL_RCC2_OSCSRC2_M;
    rcc2 |= SYSCTL_RCC2_OSCSRC2_IO | SYSCTL_RCC2_BYPASS2;
    HWREG(SYSCTL_RCC2) = rcc2;
    HWREG(SYSCTL_RCC) = rcc;
    SysCtlDelay(16);

    // A later SysCtlClockSet powers the main oscillator up again and waits for it afresh.
    HWREG(SYSCTL_RCC) = rcc | SYSCTL_RCC_PWRDN | SYSCTL_RCC_MOSCDIS;
    HWREG(SYSCTL_RCC2) = rcc2 | SYSCTL_RCC2_PWRDN2;
    clock_set_failed = true;
}

uint32_t crystal_hz(uint32_t rcc) {
    uint32_t code = (rcc & SYSCTL_RCC_XTAL_M) >> SYSCTL_RCC_XTAL_S;
    if (code < XTAL_FIRST_CODE || code - XTAL_FIRST_CODE >= sizeof(XTAL_HZ) / sizeof(XTAL_HZ[0])) {
        return PIOSC_HZ;
    }
    return XTAL_HZ[code - XTAL_FIRST_CODE];
}

// Frequency of the selected oscillator; RCC2 when it is in use.
uint32_t oscillator_hz(uint32_t rcc, uint32_t rcc2) {
    uint32_t source =
        (rcc2 & SYSCTL_RCC2_USERCC2) ? (rcc2 & SYSCTL_RCC2_OSCSRC2_M) : (rcc & SYSCTL_RCC_OSCSRC_M);
    switch (source) {
    case SYSCTL_RCC2_OSCSRC2_MO:
        return crystal_hz(rcc);
    case SYSCTL_RCC2_OSCSRC2_IO:
        return PIOSC_HZ;
    case SYSCTL_RCC2_OSCSRC2_IO4:
        return PIOSC_HZ / 4;
    case SYSCTL_RCC2_OSCSRC2_30:
        return 30000;
    case SYSCTL_RCC2_OSCSRC2_32:
        return 32768;
    default:
        return 0;
    }
}

} // namespace

extern "C" {

void SysCtlClockSet(uint32_t ui32Config) {
    uint32_t rcc = HWREG(SYSCTL_RCC);
    uint32_t rcc2 = HWREG(SYSCTL_RCC2);

    // Run from the raw oscillator while the PLL and divider change.
    rcc |= SYSCTL_RCC_BYPASS;
    rcc &= ~SYSCTL_RCC_USESYSDIV;
    rcc2 |= SYSCTL_RCC2_BYPASS2;
    HWREG(SYSCTL_RCC) = rcc;
    HWREG(SYSCTL_RCC2) = rcc2;

    // Start the main oscillator if it is wanted and stopped, and let it settle.
    clock_set_failed = false;
    bool main_osc = (ui32Config & 0x38) == SYSCTL_OSC_MAIN;
    if ((rcc & SYSCTL_RCC_MOSCDIS) && main_osc && (ui32Config & SYSCTL_MAIN_OSC_DIS) == 0) {
        HWREG(SYSCTL_MISC) = SYSCTL_MISC_MOSCPUPMIS;
        rcc &= ~SYSCTL_RCC_MOSCDIS;
        HWREG(SYSCTL_RCC) = rcc;
        if (!wait_for_status(SYSCTL_RIS_MOSCPUPRIS, OSC_WAIT_LOOPS)) {
            fall_back_to_piosc(rcc, rcc2);
            return;
        }
    }

    // Oscillator source, crystal and PLL power. RCC2 takes the 3-bit source and the wide divider.
    rcc &= ~(SYSCTL_RCC_XTAL_M | SYSCTL_RCC_OSCSRC_M | SYSCTL_RCC_PWRDN | SYSCTL_RCC_MOSCDIS |
             SYSCTL_RCC_IOSCDIS);
    rcc |= ui32Config & (SYSCTL_RCC_XTAL_M | SYSCTL_RCC_OSCSRC_M | SYSCTL_RCC_PWRDN | SYSCTL_RCC_MOSCDIS |
                         SYSCTL_RCC_IOSCDIS);
    rcc2 &= ~(SYSCTL_RCC2_USERCC2 | SYSCTL_RCC2_OSCSRC2_M | SYSCTL_RCC2_PWRDN2);
    rcc2 |= ui32Config & (SYSCTL_RCC2_USERCC2 | SYSCTL_RCC2_PWRDN2);
    rcc2 |= (ui32Config & 0x30) | ((ui32Config & 0x08) << 3);

    // A new lock is signalled only after the PLL settles on the new settings.
    HWREG(SYSCTL_MISC) = SYSCTL_MISC_PLLLMIS;
    if (rcc2 & SYSCTL_RCC2_USERCC2) {
        HWREG(SYSCTL_RCC2) = rcc2;
        HWREG(SYSCTL_RCC) = rcc;
    } else {
        HWREG(SYSCTL_RCC) = rcc;
        HWREG(SYSCTL_RCC2) = rcc2;
    }

    // System divider.
    rcc &= ~(SYSCTL_RCC_SYSDIV_M | SYSCTL_RCC_USESYSDIV);
    rcc2 &= ~(SYSCTL_RCC2_SYSDIV2_M | SYSCTL_RCC2_SYSDIV2LSB | SYSCTL_RCC2_DIV400);
    if (ui32Config & SYSCTL_RCC2_USERCC2) {
        rcc |= SYSCTL_RCC_USESYSDIV;
        rcc2 |= ui32Config & (SYSCTL_RCC2_SYSDIV2_M | SYSCTL_RCC2_SYSDIV2LSB | SYSCTL_RCC2_DIV400);
    } else {
        rcc |= ui32Config & (SYSCTL_RCC_SYSDIV_M | SYSCTL_RCC_USESYSDIV);
    }

    // Wait for lock before the PLL drives the system clock.
    bool use_pll = (ui32Config & SYSCTL_RCC_BYPASS) == 0 && (ui32Config & SYSCTL_RCC_PWRDN) == 0;
    if (use_pll) {
        if (!wait_for_status(SYSCTL_RIS_PLLLRIS, PLL_WAIT_LOOPS)) {
            fall_back_to_piosc(rcc, rcc2);
            return;
        }
        rcc &= ~SYSCTL_RCC_BYPASS;
        rcc2 &= ~SYSCTL_RCC2_BYPASS2;
    }

    HWREG(SYSCTL_RCC) = rcc;
    HWREG(SYSCTL_RCC2) = rcc2;
    SysCtlDelay(16);
}

bool SysCtlClockSetFailed(void) {
    return clock_set_failed;
}

uint32_t SysCtlClockGet(void) {
    uint32_t rcc = HWREG(SYSCTL_RCC);
    uint32_t rcc2 = HWREG(SYSCTL_RCC2);
    bool use_rcc2 = (rcc2 & SYSCTL_RCC2_USERCC2) != 0;

    bool bypass = use_rcc2 ? (rcc2 & SYSCTL_RCC2_BYPASS2) : (rcc & SYSCTL_RCC_BYPASS);
    bool div400 = use_rcc2 && (rcc2 & SYSCTL_RCC2_DIV400);
    uint32_t clock = bypass ? oscillator_hz(rcc, rcc2) : (div400 ? PLL_HZ : PLL_HZ / 2);

    if ((rcc & SYSCTL_RCC_USESYSDIV) == 0 && bypass) {
        return clock;
    }
    uint32_t divisor;
    if (!use_rcc2) {
        divisor = ((rcc & SYSCTL_RCC_SYSDIV_M) >> SYSCTL_RCC_SYSDIV_S) + 1;
    } else if (div400) {
        divisor = (((rcc2 & SYSCTL_RCC2_SYSDIV2_M) >> (SYSCTL_RCC2_SYSDIV2_S - 1)) |
                   ((rcc2 & SYSCTL_RCC2_SYSDIV2LSB) ? 1 : 0)) +
                  1;
    } else {
        divisor = ((rcc2 & SYSCTL_RCC2_SYSDIV2_M) >> SYSCTL_RCC2_SYSDIV2_S) + 1;
    }
    return clock / divisor;
}

void SysCtlPeripheralEnable(uint32_t ui32Peripheral) {
    HWREGBITW(periph_reg(BANK_RCGC, ui32Peripheral), periph_bit(ui32Peripheral)) = 1;
    // Registers fault until the block reports ready; a short bounded wait spares every caller.
    for (uint32_t i = 0; i < READY_WAIT_LOOPS && !SysCtlPeripheralReady(ui32Peripheral); ++i) {
    }
}

void SysCtlPeripheralDisable(uint32_t ui32Peripheral) {
    HWREGBITW(periph_reg(BANK_RCGC, ui32Peripheral), periph_bit(ui32Peripheral)) = 0;
}

bool SysCtlPeripheralReady(uint32_t ui32Peripheral) {
    return HWREGBITW(periph_reg(BANK_PR, ui32Peripheral), periph_bit(ui32Peripheral)) != 0;
}

bool SysCtlPeripheralPresent(uint32_t ui32Peripheral) {
    return HWREGBITW(periph_reg(BANK_PP, ui32Peripheral), periph_bit(ui32Peripheral)) != 0;
}

void SysCtlPeripheralReset(uint32_t ui32Peripheral) {
    uint32_t reg = periph_reg(BANK_SR, ui32Peripheral);
    HWREGBITW(reg, periph_bit(ui32Peripheral)) = 1;
    SysCtlDelay(16);
    HWREGBITW(reg, periph_bit(ui32Peripheral)) = 0;
    for (uint32_t i = 0; i < READY_WAIT_LOOPS && !SysCtlPeripheralReady(ui32Peripheral); ++i) {
    }
}

// Three cycles a loop: subtract and a taken branch.
__attribute__((naked)) void SysCtlDelay(uint32_t ui32Count) {
    __asm volatile("1:  subs r0, r0, #1\n"
                   "    bne 1b\n"
                   "    bx lr\n");
}

void SysCtlReset(void) {
    HWREG(NVIC_APINT) = NVIC_APINT_VECTKEY | NVIC_APINT_SYSRESETREQ;
    for (;;) {
    }
}

uint32_t SysCtlResetCauseGet(void) {
    return HWREG(SYSCTL_RESC);
}

void SysCtlResetCauseClear(uint32_t ui32Causes) {
    HWREG(SYSCTL_RESC) &= ~ui32Causes;
}

void SysCtlSleep(void) {
    __asm volatile("wfi");
}

} // extern "C"
