// The Aanderaa oxygen optode on port 3, 9600 baud.
//
// A sleeping optode wakes on any character and ignores it, so a line end goes first; 100 ms later
// "Do Sample" asks for one measurement, which the optode answers within about two seconds with one
// line of labelled values:
//   MEASUREMENT  3830  1234  Oxygen:  245.85  Saturation:  95.05  Temperature:  15.00  DPhase:  33.24
//   BPhase:  33.24  RPhase:  0.00  BAmp:  350.00  BPot:  25.00  RAmp:  0.00  RawTem.:  200.00
// (blanks or tabs between the items). The echo of the command and any prompt are skipped. The line
// gives the group's twelve columns in the header's order: product number, serial number, then the
// values of the ten labels; a label the optode left out gives an empty field.
#include "instruments/optode.h"

#include <cstring>

#include "instruments/inst_text.h"

namespace {

constexpr uint32_t field_count = 12;
// The labels in the order of the group's columns after product and serial number.
const char* const labels[] = {"Oxygen:", "Saturation:", "Temperature:", "DPhase:", "BPhase:",
                              "RPhase:", "BAmp:",       "BPot:",        "RAmp:",   "RawTem.:"};
constexpr uint32_t label_count = sizeof labels / sizeof labels[0];
static_assert(label_count + 2 == field_count);

int label_index(const char* token) {
    for (uint32_t i = 0; i < label_count; i++) {
        if (strcmp(token, labels[i]) == 0) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

} // namespace

const port3Instrument optode_instrument = {
    .code = PORT3_OPTODE,
    .name = "optode",
    .baud = 9600,
    .wake = "\r\n",
    .wake_ticks = 10,
    .command = "Do Sample\r\n",
    .prefix = "MEASUREMENT",
    .timeout_ticks = 300,
    .fields = field_count,
};

bool optode_parse(char* line) {
    char* tokens[INST_MAX_FIELDS + 1];
    uint32_t n = inst_split(line, " \t", tokens, INST_MAX_FIELDS);
    if (n < 3 || n > INST_MAX_FIELDS || strcmp(tokens[0], "MEASUREMENT") != 0 ||
        !inst_is_integer(tokens[1]) || !inst_is_integer(tokens[2])) {
        return false;
    }
    const char* fields[field_count] = {tokens[1], tokens[2]};
    uint32_t values = 0;
    for (uint32_t i = 3; i + 1 < n; i++) {
        int k = label_index(tokens[i]);
        if (k < 0 || !inst_is_number(tokens[i + 1])) {
            continue;
        }
        fields[2 + k] = tokens[i + 1];
        values++;
        i++;
    }
    return values > 0 && port3_set_fields(fields, field_count);
}

int optode_stateMachine(int state) {
    int next = port3_stateMachine(optode_instrument, state);
    if (next == PORT3_STATE_REPLY) {
        return port3_finish(optode_instrument, optode_parse(port3.line));
    }
    return next;
}
