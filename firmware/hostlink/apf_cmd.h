// The float controller's command words and their one-line replies ("ACK,..." or "NAK,..."), the
// pH sample reply with its CRC prefix, the last-sample resend, the float log file on the card and
// the status card. The nitrate words are in apf_nitrate.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

void apf_print_ping_response(void);  // W
void apf_print_help(void);           // h
void apf_get_err(void);              // E
void apf_get_pc(void);               // P
void apf_get_sc(void);               // S
void apf_get_acq_time(void);         // T
void apf_get_cfg(void);              // C
void apf_get_cfg_isus(void);         // C1
void apf_get_cfg_dura(void);         // C2
void apf_get_cal(void);              // CAL
void apf_get_sensor_type(void);      // Q
void apf_set_sensor_type(void);      // TYPE,n
void apf_init_persistent_vars(void); // INIT
void apf_set_int_time(void);         // TINT,n
void apf_get_int_time(void);         // TINT,?
void apf_set_mode(void);             // MODE,n
void apf_get_mode(void);             // MODE,?
void apf_set_rtc(void);              // RTC,n
void apf_get_rtc(void);              // RTC,?
void apf_set_ctd(void);              // CTD,t,T,S,D
void apf_get_ctd(void);              // CTD,?
void apf_take_sample_nitrate(void);  // T1
void apf_take_sample_pH(void);       // T2
void apf_send_last_nitrate(void);    // SL in mode 1
void apf_send_last_pH(void);         // SL in mode 2
void apf_xfer_se(void);              // SE
void apf_get_se(void);               // SE,?
void apf_slp_sleep(void);            // SLP
void apf_off(void);                  // OFF
void apf_set_fit(void);              // FIT
void apf_get_fit(void);              // FIT,?
void apf_set_spectra(void);          // SPECTRA
void apf_get_spectra(void);          // SPECTRA,?
void apf_bake_uv_lamp(void);         // BAKE
void apf_get_sysinfo(void);          // SYS
void apf_wdog_status(void);          // WDOG
void apf_print_devStatus(void);      // STAT, DEV
void apf_dbg(void);                  // DBG

// The float log file on the card.
inline constexpr char APF_LOG_FILENAME[] = "APFLOG.TXT";
// Opens the float log for appending (mode 2); 0 when open, non-zero when the card refused.
uint32_t OpenApfLogFile(uint32_t mode);
void CloseApfLogFile(void);
// The log file's column header lines, one for the pH lines and one for the nitrate lines; each
// begins "Prefix,Type," and a line's Type says which header it follows.
void print_write_isusdura_header(void);
// The header, into a new file or after INIT.
void apf_log_header_if_new(void);
// Appends to the open float log; a failure shows with the debug output.
void apf_log_write(const char* text, size_t len);
// Keeps the reply in prnBuf (CR LF added) in FRAM for "SL" and records its length.
void apf_keep_reply_for_sl(void);
// "SL": the kept reply again, byte for byte; before any, empty_note then "NAK,SL".
void apf_send_last(const char* empty_note);
