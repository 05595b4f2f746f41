// Hibernation module of the TM4C123: the battery-backed RTC, its match, the wake sources and the
// hibernate request. The module runs from the 32.768 kHz clock: every register write must wait
// until HIBCTL.WRC reports the previous write complete.
#include "driverlib/hibernate.h"

#include "inc/hw_hibernate.h"
#include "inc/hw_types.h"

namespace {

// A write completes within three 32 kHz cycles; the first after enabling the clock waits for the
// crystal to start (up to about 1.5 s). The bound keeps a dead crystal from hanging the firmware.
constexpr uint32_t WRITE_WAIT_LOOPS = 20000000;

constexpr uint32_t WAKE_BITS = HIB_CTL_PINWEN | HIB_CTL_RTCWEN | HIB_CTL_BATWKEN;
// Low-battery detection is implicit on this part (no enable bit); only the level and abort apply.
constexpr uint32_t LOW_BAT_BITS = HIB_CTL_VBATSEL_M | HIB_CTL_VABORT;
constexpr uint32_t CLOCK_BITS = HIB_CTL_OSCDRV | HIB_CTL_OSCBYP;
constexpr uint32_t INT_BITS = HIB_RIS_WC | HIB_RIS_EXTW | HIB_RIS_LOWBAT | HIB_RIS_RTCALT0;

// Without its clock the module neither takes writes nor reports them complete.
void wait_write_complete(void) {
    if ((HWREG(HIB_CTL) & HIB_CTL_CLK32EN) == 0) {
        return;
    }
    for (uint32_t i = 0; i < WRITE_WAIT_LOOPS; ++i) {
        if (HWREG(HIB_CTL) & HIB_CTL_WRC) {
            return;
        }
    }
}

void write_reg(uint32_t reg, uint32_t value) {
    wait_write_complete();
    HWREG(reg) = value;
    wait_write_complete();
}

void write_ctl(uint32_t clear, uint32_t set) {
    wait_write_complete();
    uint32_t ctl = HWREG(HIB_CTL) & ~HIB_CTL_WRC;
    HWREG(HIB_CTL) = (ctl & ~clear) | set;
    wait_write_complete();
}

} // namespace

extern "C" {

void HibernateEnableExpClk(uint32_t ui32HibClk) {
    write_ctl(0, HIB_CTL_CLK32EN);
}

void HibernateDisable(void) {
    write_ctl(HIB_CTL_CLK32EN, 0);
}

uint32_t HibernateIsActive(void) {
    return (HWREG(HIB_CTL) & HIB_CTL_CLK32EN) ? 1 : 0;
}

void HibernateClockConfig(uint32_t ui32Config) {
    write_ctl(CLOCK_BITS, ui32Config & CLOCK_BITS);
}

void HibernateRTCEnable(void) {
    write_ctl(0, HIB_CTL_RTCEN);
}

void HibernateRTCDisable(void) {
    write_ctl(HIB_CTL_RTCEN, 0);
}

void HibernateWakeSet(uint32_t ui32WakeFlags) {
    write_ctl(WAKE_BITS, ui32WakeFlags & WAKE_BITS);
}

uint32_t HibernateWakeGet(void) {
    return HWREG(HIB_CTL) & WAKE_BITS;
}

void HibernateLowBatSet(uint32_t ui32LowBatFlags) {
    write_ctl(LOW_BAT_BITS, ui32LowBatFlags & LOW_BAT_BITS);
}

uint32_t HibernateLowBatGet(void) {
    return HWREG(HIB_CTL) & LOW_BAT_BITS;
}

void HibernateRTCSet(uint32_t ui32RTCValue) {
    write_reg(HIB_RTCLD, ui32RTCValue);
}

uint32_t HibernateRTCGet(void) {
    return HWREG(HIB_RTCC);
}

// The TM4C123 has one match register.
void HibernateRTCMatchSet(uint32_t ui32Match, uint32_t ui32Value) {
    if (ui32Match == 0) {
        write_reg(HIB_RTCM0, ui32Value);
    }
}

uint32_t HibernateRTCMatchGet(uint32_t ui32Match) {
    return ui32Match == 0 ? HWREG(HIB_RTCM0) : 0;
}

void HibernateRTCSSMatchSet(uint32_t ui32Match, uint32_t ui32Value) {
    if (ui32Match == 0) {
        write_reg(HIB_RTCSS, (ui32Value << HIB_RTCSS_RTCSSM_S) & HIB_RTCSS_RTCSSM_M);
    }
}

uint32_t HibernateRTCSSMatchGet(uint32_t ui32Match) {
    return ui32Match == 0 ? (HWREG(HIB_RTCSS) & HIB_RTCSS_RTCSSM_M) >> HIB_RTCSS_RTCSSM_S : 0;
}

uint32_t HibernateRTCSSGet(void) {
    return HWREG(HIB_RTCSS) & HIB_RTCSS_RTCSSC_M;
}

void HibernateRTCTrimSet(uint32_t ui32Trim) {
    write_reg(HIB_RTCT, ui32Trim & HIB_RTCT_TRIM_M);
}

uint32_t HibernateRTCTrimGet(void) {
    return HWREG(HIB_RTCT) & HIB_RTCT_TRIM_M;
}

void HibernateDataSet(uint32_t* pui32Data, uint32_t ui32Count) {
    for (uint32_t i = 0; i < ui32Count && i < HIB_DATA_WORDS; ++i) {
        write_reg(HIB_DATA + i * 4, pui32Data[i]);
    }
}

void HibernateDataGet(uint32_t* pui32Data, uint32_t ui32Count) {
    for (uint32_t i = 0; i < ui32Count && i < HIB_DATA_WORDS; ++i) {
        pui32Data[i] = HWREG(HIB_DATA + i * 4);
    }
}

// Power is removed shortly after the request is accepted; the caller waits for it.
void HibernateRequest(void) {
    write_ctl(0, HIB_CTL_HIBREQ);
}

void HibernateIntEnable(uint32_t ui32IntFlags) {
    wait_write_complete();
    uint32_t mask = HWREG(HIB_IM) | (ui32IntFlags & INT_BITS);
    write_reg(HIB_IM, mask);
}

void HibernateIntDisable(uint32_t ui32IntFlags) {
    wait_write_complete();
    uint32_t mask = HWREG(HIB_IM) & ~(ui32IntFlags & INT_BITS);
    write_reg(HIB_IM, mask);
}

uint32_t HibernateIntStatus(bool bMasked) {
    return HWREG(bMasked ? HIB_MIS : HIB_RIS);
}

void HibernateIntClear(uint32_t ui32IntFlags) {
    write_reg(HIB_IC, ui32IntFlags & INT_BITS);
}

// On this part VDD3ON keeps the GPIO pad states while hibernating.
void HibernateGPIORetentionEnable(void) {
    write_ctl(0, HIB_CTL_VDD3ON);
}

void HibernateGPIORetentionDisable(void) {
    write_ctl(HIB_CTL_VDD3ON, 0);
}

bool HibernateGPIORetentionGet(void) {
    return (HWREG(HIB_CTL) & HIB_CTL_VDD3ON) != 0;
}

} // extern "C"
