// The float controller's command words and their one-line replies. The controller sends upper-case
// words that arrive here lower-cased in rx0.buf; each handler reads what it needs from the line,
// changes the float record `apf` (stored to FRAM after every change) and answers with one line that
// begins "ACK," or "NAK,". Also the pH sample reply with its CRC prefix, its copy in FRAM for "SL",
// the float log file on the card and the status card. The nitrate words are in apf_nitrate.cpp.
#include "hostlink/apf_cmd.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "board/board_util.h"

#include "records/system.h"
#include "storage/settings.h"
#include "board/timebase.h"
#include "driverlib/hibernate.h"
#include "storage/apf_vars.h"
#include "hostlink/serial.h"
#include "measure/apf_math.h"
#include "measure/sample.h"
#include "ports/uartstdio.h"
#include "storage/i2c_fram.h"
#include "storage/microsd.h"
#include "storage/sd_append.h"

namespace {

// The reply line starts after room for its "0xHHHH," prefix.
constexpr uint32_t PH_LINE_START = 7;
// Longest line "SL" sends back (the FRAM buffer keeps the line and its terminator).
constexpr uint32_t SENDLAST_MAX = 1535;
// How long the controller has to acknowledge the CTD reply.
constexpr uint32_t CTD_ACK_TIMEOUT_MS = 3000;
// What the float's CTD can report: water temperature (degC), practical salinity and depth (dbar).
// The values reach the pH equations, so anything else is a garbled line.
constexpr float CTD_TEMP_MIN = -5.0f;
constexpr float CTD_TEMP_MAX = 60.0f;
constexpr float CTD_SAL_MAX = 60.0f;
constexpr float CTD_DEPTH_MIN = -10.0f;
constexpr float CTD_DEPTH_MAX = 12000.0f;

bool apf_log_open = false;

constexpr char ISUSDURA_HEADER[] =
    "Prefix,Type,Date Time,SampleNum,CTD Depth[dbar],pHint,pHext,Sample Time[s],CTD Time[s],"
    "Humidity[%],Vbat[V],Board Temp[C],System Current[A],Vtherm std[V],Temp[C],Vk[V],Vrsi[V],"
    "Vrsi std[V],Vrse[V],Vrse std[V],Ik,Ib\n"
    "Prefix,Type,Date Time,SampleNum,CTD Depth[dbar],NO3[umol/kg],Fit RMS,Baseline A,Baseline B[1/nm],"
    "Temp[C],Salinity,Dark[counts],Dark std[counts],Light[counts],Spec Temp[C],Integration[ms],"
    "Sample Time[s],CTD Time[s],Pixels,Flags\n";

const char* line(void) {
    return reinterpret_cast<const char*>(rx0.buf);
}

// The argument of "word,n": the text after the comma that must follow the word's word_len letters
// (nullptr without it). A line that only begins with the word, such as "typed", sets nothing.
const char* argument(size_t word_len) {
    return rx0.buf[word_len] == ',' ? line() + word_len + 1 : nullptr;
}

// A whole number of seconds that fits the clock, from at most ten digits: the position after them,
// or nullptr when there are none or the number does not fit (a sign is no digit).
const char* read_seconds(const char* text, uint32_t* seconds) {
    uint64_t value = 0;
    size_t n = 0;
    while (n < 10 && text[n] >= '0' && text[n] <= '9') {
        value = value * 10 + static_cast<uint64_t>(text[n] - '0');
        n++;
    }
    if (n == 0 || value > 0xFFFFFFFFull) {
        return nullptr;
    }
    *seconds = static_cast<uint32_t>(value);
    return text + n;
}

// False for NaN as well.
bool in_range(float v, float lo, float hi) {
    return v >= lo && v <= hi;
}

unsigned long rtc_now(void) {
    return static_cast<unsigned long>(HibernateRTCGet());
}

} // namespace

void apf_print_ping_response(void) {
    uprintf("ACK\r\n");
}

void apf_print_help(void) {
    uprintf("Commands: W,M,E,P,S,T,C,Q,INIT,TINT,MODE,TS,T1,T2,SL,SE,SLP,OFF,RTC,FIT,CTD,BAKE,SPECTRA\r\n");
}

void apf_get_err(void) {
    switch (apf.sys_sensor_mode) {
    case 1:
        uprintf("ACK,E,%lu,%lu\n", static_cast<unsigned long>(apf.isus_error_ctr),
                static_cast<unsigned long>(apf.isus_error_time));
        break;
    case 2:
        uprintf("ACK,E,%lu,%lu\n", static_cast<unsigned long>(apf.dura_error_ctr),
                static_cast<unsigned long>(apf.dura_error_time));
        break;
    default:
        uprintf("NAK,E,InvalidModeValue: %d\n", static_cast<int>(apf.sys_sensor_mode));
        break;
    }
}

