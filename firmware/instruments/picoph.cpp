// The PyroScience pico-pH meter on port 3, 19200 baud.
//
// The meter needs no wake. "MEA 1 47" triggers a measurement of optical channel 1 with the sample
// temperature, pressure, humidity and case temperature sensors (1 + 2 + 4 + 8 + 32); the meter
// answers with the command and its eighteen results R0..R17 as integers separated by blanks, ended
// by a carriage return: status bits, then dphi (m deg), three oxygen results that are 0 for a pH
// sensor, sample and case temperature (m degC), signal intensity and ambient light, pressure and
// humidity, the optical temperature's resistance, two further unused results, pH (in thousandths)
// and three reserved ones. The group's twenty-one columns are those items as the meter sent them.
// An error answer ("#ERRO ...") does not begin with "MEA" and ends in the pass's time-out message.
#include "instruments/picoph.h"

#include <cstring>

#include "instruments/inst_text.h"

namespace {

constexpr uint32_t field_count = 21;
static_assert(field_count <= INST_MAX_FIELDS);

} // namespace

const port3Instrument picoph_instrument = {
    .code = PORT3_PICOPH,
    .name = "pico-pH",
    .baud = 19200,
    .wake = nullptr,
    .wake_ticks = 0,
    .command = "MEA 1 47\r",
    .prefix = "MEA ",
    .timeout_ticks = 200,
    .fields = field_count,
};

bool picoph_parse(char* line) {
    char* tokens[field_count + 1];
    uint32_t n = inst_split(line, " ", tokens, field_count);
    if (n != field_count || strcmp(tokens[0], "MEA") != 0) {
        return false;
    }
    for (uint32_t i = 1; i < field_count; i++) {
        if (!inst_is_integer(tokens[i])) {
            return false;
        }
    }
    return port3_set_fields(tokens, field_count);
}

int picoph_stateMachine(int state) {
    int next = port3_stateMachine(picoph_instrument, state);
    if (next == PORT3_STATE_REPLY) {
        return port3_finish(picoph_instrument, picoph_parse(port3.line));
    }
    return next;
}
