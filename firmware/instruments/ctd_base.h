// The CTD on serial port 4: the driver record both CTD drivers share, the port-4 text that the sample
// line carries, and the common port operations the drivers are built on.
#pragma once

#include <cstdint>

// CTD type codes, as in sys_data.data_cfg[CFG_UART4_INST].
constexpr uint32_t CTD_TYPE_NONE = 0;
constexpr uint32_t CTD_TYPE_SBE37 = 6;
constexpr uint32_t CTD_TYPE_AAND5860 = 7;

// States of a driver pass.
constexpr int CTD_STATE_IDLE = 0;
constexpr int CTD_STATE_START = 1;
constexpr int CTD_STATE_WAKE_WAIT = 2;
constexpr int CTD_STATE_RECEIVE = 3;
constexpr int CTD_STATE_FAILED = -1;

struct ctdDriver {
    int state;
    unsigned int old_tick10ms; // 10 ms tick at the start of the current wait
    unsigned int new_tick10ms; // 10 ms tick at the latest check
    unsigned int type;         // CTD type in service; 0 when none or the pass failed
    float condo;
    float salt; // PSU
    float tempC;
    float pressure;
    float depth;
    unsigned int bufIndx; // next write position in uart4_prn_buf
};

extern ctdDriver ctd;

// The reply window of port 4 is 16 characters (ctd_rx_buf_size). The text buffer behind it also
// holds a CTD's whole column group once the reply is parsed (the Aanderaa 5860's seven numbers).
constexpr uint32_t CTD_BUF_SIZE = 16;
constexpr uint32_t UART4_PRN_BUF_SIZE = 96;
// Columns of each CTD's group in the data header: the line always carries exactly these.
constexpr uint32_t CTD_SBE37_FIELDS = 6;
constexpr uint32_t CTD_AAND5860_FIELDS = 7;
extern char uart4_prn_buf[UART4_PRN_BUF_SIZE];

// Serial port 4 at 9600 baud from the 16 MHz internal oscillator, echo off.
void ctd_init(void);
// Starts a pass: state idle, the text empty.
void ctd_open(void);
void ctd_close(void);
// The next received byte of port 4 (0 when none waits; check ctd_rx_avail first).
uint8_t ctd_getc(void);
uint32_t ctd_rx_avail(void);
// Takes what port 4 received so far into its ring (a wait step that reads nothing still polls).
void ctd_poll(void);
// The pause of a step that found nothing to do: about 100 us, well under one character time at
// 9600 baud, so no byte waits for it, while a caller that steps back to back does not spin millions
// of times through a multi-second wait.
void ctd_idle(void);
void ctd_flushRx(void);
// Waits until port 4 has sent everything queued.
void ctd_flushTx(void);
void ctd_write(const char* text);
uint32_t ctd_rx_buf_size(void);
uint32_t ctd_tx_buf_size(void);
// A pass that failed: the port-4 text becomes the configured CTD's group of empty fields, and `text`
// goes to the console and the error log (see fault_note.h) and stays in ctd_message for the tools.
void ctd_report_failure(const char* text);
// A reply that does not hold the instrument's `fields` values: reported as a failure, naming the
// instrument.
void ctd_report_unparsed(const char* instrument, int fields);
// A pass that gave a reading: the next failure is logged at once.
void ctd_report_success(void);
// Why the latest pass failed (empty after a good one).
extern char ctd_message[128];
// Whether a parsed reply holds a temperature (degC) and salinity the instruments can measure: a
// garbled line can still scan as numbers (nan, inf, 1e30) that must not reach the pH equations.
bool ctd_reading_plausible(float tempC, float salinity);

// 10 ms ticks since `since` (wraps with the counter).
uint32_t ctd_ticks_since(uint32_t since);

// The steps every CTD pass begins with, the same for each instrument type:
// open the port and refuse a configured type other than `type` (state idle), else wait for the wake;
// after the 900 ms wake delay send `wake`, then `command`, and go on to receive the reply.
int ctd_start_pass(unsigned type);
int ctd_wake_and_ask(const char* wake, const char* command);
