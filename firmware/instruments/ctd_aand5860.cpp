// The Aanderaa 5860 on port 4.
//
// The sensor is set up to send its measurement as numbers only: product number, serial number,
// conductivity, temperature, salinity, density and sound speed, separated by tabs or spaces, ending
// with CR LF. A pass opens the port, gives the sensor 900 ms, wakes it with a line end and sends
// "do sample". The reply must start within 2.5 s, and once it has started, no gap between two
// characters may exceed 50 ms: the sensor sends its line in one piece, so a gap means a broken
// line. The reply may use the whole text buffer; carriage returns are dropped, the line feed ends it.
// The line's seven columns are the reply's seven numbers as the sensor wrote them; a failed pass
// leaves them empty and says why on the console and in the error log.
#include "instruments/ctd_aand5860.h"

#include <cstdio>
#include <cstdlib>

#include "records/system.h"
#include "board/timebase.h"
#include "instruments/ctd_base.h"
#include "instruments/inst_text.h"
#include "ports/uartstdio.h"

namespace {

constexpr uint32_t reply_timeout_ticks = 250; // 2.5 s from the command to the first character
constexpr uint32_t char_gap_limit_ms = 50;
constexpr uint32_t reply_window = UART4_PRN_BUF_SIZE - 1;

constexpr char no_sample_text[] = "CTD not responding with sample string after do sample";
constexpr char too_long_text[] = "ST7: error in ctd driver bufIndx exceeds buf size, ctd";

// 1 ms tick of the latest character read, while a reply is coming in.
uint32_t last_char_ms = 0;

int fail(const char* text) {
    ctd_report_failure(text);
    ctd_close();
    ctd.type = CTD_TYPE_NONE;
    ctd.state = CTD_STATE_FAILED;
    return CTD_STATE_IDLE;
}

// Milliseconds since the last character; a counter restarted meanwhile counts from its restart.
uint32_t ms_since_last_char(void) {
    uint32_t now = Timer_1ms(0);
    if (now < last_char_ms) {
        last_char_ms = now;
    }
    return now - last_char_ms;
}

int store(uint8_t c) {
    if (c == '\r') {
        return CTD_STATE_RECEIVE;
    }
    uart4_prn_buf[ctd.bufIndx] = static_cast<char>(c);
    ctd.bufIndx++;
    uart4_prn_buf[ctd.bufIndx] = '\0';
    if (ctd.bufIndx >= reply_window) {
        ctd.bufIndx = reply_window - 1;
        UARTFlushTx(false);
        return fail(too_long_text);
    }
    return CTD_STATE_RECEIVE;
}

int receive(void) {
    bool started = ctd.bufIndx > 0;
    if (ctd_rx_avail() > 0) {
        uint8_t c = ctd_getc();
        last_char_ms = Timer_1ms(0);
        if (c == '\n') {
            ctd_close();
            ctd_aand5860_parseData();
            UARTFlushTx(false);
            ctd.state = CTD_STATE_IDLE;
            return CTD_STATE_IDLE;
        }
        return store(c);
    }
    if (started && ms_since_last_char() > char_gap_limit_ms) {
        return fail(no_sample_text);
    }
    if (!started && ctd_ticks_since(ctd.old_tick10ms) >= reply_timeout_ticks) {
        return fail("No CTD response in 2.5sec, statemachine pumping too slow or instrument not connected");
    }
    ctd_idle();
    return CTD_STATE_RECEIVE;
}

} // namespace

int ctd_aand5860_stateMachine(int state) {
    ctd.state = state;
    switch (state) {
    case CTD_STATE_START:
        return ctd_start_pass(CTD_TYPE_AAND5860);
    case CTD_STATE_WAKE_WAIT:
        return ctd_wake_and_ask("\r\n", "do sample\r\n");
    case CTD_STATE_RECEIVE:
        return receive();
    default:
        return CTD_STATE_IDLE;
    }
}

void ctd_aand5860_parseData(void) {
    char reply[UART4_PRN_BUF_SIZE];
    snprintf(reply, sizeof reply, "%s", uart4_prn_buf);
    char* f[CTD_AAND5860_FIELDS + 1];
    uint32_t n = inst_split(reply, " \t", f, CTD_AAND5860_FIELDS);
    bool parsed = n == CTD_AAND5860_FIELDS && inst_is_integer(f[0]) && inst_is_integer(f[1]);
    for (uint32_t i = 2; parsed && i < n; i++) {
        parsed = inst_is_number(f[i]);
    }
    float cond = parsed ? strtof(f[2], nullptr) : 0.0f;
    float temp = parsed ? strtof(f[3], nullptr) : 0.0f;
    float sal = parsed ? strtof(f[4], nullptr) : 0.0f;
    if (!parsed) {
        ctd_report_unparsed("Aanderaa 5860", 7);
    } else if (!ctd_reading_plausible(temp, sal)) {
        parsed = false;
        ctd_report_failure("Error:  Aanderaa 5860 reply out of range.  TempC and salt are 0.0");
    } else {
        inst_join_fields(uart4_prn_buf, sizeof uart4_prn_buf, f, CTD_AAND5860_FIELDS);
        ctd_report_success();
    }
    if (!parsed) {
        cond = 0.0f;
        temp = 0.0f;
        sal = 0.0f;
    }
    ctd.condo = cond;
    ctd.tempC = temp;
    ctd.salt = sal;
    sys_samp.sensor_sal = sal;
}
