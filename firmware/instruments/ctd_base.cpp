// Common layer of the CTD drivers: port 4 set up for the instrument, the shared driver record and the
// port-4 text.
#include "instruments/ctd_base.h"

#include <cstdio>

#include "storage/fault_note.h"
#include "records/system.h"
#include "board/timebase.h"
#include "driverlib/sysctl.h"
#include "instruments/inst_text.h"
#include "ports/uarts.h"
#include "ports/uartstdio.h"

namespace {

constexpr uint32_t ctd_port = 4;
constexpr uint32_t ctd_baud = 9600;
// The widest ranges of the CTDs the port takes: water from -5 to 60 degC, salinity up to 60.
constexpr float ctd_temp_min = -5.0f;
constexpr float ctd_temp_max = 60.0f;
constexpr float ctd_sal_max = 60.0f;
constexpr uint32_t ctd_uart_clock = 16000000;
// SysCtlDelay spends three cycles per count: 1667 counts are 100 us at 50 MHz.
constexpr uint32_t idle_pause_counts = 1667;

} // namespace

ctdDriver ctd = {};
char uart4_prn_buf[UART4_PRN_BUF_SIZE] = {};
char ctd_message[128] = {};

void ctd_init(void) {
    uart_init(ctd_port, ctd_baud, ctd_uart_clock);
    uart_echo_set(ctd_port, false);
}

void ctd_open(void) {
    ctd.state = CTD_STATE_IDLE;
    ctd.bufIndx = 0;
    uart4_prn_buf[0] = '\0';
}

void ctd_close(void) {}

uint8_t ctd_getc(void) {
    int32_t c = uart_getc(ctd_port);
    return c < 0 ? 0 : static_cast<uint8_t>(c);
}

uint32_t ctd_rx_avail(void) {
    return uart_rx_avail(ctd_port);
}

void ctd_poll(void) {
    uart_service(ctd_port);
}

void ctd_idle(void) {
    SysCtlDelay(idle_pause_counts);
}

void ctd_flushRx(void) {
    uart_flush_rx(ctd_port);
}

void ctd_flushTx(void) {
    uart_flush_tx(ctd_port);
}

void ctd_write(const char* text) {
    uart_puts(ctd_port, text);
}

bool ctd_reading_plausible(float tempC, float salinity) {
    // Comparisons with NaN are false, so NaN fails both.
    return tempC >= ctd_temp_min && tempC <= ctd_temp_max && salinity >= 0.0f && salinity <= ctd_sal_max;
}

uint32_t ctd_rx_buf_size(void) {
    return CTD_BUF_SIZE;
}

uint32_t ctd_tx_buf_size(void) {
    return CTD_BUF_SIZE;
}

void ctd_report_failure(const char* text) {
    uint32_t fields =
        sys_data.data_cfg[CFG_UART4_INST] == CTD_TYPE_AAND5860 ? CTD_AAND5860_FIELDS : CTD_SBE37_FIELDS;
    inst_blank_fields(uart4_prn_buf, sizeof uart4_prn_buf, fields);
    snprintf(ctd_message, sizeof ctd_message, "%s", text);
    fault_note(FAULT_PORT4, text);
}

void ctd_report_unparsed(const char* instrument, int fields) {
    char text[128];
    snprintf(
        text, sizeof text,
        "Error:  sscanf for parsing %s does not return %d args.  ctd.state = %d.  TempC and salt are 0.0",
        instrument, fields, ctd.state);
    ctd_report_failure(text);
}

void ctd_report_success(void) {
    ctd_message[0] = '\0';
    fault_clear(FAULT_PORT4);
}

uint32_t ctd_ticks_since(uint32_t since) {
    ctd.new_tick10ms = Timer_10ms(0);
    return ctd.new_tick10ms - since;
}

namespace {
constexpr uint32_t pass_wake_delay_ticks = 90; // 900 ms from opening the port to the wake
constexpr uint32_t pass_command_gap_ms = 20;
constexpr uint32_t pass_open_settle_ms = 1;
} // namespace

int ctd_start_pass(unsigned type) {
    ctd_init();
    ctd_open();
    delay_msec(pass_open_settle_ms);
    ctd_flushRx();
    ctd_flushTx();
    ctd.old_tick10ms = Timer_10ms(0);
    unsigned inst = sys_data.data_cfg[CFG_UART4_INST];
    if (inst != type) {
        ctd.type = CTD_TYPE_NONE;
        uprintf("Error: sys_data.data_cfg[CFG_UART4_INST] = %u, no driver for this CTD type, Config -> Data "
                "Fields\r\n",
                inst);
        ctd.state = CTD_STATE_IDLE;
        return CTD_STATE_IDLE;
    }
    ctd.type = type;
    ctd.state = CTD_STATE_WAKE_WAIT;
    return CTD_STATE_WAKE_WAIT;
}

int ctd_wake_and_ask(const char* wake, const char* command) {
    ctd_poll();
    if (ctd_ticks_since(ctd.old_tick10ms) < pass_wake_delay_ticks) {
        ctd_idle();
        return CTD_STATE_WAKE_WAIT;
    }
    ctd_write(wake);
    delay_msec(pass_command_gap_ms);
    ctd_write(command);
    delay_msec(pass_command_gap_ms);
    ctd_flushRx(); // the instrument's prompt and the command's echo
    ctd.old_tick10ms = Timer_10ms(0);
    ctd.state = CTD_STATE_RECEIVE;
    return CTD_STATE_RECEIVE;
}
