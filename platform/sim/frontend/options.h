// The command line of hxc3-sim: its options, the target image and the script they name, and the
// exit statuses of a run.
#pragma once

#include "runtime.h"

#include <cstdint>
#include <string>

namespace sim::frontend {

constexpr int exit_usage = 2;    // bad options, a bad script line or a board state file refused
constexpr int exit_internal = 3; // the firmware process died, or the board could not be set up

struct Options {
    std::string board = "board";
    bool fast = false;
    std::string script_path;
    bool pty = false;
    uint64_t run_for_ns = never;
    bool has_time = false;
    uint32_t time = 0;
    bool quiet = false;
    std::string stats;
    std::string image;
};

// Reads the command line. --help prints the usage and exits; bad usage prints why and the usage on
// stderr and exits with exit_usage.
Options parse_options(int argc, char** argv);
// Loads --image, if given, into the emulated chip; exits with exit_usage when it cannot.
void load_image(const Options& opt);
// Reads and parses --script, if given, into `parsed`; exits with exit_usage when it cannot.
void load_script(const Options& opt, script::Script& parsed);

} // namespace sim::frontend
