// The Aanderaa 5860 on port 4.
//
// The sensor is set up to send its measurement as numbers only: product number, serial number,
// conductivity, temperature, salinity, density and sound speed, separated by tabs or spaces, ending
// with CR LF. A pass opens the port, gives the sensor 900 ms, wakes it with a line end and sends
// "do sample". The reply must start within 2.5 s, and once it has started, no gap between two
// characters may exceed 50 ms: the sensor sends its line in one piece, so a gap means a broken
// line. The reply may use the whole text buffer; carriage returns are dropped, the line feed ends it.
#include "instruments/ctd_aand5860.h"

#include <cstdio>

#include "core/system.h"
#include "core/timebase.h"
#include "instruments/ctd_base.h"
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
    ctd_set_text(text);
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
        if (sys_data.diag != 0) {
            uprintf("\r\nST7: error in ctd driver bufIndx exceeds buf size, ctd\r\n");
        }
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
        uprintf(
            "\r\nNo CTD response in 2.5sec, statemachine pumping too slow or instrument not connected\r\n");
        return fail(no_sample_text);
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
    unsigned product = 0;
    unsigned serial = 0;
    float cond = 0.0f;
    float temp = 0.0f;
    float sal = 0.0f;
    float density = 0.0f;
    float sound = 0.0f;
    int n = sscanf(uart4_prn_buf, "%u %u %f %f %f %f %f", &product, &serial, &cond, &temp, &sal, &density,
                   &sound);
    if (n != 7) {
        uprintf("\r\nError:  sscanf for parsing Aanderaa 5860 does not return 7 args.  ctd.state = %d.  "
                "TempC and "
                "salt are 0.0\r\n",
                ctd.state);
        cond = 0.0f;
        temp = 0.0f;
        sal = 0.0f;
    } else if (!ctd_reading_plausible(temp, sal)) {
        uprintf("\r\nError:  Aanderaa 5860 reply out of range.  TempC and salt are 0.0\r\n");
        cond = 0.0f;
        temp = 0.0f;
        sal = 0.0f;
    }
    ctd.condo = cond;
    ctd.tempC = temp;
    ctd.salt = sal;
    sys_samp.sensor_sal = sal;
}