void apf_get_pc(void) {
    uprintf("ACK,P,%lu,%lu,%lu", static_cast<unsigned long>(apf.sys_por_ctr),
            static_cast<unsigned long>(apf.sys_reset_ctr), static_cast<unsigned long>(apf.sys_reset_time));
}

void apf_get_sc(void) {
    uprintf("Imp es Nada apf_get_sc\r\n");
}

// Time of the last sample of the current mode, RTC seconds (0 before the first one).
void apf_get_acq_time(void) {
    switch (apf.sys_sensor_mode) {
    case 1:
        uprintf("ACK,T,%lu", static_cast<unsigned long>(apf.isus_sample_time));
        break;
    case 2:
        uprintf("ACK,T,%lu", static_cast<unsigned long>(apf.dura_sample_time));
        break;
    default:
        uprintf("NAK,T,InvalidModeValue: %d", static_cast<int>(apf.sys_sensor_mode));
        break;
    }
}

void apf_get_cfg(void) {
    switch (apf.sys_sensor_mode) {
    case 1:
        apf_get_cfg_isus();
        break;
    case 2:
        apf_get_cfg_dura();
        break;
    default:
        uprintf("NAK,C,InvalidModeValue: %d\n", static_cast<int>(apf.sys_sensor_mode));
        break;
    }
}

void apf_get_cfg_dura(void) {
    uprintf("ACK,C2,%lu,%lu,%lu,%lu,%lu,%u", static_cast<unsigned long>(apf.dura_led_enable),
            static_cast<unsigned long>(apf.dura_atod_readings),
            static_cast<unsigned long>(apf.dura_samps_per_cal),
            static_cast<unsigned long>(apf.dura_atod_delay), static_cast<unsigned long>(apf.dura_sample_ctr),
            static_cast<unsigned>(apf.sys_sensor_type));
}

void apf_get_cal(void) {
    uprintf("ACK,CAL,%.6f,%.6f,%.6e,%.6e,%.6f,%.6f", static_cast<double>(sys_data.k0int),
            static_cast<double>(sys_data.k0ext), static_cast<double>(sys_data.k2int),
            static_cast<double>(sys_data.k2ext), static_cast<double>(sys_data.TCOffset),
            static_cast<double>(sys_data.TCSlope));
}

void apf_get_sensor_type(void) {
    uprintf("ACK,Q,%u", static_cast<unsigned>(apf.sys_sensor_type));
}

// "type,n": only 1 to 4 are sensor types; anything else keeps the type and still answers with it.
void apf_set_sensor_type(void) {
    const char* arg = argument(4);
    uint8_t type = arg != nullptr ? (*arg & 0x0F) : 0;
    if (type >= 1 && type <= 4) {
        apf.sys_sensor_type = type;
        fram_apf_vars_store();
    }
    apf_get_sensor_type();
}

// The defaults are followed by a fresh log-file header.
void apf_init_persistent_vars(void) {
    SetDefaultsIntoNVRAM();
    apf.dura_reset_flag = 1;
    fram_apf_vars_store();
    uprintf("ACK,INIT");
}

// The record is stored on a range error too, deliberately. As everywhere here the store comes
// before the reply: the FRAM write holds interrupts off, and a controller may answer the reply at
// once.
void apf_set_int_time(void) {
    const char* arg = argument(4);
    unsigned value = 0;
    if (arg == nullptr || !isdigit(static_cast<unsigned char>(*arg)) || sscanf(arg, "%6u", &value) != 1) {
        uprintf("NAK,TINT,FormatErr");
        return;
    }
    bool in_range = value >= 4 && value <= 4000;
    if (in_range) {
        apf.isus_spec_period = value;
    }
    fram_apf_vars_store();
    if (in_range) {
        uprintf("ACK,TINT,%u", value);
    } else {
        uprintf("NAK,TINT,RangeErr [4,4000], %u", value);
    }
}

void apf_get_int_time(void) {
    uprintf("TINT,?,%u", static_cast<unsigned>(apf.isus_spec_period));
}

void apf_set_mode(void) {
    const char* arg = argument(4);
    if (arg == nullptr || !isdigit(static_cast<unsigned char>(*arg))) {
        uprintf("NAK,MODE,FormatErr");
        return;
    }
    unsigned mode = static_cast<unsigned>(*arg - '0');
    if (mode > 2) {
        uprintf("NAK,MODE,RangeErr [0,2]: %u", mode);
        return;
    }
    apf.sys_sensor_mode = mode;
    fram_apf_vars_store();
    uprintf("ACK,MODE,%u", mode);
}

