// The hibernation module: the battery-backed RTC with its match register, the wake conditions, the
// status bits the firmware reads after a wake, the battery-backed memory, and the request that cuts
// the chip's power. Its state lives in hib() so that it outlives the power-on period; the RTC
// counts in virtual time (rtc.cpp). Registers in the module's own clock domain take three
// cycles of the 32.768 kHz clock to write, and every completed write raises the write-complete
// status bit. Through the API a write spends that time at once; through the registers the write
// takes effect at once and HIBCTL.WRC reads 0 until it completes.
#include "registers.h"
#include "runtime.h"

#include "driverlib/hibernate.h"
#include "driverlib/sysctl.h"
#include "inc/hw_hibernate.h"
#include "inc/hw_memmap.h"

using namespace sim;

namespace {

constexpr uint64_t write_ns = 3 * ns_per_s / 32768;
constexpr uint32_t wake_bits = HIB_CTL_PINWEN | HIB_CTL_RTCWEN | HIB_CTL_BATWKEN;
constexpr uint32_t low_bat_bits = HIB_CTL_VBATSEL_M | HIB_CTL_VABORT | 0x20;
constexpr uint32_t clock_bits = HIB_CTL_OSCDRV | HIB_CTL_OSCBYP | HIBERNATE_OSC_LFIOSC;
// What HIBCTL keeps of a write: the request and the battery check act once and read back 0, and
// CLK32EN and RTCEN live in HibState's `active` and `rtc_enabled`.
constexpr uint32_t ctl_kept_bits = wake_bits | low_bat_bits | clock_bits | HIB_CTL_VDD3ON;

uint32_t g_ss_match; // sub-second match (not used by the board; kept for the read-back)
uint32_t g_rtc_load; // the value last written to the RTC load register

// The register write in flight: write-complete rises when it finishes.
bool g_write_pending;
uint64_t g_write_done_ns;

HibState& module() {
    require_clock(SYSCTL_PERIPH_HIBERNATE, "HIB", HIB_BASE);
    return hib();
}

HibState& read_access() {
    spend_cycles(api_call_cycles);
    return module();
}

HibState& write_access() {
    module();
    advance_ns(write_ns);
    return hib();
}

void write_done(HibState& h) {
    h.ris |= HIB_RIS_WC;
}

// Cuts the power unless the module is off or a failure is staged (scenario key hibernate.fail);
// then the request is lost, as on a board whose module does not take it.
void request_hibernation(HibState& h) {
    if (!h.active) {
        return;
    }
    if (h.fail_requests > 0) {
        --h.fail_requests;
        return;
    }
    h.hibernating = 1;
    g_write_pending = false; // the request's own write completed as the power went
    power_off(PowerEvent::hibernate);
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

// Whether the module's clock runs (CTL.CLK32EN, as the chip's register shows it): asked before the
// firmware enables the module, it tells a wake (or a reset while the module ran) from a power-up.
uint32_t HibernateIsActive(void) {
    return read_access().active ? HIB_CTL_CLK32EN : 0;
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

// Returns only when the module does not take the request (stopped, or a failure staged).
void HibernateRequest(void) {
    HibState& h = write_access();
    write_done(h);
    request_hibernation(h);
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

// ---------------------------------------------------------------- register door

namespace {

constexpr uint32_t reg(uint32_t address) {
    return address - HIB_BASE;
}
constexpr uint32_t data_first = reg(HIB_DATA);
constexpr uint32_t data_end = data_first + 4 * HIB_DATA_WORDS;
constexpr uint32_t int_bits = HIB_RIS_WC | HIB_RIS_EXTW | HIB_RIS_LOWBAT | HIB_RIS_RTCALT0;

// A write in flight completes three 32.768 kHz cycles after it was made and raises write-complete.
// A completion further ahead than that dates from before the virtual clock restarted (a new board
// in the unit tests): it is forgotten.
void finish_write(HibState& h) {
    if (!g_write_pending) {
        return;
    }
    uint64_t now = now_ns();
    bool stale = g_write_done_ns > now + write_ns;
    if (!stale && now < g_write_done_ns) {
        return;
    }
    g_write_pending = false;
    if (!stale) {
        h.ris |= HIB_RIS_WC;
    }
}

void start_write() {
    g_write_pending = true;
    g_write_done_ns = now_ns() + write_ns;
}

uint32_t subseconds(const HibState& h) {
    return static_cast<uint32_t>(h.rtc_sub_ns * 32768 / ns_per_s) & HIB_RTCSS_RTCSSC_M;
}

// CLK32EN shows whether the module runs, so the first read of a power-on period tells a wake
// (or a reset while it ran) from a power-up, as HibernateIsActive does.
uint32_t read_ctl(const HibState& h) {
    uint32_t ctl = h.ctl & ctl_kept_bits;
    ctl |= h.active ? HIB_CTL_CLK32EN : 0;
    ctl |= h.rtc_enabled ? HIB_CTL_RTCEN : 0;
    ctl |= g_write_pending ? 0 : HIB_CTL_WRC;
    return ctl;
}

void write_ctl(HibState& h, uint32_t value) {
    h.ctl = value & (ctl_kept_bits | HIB_CTL_CLK32EN | HIB_CTL_RTCEN);
    h.active = (value & HIB_CTL_CLK32EN) != 0;
    h.rtc_enabled = (value & HIB_CTL_RTCEN) != 0;
    start_write();
    if (value & HIB_CTL_HIBREQ) {
        request_hibernation(h);
    }
}

// A write to a register of the module's clock domain; false for an offset that is none of them.
bool write_clocked(HibState& h, uint32_t offset, uint32_t value) {
    switch (offset) {
    case reg(HIB_RTCM0):
        h.match0 = value;
        return true;
    case reg(HIB_RTCLD):
        // Loading the counter restarts the second.
        h.rtc_seconds = value;
        h.rtc_sub_ns = 0;
        g_rtc_load = value;
        return true;
    case reg(HIB_IM):
        h.im = value & int_bits;
        return true;
    case reg(HIB_RTCT):
        h.trim = value & HIB_RTCT_TRIM_M;
        return true;
    case reg(HIB_RTCSS):
        g_ss_match = (value & HIB_RTCSS_RTCSSM_M) >> HIB_RTCSS_RTCSSM_S;
        return true;
    default:
        break;
    }
    if (offset >= data_first && offset < data_end) {
        h.data[(offset - data_first) / 4] = value;
        return true;
    }
    return false;
}

} // namespace

namespace sim::dev {

uint32_t hib_reg_read(uint32_t offset) {
    HibState& h = hib();
    finish_write(h);
    if (offset >= data_first && offset < data_end) {
        return h.data[(offset - data_first) / 4];
    }
    switch (offset) {
    case reg(HIB_RTCC):
        return h.rtc_seconds;
    case reg(HIB_RTCM0):
        return h.match0;
    case reg(HIB_RTCLD):
        return g_rtc_load;
    case reg(HIB_CTL):
        return read_ctl(h);
    case reg(HIB_IM):
        return h.im;
    case reg(HIB_RIS):
        return h.ris;
    case reg(HIB_MIS):
        return h.ris & h.im;
    case reg(HIB_RTCT):
        return h.trim;
    case reg(HIB_RTCSS):
        return (g_ss_match << HIB_RTCSS_RTCSSM_S) | subseconds(h);
    default:
        return 0;
    }
}

void hib_reg_write(uint32_t offset, uint32_t value) {
    HibState& h = hib();
    finish_write(h);
    if (offset == reg(HIB_IC)) {
        // As through the API, clearing is no write to the module's clock domain: write-complete,
        // once cleared, stays clear.
        h.ris &= ~value;
        return;
    }
    if (offset == reg(HIB_CTL)) {
        write_ctl(h, value);
        return;
    }
    if (write_clocked(h, offset, value)) {
        start_write();
    }
}

} // namespace sim::dev
