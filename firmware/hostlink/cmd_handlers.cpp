// Handlers of the console words that read and change the logger's settings. Each reads what it needs
// from the received line rx0.buf (already lower case, NUL-terminated), prints its answer, and stores
// sys_data when it changed it.
#include "hostlink/cmd_handlers.h"

#include "records/system.h"
#include "storage/settings.h"
#include "board/timebase.h"
#include "hostlink/serial.h"
#include "hostlink/serial_cmd.h"
#include "measure/live_readings.h"
#include "measure/sample.h"
#include "measure/sample_line.h"
#include "ports/uartstdio.h"
#include "storage/config.h"
#include "storage/presets.h"
#include "storage/microsd.h"

#include "driverlib/hibernate.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

// The longest sampling period, seconds; aligned periods must also divide it.
constexpr uint32_t max_period_s = 3600;
// A data file name in 8.3 form: eight characters, the dot, three characters.
constexpr size_t max_filename_len = 12;
// Test routines: pause between plain readings (ms) and readings per statistics line.
constexpr uint32_t test_pause_ms = 500;
constexpr uint32_t test_stat_readings = 5;

// The received line, copied so that it ends in a NUL whatever the buffer holds.
char line_text[sizeof rx0.buf + 1];

const char* line() {
    memcpy(line_text, rx0.buf, sizeof rx0.buf);
    line_text[sizeof rx0.buf] = '\0';
    return line_text;
}

size_t line_len() {
    return strlen(line());
}

bool switch_on(uint8_t arg) {
    return arg == '1' || arg == 1;
}

void set_switch(uint32_t index, uint8_t arg) {
    sys_data.data_cfg[index] = switch_on(arg) ? 1 : 0;
    save();
}

// A deviation column is meaningless without its mean: switching it on switches the mean on too;
// switching it off leaves the mean as it is.
void set_switch_with_mean(uint32_t index, uint32_t mean_index, uint8_t arg) {
    if (switch_on(arg)) {
        sys_data.data_cfg[index] = 1;
        sys_data.data_cfg[mean_index] = 1;
    } else {
        sys_data.data_cfg[index] = 0;
    }
    save();
}

void print_switch(uint32_t index) {
    uprintf("%u", (unsigned)sys_data.data_cfg[index]);
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// From pos on: past the rest of the word to the first blank, then to the first digit. Null when
// the line has no digit there.
const char* find_number_after_blank(size_t pos) {
    const char* p = line();
    p += pos < strlen(p) ? pos : strlen(p);
    while (*p != '\0' && *p != ' ') {
        p++;
    }
    while (*p != '\0' && !is_digit(*p)) {
        p++;
    }
    return *p != '\0' ? p : nullptr;
}

// The decimal number at p; saturates instead of wrapping so that a huge entry is refused as too large.
uint32_t read_unsigned(const char* p) {
    uint32_t value = 0;
    for (; is_digit(*p); p++) {
        uint32_t digit = static_cast<uint32_t>(*p - '0');
        if (value > (UINT32_MAX - digit) / 10) {
            return UINT32_MAX;
        }
        value = value * 10 + digit;
    }
    return value;
}

bool word_at(const char* p, const char* word, size_t n) {
    return strncmp(p, word, n) == 0;
}

} // namespace

// ---------------------------------------------------------------- data-output switches

void cmd_set_vtherm(uint8_t arg) {
    set_switch(CFG_V_THERMISTOR, arg);
}
void cmd_get_vtherm(void) {
    print_switch(CFG_V_THERMISTOR);
}
void cmd_test_vtherm(uint8_t arg) {
    test_vtherm(arg, 0, test_pause_ms);
}

void cmd_set_vtherm_std(uint8_t arg) {
    set_switch_with_mean(CFG_V_THERMISTOR_STD, CFG_V_THERMISTOR, arg);
}
void cmd_get_vtherm_std(void) {
    print_switch(CFG_V_THERMISTOR_STD);
}
void cmd_test_vtherm_std(uint8_t arg) {
    test_vtherm(arg, 1, test_stat_readings);
}

// The temperature is computed from the thermistor voltage, so it needs that column's reading.
void cmd_set_tempc(uint8_t arg) {
    set_switch_with_mean(CFG_CALC_TEMP, CFG_V_THERMISTOR, arg);
}
void cmd_get_tempc(void) {
    print_switch(CFG_CALC_TEMP);
}
void cmd_test_tempc(uint8_t arg) {
    test_tempc(arg, 0, test_pause_ms);
}

void cmd_set_vrsi(uint8_t arg) {
    set_switch(CFG_VRSI, arg);
}
void cmd_get_vrsi(void) {
    print_switch(CFG_VRSI);
}
void cmd_test_vrsi(uint8_t arg) {
    test_vrsi(arg, 0, test_pause_ms);
}