void apf_get_mode(void) {
    uprintf("ACK,MODE?,%u", static_cast<unsigned>(apf.sys_sensor_mode));
}

// "rtc,n": at most ten digits, from position 4.
// "rtc,<seconds>": only a whole number of seconds that fits the clock sets it; anything else (no
// number, a sign, letters, more than 32 bits) is refused and the clock runs on untouched.
void apf_set_rtc(void) {
    char text[15];
    memcpy(text, rx0.buf, 14);
    text[14] = '\0';
    uint32_t value = 0;
    const char* end = read_seconds(text + 4, &value);
    if (text[3] != ',' || end == nullptr || *end != '\0') {
        uprintf("NAK,RTC,FormatErr");
        return;
    }
    HibernateRTCSet(value);
    uprintf("ACK,%u,%u", static_cast<unsigned>(value), static_cast<unsigned>(HibernateRTCGet()));
}

void apf_get_rtc(void) {
    uprintf("ACK,RTC?,%lu", rtc_now());
}

// "ctd,time,temperature,salinity,depth". The values are kept only when the controller acknowledges
// the echo: an unacknowledged echo may have carried a garbled line. Numbers the CTD cannot report
// (nan, inf, out of the water's range) are refused before the echo.
void apf_set_ctd(void) {
    uint32_t ctd_time = 0;
    float temp = 0.0f;
    float sal = 0.0f;
    float depth = 0.0f;
    const char* arg = argument(3);
    const char* rest = arg != nullptr ? read_seconds(arg, &ctd_time) : nullptr;
    if (rest == nullptr || sscanf(rest, ",%15f,%15f,%15f", &temp, &sal, &depth) != 3) {
        uprintf("NAK,CTD,FormatErr");
        return;
    }
    if (!in_range(temp, CTD_TEMP_MIN, CTD_TEMP_MAX) || !in_range(sal, 0.0f, CTD_SAL_MAX) ||
        !in_range(depth, CTD_DEPTH_MIN, CTD_DEPTH_MAX)) {
        uprintf("NAK,CTD,RangeErr");
        return;
    }
    uprintf("ACK,CTD,%lu,%.4f,%.4f,%.2f", static_cast<unsigned long>(ctd_time), static_cast<double>(temp),
            static_cast<double>(sal), static_cast<double>(depth));
    wait_consoleTx();
    if (waitACK(CTD_ACK_TIMEOUT_MS) == 1) {
        apf.CTD_Time = ctd_time;
        apf.CTD_Temp = temp;
        apf.CTD_Salinity = sal;
        apf.CTD_Depth = depth;
        fram_apf_vars_store();
        return;
    }
    apf.CTD_Time = 0;
    apf.CTD_Temp = -1.0f;
    apf.CTD_Salinity = -1.0f;
    apf.CTD_Depth = -1.0f;
    LogErrorMsg("CTD Command ACK Failure", -110, apf.sys_message_enable);
}

void apf_get_ctd(void) {
    uprintf("ACK,CTD?,%lu,%.4f,%.4f,%.2f\n", static_cast<unsigned long>(apf.CTD_Time),
            static_cast<double>(apf.CTD_Temp), static_cast<double>(apf.CTD_Salinity),
            static_cast<double>(apf.CTD_Depth));
}

