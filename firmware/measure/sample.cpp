// The sample record and its "last sample" line, and the sample-cycle entry points used by the
// main state machine and the host link.
#include "measure/sample.h"

#include "core/system.h"
#include "ports/uartstdio.h"
#include "storage/i2c_fram.h"

#include "driverlib/hibernate.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

sampData sampl;
char prnBuf[PRNBUF_SIZE];
uint32_t databarFlg = 0;
uint32_t barfSampleTime = 5;

namespace {

// Appends to prnBuf; output beyond its end is cut.
size_t prn_pos;

void prn_append(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void prn_append(const char* fmt, ...) {
    if (prn_pos >= sizeof prnBuf - 1) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    int n = vsnprintf(prnBuf + prn_pos, sizeof prnBuf - prn_pos, fmt, args);
    va_end(args);
    if (n < 0) {
        return;
    }
    prn_pos += static_cast<size_t>(n);
    if (prn_pos > sizeof prnBuf - 1) {
        prn_pos = sizeof prnBuf - 1;
    }
}

// "%13llu" without the C library: the board's printf has no 64-bit integer conversions and would
// print the letters instead of the number.
void format_u64_13(char* text, size_t size, unsigned long long v) {
    char digits[21];
    size_t n = 0;
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    char number[21];
    for (size_t i = 0; i < n; i++) {
        number[i] = digits[n - 1 - i];
    }
    number[n] = '\0';
    snprintf(text, size, "%13s", number);
}

// The time column: 1 calendar time, 2 milliseconds on the controller's epoch (the constant is the
// one the host software expects), anything else an empty field.
void format_time_column(char* text, size_t size) {
    text[0] = '\0';
    if (sys_data.data_cfg[CFG_TIMESTAMP] == 1) {
        time_t t = static_cast<time_t>(sampl.timestamp);
        struct tm* cal = localtime(&t);
        if (cal != nullptr) {
            strftime(text, size, "%m/%d/%Y %H:%M:%S", cal);
        }
    } else if (sys_data.data_cfg[CFG_TIMESTAMP] == 2) {
        unsigned long long ms = static_cast<unsigned long long>(sampl.timestamp) * 1000ULL - 2208963602000ULL;
        format_u64_13(text, size, ms);
    }
}

} // namespace

// Sample cycle entry points. The measurement work replaces these: for now a "sample" only stamps
// the time and advances the counter, so that the deployment schedule and the session run honestly.
void get_sample(uint32_t print, uint32_t write) {
    sampl.timestamp = HibernateRTCGet();
    sys_samp.current_sample++;
}

// Replaced by the pump sequencer with the measurement work.
void pump_and_sample(uint32_t print, uint32_t write) {
    get_sample(print, write);
}

// Replaced by the pump sequencer with the measurement work.
void pump_and_sample_start(void) {}

// Replaced by the pump sequencer with the measurement work.
void pump_var_init(void) {}

// Continuous output comes with the measurement work; until then it ends at once, as a left loop
// does.
void databarf_loop(void) {
    sys_samp.state = 0;
}

// The columns come in their fixed order, which is not the order of the switches.
void print_sampl(void) {
    const unsigned char* cfg = sys_data.data_cfg;
    prn_pos = 0;
    prnBuf[0] = '\0';
    if (cfg[CFG_SAMPLE_NUM]) {
        sampl.sampNum = sys_samp.current_sample;
        prn_append("#%07u\t", (unsigned)sys_samp.current_sample);
    }
    if (cfg[CFG_TIMESTAMP]) {
        char time_text[51];
        format_time_column(time_text, 50);
        prn_append("%s\t", time_text);
    }
    if (cfg[CFG_VIN_BAT_VOLT]) {
        prn_append("%8.2f\t", (double)sampl.fVbat_main);
    }
    if (cfg[CFG_BIAS_BAT_POS]) {
        prn_append("%8.2f\t", (double)sampl.fBiasPos);
    }
    if (cfg[CFG_BIAS_BAT_NEG]) {
        prn_append("%8.2f\t", (double)sampl.fBiasNeg);
    }
    if (cfg[CFG_BRD_TEMP]) {
        prn_append("%8.2f\t", (double)sampl.fBrdTempC);
    }
    if (cfg[CFG_BRD_HUMIDITY]) {
        prn_append("%8u\t", (unsigned)sampl.uiHumidity);
    }
    if (cfg[CFG_V_THERMISTOR]) {
        prn_append("%8.6f\t", (double)sampl.fVtherm);
    }
    if (cfg[CFG_V_THERMISTOR_STD]) {
        prn_append("%8.6f\t", (double)sampl.fVtherm_std);
    }
    if (cfg[CFG_CALC_TEMP]) {
        prn_append("%8.3f\t", (double)sampl.fTempC);
    }
    if (cfg[CFG_VRSI]) {
        prn_append("%8.6f\t", (double)sampl.fVrsi);
    }
    if (cfg[CFG_VRSI_STD]) {
        prn_append("%8.6f\t", (double)sampl.fVrsi_std);
    }
    if (cfg[CFG_CALC_PH_VRSI]) {
        prn_append("%8.3f\t", (double)sampl.pHint);
    }
    if (cfg[CFG_VRSE]) {
        prn_append("%8.6f\t", (double)sampl.fVrse);
    }
    if (cfg[CFG_VRSE_STD]) {
        prn_append("%8.6f\t", (double)sampl.fVrse_std);
    }
    if (cfg[CFG_CALC_PH_VRSE]) {
        prn_append("%8.3f\t", (double)sampl.pHext);
    }
    if (cfg[CFG_V_COUNTER_ELECT]) {
        prn_append("%8.6f\t", (double)sampl.fVk);
    }
    if (cfg[CFG_V_COUNTER_ELECT_STD]) {
        prn_append("%8.6f\t", (double)sampl.fVk_std);
    }
    if (cfg[CFG_I_COUNTER]) {
        prn_append("%8.2f\t", (double)sampl.fIk);
    }
    if (cfg[CFG_I_SUBSTRATE]) {
        prn_append("%8.3f\t", (double)sampl.fIb);
    }
}

// RAM does not survive hibernation: the FRAM copy is the last sample. The host expects the text
// exactly as formatted, ending with the last column's tab.
void send_last_sample(void) {
    fram_last_samp_retrieve();
    print_sampl();
    print_sampBuf();
}

int print_sampBuf(void) {
    const void* end = memchr(prnBuf, '\0', sizeof prnBuf);
    size_t len = end != nullptr ? static_cast<size_t>(static_cast<const char*>(end) - prnBuf) : sizeof prnBuf;
    if (len == 0) {
        return 0;
    }
    return UARTwrite(prnBuf, static_cast<uint32_t>(len));
}
