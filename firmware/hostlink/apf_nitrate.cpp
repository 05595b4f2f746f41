// The float controller's nitrate words: a nitrate sample and its reply line (kept in FRAM for "SL"
// and appended to the float log), the lamp bake and the spectrometer's configuration. The
// spectrometer driver does the measuring; here the float's record supplies its settings and the
// water the float's CTD reported, and takes its counters and error log entries.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "records/system.h"
#include "board/timebase.h"
#include "driverlib/hibernate.h"
#include "storage/apf_vars.h"
#include "hostlink/apf_cmd.h"
#include "measure/apf_math.h"
#include "measure/sample.h"
#include "ports/uartstdio.h"
#include "spectrometer/uvs.h"
#include "storage/i2c_fram.h"

namespace {

// The reply line starts after room for its "0xHHHH," prefix, as the pH reply does.
constexpr uint32_t LINE_START = 7;
// Error log codes of a failed nitrate sample or bake: this base minus the driver's result.
constexpr int32_t NITRATE_ERROR_BASE = -120;
// Flags of the reply line.
constexpr unsigned FLAG_NO_CTD = 1;    // temperature and salinity are not the float's
constexpr unsigned FLAG_SATURATED = 2; // light pixels at full scale in the fit window
constexpr unsigned FLAG_OUT_RANGE = 4; // nitrate outside -no3_offset .. no3_span

UvsSettings settings_from_apf(void) {
    UvsSettings s{};
    s.integration_ms = apf.isus_spec_period;
    s.dark_scans = apf.isus_dark_num;
    s.pre_scans = apf.isus_pre_scans;
    s.light_scans = apf.isus_scan_num;
    s.pixel_beg = apf.isus_pixel_beg;
    s.pixel_end = apf.isus_pixel_end;
    s.warm_lamp_s = apf.isus_warm_lamp;
    s.ref_limit = apf.isus_ref_limit;
    s.tcomp = apf.isus_tcomp_mode != 0;
    s.fit_salinity = apf.isus_salfit_mode != 0;
    s.baseline = apf.isus_bsl_model;
    return s;
}

// The float's last CTD values, unless it sent none or they were refused (time 0, -1 values).
UvsWater water_from_ctd(void) {
    UvsWater w{};
    w.valid = apf.CTD_Time != 0 && apf.CTD_Salinity > 0.0f && apf.CTD_Temp > -5.0f;
    w.temp = apf.CTD_Temp;
    w.salinity = w.valid ? apf.CTD_Salinity : sys_data.default_sal;
    return w;
}

// The power flags follow the switches, so a break-in finds any left on.
void mirror_power_flags(void) {
    apf.isus_spec_pwr = uvs_spec_on ? 1 : 0;
    apf.isus_lamp_pwr = uvs_lamp_on ? 1 : 0;
}

// A refused sample or bake: counted, logged, and answered "NAK,<word>,<reason>".
void refuse(const char* word, UvsResult r) {
    char why[40];
    uvs_result_text(r, why, sizeof why);
    apf.isus_error_ctr++;
    apf.isus_error_time = HibernateRTCGet();
    apf.isus_last_error = NITRATE_ERROR_BASE - static_cast<int32_t>(r);
    char text[80];
    snprintf(text, sizeof text, "Nitrate %s failed: %s", word, why);
    LogErrorMsg(text, apf.isus_last_error, apf.sys_message_enable);
    uprintf("NAK,%s,%s", word, why);
}

unsigned flags_of(const UvsSample& u) {
    unsigned flags = 0;
    if (!u.water_from_ctd) {
        flags |= FLAG_NO_CTD;
    }
    if (u.saturated > 0) {
        flags |= FLAG_SATURATED;
    }
    float no3 = u.fit.no3_umol_kg;
    if (no3 < -static_cast<float>(apf.no3_offset) || no3 > static_cast<float>(apf.no3_span)) {
        flags |= FLAG_OUT_RANGE;
    }
    return flags;
}

void format_line(const UvsSample& u, uint32_t sample_time) {
    const struct tm* t = get_RTC_time();
    char* text = prnBuf + LINE_START;
    const size_t room = sizeof prnBuf - LINE_START - 2; // keeps room for the line end
    snprintf(text, room,
             "NO3,%02d/%02d/%02d %02d:%02d:%02d,%lu,%.2f,%.3f,%.3e,%+.4e,%+.4e,%.4f,%.4f,%.1f,%.1f,%.1f,%.2f,"
             "%lu,%lu,%lu,%lu,%u",
             t->tm_mon + 1, t->tm_mday, t->tm_year % 100, t->tm_hour, t->tm_min, t->tm_sec,
             static_cast<unsigned long>(apf.isus_sample_ctr), static_cast<double>(apf.CTD_Depth),
             static_cast<double>(u.fit.no3_umol_kg), static_cast<double>(u.fit.rms),
             static_cast<double>(u.fit.base_a), static_cast<double>(u.fit.base_b),
             static_cast<double>(u.temp_used), static_cast<double>(u.salinity_used),
             static_cast<double>(u.dark_mean), static_cast<double>(u.dark_sd),
             static_cast<double>(u.light_mean), static_cast<double>(u.spec_temp),
             static_cast<unsigned long>(apf.isus_spec_period), static_cast<unsigned long>(sample_time),
             static_cast<unsigned long>(apf.CTD_Time), static_cast<unsigned long>(u.fit.pixels), flags_of(u));
    uint16_t crc = fCrc16Bit(reinterpret_cast<const uint8_t*>(text));
    char prefix[8];
    snprintf(prefix, sizeof prefix, "0x%04X", static_cast<unsigned>(crc));
    memcpy(prnBuf, prefix, 6);
    prnBuf[6] = ',';
}

void log_line(void) {
    if (OpenApfLogFile(2) != 0) {
        return;
    }
    apf_log_header_if_new();
    apf_log_write(prnBuf, strlen(prnBuf));
    apf_log_write("\n", 1);
    CloseApfLogFile();
}

} // namespace

