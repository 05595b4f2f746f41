// The hibernation module: the battery-backed RTC with its match register, the wake conditions, the
// status bits the firmware reads after a wake, the battery-backed memory, and the request that cuts
// the chip's power. Its state lives in hib() so that it outlives the power-on period; the RTC
// counts in virtual time (runtime.cpp). Registers in the module's own clock domain take three
// cycles of the 32.768 kHz clock to write, and every completed write raises the write-complete
// status bit.
#include "runtime.h"

#include "driverlib/hibernate.h"
#include "inc/hw_hibernate.h"

using namespace sim;

namespace {

constexpr uint64_t write_ns = 3 * ns_per_s / 32768;
constexpr uint32_t wake_bits = HIB_CTL_PINWEN | HIB_CTL_RTCWEN | HIB_CTL_BATWKEN;
constexpr uint32_t low_bat_bits = HIB_CTL_VBATSEL_M | HIB_CTL_VABORT | 0x20;
constexpr uint32_t clock_bits = HIB_CTL_OSCDRV | HIB_CTL_OSCBYP | HIBERNATE_OSC_LFIOSC;

uint32_t g_ss_match; // sub-second match (not used by the board; kept for the read-back)

HibState& read_access() {
    spend_cycles(api_call_cycles);
    rtc_sync();
    return hib();
}

HibState& write_access() {
    advance_ns(write_ns);
    rtc_sync();
    return hib();
}

void write_done(HibState& h) {
    h.ris |= HIB_RIS_WC;
}

} // namespace

extern "C" {

void HibernateEnableExpClk(uint32_t ui32HibClk) {
    HibState& h = write_access();
    h.ctl |= HIB_CTL_CLK32EN;
    h.active = 1;
    write_done(h);
}

void HibernateDisable(void) {
    HibState& h = write_access();
    h.ctl &= ~HIB_CTL_CLK32EN;
    h.active = 0;
    write_done(h);
}

// Whether the module was already running when the chip started: it came out of hibernation, or
// the chip was reset while the module ran. This is what the firmware asks at start-up to tell a
// wake from a power-up; the clock it enables itself afterwards does not change the answer.
uint32_t HibernateIsActive(void) {
    read_access();
    return core().hib_active_at_start ? HIB_CTL_CLK32EN : 0;
}

void HibernateClockConfig(uint32_t ui32Config) {
    HibState& h = write_access();
    h.ctl = (h.ctl & ~clock_bits) | (ui32Config & clock_bits);
    write_done(h);
}

void HibernateRTCEnable(void) {
    HibState& h = write_access();
    h.ctl |= HIB_CTL_RTCEN;
    h.rtc_enabled = 1;
    write_done(h);
}

void HibernateRTCDisable(void) {
    HibState& h = write_access();
    h.ctl &= ~HIB_CTL_RTCEN;
    h.rtc_enabled = 0;
    write_done(h);
}

void HibernateWakeSet(uint32_t ui32WakeFlags) {
    HibState& h = write_access();
    h.ctl = (h.ctl & ~wake_bits) | (ui32WakeFlags & wake_bits);
    write_done(h);
}

uint32_t HibernateWakeGet(void) {
    return read_access().ctl & wake_bits;
}

void HibernateLowBatSet(uint32_t ui32LowBatFlags) {
    HibState& h = write_access();
    h.ctl = (h.ctl & ~low_bat_bits) | (ui32LowBatFlags & low_bat_bits);
    write_done(h);
}

uint32_t HibernateLowBatGet(void) {
    return read_access().ctl & low_bat_bits;
}

// Loading the counter restarts the second.
void HibernateRTCSet(uint32_t ui32RTCValue) {
    HibState& h = write_access();
    h.rtc_seconds = ui32RTCValue;
    h.rtc_sub_ns = 0;
    write_done(h);
}

uint32_t HibernateRTCGet(void) {
    return read_access().rtc_seconds;
}

// The TM4C123 has one match register; other indices are ignored.
void HibernateRTCMatchSet(uint32_t ui32Match, uint32_t ui32Value) {
    HibState& h = write_access();
    if (ui32Match == 0) {
        h.match0 = ui32Value;
    }
    write_done(h);
}

uint32_t HibernateRTCMatchGet(uint32_t ui32Match) {
    HibState& h = read_access();
    return ui32Match == 0 ? h.match0 : 0;
}

void HibernateRTCSSMatchSet(uint32_t ui32Match, uint32_t ui32Value) {
    HibState& h = write_access();
    if (ui32Match == 0) {
        g_ss_match = ui32Value & HIB_RTCSS_RTCSSC_M;
    }
    write_done(h);
}

uint32_t HibernateRTCSSMatchGet(uint32_t ui32Match) {
    read_access();
    return ui32Match == 0 ? g_ss_match : 0;
}

// Sub-seconds in 1/32768 s.
uint32_t HibernateRTCSSGet(void) {
    HibState& h = read_access();
    return static_cast<uint32_t>(h.rtc_sub_ns * 32768 / ns_per_s) & HIB_RTCSS_RTCSSC_M;
}

void HibernateRTCTrimSet(uint32_t ui32Trim) {
    HibState& h = write_access();
    h.trim = ui32Trim & HIB_RTCT_TRIM_M;
    write_done(h);
}

uint32_t HibernateRTCTrimGet(void) {
    return read_access().trim;
}

void HibernateDataSet(uint32_t* pui32Data, uint32_t ui32Count) {
    HibState& h = write_access();
    for (uint32_t i = 0; i < ui32Count && i < HIB_DATA_WORDS; ++i) {
        h.data[i] = pui32Data[i];
    }
    write_done(h);
}

void HibernateDataGet(uint32_t* pui32Data, uint32_t ui32Count) {
    HibState& h = read_access();
    for (uint32_t i = 0; i < ui32Count && i < HIB_DATA_WORDS; ++i) {
        pui32Data[i] = h.data[i];
    }
}

// Cuts the power unless the module is off or a failure is staged (scenario key hibernate.fail);
// then the call returns as on a board whose module does not take the request.
void HibernateRequest(void) {
    HibState& h = write_access();
    write_done(h);
    if (!h.active) {
        return;
    }
    if (h.fail_requests > 0) {
        --h.fail_requests;
        return;
    }
    h.hibernating = 1;
    power_off(PowerEvent::hibernate);
}

void HibernateIntEnable(uint32_t ui32IntFlags) {
    HibState& h = write_access();
    h.im |= ui32IntFlags;
    write_done(h);
}

void HibernateIntDisable(uint32_t ui32IntFlags) {
    HibState& h = write_access();
    h.im &= ~ui32IntFlags;
    write_done(h);
}

// The raw status, or with bMasked the status of the enabled interrupts.
uint32_t HibernateIntStatus(bool bMasked) {
    HibState& h = read_access();
    return bMasked ? (h.ris & h.im) : h.ris;
}

// Clearing is not a write to the module's clock domain: it leaves write-complete as cleared.
void HibernateIntClear(uint32_t ui32IntFlags) {
    HibState& h = read_access();
    h.ris &= ~ui32IntFlags;
}

void HibernateGPIORetentionEnable(void) {
    HibState& h = write_access();
    h.ctl |= HIB_CTL_VDD3ON;
    write_done(h);
}

void HibernateGPIORetentionDisable(void) {
    HibState& h = write_access();
    h.ctl &= ~HIB_CTL_VDD3ON;
    write_done(h);
}

bool HibernateGPIORetentionGet(void) {
    return (read_access().ctl & HIB_CTL_VDD3ON) != 0;
}

} // extern "C"
