// The float controller's persistent variables `apf`: sensor mode, counters, spectrometer and
// Durafet settings, the last CTD values and the power flags. The record is kept in FRAM as its byte
// image (364 bytes); storage/apf_vars keeps it there.
#pragma once

#include <cstddef>
#include <cstdint>

struct apfGlobals {
    // system
    uint32_t sys_slog_delay;
    uint32_t sys_delay_hour;
    uint32_t sys_deploy_mode;
    uint32_t sys_data_mode;
    uint32_t sys_time_type;
    uint32_t sys_sensor_mode; // 0 legacy pH, 1 nitrate, 2 pH
    uint8_t sys_sensor_type;
    uint8_t sys_message_enable; // non-zero: LogErrorMsg also prints
    uint8_t sys_spare8[2];
    uint32_t sys_reset_ctr;  // starts that were not hibernation wakes
    uint32_t sys_reset_time; // RTC seconds of the last such start
    uint32_t sys_por_ctr;    // every start
    uint32_t sys_por_flag;   // set by the start-up before the counters are updated
    uint32_t sys_watchdog_enable;
    uint32_t sys_file_ctr;
    uint32_t sys_pump_enable;
    uint32_t sys_sync_min;
    uint32_t sys_sync_hour;
    uint32_t sys_last_doy;
    int32_t sys_last_error;
    uint32_t sys_error_ctr;
    uint32_t sys_error_time;
    uint32_t sys_df_limit;
    uint32_t sys_sf_limit;
    uint32_t sys_ef_limit;
    uint32_t sys_serial_num;
    uint32_t sys_apf_tmout;
    uint32_t sys_tzoffset;
    uint32_t sys_sleep_period;
    uint32_t sys_pump_period;
    uint32_t sys_tmout;
    uint32_t sendlast_byteCnt; // length of the last sample line kept in the FRAM data buffer
    // UV spectrometer (ISUS)
    uint32_t isus_tcomp_mode;
    uint32_t isus_warm_shut;
    uint32_t isus_dark_num;
    uint32_t isus_bsl_model;
    uint32_t isus_ref_limit;
    uint32_t isus_salfit_mode;
    uint32_t isus_pre_scans;
    uint32_t isus_fit_concs;
    int32_t isus_last_error;
    uint32_t isus_error_ctr;
    uint32_t isus_error_time;
    uint32_t isus_sample_ctr;
    uint32_t isus_sample_time;
    uint32_t isus_scan_num;
    uint32_t isus_pixel_beg;
    uint32_t isus_pixel_end;
    uint32_t isus_datpixel_beg;
    uint32_t isus_datpixel_end;
    uint32_t isus_warm_lamp;
    uint32_t isus_ref_samples;
    uint32_t isus_clean_lamp;
    uint32_t isus_spec_period; // integration time, ms
    uint32_t isus_scans_per_dc;
    uint32_t isus_samps_per_clean;
    uint32_t isus_spec_pwr; // 1 while the spectrometer is powered
    uint32_t isus_lamp_pwr; // 1 while its lamp is powered
    uint32_t isus_ref_pwr;
    uint32_t no3_span;
    uint32_t no3_offset;
    // Durafet pH
    uint32_t dura_led_enable;
    uint32_t dura_atod_readings;
    uint32_t dura_samps_per_cal;
    uint32_t dura_atod_delay;
    uint32_t dura_atod_pwr;
    int32_t dura_last_error;
    uint32_t dura_error_ctr;
    uint32_t dura_error_time;
    uint32_t dura_sample_ctr; // pH samples sent
    uint32_t dura_sample_time;
    uint32_t dura_reset_flag; // 1: write the log header before the next line
    // last CTD values sent by the controller
    uint32_t CTD_Time;
    float CTD_Temp;
    float CTD_Salinity;
    float CTD_Depth;
    uint8_t spare[68];
};