// The sample's line lands in prnBuf first; the reply is written after its first seven bytes, and
// those seven bytes are deliberately left as they are for the log line and the CRC. The CRC then
// overwrites them with its "0xHHHH," prefix. Keep the order: log, CRC, reply.
void apf_take_sample_pH(void) {
    get_sample(0, 1);
    storeSysSampFRAMVariables();
    const struct tm* t = get_RTC_time();

    char* text = prnBuf + PH_LINE_START;
    const size_t room = sizeof prnBuf - PH_LINE_START - 2; // keeps room for the line end
    snprintf(text, room,
             "pH,%02d/%02d/%02d "
             "%02d:%02d:%02d,%lu,%.2f,%.4f,%.4f,%lu,%lu,%lu,%.2f,%.2f,%.3f,%.3e,%.4f,%.3f,%+f,%f,"
             "%+f,%f,%+.3e,%+.3e",
             t->tm_mon + 1, t->tm_mday, t->tm_year % 100, t->tm_hour, t->tm_min, t->tm_sec,
             static_cast<unsigned long>(sampl.sampNum), static_cast<double>(apf.CTD_Depth),
             static_cast<double>(sampl.pHint), static_cast<double>(sampl.pHext),
             static_cast<unsigned long>(sampl.timestamp), static_cast<unsigned long>(apf.CTD_Time),
             static_cast<unsigned long>(sampl.uiHumidity), static_cast<double>(sampl.fVbat_main),
             static_cast<double>(sampl.fBrdTempC), static_cast<double>(sampl.fsysAmp),
             static_cast<double>(sampl.fVtherm_std), static_cast<double>(sampl.fTempC),
             static_cast<double>(sampl.fVk), static_cast<double>(sampl.fVrsi),
             static_cast<double>(sampl.fVrsi_std), static_cast<double>(sampl.fVrse),
             static_cast<double>(sampl.fVrse_std), static_cast<double>(sampl.fIk),
             static_cast<double>(sampl.fIb));

    if (OpenApfLogFile(2) == 0) {
        apf_log_header_if_new();
        apf_log_write(prnBuf, strlen(prnBuf));
        apf_log_write("\n", 1);
        CloseApfLogFile();
    }

    uint16_t crc = fCrc16Bit(reinterpret_cast<const uint8_t*>(prnBuf));
    char prefix[8];
    snprintf(prefix, sizeof prefix, "0x%04X", static_cast<unsigned>(crc));
    memcpy(prnBuf, prefix, 6);
    prnBuf[6] = ',';

    apf.dura_sample_ctr++;
    apf.dura_sample_time = sampl.timestamp;
    apf_keep_reply_for_sl();
    fram_apf_vars_store();
    uprintf("%s", prnBuf);
}

// The reply is kept with its line end, so that "SL" sends the same bytes again, also after a
// hibernation. The caller stores the record.
void apf_keep_reply_for_sl(void) {
    size_t len = strlen(prnBuf);
    prnBuf[len] = '\r';
    prnBuf[len + 1] = '\n';
    prnBuf[len + 2] = '\0';
    len += 2;
    apf.sendlast_byteCnt = static_cast<uint32_t>(len);
    fram_apf_dbuf_store(reinterpret_cast<uint8_t*>(prnBuf), static_cast<uint16_t>(len));
}

void apf_send_last_pH(void) {
    apf_send_last("DBG: apf_send_last_pH, byteCnt is 0\r\n");
}

void apf_send_last(const char* empty_note) {
    if (apf.sendlast_byteCnt == 0) {
        uprintf("%s", empty_note);
        uprintf("NAK,SL");
        return;
    }
    uint32_t count = apf.sendlast_byteCnt;
    if (count > sizeof prnBuf - 1) {
        count = sizeof prnBuf - 1;
    }
    fram_apf_dbuf_retrieve(reinterpret_cast<uint8_t*>(prnBuf), static_cast<uint16_t>(count));
    prnBuf[count] = '\0';
    size_t len = strlen(prnBuf);
    if (len < 1 || len > SENDLAST_MAX) {
        uprintf("NAK,SL");
        return;
    }
    UARTwrite(prnBuf, static_cast<uint32_t>(len));
}

void apf_xfer_se(void) {
    uprintf("Imp es Nada apf_xfer_se, send error records\r\n");
}

// The float-side error log's summary: entries made, the latest code and its time.
void apf_get_se(void) {
    uprintf("ACK,SE?,%lu,%ld,%lu", static_cast<unsigned long>(apf.sys_error_ctr),
            static_cast<long>(apf.sys_last_error), static_cast<unsigned long>(apf.sys_error_time));
}

// The session ends after this reply and the board hibernates until its next wake.
void apf_slp_sleep(void) {
    databarFlg = 0;
    uprintf("ACK,SLP");
}

void apf_off(void) {
    uprintf("ACK,OFF");
}

void apf_set_fit(void) {
    uprintf("Imp es Nada apf_set_fit\r\n");
}

void apf_get_fit(void) {
    uprintf("Imp es Nada apf_get_fit\r\n");
}

void apf_set_spectra(void) {
    uprintf("Imp es Nada apf_set_spectra\r\n");
}

void apf_get_spectra(void) {
    uprintf("Imp es Nada apf_get_spectra\r\n");
}

// What the board knows about its starts: firmware, serial number, power-on and reset counters, the
// time of the last reset and the clock now.
void apf_get_sysinfo(void) {
    uprintf("ACK,SYS,%s,%lu,%lu,%lu,%lu,%lu", FIRMWARE_VERSION,
            static_cast<unsigned long>(apf.sys_serial_num), static_cast<unsigned long>(apf.sys_por_ctr),
            static_cast<unsigned long>(apf.sys_reset_ctr), static_cast<unsigned long>(apf.sys_reset_time),
            rtc_now());
}

