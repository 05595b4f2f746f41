// The float controller's persistent variables: their defaults, the start-up load with the
// power-on and reset counters, and the float-side error log.
#include "storage/apf_vars.h"

#include "storage/microsd.h"
#include "board/timebase.h"
#include "storage/error_log.h"
#include "ports/uartstdio.h"
#include "storage/i2c_fram.h"

#include "driverlib/hibernate.h"

#include <cstdio>

apfGlobals apf;

void SetSysDefaultsIntoNVRAM(void) {
    apf.sys_slog_delay = 4;
    apf.sys_sensor_type = 4;
    apf.sys_delay_hour = 3;
    apf.sendlast_byteCnt = 0;
    apf.sys_deploy_mode = 1;
    apf.sys_data_mode = 1;
    apf.sys_time_type = 1;
    apf.sys_reset_ctr = 0;
    apf.sys_reset_time = 0;
    apf.sys_por_ctr = 0;
    apf.sys_watchdog_enable = 0;
    apf.sys_file_ctr = 1;
    apf.sys_message_enable = 0;
    apf.sys_pump_enable = 0;
    apf.sys_sync_min = 0;
    apf.sys_last_doy = 0;
    apf.sys_last_error = 0;
    apf.sys_error_ctr = 0;
    apf.sys_error_time = 0;
    apf.sys_sync_hour = 6;
    apf.sys_df_limit = 5;
    apf.sys_sf_limit = 256;
    apf.sys_ef_limit = 256;
    apf.sys_serial_num = 777;
    apf.sys_apf_tmout = 10;
    apf.sys_tzoffset = 8;
    apf.sys_sleep_period = 60;
    apf.sys_pump_period = 60;
    // sys_tmout keeps its value.
    uprintf("\r\n");
    uprintf("\n  System Default Values loaded into FRAM!\n");
    uprintf("\r\n");
}

void SetIsusDefaultsIntoNVRAM(void) {
    apf.isus_tcomp_mode = 1;
    apf.isus_warm_shut = 1;
    apf.isus_dark_num = 1;
    apf.isus_bsl_model = 1;
    apf.isus_ref_limit = 5000;
    apf.isus_salfit_mode = 0;
    apf.isus_pre_scans = 2;
    apf.isus_fit_concs = 2;
    apf.isus_last_error = 0;
    apf.isus_error_ctr = 0;
    apf.isus_error_time = 0;
    apf.isus_sample_ctr = 0;
    apf.isus_sample_time = 0;
    apf.isus_scan_num = 3;
    apf.isus_pixel_beg = 17;
    apf.isus_pixel_end = 87;
    apf.isus_datpixel_beg = 17;
    apf.isus_datpixel_end = 87;
    apf.isus_warm_lamp = 3;
    apf.isus_ref_samples = 15;
    apf.isus_clean_lamp = 30;
    apf.isus_spec_period = 1000;
    apf.isus_scans_per_dc = 25;
    apf.isus_samps_per_clean = 24;
    apf.no3_span = 45;
    apf.no3_offset = 5;
    uprintf("\r\n  ISUS Default Values loaded into FRAM!\r\n");
}

void SetDuraDefaultsIntoNVRAM(void) {
    apf.dura_led_enable = 1;
    apf.dura_atod_readings = 10;
    apf.dura_samps_per_cal = 250;
    apf.dura_atod_delay = 100;
    apf.dura_last_error = 0;
    apf.dura_error_ctr = 0;
    apf.dura_error_time = 0;
    apf.dura_sample_ctr = 0;
    apf.dura_sample_time = 0;
    uprintf("\r\n  DuraFET Default Values loaded into FRAM!\r\n");
}

void SetDefaultsIntoNVRAM(void) {
    SetSysDefaultsIntoNVRAM();
    SetIsusDefaultsIntoNVRAM();
    SetDuraDefaultsIntoNVRAM();
    fram_apf_vars_store();
    LogErrorMsg("Default variable values were loaded into RTC NV SRAM", -116, apf.sys_message_enable);
}

void GetVarsFromNVRAM(void) {
    fram_apf_vars_retrieve();
}

void GetSysVarsFromNVRAM(void) {}
void GetIsusVarsFromNVRAM(void) {}
void GetDuraVarsFromNVRAM(void) {}

// Counting rule. sys_por_ctr counts every start of the chip: power-up, reset, watchdog and
// hibernation wake alike (the start-up marks each with sys_por_flag before calling here).
// sys_reset_ctr counts the starts that were not a wake from hibernation - the hibernation module
// was not running, or its status shows neither the RTC match (0x01) nor the WAKE pin (0x08) - and
// sys_reset_time stamps the latest of them. The status is read without clearing it: the wake
// classification reads it again afterwards.
void init_apf_global_vars(void) {
    uint32_t por_flag = apf.sys_por_flag; // the load below replaces the whole record
    GetVarsFromNVRAM();
    apf.sys_por_flag = por_flag;
    if (por_flag != 0) {
        apf.sys_por_ctr++;
    }
    bool hibernation_wake = false;
    if (HibernateIsActive()) {
        uint32_t status = HibernateIntStatus(false);
        hibernation_wake = (status & (HIBERNATE_INT_RTC_MATCH_0 | HIBERNATE_INT_PIN_WAKE)) != 0;
    }
    if (!hibernation_wake) {
        apf.sys_reset_ctr++;
        apf.sys_reset_time = HibernateRTCGet();
    }
    fram_apf_vars_store();
}

// A development build may force values here (sensor mode, message enable) after the FRAM load;
// this build keeps what the controller last stored.
void dev_init_apf_vars(void) {}

int32_t LogErrorMsg(const char* text, int32_t code, uint32_t enable) {
    apf.sys_last_error = code;
    apf.sys_error_ctr++;
    apf.sys_error_time = HibernateRTCGet();
    if (enable != 0) {
        uprintf("%s\r\n", text);
    }
    fram_apf_vars_store();
    // The first entries are made at start-up, before the card is mounted.
    if (microSD_flg == 1) {
        char line[160];
        snprintf(line, sizeof line, "%s\r\n", text);
        error_store(line);
    }
    return code;
}
