// Synchronous serial interfaces (SPI) of the TM4C123: clock prescaler and divider, frame format,
// and the transmit/receive FIFOs.
#include "driverlib/ssi.h"

#include "inc/hw_ssi.h"
#include "inc/hw_types.h"

namespace {

struct ClockDivider {
    uint32_t prescale; // CPSDVSR: even, 2..254
    uint32_t scr;      // serial clock rate: 0..255
};

constexpr uint32_t PRESCALE_MIN = 2;
constexpr uint32_t PRESCALE_MAX = 254;
constexpr uint32_t SCR_STEPS = 256;

// The smallest divisor prescale x (1 + SCR) that is at least clock / rate, so that the bit clock
// never runs faster than asked: an SD card in identification must not see more than 400 kHz.
// Rounding the ratio down instead gives 50 MHz / 124 = 403 kHz. A rate below clock / 65024 gets the
// slowest clock there is; a rate at or above clock / 2 the fastest.
ClockDivider divider_for(uint32_t clock, uint32_t rate) {
    ClockDivider slowest{PRESCALE_MAX, SCR_STEPS - 1};
    if (rate == 0) {
        return slowest;
    }
    uint32_t wanted = clock / rate + (clock % rate != 0 ? 1 : 0);
    ClockDivider best = slowest;
    uint32_t best_divisor = PRESCALE_MAX * SCR_STEPS;
    // Each prescale reaches a different set of products, so every one is tried: 127 steps.
    for (uint32_t prescale = PRESCALE_MIN; prescale <= PRESCALE_MAX; prescale += 2) {
        uint32_t steps = wanted / prescale + (wanted % prescale != 0 ? 1 : 0);
        steps = steps == 0 ? 1 : steps;
        if (steps > SCR_STEPS) {
            continue;
        }
        uint32_t divisor = prescale * steps;
        if (divisor < best_divisor) {
            best = {prescale, steps - 1};
            best_divisor = divisor;
        }
        if (divisor == wanted) {
            break;
        }
    }
    return best;
}

} // namespace

extern "C" {

// Bit rate = clock / (CPSDVSR * (1 + SCR)), CPSDVSR even in 2..254, SCR in 0..255.
void SSIConfigSetExpClk(uint32_t ui32Base, uint32_t ui32SSIClk, uint32_t ui32Protocol, uint32_t ui32Mode,
                        uint32_t ui32BitRate, uint32_t ui32DataWidth) {
    uint32_t cr1 = (ui32Mode == SSI_MODE_SLAVE_OD) ? SSI_CR1_SOD : 0;
    cr1 |= (ui32Mode == SSI_MODE_MASTER) ? 0 : SSI_CR1_MS;
    HWREG(ui32Base + SSI_O_CR1) = cr1;

    ClockDivider divider = divider_for(ui32SSIClk, ui32BitRate);
    HWREG(ui32Base + SSI_O_CPSR) = divider.prescale;

    // MOTO_MODE_n carries SPO in bit 0 and SPH in bit 1; CR0 wants them in bits 6 and 7.
    uint32_t polarity_phase = (ui32Protocol & 0x3) << 6;
    uint32_t format = ui32Protocol & SSI_CR0_FRF_M;
    HWREG(ui32Base + SSI_O_CR0) =
        (divider.scr << SSI_CR0_SCR_S) | polarity_phase | format | ((ui32DataWidth - 1) & SSI_CR0_DSS_M);
}

void SSIEnable(uint32_t ui32Base) {
    HWREG(ui32Base + SSI_O_CR1) |= SSI_CR1_SSE;
}

void SSIDisable(uint32_t ui32Base) {
    HWREG(ui32Base + SSI_O_CR1) &= ~SSI_CR1_SSE;
}

void SSIDataPut(uint32_t ui32Base, uint32_t ui32Data) {
    while ((HWREG(ui32Base + SSI_O_SR) & SSI_SR_TNF) == 0) {
    }
    HWREG(ui32Base + SSI_O_DR) = ui32Data;
}

int32_t SSIDataPutNonBlocking(uint32_t ui32Base, uint32_t ui32Data) {
    if ((HWREG(ui32Base + SSI_O_SR) & SSI_SR_TNF) == 0) {
        return 0;
    }
    HWREG(ui32Base + SSI_O_DR) = ui32Data;
    return 1;
}

void SSIDataGet(uint32_t ui32Base, uint32_t* pui32Data) {
    while ((HWREG(ui32Base + SSI_O_SR) & SSI_SR_RNE) == 0) {
    }
    *pui32Data = HWREG(ui32Base + SSI_O_DR);
}

int32_t SSIDataGetNonBlocking(uint32_t ui32Base, uint32_t* pui32Data) {
    if ((HWREG(ui32Base + SSI_O_SR) & SSI_SR_RNE) == 0) {
        return 0;
    }
    *pui32Data = HWREG(ui32Base + SSI_O_DR);
    return 1;
}

bool SSIBusy(uint32_t ui32Base) {
    return (HWREG(ui32Base + SSI_O_SR) & SSI_SR_BSY) != 0;
}

void SSIClockSourceSet(uint32_t ui32Base, uint32_t ui32Source) {
    HWREG(ui32Base + SSI_O_CC) = ui32Source;
}

uint32_t SSIClockSourceGet(uint32_t ui32Base) {
    return HWREG(ui32Base + SSI_O_CC);
}

void SSIIntEnable(uint32_t ui32Base, uint32_t ui32IntFlags) {
    HWREG(ui32Base + SSI_O_IM) |= ui32IntFlags;
}

void SSIIntDisable(uint32_t ui32Base, uint32_t ui32IntFlags) {
    HWREG(ui32Base + SSI_O_IM) &= ~ui32IntFlags;
}

uint32_t SSIIntStatus(uint32_t ui32Base, bool bMasked) {
    return HWREG(ui32Base + (bMasked ? SSI_O_MIS : SSI_O_RIS));
}

void SSIIntClear(uint32_t ui32Base, uint32_t ui32IntFlags) {
    HWREG(ui32Base + SSI_O_ICR) = ui32IntFlags;
}

} // extern "C"
