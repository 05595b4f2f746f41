// The instrument on serial port 3 (UART3): the pass every port-3 driver makes, and the port-3 text
// that the sample line carries.
//
// A pass opens the port at the instrument's baud rate and sends its wake text, waits its wake delay,
// sends its command and collects reply lines (ended by a carriage return or a line feed) until one
// begins with the instrument's reply prefix; lines that do not (the command's echo, prompts) are
// skipped. The reply is parsed into exactly the fields of the instrument's column group. A pass ends
// by its own time-out: no reply line within the instrument's limit after the command ends it with a
// message on the console and in the error log, and empty fields in the line.
#pragma once

#include <cstddef>
#include <cstdint>

// Port 3 instrument codes, as in sys_data.data_cfg[CFG_UART3_INST].
constexpr uint32_t PORT3_NONE = 0;
constexpr uint32_t PORT3_OPTODE = 1;
constexpr uint32_t PORT3_OCR = 2;
constexpr uint32_t PORT3_BRISA = 3;
constexpr uint32_t PORT3_PICOPH = 4;

// Longest reply line kept (the optode's is about 200 characters); a longer one is not understood.
constexpr uint32_t PORT3_LINE_SIZE = 256;
// The port-3 column text: the longest group (the pico-pH's 21 numbers) with room to spare.
constexpr uint32_t UART3_PRN_BUF_SIZE = 256;
extern char uart3_prn_buf[UART3_PRN_BUF_SIZE];

// What makes one instrument: its serial settings, what is sent, what its reply looks like, how
// long it may take, and how the reply line becomes the group's fields.
struct port3Instrument {
    uint32_t code;
    const char* name; // in messages
    uint32_t baud;
    const char* wake;       // sent when the port opens; nullptr for none
    uint32_t wake_ticks;    // 10 ms ticks from the wake to the command
    const char* command;    // nullptr for an instrument that sends on its own
    const char* prefix;     // how the reply line begins
    uint32_t timeout_ticks; // from the command to the end of the reply line
    uint32_t fields;        // columns of its group in the data header
};

constexpr int PORT3_STATE_IDLE = 0;
constexpr int PORT3_STATE_START = 1;
constexpr int PORT3_STATE_WAKE_WAIT = 2;
constexpr int PORT3_STATE_RECEIVE = 3;
constexpr int PORT3_STATE_FAILED = -1;
// Returned by port3_stateMachine only: a reply line waits in port3.line for the driver's parser,
// whose verdict goes to port3_finish.
constexpr int PORT3_STATE_REPLY = 4;

struct uart3Driver {
    int state;
    uint32_t old_tick10ms; // 10 ms tick at the start of the current wait
    uint32_t lineLen;
    bool overlong; // the current line outgrew the buffer and is skipped to its end
    bool heard;    // any byte came back during this pass
    char line[PORT3_LINE_SIZE];
};
extern uart3Driver port3;

// One step of a pass for `inst`: called with 1 to start, then with the value it last returned; 0
// when the pass is over, whether it succeeded or not, and PORT3_STATE_REPLY when a reply line waits.
int port3_stateMachine(const port3Instrument& inst, int state);
// Ends the pass on a reply line: `parsed` says whether the driver's parser made the group's fields
// of it. Returns 0.
int port3_finish(const port3Instrument& inst, bool parsed);
// Joins parsed fields into uart3_prn_buf; false (and empty fields) when they do not fit.
bool port3_set_fields(const char* const* fields, uint32_t count);