void cmd_set_vrsi_std(uint8_t arg) {
    set_switch_with_mean(CFG_VRSI_STD, CFG_VRSI, arg);
}
void cmd_get_vrsi_std(void) {
    print_switch(CFG_VRSI_STD);
}
void cmd_test_vrsi_std(uint8_t arg) {
    test_vrsi(arg, 1, test_stat_readings);
}

void cmd_set_vrse(uint8_t arg) {
    set_switch(CFG_VRSE, arg);
}
void cmd_get_vrse(void) {
    print_switch(CFG_VRSE);
}
void cmd_test_vrse(uint8_t arg) {
    test_vrse(arg, 0, test_pause_ms);
}

void cmd_set_vrse_std(uint8_t arg) {
    set_switch_with_mean(CFG_VRSE_STD, CFG_VRSE, arg);
}
void cmd_get_vrse_std(void) {
    print_switch(CFG_VRSE_STD);
}
void cmd_test_vrse_std(uint8_t arg) {
    test_vrse(arg, 1, test_stat_readings);
}

void cmd_set_vk(uint8_t arg) {
    set_switch(CFG_V_COUNTER_ELECT, arg);
}
void cmd_get_vk(void) {
    print_switch(CFG_V_COUNTER_ELECT);
}
void cmd_test_vk(uint8_t arg) {
    test_vk(arg, 0, test_pause_ms);
}

// Unlike the other deviation switches this one deliberately leaves the mean as it is.
void cmd_set_vk_std(uint8_t arg) {
    set_switch(CFG_V_COUNTER_ELECT_STD, arg);
}
void cmd_get_vk_std(void) {
    print_switch(CFG_V_COUNTER_ELECT_STD);
}
void cmd_test_vk_std(uint8_t arg) {
    test_vk(arg, 1, test_stat_readings);
}

void cmd_set_ik(uint8_t arg) {
    set_switch(CFG_I_COUNTER, arg);
}
void cmd_get_ik(void) {
    print_switch(CFG_I_COUNTER);
}
void cmd_test_ik(uint8_t arg) {
    test_ik(arg, 0, test_pause_ms);
}

void cmd_set_ib(uint8_t arg) {
    set_switch(CFG_I_SUBSTRATE, arg);
}
void cmd_get_ib(void) {
    print_switch(CFG_I_SUBSTRATE);
}
void cmd_test_ib(uint8_t arg) {
    test_ib(arg, 0, test_pause_ms);
}

void cmd_set_vbat(uint8_t arg) {
    set_switch(CFG_VIN_BAT_VOLT, arg);
}
void cmd_get_vbat(void) {
    print_switch(CFG_VIN_BAT_VOLT);
}
void cmd_test_vbat(uint8_t arg) {
    (void)arg;
    display_battery_boardSensors();
}

void cmd_set_timestamp(uint8_t arg) {
    if (arg == '1' || arg == 1) {
        sys_data.data_cfg[CFG_TIMESTAMP] = 1;
    } else if (arg == '2' || arg == 2) {
        sys_data.data_cfg[CFG_TIMESTAMP] = 2;
    } else {
        sys_data.data_cfg[CFG_TIMESTAMP] = 0;
    }
    save();
}
void cmd_get_timestamp(void) {
    print_switch(CFG_TIMESTAMP);
}

// The time column as the current setting would write it now. The millisecond form counts from the
// epoch the host software expects, which is this constant and not the exact 1900-1970 offset.
void cmd_test_timestamp(uint8_t arg) {
    (void)arg;
    if (sys_data.data_cfg[CFG_TIMESTAMP] == 2) {
        char text[32]; // until 2040 the count wraps to a 20-digit value
        format_ms_timestamp(text, sizeof text, HibernateRTCGet());
        uprintf("%s", text);
    } else if (sys_data.data_cfg[CFG_TIMESTAMP] == 1) {
        char text[32];
        const struct tm* cal = get_RTC_time();
        if (cal != nullptr && strftime(text, sizeof text, "%m/%d/%Y %H:%M:%S", cal) != 0) {
            uprintf("%s", text);
        }
    }
}

void cmd_set_cfg_sampnum(uint8_t arg) {
    set_switch(CFG_SAMPLE_NUM, arg);
}
void cmd_get_cfg_sampnum(void) {
    print_switch(CFG_SAMPLE_NUM);
}

void cmd_set_biaspos(uint8_t arg) {
    set_switch(CFG_BIAS_BAT_POS, arg);
}
void cmd_get_biaspos(void) {
    print_switch(CFG_BIAS_BAT_POS);
}
void cmd_test_biaspos(uint8_t arg) {
    (void)arg;
    test_bias_bat(BIAS_BAT_POS);
}

