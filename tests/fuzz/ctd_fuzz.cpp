// Replies of the CTD on serial port 4, as a faulty or hostile instrument would send them, into the
// SBE37 and Aanderaa 5860 drivers: the byte-by-byte receive of a pass and the parse of the reply
// line. A pass must end within its time limits, keep its text within the buffer with exactly the
// CTD's columns as printable text, and hand the sample only a temperature and salinity the
// instrument can measure (or the zeros of a failed parse).
#include <cmath>
#include <cstring>

#include "records/system.h"
#include "board/timebase.h"
#include "fuzz_board.h"
#include "instruments/ctd_aand5860.h"
#include "instruments/ctd_base.h"
#include "instruments/ctd_sbe37.h"
#include "runtime.h"

namespace {

constexpr size_t MAX_REPLY = 256;
constexpr uint64_t CHAR_NS_9600 = 1041667; // one 8N1 character at 9600 baud
// A pass: the 900 ms wake delay, a reply time-out of at most 3.5 s, a reply of MAX_REPLY characters.
constexpr double PASS_LIMIT_S = 0.9 + 3.5 + MAX_REPLY * 0.00105 + 1.0;

const uint8_t* g_reply;
size_t g_len;
size_t g_pos;
bool g_sbe37;

// The instrument answers once the driver listens for the reply, one character at a time.
void instrument(uint64_t) {
    if (ctd.state == CTD_STATE_RECEIVE && g_pos < g_len) {
        sim::uart_receive(4, g_reply[g_pos++]);
    }
}

int step(int state) {
    return g_sbe37 ? ctd_sbe37_stateMachine(state) : ctd_aand5860_stateMachine(state);
}

void pass(void) {
    int state = step(CTD_STATE_START);
    while (state != CTD_STATE_IDLE) {
        delay_msec(1);
        state = step(state);
    }
}

bool measurable(float temp, float sal) {
    return std::isfinite(temp) && std::isfinite(sal) && temp >= -5.0f && temp <= 60.0f && sal >= 0.0f &&
           sal <= 60.0f;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::start_board();
    return 0;
}

// The first byte chooses the instrument (even SBE37, odd Aanderaa 5860); the rest is its reply.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > MAX_REPLY + 1) {
        return -1;
    }
    fuzz::keep_board_on();
    sim::test::clear_console_output();
    g_sbe37 = (data[0] & 1) == 0;
    g_reply = data + 1;
    g_len = size - 1;
    g_pos = 0;
    sys_data.data_cfg[CFG_UART4_INST] = g_sbe37 ? CTD_TYPE_SBE37 : CTD_TYPE_AAND5860;
    sys_samp.sensor_sal = -1.0f;
    sim::test::set_poll(instrument, CHAR_NS_9600);
    sim::test::Outcome o = fuzz::run_for(pass, PASS_LIMIT_S);
    sim::test::set_poll(nullptr, 0);
    fuzz::check(o.returned, "a CTD pass did not end within its time limits");
    fuzz::check(fuzz::instrument_columns(uart4_prn_buf, sizeof uart4_prn_buf,
                                         g_sbe37 ? CTD_SBE37_FIELDS : CTD_AAND5860_FIELDS),
                "the port-4 text does not hold exactly the CTD's columns as printable text");
    if (ctd.state == CTD_STATE_FAILED) {
        return 0;
    }
    fuzz::check(sys_samp.sensor_sal == ctd.salt, "the sample's salinity is not the CTD's");
    bool failed_parse = ctd.tempC == 0.0f && ctd.salt == 0.0f;
    fuzz::check(failed_parse || measurable(ctd.tempC, ctd.salt),
                "a CTD reply gave a temperature or salinity outside what the instrument measures");
    return 0;
}
