// Synchronous serial interfaces (SPI) of the TM4C123: clock prescaler and divider, frame format,
// and the transmit/receive FIFOs.
#include "driverlib/ssi.h"

#include "inc/hw_ssi.h"
#include "inc/hw_types.h"

extern "C" {

// Bit rate = clock / (CPSDVSR * (1 + SCR)), CPSDVSR even in 2..254, SCR in 0..255.
void SSIConfigSetExpClk(uint32_t ui32Base, uint32_t ui32SSIClk, uint32_t ui32Protocol, uint32_t ui32Mode,
                        uint32_t ui32BitRate, uint32_t ui32DataWidth) {
    uint32_t cr1 = (ui32Mode == SSI_MODE_SLAVE_OD) ? SSI_CR1_SOD : 0;
    cr1 |= (ui32Mode == SSI_MODE_MASTER) ? 0 : SSI_CR1_MS;
    HWREG(ui32Base + SSI_O_CR1) = cr1;

    uint32_t ratio = ui32BitRate ? ui32SSIClk / ui32BitRate : 0;
    uint32_t prescale = 0;
    uint32_t scr = 0;
    do {
        prescale += 2;
        scr = ratio / prescale;
        scr = scr ? scr - 1 : 0;
    } while (scr > 255 && prescale < 254);
    HWREG(ui32Base + SSI_O_CPSR) = prescale;

    // MOTO_MODE_n carries SPO in bit 0 and SPH in bit 1; CR0 wants them in bits 6 and 7.
    uint32_t polarity_phase = (ui32Protocol & 0x3) << 6;
    uint32_t format = ui32Protocol & SSI_CR0_FRF_M;
    HWREG(ui32Base + SSI_O_CR0) =
        ((scr & 0xFF) << SSI_CR0_SCR_S) | polarity_phase | format | ((ui32DataWidth - 1) & SSI_CR0_DSS_M);
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
