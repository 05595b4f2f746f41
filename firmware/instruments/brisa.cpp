// The Brisa FET pH instrument on port 3, 9600 baud.
//
// The instrument has a console like this board's: a carriage return wakes it (it answers with a
// prompt), and 500 ms later "ts" takes one sample, which it prints about three seconds later as one
// tab-separated line of fourteen fields beginning with "#": its sample number, date and time, bias
// battery, housing temperature, humidity, thermistor volts and their deviation, temperature, the
// external reference volts and their deviation, the counter electrode volts and their deviation,
// and the two currents. The echo and the prompt are skipped. The fields are kept as the instrument
// wrote them, without the blanks that pad them.
#include "instruments/brisa.h"

#include "instruments/inst_text.h"

namespace {

constexpr uint32_t field_count = 14;
constexpr uint32_t first_number = 2; // after the sample number and the time stamp

} // namespace

const port3Instrument brisa_instrument = {
    .code = PORT3_BRISA,
    .name = "Brisa",
    .baud = 9600,
    .wake = "\r",
    .wake_ticks = 50,
    .command = "ts\r",
    .prefix = "#",
    .timeout_ticks = 500,
    .fields = field_count,
};

bool brisa_parse(char* line) {
    char* fields[field_count];
    if (!inst_split_exact(line, "\t", fields, field_count)) {
        return false;
    }
    if (fields[0][0] != '#' || !inst_is_integer(fields[0] + 1) || !inst_is_printable(fields[1])) {
        return false;
    }
    for (uint32_t i = first_number; i < field_count; i++) {
        if (!inst_is_number(fields[i])) {
            return false;
        }
    }
    return port3_set_fields(fields, field_count);
}

int brisa_stateMachine(int state) {
    int next = port3_stateMachine(brisa_instrument, state);
    if (next == PORT3_STATE_REPLY) {
        return port3_finish(brisa_instrument, brisa_parse(port3.line));
    }
    return next;
}
