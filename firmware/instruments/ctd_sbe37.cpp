// The SBE37 MicroCAT on port 4.
//
// A pass: the port is opened, the instrument gets 900 ms before the carriage return that wakes it,
// then "ts" asks for one sample. Its reply line is collected with commas turned into tabs and ends
// at a line feed or "<". The instrument takes a few seconds per sample; 3.5 s after the command
// without an end of line, or a reply that fills the 16-character window, ends the pass with a
// message on the console and in the error log, and empty columns. Each step returns at once, so the
// ADC readings go on meanwhile.
//
// The reply holds temperature, conductivity, salinity, date and time, with the pressure after the
// conductivity when the instrument has a pressure sensor. The line's six columns are those fields in
// that order, the pressure's left empty when the reply has none.
#include "instruments/ctd_sbe37.h"

#include <cstdio>
#include <cstdlib>

#include "records/system.h"
#include "board/timebase.h"
#include "instruments/ctd_base.h"
#include "instruments/inst_text.h"
#include "ports/uartstdio.h"

namespace {

constexpr uint32_t reply_timeout_ticks = 350; // 3.5 s from the command to the end of the reply
constexpr uint8_t ctrl_x = 0x18;

constexpr char too_long_text[] = "ST7: error in ctd driver bufIndx exceeds buf size, ctd";
constexpr char silent_text[] =
    "CTD not responding with SBE37 data, check connection, make sure data config is SBE37";
int fail(const char* text) {
    ctd_report_failure(text);
    ctd_close();
    ctd.type = CTD_TYPE_NONE;
    ctd.state = CTD_STATE_FAILED;
    return CTD_STATE_IDLE;
}

int receive(void) {
    bool got = ctd_rx_avail() > 0;
    if (got) {
        uint8_t c = ctd_getc();
        if (c == '<' || c == '\n') {
            ctd_close();
            ctd_sbe37_parseData();
            UARTFlushTx(false);
            ctd.state = CTD_STATE_IDLE;
            return CTD_STATE_IDLE;
        }
        if (c == ',') {
            c = '\t';
        } else if (c == '\r') {
            c = '\0';
        }
        uart4_prn_buf[ctd.bufIndx] = static_cast<char>(c);
        ctd.bufIndx++;
        uart4_prn_buf[ctd.bufIndx] = '\0'; // within the text buffer: the window is smaller
        if (ctd.bufIndx >= ctd_rx_buf_size()) {
            ctd.bufIndx = ctd_rx_buf_size() - 1;
            UARTFlushTx(false);
            return fail(too_long_text);
        }
    }
    if (ctd_ticks_since(ctd.old_tick10ms) >= reply_timeout_ticks) {
        return fail(silent_text);
    }
    if (!got) {
        ctd_idle();
    }
    return CTD_STATE_RECEIVE;
}

// Runs a pass to its end, stepping as fast as the sample cycle at most would.
void run_pass(void) {
    int state = ctd_sbe37_stateMachine(CTD_STATE_START);
    while (state != CTD_STATE_IDLE) {
        delay_msec(1);
        state = ctd_sbe37_stateMachine(state);
    }
}

} // namespace

int ctd_sbe37_stateMachine(int state) {
    ctd.state = state;
    switch (state) {
    case CTD_STATE_START:
        return ctd_start_pass(CTD_TYPE_SBE37);
    case CTD_STATE_WAKE_WAIT:
        return ctd_wake_and_ask("\r", "ts\r");
    case CTD_STATE_RECEIVE:
        return receive();
    default:
        return CTD_STATE_IDLE;
    }
}

