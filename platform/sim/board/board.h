// The board directory of hxc3-sim: the files that keep a board between runs (the hibernation
// module in `rtc`, the world in `scenario.ini`), and the --stats file.
#pragma once

#include "sim.h"

#include <string>

namespace sim::board {

// Reads the `rtc` file into `h`; false (having said why) when it is missing or has a line that is
// malformed, names no field or holds a value the field cannot take.
bool load_rtc(const std::string& path, HibState& h);
// Writes `h` to the `rtc` file (through a temporary file, so a crash never leaves half a file).
bool save_rtc(const std::string& path, const HibState& h);

// Reads scenario.ini into the runtime's scenario values (a missing file is an empty scenario);
// false (having named the file, line, key and value) when a line is malformed or a value refused.
bool load_scenario(const std::string& path);
// The documented default scenario.ini of a new board: every key commented out at its default.
std::string scenario_template();

// Appends one line to the --stats file, with the header first when the file is new or empty.
bool append_stats(const std::string& path, const std::string& line);
constexpr const char* stats_header =
    "start_utc,wake,awake_ms,sd_reads,sd_writes,tx_bytes,stack_bytes,uvs_ms,lamp_ms";

// "YYYY-MM-DD HH:MM:SS" (UTC) to RTC seconds; false when malformed.
bool parse_utc(const std::string& text, uint32_t& seconds);
std::string format_utc(uint32_t seconds); // "YYYY-MM-DD HH:MM:SS"

} // namespace sim::board
