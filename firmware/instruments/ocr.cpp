// The OCR-504 multispectral radiometer on port 3, 57600 baud.
//
// The radiometer runs on its own, sending one ASCII telemetry frame a second: its frame header (the
// instrument string, "SATFI4" for irradiance or "SATFR4" for radiance, or "SATAI4"/"SATAR4" for raw
// counts, followed by its serial number), then its four optical channels, separated by tabs and
// ended by CR LF. Nothing is sent to it; a pass takes the first whole frame that arrives after the
// port was opened (the bytes before the first line end may be the tail of a frame and are skipped
// because they do not begin with the header). The group's five columns are the frame header and the
// four channels.
#include "instruments/ocr.h"

#include <cstring>

#include "instruments/inst_text.h"

namespace {

constexpr uint32_t field_count = 5;
constexpr size_t header_min = 7;  // instrument string and at least one serial-number character
constexpr size_t header_max = 16; // instrument string and the longest serial number

} // namespace

const port3Instrument ocr_instrument = {
    .code = PORT3_OCR,
    .name = "radiometer",
    .baud = 57600,
    .wake = nullptr,
    .wake_ticks = 0,
    .command = nullptr,
    .prefix = "SAT",
    .timeout_ticks = 250,
    .fields = field_count,
};

bool ocr_parse(char* line) {
    char* fields[field_count];
    if (!inst_split_exact(line, "\t", fields, field_count)) {
        return false;
    }
    size_t header = strlen(fields[0]);
    if (strncmp(fields[0], "SAT", 3) != 0 || header < header_min || header > header_max ||
        !inst_is_printable(fields[0])) {
        return false;
    }
    for (uint32_t i = 1; i < field_count; i++) {
        if (!inst_is_number(fields[i])) {
            return false;
        }
    }
    return port3_set_fields(fields, field_count);
}

int ocr_stateMachine(int state) {
    int next = port3_stateMachine(ocr_instrument, state);
    if (next == PORT3_STATE_REPLY) {
        return port3_finish(ocr_instrument, ocr_parse(port3.line));
    }
    return next;
}