void apf_wdog_status(void) {
    uprintf("DEV: wdog.longest = %u, tot = %u\r\n>", static_cast<unsigned>(watchDog.tickLongest),
            static_cast<unsigned>(watchDog.tickTot));
}

namespace {

void card_heading(const char* heading) {
    uprintf("%s\r\n\r\n", heading);
}

void card_line(const char* text) {
    uprintf("  %s\r\n\r\n", text);
}

} // namespace

void apf_print_devStatus(void) {
    card_heading("Commands implemented: ");
    card_line("W - ping for ACK");
    card_line("M - operator menu");
    card_line("E - error count and time of the current mode");
    card_line("P - power-on count, reset count, time of the last reset");
    card_line("Q, TYPE,n - sensor type (1 to 4)");
    card_line("INIT - float variables back to their defaults");
    card_line("TINT,n  TINT,? - integration time, 4 to 4000 ms");
    card_line("MODE,n  MODE,? - 0 legacy pH, 1 nitrate, 2 pH");
    card_line("RTC,n  RTC,? - real-time clock, seconds");
    card_line("CTD,t,T,S,D  CTD,? - CTD values from the float, kept after its ACK");
    card_line("TS - mode governed: 0 for legacy pH, 1 for nitrate, 2 for pH.  use T1 or T2");
    card_line("T1 - nitrate sample, reply line with CRC");
    card_line("T2 - pH sample, reply line with CRC");
    card_line("SL - send the last sample line again");
    card_line("C1 - nitrate settings and the spectrometer's calibration");
    card_line("BAKE - run the spectrometer lamp to clean its window");
    card_line("T, C2, CAL, SYS, SE,? - sample time, pH settings, calibration, start-up counters, error log");
    card_line("SLP - hibernate until the next wake");
    card_line("OFF - hibernate sent by APF to prep for power off");
    card_line("WDOG, STAT, DEV, DBG - watchdog, this card, debug output");
    card_heading("Commands partial: ");
    card_line("SL - one kept reply for both modes: after T2, SL in mode 1 sends the pH reply");
    card_heading("Commands not yet: ");
    card_line("S, SE - status and error records");
    card_heading("Commands not planned: ");
    card_line("FIT, SPECTRA");
}

// "dbg" toggles the debug output, "dbg,0" and "dbg,1" set it.
void apf_dbg(void) {
    const char* arg = argument(3);
    if (arg == nullptr) {
        dbg_flag = dbg_flag == 0 ? 1 : 0;
    } else if (*arg == '0' || *arg == '1') {
        dbg_flag = static_cast<uint32_t>(*arg - '0');
    } else {
        uprintf("NAK,DBG,FormatErr");
        return;
    }
    uprintf("ACK,DBG,%u", static_cast<unsigned>(dbg_flag));
}

uint32_t OpenApfLogFile(uint32_t mode) {
    if (mode != 2 || microSD_flg != 1) {
        return 1;
    }
    if (apf_log_open) {
        CloseApfLogFile();
    }
    FRESULT fr = sd_append_open(APF_LOG_FILENAME, TailSlot::float_log);
    if (fr != FR_OK) {
        dbg_printf("%s f_open error: %s\r\n", APF_LOG_FILENAME, StringFromFresult(fr));
        return 1;
    }
    fr = sd_append_seek();
    if (fr != FR_OK) {
        dbg_printf("%s f_lseek error: %s\r\n", APF_LOG_FILENAME, StringFromFresult(fr));
        sd_append_close();
        return 1;
    }
    apf_log_open = true;
    return 0;
}

void CloseApfLogFile(void) {
    if (!apf_log_open) {
        return;
    }
    apf_log_open = false;
    FRESULT fr = sd_append_close();
    if (fr != FR_OK) {
        dbg_printf("%s f_close error: %s\r\n", APF_LOG_FILENAME, StringFromFresult(fr));
    }
}

void print_write_isusdura_header(void) {
    apf_log_write(ISUSDURA_HEADER, sizeof ISUSDURA_HEADER - 1);
}

void apf_log_header_if_new(void) {
    if (apf.dura_reset_flag == 1 || sd_append_tell() == 0) {
        print_write_isusdura_header();
        apf.dura_reset_flag = 0;
    }
}

void apf_log_write(const char* text, size_t len) {
    if (!apf_log_open) {
        return;
    }
    FRESULT fr = sd_append_write(text, static_cast<uint32_t>(len));
    if (fr != FR_OK) {
        dbg_printf("%s f_write error: %s\r\n", APF_LOG_FILENAME,
                   sd_append_result_text(AppendStep::write, fr));
    }
}