namespace {

constexpr uint32_t fields_without_pressure = 5;

// Splits the reply into the six columns; false when it is not a reply.
bool split_reply(char* reply, const char** cols) {
    char* f[CTD_SBE37_FIELDS + 1];
    uint32_t n = inst_split(reply, "\t", f, CTD_SBE37_FIELDS);
    if (n != fields_without_pressure && n != CTD_SBE37_FIELDS) {
        return false;
    }
    for (uint32_t i = 0; i < n; i++) {
        f[i] = inst_trim(f[i]);
    }
    bool pressure = n == CTD_SBE37_FIELDS;
    cols[0] = f[0];
    cols[1] = f[1];
    cols[2] = pressure ? f[2] : "";
    cols[3] = f[pressure ? 3 : 2];
    cols[4] = f[pressure ? 4 : 3];
    cols[5] = f[pressure ? 5 : 4];
    return inst_is_number(cols[0]) && inst_is_number(cols[1]) && inst_is_number(cols[3]) &&
           (!pressure || inst_is_number(cols[2])) && inst_is_printable(cols[4]) && inst_is_printable(cols[5]);
}

} // namespace

void ctd_sbe37_parseData(void) {
    char reply[UART4_PRN_BUF_SIZE];
    snprintf(reply, sizeof reply, "%s", uart4_prn_buf);
    const char* cols[CTD_SBE37_FIELDS] = {};
    bool parsed = split_reply(reply, cols);
    float temp = parsed ? strtof(cols[0], nullptr) : 0.0f;
    float sal = parsed ? strtof(cols[3], nullptr) : 0.0f;
    if (!parsed) {
        ctd_report_unparsed("MicroCat", 5);
    } else if (!ctd_reading_plausible(temp, sal)) {
        temp = 0.0f;
        sal = 0.0f;
        ctd_report_failure("Error:  MicroCat reply out of range.  TempC and salt are 0.0");
    } else if (!inst_join_fields(uart4_prn_buf, sizeof uart4_prn_buf, cols, CTD_SBE37_FIELDS)) {
        temp = 0.0f;
        sal = 0.0f;
        ctd_report_failure("Error:  MicroCat reply too long for the line.  TempC and salt are 0.0");
    } else {
        ctd.condo = strtof(cols[1], nullptr);
        ctd.pressure = cols[2][0] != '\0' ? strtof(cols[2], nullptr) : 0.0f;
        ctd_report_success();
    }
    ctd.salt = sal;
    ctd.tempC = temp;
    sys_samp.sensor_sal = sal;
}

void ctd_sbe37_poll(void) {
    run_pass();
    uprintf("\r\n%s\r\n", ctd_message[0] != '\0' ? ctd_message : uart4_prn_buf);
}

void ctd_sbe37_comm_test(void) {
    uprintf("TX: ts cr \r\n");
    run_pass();
    if (ctd_message[0] != '\0') {
        uprintf("RX: %s\r\n", ctd_message);
        return;
    }
    uprintf("RX: %s\r\nTempC = %8.4f  Sal = %8.4f\r\n", uart4_prn_buf, static_cast<double>(ctd.tempC),
            static_cast<double>(ctd.salt));
}

void ctd_sbe37_serial_analyzer(void) {
    ctd_init();
    ctd_open();
    uprintf("* Type ts<Enter> to take sample *\r\n");
    uprintf("* Press CTRL-X to stop communicating with the SBE37 MicroCAT *\r\n");
    for (;;) {
        if (UARTrdy()) {
            unsigned char c = getChar();
            if (c == ctrl_x) {
                break;
            }
            char out[2] = {static_cast<char>(c), '\0'};
            ctd_write(out);
        }
        while (ctd_rx_avail() > 0) {
            char in = static_cast<char>(ctd_getc());
            UARTwrite(&in, 1);
        }
        delay_msec(1);
    }
    ctd_close();
    UARTFlushTx(false);
}

uint32_t ctd_sbe37_qa_test(void) {
    run_pass();
    bool ok = ctd.state != CTD_STATE_FAILED && ctd.type == CTD_TYPE_SBE37 && ctd.salt != 0.0f;
    uprintf("SBE37 %s: %s\r\n", ok ? "PASS" : "FAIL", ok ? uart4_prn_buf : ctd_message);
    return ok ? 1u : 0u;
}