void cmd_set_biasneg(uint8_t arg) {
    set_switch(CFG_BIAS_BAT_NEG, arg);
}
void cmd_get_biasneg(void) {
    print_switch(CFG_BIAS_BAT_NEG);
}
void cmd_test_biasneg(uint8_t arg) {
    (void)arg;
    test_bias_bat(BIAS_BAT_NEG);
}

// ---------------------------------------------------------------- sample number and streaming

void cmd_test_sampnum(void) {
    uprintf("#%07u\r\n", (unsigned)sys_samp.current_sample);
}

// The counter lives in the sampling record in FRAM, which save() stores along with sys_data.
void cmd_set_sampnum(void) {
    sys_samp.current_sample = 0;
    uprintf("#%07u\r\n", (unsigned)sys_samp.current_sample);
    save();
}

void cmd_test_sample(uint32_t n) {
    barfSampleTime = n;
    databarFlg = 1;
}

// ---------------------------------------------------------------- period and clock

// "per 20", "period 20", "setperiod 20": the number follows the first blank after the word.
void cmd_set_period(void) {
    const char* p = find_number_after_blank(3);
    if (p == nullptr) {
        uprintf("\r\nEnter seconds greater than or equal to 0 and less than 3600\r\n");
        return;
    }
    uint32_t period = read_unsigned(p);
    if (sys_data.sample_aligned != 0 && period != 0 && max_period_s % period != 0) {
        uprintf("\r\nAligned=Y, sample period must evenly divide hour (e.g. 5, 10, 15, 20, 30 minutes)");
        return;
    }
    if (period > max_period_s) {
        uprintf("\r\nEnter time less than or equal to %u sec", (unsigned)max_period_s);
        return;
    }
    sys_data.sampling_period = period;
    save();
}

void cmd_get_period(void) {
    uprintf("%u", (unsigned)sys_data.sampling_period);
}

// "time MM/DD/YY HH:MM:SS" (also "settime ..."). A line without the separators in their places is
// refused; a well-formed time with a field out of range is dropped without a word.
void cmd_set_time(void) {
    const char* p = find_number_after_blank(4);
    if (p == nullptr || strlen(p) < 15 || p[2] != '/' || p[5] != '/' || p[11] != ':' || p[14] != ':') {
        print_NAK();
        return;
    }
    int month = -1, day = -1, year = -1, hour = -1, minute = -1, second = -1;
    if (sscanf(p, "%02d/%02d/%02d %2d:%2d:%3d", &month, &day, &year, &hour, &minute, &second) != 6) {
        print_NAK();
        return;
    }
    if (month < 1 || day < 1 || year < 0 || hour < 0 || minute < 0 || second < 0) {
        return;
    }
    if (second >= 62 || minute >= 60 || hour >= 24 || day >= 32 || month >= 13) {
        return;
    }
    HibernateRTCSet(rtc_seconds_of(year + 2000, month, day, hour, minute, second));
}

void cmd_get_time(void) {
    print_time_t_Time(HibernateRTCGet());
}

// ---------------------------------------------------------------- data file, presets, storage

// "setfilename data.txt", "filename data.txt": the name starts at the first letter after the blank
// and runs to the next blank or the end of the line.
void cmd_set_filename(void) {
    const char* p = line();
    while (*p != '\0' && *p != ' ') {
        p++;
    }
    while (*p != '\0' && (*p < 'a' || *p > 'z')) {
        p++;
    }
    if (*p == '\0') {
        print_NAK();
        return;
    }
    size_t len = 0;
    while (p[len] > ' ') {
        len++;
    }
    if (len > max_filename_len) {
        uprintf("filename is too long, needs to be 8.3 format\r\n");
        return;
    }
    // A name the card would refuse would make every later sample fail to be written.
    char name[max_filename_len + 1];
    memcpy(name, p, len);
    name[len] = '\0';
    if (!valid_8_3_name(name)) {
        uprintf("filename %s is not an 8.3 name (letters, digits and !#$%%&'()-@^_`{}~), not changed\r\n",
                name);
        return;
    }
    memset(sys_data.fileName, 0, sizeof sys_data.fileName);
    memcpy(sys_data.fileName, p, len);
    save();
}

void cmd_get_filename(void) {
    char name[sizeof sys_data.fileName + 1];
    memcpy(name, sys_data.fileName, sizeof sys_data.fileName);
    name[sizeof sys_data.fileName] = '\0';
    uprintf("%s", name);
}

