// The command line of hxc3-sim: the options as the usage text lists them, and the target image and
// the script they name, loaded before the board starts so that a bad one stops the run at once.
#include "options.h"

#include "board.h"
#include "chip.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace sim::frontend {

namespace {

const char* const usage_text =
    "usage: hxc3-sim [options]\n"
    "  --board DIR        the board's persistent state (default ./board); created on first use\n"
    "  --fast             virtual time runs as fast as the host can (default: real time)\n"
    "  --script FILE      drive the console from a script; implies --fast\n"
    "  --pty              put the console on a new pseudo-terminal (its name is printed on stderr)\n"
    "  --run-for SECONDS  stop the simulation after this much virtual time\n"
    "  --time \"YYYY-MM-DD HH:MM:SS\"  set the RTC (UTC) when the board is created\n"
    "  --quiet            do not copy console output to stdout\n"
    "  --stats FILE       append one CSV line per power-on period\n"
    "  --image ELF        run this target image (build/target/hxc3.elf) on the emulated TM4C123\n"
    "                     instead of the host-compiled firmware\n"
    "  --help             this text\n"
    "On a terminal every key goes to the board's console (Ctrl-C too); a key pressed while the board\n"
    "hibernates wakes it and is lost. Ctrl-] ends the simulator.\n"
    "Exit status: 0 when the script ends or the run time is reached, 1 when an expect times out,\n"
    "2 on bad usage, a bad script line or a board file it refuses, 3 when the board's process fails.\n";

[[noreturn]] void bad_usage(const std::string& why) {
    message("%s", why.c_str());
    std::fputs(usage_text, stderr);
    std::exit(exit_usage);
}

} // namespace

Options parse_options(int argc, char** argv) {
    Options opt;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                bad_usage(a + " needs a value");
            }
            return argv[++i];
        };
        if (a == "--help" || a == "-h") {
            std::fputs(usage_text, stdout);
            std::exit(0);
        } else if (a == "--board") {
            opt.board = value();
        } else if (a == "--fast") {
            opt.fast = true;
        } else if (a == "--script") {
            opt.script_path = value();
            opt.fast = true;
        } else if (a == "--pty") {
            opt.pty = true;
        } else if (a == "--run-for") {
            std::string v = value();
            if (!script::parse_seconds(v, opt.run_for_ns)) {
                bad_usage("--run-for: bad SECONDS '" + v + "'");
            }
        } else if (a == "--time") {
            std::string v = value();
            if (!board::parse_utc(v, opt.time)) {
                bad_usage("--time: expected \"YYYY-MM-DD HH:MM:SS\" (UTC), got '" + v + "'");
            }
            opt.has_time = true;
        } else if (a == "--quiet") {
            opt.quiet = true;
        } else if (a == "--stats") {
            opt.stats = value();
        } else if (a == "--image") {
            opt.image = value();
        } else {
            bad_usage("unknown option '" + a + "'");
        }
    }
    if (opt.board.empty()) {
        bad_usage("--board needs a directory");
    }
    return opt;
}

void load_image(const Options& opt) {
    if (opt.image.empty()) {
        return;
    }
    std::string error;
    if (!chip::load_image(opt.image, error)) {
        message("--image %s: %s", opt.image.c_str(), error.c_str());
        std::exit(exit_usage);
    }
}

void load_script(const Options& opt, script::Script& parsed) {
    if (opt.script_path.empty()) {
        return;
    }
    std::ifstream in(opt.script_path, std::ios::binary);
    if (!in) {
        message("cannot read %s: %s", opt.script_path.c_str(), std::strerror(errno));
        std::exit(exit_usage);
    }
    std::ostringstream ss;
    ss << in.rdbuf();
    std::string error;
    if (!script::parse(opt.script_path, ss.str(), parsed, error)) {
        message("%s", error.c_str());
        std::exit(exit_usage);
    }
}

} // namespace sim::frontend