void apf_take_sample_nitrate(void) {
    UvsSample u{};
    uint32_t sample_time = HibernateRTCGet();
    UvsResult r = uvs_takeIsusSample(settings_from_apf(), water_from_ctd(), &u);
    mirror_power_flags();
    if (r != UvsResult::ok) {
        refuse("T1", r);
        return;
    }
    apf.isus_sample_ctr++;
    apf.isus_sample_time = sample_time;
    format_line(u, sample_time);
    log_line();
    apf_keep_reply_for_sl();
    fram_apf_vars_store();
    uprintf("%s", prnBuf);
}

void apf_send_last_nitrate(void) {
    apf_send_last("apf_send_last_nitrate, byteCnt is 0\r\n");
}

// The lamp runs for isus_clean_lamp seconds; the reply gives the seconds and the light it gave at
// the end, in counts over dark across the fit window.
void apf_bake_uv_lamp(void) {
    float light = 0.0f;
    UvsResult r = uvs_bake(settings_from_apf(), apf.isus_clean_lamp, &light);
    mirror_power_flags();
    if (r != UvsResult::ok) {
        refuse("BAKE", r);
        return;
    }
    uprintf("ACK,BAKE,%lu,%.1f", static_cast<unsigned long>(uvs_lamp_seconds(apf.isus_clean_lamp)),
            static_cast<double>(light));
}

// The settings a nitrate sample runs with, then the calibration: its rows and the spectrometer it
// belongs to, or why there is none.
void apf_get_cfg_isus(void) {
    char cal[40];
    if (uvs_cal_ready()) {
        snprintf(cal, sizeof cal, "%d,%s", Zcoefs, uvs_cal.serial);
    } else {
        char why[32];
        uvs_cal_problem(why, sizeof why);
        snprintf(cal, sizeof cal, "0,%s", why);
    }
    uprintf("ACK,C1,%lu,%lu,%lu,%lu,%lu,%lu,%lu,%lu,%lu,%lu,%lu,%lu,%s",
            static_cast<unsigned long>(apf.isus_spec_period), static_cast<unsigned long>(apf.isus_dark_num),
            static_cast<unsigned long>(apf.isus_pre_scans), static_cast<unsigned long>(apf.isus_scan_num),
            static_cast<unsigned long>(apf.isus_pixel_beg), static_cast<unsigned long>(apf.isus_pixel_end),
            static_cast<unsigned long>(apf.isus_warm_lamp), static_cast<unsigned long>(apf.isus_ref_limit),
            static_cast<unsigned long>(apf.isus_tcomp_mode), static_cast<unsigned long>(apf.isus_salfit_mode),
            static_cast<unsigned long>(apf.isus_bsl_model), static_cast<unsigned long>(apf.isus_clean_lamp),
            cal);
}