// "config <preset>": the presets store sys_data themselves.
namespace {

struct InstrumentName {
    const char* name;
    unsigned char code;
};

const InstrumentName port3_names[] = {{"none", 0},  {"optode", 1}, {"ocr", 2},
                                      {"brisa", 3}, {"picoph", 4}, {"corrib", 4}};
const InstrumentName port4_names[] = {{"none", 5}, {"sbe37", 6}, {"aand5860", 7}};

// The instrument after "config port3 " or "config port4 ": its code or its name, alone on the line.
int instrument_code(const char* p, const InstrumentName* names, size_t count, unsigned lo, unsigned hi) {
    while (*p == ' ') {
        p++;
    }
    for (size_t i = 0; i < count; i++) {
        if (strcmp(p, names[i].name) == 0) {
            return names[i].code;
        }
    }
    if (p[0] >= '0' && p[0] <= '9' && p[1] == '\0' && unsigned(p[0] - '0') >= lo &&
        unsigned(p[0] - '0') <= hi) {
        return p[0] - '0';
    }
    return -1;
}

// Selects the instrument on port 3 or 4; anything else is refused with what the port takes.
void set_port_instrument(const char* rest, bool port3) {
    int code = port3 ? instrument_code(rest, port3_names, sizeof port3_names / sizeof port3_names[0], 0, 4)
                     : instrument_code(rest, port4_names, sizeof port4_names / sizeof port4_names[0], 5, 7);
    if (code < 0) {
        uprintf(port3 ? "Port 3 takes 0 none, 1 optode, 2 ocr, 3 brisa or 4 picoph\r\n"
                      : "Port 4 takes 5 none, 6 sbe37 or 7 aand5860\r\n");
        print_NAK();
        return;
    }
    sys_data.data_cfg[port3 ? CFG_UART3_INST : CFG_UART4_INST] = static_cast<unsigned char>(code);
    storeSysDataVariables();
    uprintf("Port %c instrument = %d, stored\r\n", port3 ? '3' : '4', code);
}

} // namespace

void cmd_set_config(void) {
    const size_t word_pos = 7;
    if (line_len() <= word_pos) {
        print_NAK();
        return;
    }
    const char* w = line() + word_pos;
    if (word_at(w, "glider", 4)) {
        config_data_fields_glider();
    } else if (word_at(w, "wirewalker", 6)) {
        config_data_fields_wirewalker();
    } else if (word_at(w, "tessel", 4)) {
        config_data_fields_tessel();
    } else if (word_at(w, "corrib", 5)) {
        config_data_fields_corrib();
    } else if (word_at(w, "m2m corrib", 8)) {
        config_data_fields_m2m_corrib();
    } else if (word_at(w, "brisa", 4)) {
        config_data_fields_brisa();
    } else if (word_at(w, "all", 3) || w[0] == '1') {
        config_data_fields_all();
    } else if (word_at(w, "none", 4) || w[0] == '0') {
        config_data_fields_none();
    } else if (word_at(w, "test", 4)) {
        uprintf("not available\r\n");
    } else if (word_at(w, "port3 ", 6) || word_at(w, "port4 ", 6)) {
        set_port_instrument(w + 6, w[4] == '3');
    } else {
        print_NAK();
    }
}

void cmd_help_config(void) {
    uprintf("not available\r\n");
}

// "store 1" or "microsd 1": the digit sits right after the word and its blank.
// Logging is switched only by a clear 0 or 1 (or off, on) after the word, with blanks or a comma
// between: a slip of the keyboard or noise on the line must not stop a deployment's logging.
void cmd_set_store(void) {
    const char* p = line() + (strncmp(line(), "microsd", 7) == 0 ? 7 : 5);
    while (*p == ' ' || *p == ',') {
        p++;
    }
    size_t len = 0;
    while (p[len] > ' ') {
        len++;
    }
    const char* rest = p + len;
    while (*rest == ' ') {
        rest++;
    }
    int on = -1;
    if (*rest == '\0' && ((len == 1 && *p == '1') || (len == 2 && strncmp(p, "on", 2) == 0))) {
        on = 1;
    } else if (*rest == '\0' && ((len == 1 && *p == '0') || (len == 3 && strncmp(p, "off", 3) == 0))) {
        on = 0;
    }
    if (on < 0) {
        uprintf("store takes 0 or 1 (off or on); card logging stays %s\r\n",
                sys_data.app_cfg[APPCFG_MICROSD_ENABLE] != 0 ? "on" : "off");
        return;
    }
    sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = static_cast<unsigned char>(on);
    save();
}

// Asking for the switch also turns storage on, in memory only, for the rest of this run. Deliberate:
// the instrument has always behaved so and its users rely on it.
void cmd_get_store(void) {
    uprintf("%u", (unsigned)sys_data.app_cfg[APPCFG_MICROSD_ENABLE]);
    sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 1;
}

// Toggles the echo and leaves it off; the file shell is reached from the menus.
void cmd_filesystem(void) {
    UARTEchoSet(true);
    UARTEchoSet(false);
}