static_assert(offsetof(apfGlobals, sys_slog_delay) == 0);
static_assert(offsetof(apfGlobals, sys_delay_hour) == 4);
static_assert(offsetof(apfGlobals, sys_deploy_mode) == 8);
static_assert(offsetof(apfGlobals, sys_data_mode) == 12);
static_assert(offsetof(apfGlobals, sys_time_type) == 16);
static_assert(offsetof(apfGlobals, sys_sensor_mode) == 20);
static_assert(offsetof(apfGlobals, sys_sensor_type) == 24);
static_assert(offsetof(apfGlobals, sys_message_enable) == 25);
static_assert(offsetof(apfGlobals, sys_spare8) == 26);
static_assert(offsetof(apfGlobals, sys_reset_ctr) == 28);
static_assert(offsetof(apfGlobals, sys_reset_time) == 32);
static_assert(offsetof(apfGlobals, sys_por_ctr) == 36);
static_assert(offsetof(apfGlobals, sys_por_flag) == 40);
static_assert(offsetof(apfGlobals, sys_watchdog_enable) == 44);
static_assert(offsetof(apfGlobals, sys_file_ctr) == 48);
static_assert(offsetof(apfGlobals, sys_pump_enable) == 52);
static_assert(offsetof(apfGlobals, sys_sync_min) == 56);
static_assert(offsetof(apfGlobals, sys_sync_hour) == 60);
static_assert(offsetof(apfGlobals, sys_last_doy) == 64);
static_assert(offsetof(apfGlobals, sys_last_error) == 68);
static_assert(offsetof(apfGlobals, sys_error_ctr) == 72);
static_assert(offsetof(apfGlobals, sys_error_time) == 76);
static_assert(offsetof(apfGlobals, sys_df_limit) == 80);
static_assert(offsetof(apfGlobals, sys_sf_limit) == 84);
static_assert(offsetof(apfGlobals, sys_ef_limit) == 88);
static_assert(offsetof(apfGlobals, sys_serial_num) == 92);
static_assert(offsetof(apfGlobals, sys_apf_tmout) == 96);
static_assert(offsetof(apfGlobals, sys_tzoffset) == 100);
static_assert(offsetof(apfGlobals, sys_sleep_period) == 104);
static_assert(offsetof(apfGlobals, sys_pump_period) == 108);
static_assert(offsetof(apfGlobals, sys_tmout) == 112);
static_assert(offsetof(apfGlobals, sendlast_byteCnt) == 116);
static_assert(offsetof(apfGlobals, isus_tcomp_mode) == 120);
static_assert(offsetof(apfGlobals, isus_warm_shut) == 124);
static_assert(offsetof(apfGlobals, isus_dark_num) == 128);
static_assert(offsetof(apfGlobals, isus_bsl_model) == 132);
static_assert(offsetof(apfGlobals, isus_ref_limit) == 136);
static_assert(offsetof(apfGlobals, isus_salfit_mode) == 140);
static_assert(offsetof(apfGlobals, isus_pre_scans) == 144);
static_assert(offsetof(apfGlobals, isus_fit_concs) == 148);
static_assert(offsetof(apfGlobals, isus_last_error) == 152);
static_assert(offsetof(apfGlobals, isus_error_ctr) == 156);
static_assert(offsetof(apfGlobals, isus_error_time) == 160);
static_assert(offsetof(apfGlobals, isus_sample_ctr) == 164);
static_assert(offsetof(apfGlobals, isus_sample_time) == 168);
static_assert(offsetof(apfGlobals, isus_scan_num) == 172);
static_assert(offsetof(apfGlobals, isus_pixel_beg) == 176);
static_assert(offsetof(apfGlobals, isus_pixel_end) == 180);
static_assert(offsetof(apfGlobals, isus_datpixel_beg) == 184);
static_assert(offsetof(apfGlobals, isus_datpixel_end) == 188);
static_assert(offsetof(apfGlobals, isus_warm_lamp) == 192);
static_assert(offsetof(apfGlobals, isus_ref_samples) == 196);
static_assert(offsetof(apfGlobals, isus_clean_lamp) == 200);
static_assert(offsetof(apfGlobals, isus_spec_period) == 204);
static_assert(offsetof(apfGlobals, isus_scans_per_dc) == 208);
static_assert(offsetof(apfGlobals, isus_samps_per_clean) == 212);
static_assert(offsetof(apfGlobals, isus_spec_pwr) == 216);
static_assert(offsetof(apfGlobals, isus_lamp_pwr) == 220);
static_assert(offsetof(apfGlobals, isus_ref_pwr) == 224);
static_assert(offsetof(apfGlobals, no3_span) == 228);
static_assert(offsetof(apfGlobals, no3_offset) == 232);
static_assert(offsetof(apfGlobals, dura_led_enable) == 236);
static_assert(offsetof(apfGlobals, dura_atod_readings) == 240);
static_assert(offsetof(apfGlobals, dura_samps_per_cal) == 244);
static_assert(offsetof(apfGlobals, dura_atod_delay) == 248);
static_assert(offsetof(apfGlobals, dura_atod_pwr) == 252);
static_assert(offsetof(apfGlobals, dura_last_error) == 256);
static_assert(offsetof(apfGlobals, dura_error_ctr) == 260);
static_assert(offsetof(apfGlobals, dura_error_time) == 264);
static_assert(offsetof(apfGlobals, dura_sample_ctr) == 268);
static_assert(offsetof(apfGlobals, dura_sample_time) == 272);
static_assert(offsetof(apfGlobals, dura_reset_flag) == 276);
static_assert(offsetof(apfGlobals, CTD_Time) == 280);
static_assert(offsetof(apfGlobals, CTD_Temp) == 284);
static_assert(offsetof(apfGlobals, CTD_Salinity) == 288);
static_assert(offsetof(apfGlobals, CTD_Depth) == 292);
static_assert(offsetof(apfGlobals, spare) == 296);
static_assert(sizeof(apfGlobals) == 364);

extern apfGlobals apf;
