// Replies of the instrument on serial port 3, as a faulty or hostile instrument would send them, into
// the optode, radiometer, Brisa and pico-pH drivers. A pass must end within its time-out, and leave
// for the sample line exactly its group's columns, as printable text with no line end in it.
#include <cstring>

#include "records/system.h"
#include "board/timebase.h"
#include "fuzz_board.h"
#include "instruments/brisa.h"
#include "instruments/ocr.h"
#include "instruments/optode.h"
#include "instruments/picoph.h"
#include "instruments/port3.h"

namespace {

constexpr size_t MAX_REPLY = 600;

struct Driver {
    const port3Instrument* inst;
    int (*machine)(int);
};
const Driver drivers[] = {{&optode_instrument, optode_stateMachine},
                          {&ocr_instrument, ocr_stateMachine},
                          {&brisa_instrument, brisa_stateMachine},
                          {&picoph_instrument, picoph_stateMachine}};

const uint8_t* g_reply;
size_t g_len;
size_t g_pos;
const Driver* g_driver;

// The instrument answers once the driver listens for the reply, one character at a time.
void instrument(uint64_t) {
    if (port3.state == PORT3_STATE_RECEIVE && g_pos < g_len) {
        sim::uart_receive(3, g_reply[g_pos++]);
    }
}

void pass(void) {
    int state = g_driver->machine(PORT3_STATE_START);
    while (state != PORT3_STATE_IDLE) {
        delay_msec(1);
        state = g_driver->machine(state);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::start_board();
    return 0;
}

// The first byte chooses the instrument; the rest is what it sends.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > MAX_REPLY + 1) {
        return -1;
    }
    fuzz::keep_board_on();
    sim::test::clear_console_output();
    g_driver = &drivers[data[0] % (sizeof drivers / sizeof drivers[0])];
    g_reply = data + 1;
    g_len = size - 1;
    g_pos = 0;
    sys_data.data_cfg[CFG_UART3_INST] = static_cast<unsigned char>(g_driver->inst->code);
    // One character per character time at the instrument's baud rate.
    sim::test::set_poll(instrument, 10 * sim::ns_per_s / g_driver->inst->baud);
    double limit = (g_driver->inst->wake_ticks + g_driver->inst->timeout_ticks) / 100.0 + 0.5;
    sim::test::Outcome o = fuzz::run_for(pass, limit);
    sim::test::set_poll(nullptr, 0);
    fuzz::check(o.returned, "a port-3 pass did not end within its time-out");
    fuzz::check(fuzz::instrument_columns(uart3_prn_buf, sizeof uart3_prn_buf, g_driver->inst->fields),
                "the port-3 text does not hold exactly the group's columns as printable text");
    return 0;
}
