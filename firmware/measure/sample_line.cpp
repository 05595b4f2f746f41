// The sample line: the tab-separated columns in their fixed order, built in prnBuf, for the live
// sample and for the "last sample" reply from the FRAM copy, and the time column's two forms.
#include "measure/sample_line.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "ports/uartstdio.h"
#include "records/sample.h"
#include "records/system.h"
#include "storage/i2c_fram.h"

namespace {

// Characters of the line in prnBuf, never past its end.
size_t line_len;

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
        format_ms_timestamp(text, size, sampl.timestamp);
    }
}

} // namespace

void line_begin(void) {
    line_len = 0;
    prnBuf[0] = '\0';
}

size_t line_length(void) {
    return line_len;
}

void line_append(const char* fmt, ...) {
    if (line_len >= sizeof prnBuf - 1) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    int n = vsnprintf(prnBuf + line_len, sizeof prnBuf - line_len, fmt, args);
    va_end(args);
    if (n < 0) {
        return;
    }
    line_len += static_cast<size_t>(n);
    if (line_len > sizeof prnBuf - 1) {
        line_len = sizeof prnBuf - 1;
    }
}

// Columns 3 to 16 (battery to external-reference pH), common to the live line and the last-sample
// reply; the live line passes the bias readings of this cycle, the reply those kept in the record.
void line_battery_to_phext(float bias_pos, float bias_neg) {
    const unsigned char* cfg = sys_data.data_cfg;
    if (cfg[CFG_VIN_BAT_VOLT]) {
        line_append("%8.2f\t", (double)sampl.fVbat_main);
    }
    if (cfg[CFG_BIAS_BAT_POS]) {
        line_append("%8.2f\t", (double)bias_pos);
    }
    if (cfg[CFG_BIAS_BAT_NEG]) {
        line_append("%8.2f\t", (double)bias_neg);
    }
    if (cfg[CFG_BRD_TEMP]) {
        line_append("%8.2f\t", (double)sampl.fBrdTempC);
    }
    if (cfg[CFG_BRD_HUMIDITY]) {
        line_append("%8u\t", (unsigned)sampl.uiHumidity);
    }
    if (cfg[CFG_V_THERMISTOR]) {
        line_append("%8.6f\t", (double)sampl.fVtherm);
    }
    if (cfg[CFG_V_THERMISTOR_STD]) {
        line_append("%8.6f\t", (double)sampl.fVtherm_std);
    }
    if (cfg[CFG_CALC_TEMP]) {
        line_append("%8.3f\t", (double)sampl.fTempC);
    }
    if (cfg[CFG_VRSI]) {
        line_append("%8.6f\t", (double)sampl.fVrsi);
    }
    if (cfg[CFG_VRSI_STD]) {
        line_append("%8.6f\t", (double)sampl.fVrsi_std);
    }
    if (cfg[CFG_CALC_PH_VRSI]) {
        line_append("%8.3f\t", (double)sampl.pHint);
    }
    if (cfg[CFG_VRSE]) {
        line_append("%8.6f\t", (double)sampl.fVrse);
    }
    if (cfg[CFG_VRSE_STD]) {
        line_append("%8.6f\t", (double)sampl.fVrse_std);
    }
    if (cfg[CFG_CALC_PH_VRSE]) {
        line_append("%8.3f\t", (double)sampl.pHext);
    }
}

// Columns 17 to 20 (counter electrode and currents), common to both lines.
void line_counter_and_currents() {
    const unsigned char* cfg = sys_data.data_cfg;
    if (cfg[CFG_V_COUNTER_ELECT]) {
        line_append("%8.6f\t", (double)sampl.fVk);
    }
    if (cfg[CFG_V_COUNTER_ELECT_STD]) {
        line_append("%8.6f\t", (double)sampl.fVk_std);
    }
    if (cfg[CFG_I_COUNTER]) {
        line_append("%8.2f\t", (double)sampl.fIk);
    }
    if (cfg[CFG_I_SUBSTRATE]) {
        line_append("%8.3f\t", (double)sampl.fIb);
    }
}

// The final tab becomes the line end. A line with no column at all is just the line end.
void line_end(void) {
    if (line_len > sizeof prnBuf - 2) {
        line_len = sizeof prnBuf - 2;
    }
    if (line_len == 0) {
        line_len = 1;
    }
    prnBuf[line_len - 1] = '\r';
    prnBuf[line_len] = '\n';
    prnBuf[line_len + 1] = '\0';
    line_len++;
}

// The columns come in their fixed order, which is not the order of the switches.
void print_sampl(void) {
    const unsigned char* cfg = sys_data.data_cfg;
    line_begin();
    if (cfg[CFG_SAMPLE_NUM]) {
        sampl.sampNum = sys_samp.current_sample;
        line_append("#%07u\t", (unsigned)sys_samp.current_sample);
    }
    if (cfg[CFG_TIMESTAMP]) {
        char time_text[51];
        format_time_column(time_text, 50);
        line_append("%s\t", time_text);
    }
    line_battery_to_phext(sampl.fBiasPos, sampl.fBiasNeg);
    line_counter_and_currents();
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

// The millisecond count is on the epoch the host software expects: this constant, not the exact
// 1900-1970 offset.
void format_ms_timestamp(char* text, size_t size, uint32_t rtc_seconds) {
    format_u64_13(text, size, static_cast<unsigned long long>(rtc_seconds) * 1000ULL - 2208963602000ULL);
}
