// hxc3-sim: the simulated HXC3 board on Linux. The process that starts is the supervisor: it keeps
// what outlives a power-on period (virtual time, the hibernation module, the script's progress, the
// scenario, the figures) in memory shared with its children, and starts every power-on period as a
// fresh child process that runs the firmware from main, as the chip starts from reset with RAM
// lost. While the board hibernates no firmware runs; the supervisor lets time pass to the wake.
#include "board.h"
#include "chip.h"
#include "devices.h"
#include "runtime.h"
#include "script.h"

#include "records/system.h"
#include "storage/settings.h"
#include "driverlib/eeprom.h"
#include "driverlib/sysctl.h"
#include "inc/hw_hibernate.h"
#include "storage/fatfs/ff.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

int hxc3_main(void);

using namespace sim;

namespace {

constexpr uint8_t quit_key = 0x1d;  // Ctrl-]
constexpr int exit_usage = 2;       // bad options, a bad script line or a board state file refused
constexpr int exit_internal = 3;    // the firmware process died, or the board could not be set up
constexpr int event_exit_base = 20; // a period's child exits with this plus its PowerEvent
constexpr uint64_t card_bytes = 256ull * 1024 * 1024; // a new board's microSD card

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

Options g_opt;
script::Script g_script;
std::string g_rtc_path;

// The console as the outside sees it.
int g_in_fd = -1;        // keys: the terminal, a pipe, or the pty; -1: none (scripts)
int g_out_fd = -1;       // console output: stdout or the pty; -1: --quiet
bool g_quit_key = false; // Ctrl-] ends the run (not on a pty, where it may be data)
bool g_realtime = true;
uint64_t g_wall_origin = 0; // wall clock (CLOCK_MONOTONIC ns) at virtual time 0
bool g_tty_raw = false;
termios g_tty_saved{};
int g_pty_slave = -1;

char g_out_buf[4096];
size_t g_out_len = 0;

uint64_t wall_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * ns_per_s + static_cast<uint64_t>(ts.tv_nsec);
}

std::string path_in_board(const char* name) {
    return g_opt.board + "/" + name;
}

bool exists(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

// ---------------------------------------------------------------- console I/O

void flush_output() {
    size_t done = 0;
    while (g_out_fd >= 0 && done < g_out_len) {
        ssize_t n = write(g_out_fd, g_out_buf + done, g_out_len - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break; // nobody reads the pty, or stdout is gone: the output is dropped
        }
        done += static_cast<size_t>(n);
    }
    g_out_len = 0;
}

void console_byte(uint8_t b) {
    if (g_out_fd < 0) {
        return;
    }
    if (g_out_len == sizeof g_out_buf) {
        flush_output();
    }
    g_out_buf[g_out_len++] = static_cast<char>(b);
}

// Reads what the keyboard (or pty) has, waiting up to timeout_ms. Returns the bytes; `quit` tells
// that Ctrl-] came. End of input closes it for good.
std::string read_keys(int timeout_ms, bool& quit) {
    quit = false;
    std::string keys;
    if (g_in_fd < 0) {
        return keys;
    }
    pollfd p{g_in_fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) {
        return keys;
    }
    char buf[256];
    ssize_t n = read(g_in_fd, buf, sizeof buf);
    if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) {
        if (!g_opt.pty) {
            g_in_fd = -1; // end of input: the board runs on without a keyboard
        }
        return keys;
    }
    for (ssize_t i = 0; i < n; ++i) {
        if (g_quit_key && static_cast<uint8_t>(buf[i]) == quit_key) {
            quit = true;
            break;
        }
        keys += buf[i];
    }
    return keys;
}

// ---------------------------------------------------------------- a power-on period (child side)

// Keys reach UART0 from the time they are read, one character time apart, so that a paste does
// not arrive faster than the line could carry it.
void child_keys(const std::string& keys, bool quit) {
    if (!keys.empty()) {
        type_console(keys);
    }
    if (quit) {
        message("Ctrl-]: the simulator stops");
        shared().exit_status = 0;
        power_off(PowerEvent::end);
    }
}

// Keeps virtual time from running ahead of the wall clock, taking keys while it waits.
void child_poll(uint64_t now) {
    flush_output();
    bool quit = false;
    if (!g_realtime) {
        std::string keys = read_keys(0, quit);
        child_keys(keys, quit);
        return;
    }
    uint64_t target = g_wall_origin + now;
    for (;;) {
        uint64_t w = wall_ns();
        if (w >= target) {
            // Also when the simulation runs behind the wall clock: what the other end sent (a file
            // transfer program's reply) must not wait until virtual time catches up.
            std::string keys = read_keys(0, quit);
            child_keys(keys, quit);
            return;
        }
        uint64_t wait_ms = std::min<uint64_t>((target - w + ns_per_ms - 1) / ns_per_ms, 10);
        if (g_in_fd < 0) {
            timespec ts{0, static_cast<long>(std::min<uint64_t>(target - w, 10 * ns_per_ms))};
            nanosleep(&ts, nullptr);
            continue;
        }
        std::string keys = read_keys(static_cast<int>(wait_ms), quit);
        child_keys(keys, quit);
    }
}

[[noreturn]] void child_power_off(PowerEvent ev) {
    flush_output();
    leave_event_loop();
    rtc_sync();
    if (ev == PowerEvent::watchdog) {
        message("the watchdog reset the board");
    }
    std::string line = end_period();
    if (!line.empty() && !g_opt.stats.empty()) {
        board::append_stats(g_opt.stats, line);
    }
    devices_power_off();
    if (ev != PowerEvent::hibernate) {
        hib().hibernating = 0;
    }
    board::save_rtc(g_rtc_path, hib());
    _exit(event_exit_base + static_cast<int>(ev));
}

[[noreturn]] void child_main(WakeSource src) {
    set_host(Host{console_byte, child_poll, g_realtime ? 2 * ns_per_ms : 10 * ns_per_ms, child_power_off});
    set_script(g_opt.script_path.empty() ? nullptr : &g_script);
    devices_power_on();
    connect_console();
    begin_period(src);
    if (!g_opt.image.empty()) {
        chip::run();
    }
    hxc3_main();
    message("the firmware's main returned: the board stands still");
    for (;;) {
        advance_ns(ns_per_ms);
    }
}

// Runs one power-on period in a child; false when the child died otherwise than through power_off.
bool run_period(WakeSource src, PowerEvent& ev) {
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        message("fork: %s", std::strerror(errno));
        return false;
    }
    if (pid == 0) {
        child_main(src);
    }
    int status = 0;
    uint64_t kill_at = never;
    for (;;) {
        pid_t r = waitpid(pid, &status, shared().stop_signal ? WNOHANG : 0);
        if (r == pid) {
            break;
        }
        if (r < 0 && errno != EINTR) {
            message("waitpid: %s", std::strerror(errno));
            return false;
        }
        if (shared().stop_signal) {
            // The child ends itself at its next step; one that hangs outside the event loop is stopped.
            if (kill_at == never) {
                kill_at = wall_ns() + 2 * ns_per_s;
            } else if (wall_ns() >= kill_at) {
                kill(pid, SIGKILL);
            }
            timespec ts{0, 10000000};
            nanosleep(&ts, nullptr);
        }
    }
    if (WIFEXITED(status)) {
        int code = WEXITSTATUS(status) - event_exit_base;
        if (code >= 0 && code <= static_cast<int>(PowerEvent::end)) {
            ev = static_cast<PowerEvent>(code);
            return true;
        }
        message("the board's process failed (exit status %d)", WEXITSTATUS(status));
        return false;
    }
    if (WIFSIGNALED(status)) {
        message("the board's process died of signal %d (%s)", WTERMSIG(status), strsignal(WTERMSIG(status)));
    }
    return false;
}

// ---------------------------------------------------------------- hibernation (supervisor side)

enum class HibEnd { rtc, pin, power_cycle, end };

// The script's effects while no firmware runs: a typed byte or the pin wakes the board (the byte
// itself is lost), the rest acts on the supervisor's state.
class HibernatingEffects : public script::Effects {
  public:
    bool pin_wake_enabled = false;
    bool woken = false;
    bool cycled = false;
    bool ended = false;

    uint64_t char_ns() override { return console_char_ns(); }
    bool type(uint8_t b) override {
        pin();
        return false;
    }
    void pin() override {
        if (pin_wake_enabled) {
            woken = true;
        }
    }
    void power_cycle() override { cycled = true; }
    void exit() override {
        shared().exit_status = 0;
        ended = true;
    }
    void expect_failed(const script::Command& c) override {
        report_expect_failure(c);
        shared().exit_status = 1;
        ended = true;
    }
    void set(const std::string& key, const std::string& value) override { awake_effects().set(key, value); }
    void card(bool insert) override { awake_effects().card(insert); }
};

// Waits in real time until virtual time `next` (never: until a key) or a key, whichever comes first.
void wait_for(uint64_t next, std::string& keys, bool& quit) {
    Shared& s = shared();
    while (!s.stop_signal) {
        uint64_t w = wall_ns();
        uint64_t wait = 200 * ns_per_ms;
        if (g_realtime && next != never) {
            uint64_t target = g_wall_origin + next;
            if (w >= target) {
                s.now_ns = next;
                return;
            }
            wait = std::min(wait, target - w);
        }
        if (g_in_fd < 0) {
            if (next == never) {
                return; // nothing can come
            }
            timespec ts{0, static_cast<long>(wait)};
            nanosleep(&ts, nullptr);
            continue;
        }
        keys = read_keys(static_cast<int>((wait + ns_per_ms - 1) / ns_per_ms), quit);
        if (!keys.empty() || quit) {
            break;
        }
    }
    if (g_realtime) {
        // The time that passed while waiting, up to `next`.
        s.now_ns = std::max(s.now_ns, std::min(wall_ns() - g_wall_origin, next));
    }
}

HibEnd hibernation_phase() {
    Shared& s = shared();
    const HibState& h = s.hib;
    HibernatingEffects fx;
    fx.pin_wake_enabled = (h.ctl & HIB_CTL_PINWEN) != 0;
    uint64_t wake_at = (h.ctl & HIB_CTL_RTCWEN) ? rtc_match_time_ns() : never;
    s.typed_pos = s.typed_len = 0; // what was still on its way to the UART is lost
    if (fx.pin_wake_enabled && s.pin_until_ns > s.now_ns) {
        return HibEnd::pin; // the pin was still held when the power went
    }
    if (g_in_fd >= 0) {
        if (wake_at != never) {
            rtc_sync();
            message("the board hibernates until %s UTC%s", board::format_utc(h.match0).c_str(),
                    fx.pin_wake_enabled ? " or a key" : "");
        } else if (fx.pin_wake_enabled) {
            message("the board hibernates until a key is pressed");
        } else {
            message("the board hibernates with no wake enabled (Ctrl-] ends the simulator)");
        }
    }
    uint64_t script_next = s.now_ns;
    for (;;) {
        if (s.stop_signal) {
            message("stopped by signal %d", static_cast<int>(s.stop_signal));
            s.exit_status = 128 + s.stop_signal;
            return HibEnd::end;
        }
        bool interactive = g_in_fd >= 0;
        const script::Script* sc = current_script();
        bool script_running = sc && !s.script.ended;
        if (script_running && s.now_ns >= script_next) {
            script_next = script::step(*sc, s.script, s.now_ns, fx);
        }
        if (fx.ended) {
            return HibEnd::end;
        }
        if (fx.cycled) {
            return HibEnd::power_cycle;
        }
        if (fx.woken) {
            return HibEnd::pin;
        }
        if (s.now_ns >= s.run_for_ns) {
            s.exit_status = 0;
            return HibEnd::end;
        }
        if (s.now_ns >= wake_at) {
            return HibEnd::rtc;
        }
        uint64_t next = std::min(wake_at, s.run_for_ns);
        if (script_running) {
            next = std::min(next, script_next);
        }
        if (next == never && !interactive) {
            message("the board hibernates and nothing can wake it: the run ends");
            s.exit_status = 0;
            return HibEnd::end;
        }
        // Let time pass to `next`: at once when fast, else in real time watching the keyboard.
        bool quit = false;
        std::string keys;
        if (!g_realtime && !(interactive && next == never)) {
            if (interactive) {
                keys = read_keys(0, quit);
            }
            s.now_ns = next;
        } else {
            wait_for(next, keys, quit);
        }
        rtc_sync();
        if (quit) {
            message("Ctrl-]: the simulator stops");
            s.exit_status = 0;
            return HibEnd::end;
        }
        if (!keys.empty() && fx.pin_wake_enabled) {
            return HibEnd::pin;
        }
    }
}

// ---------------------------------------------------------------- the supervisor

int supervise() {
    Shared& s = shared();
    bool hibernating = s.hib.hibernating != 0;
    WakeSource next = WakeSource::power;
    if (!hibernating) {
        apply_wake(WakeSource::power); // a board that was not hibernating starts from a power-up
    }
    for (;;) {
        if (hibernating) {
            HibEnd r = hibernation_phase();
            if (r == HibEnd::end) {
                board::save_rtc(g_rtc_path, s.hib);
                return s.exit_status;
            }
            next = r == HibEnd::rtc   ? WakeSource::rtc
                   : r == HibEnd::pin ? WakeSource::pin
                                      : WakeSource::power;
            if (g_in_fd >= 0 && next != WakeSource::power) {
                message("the board wakes (%s)", next == WakeSource::rtc ? "RTC match" : "WAKE pin");
            }
            apply_wake(next);
            hibernating = false;
        }
        PowerEvent ev = PowerEvent::end;
        if (!run_period(next, ev)) {
            return exit_internal;
        }
        switch (ev) {
        case PowerEvent::hibernate:
            hibernating = true;
            break;
        case PowerEvent::reset:
            next = WakeSource::reset;
            apply_wake(next);
            break;
        case PowerEvent::watchdog:
            next = WakeSource::watchdog;
            apply_wake(next);
            break;
        case PowerEvent::power_cycle:
            next = WakeSource::power;
            apply_wake(next);
            break;
        case PowerEvent::end:
            return s.exit_status;
        }
    }
}

// ---------------------------------------------------------------- the board directory

[[noreturn]] void defaults_power_off(PowerEvent ev) {
    devices_power_off();
    _exit(ev == PowerEvent::end ? 4 : 5);
}

// The factory defaults of the EEPROM, as board QA leaves them: the firmware's own initialisation
// of the settings, stored by the firmware, on a board whose output nobody reads.
bool write_factory_defaults() {
    pid_t pid = fork();
    if (pid < 0) {
        message("fork: %s", std::strerror(errno));
        return false;
    }
    if (pid == 0) {
        use_shared(nullptr);
        clear_shared(0);
        shared().run_for_ns = 60 * ns_per_s;
        set_host(Host{[](uint8_t) {}, nullptr, 0, defaults_power_off});
        devices_power_on();
        connect_console();
        begin_period(WakeSource::power);
        SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
        // The clocks of everything storing the settings reaches (EEPROM, FRAM on I2C0, the
        // watchdog line, the hibernation module), as the firmware's start-up leaves them.
        for (uint32_t p : {SYSCTL_PERIPH_GPIOA, SYSCTL_PERIPH_GPIOB, SYSCTL_PERIPH_GPIOC, SYSCTL_PERIPH_GPIOD,
                           SYSCTL_PERIPH_GPIOE, SYSCTL_PERIPH_GPIOF, SYSCTL_PERIPH_I2C0,
                           SYSCTL_PERIPH_HIBERNATE, SYSCTL_PERIPH_EEPROM0}) {
            SysCtlPeripheralEnable(p);
        }
        EEPROMInit();
        initSysDataVariables();
        storeSysDataVariables();
        devices_power_off();
        _exit(0);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        message("writing the factory defaults into %s failed", path_in_board("eeprom.bin").c_str());
        return false;
    }
    return true;
}

bool write_file(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    if (!out) {
        message("cannot write %s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

bool make_dirs(const std::string& dir) {
    std::string part;
    std::istringstream in(dir);
    std::string piece;
    if (!dir.empty() && dir[0] == '/') {
        part = "/";
    }
    while (std::getline(in, piece, '/')) {
        if (piece.empty()) {
            continue;
        }
        part += piece + "/";
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            message("cannot create %s: %s", part.c_str(), std::strerror(errno));
            return false;
        }
    }
    return true;
}

// Creates whatever the board directory lacks. A new FRAM is blank; a new RTC stands at --time (or
// the host's clock); a new scenario.ini documents every key at its default; a new sdcard.img is an
// empty FAT32 card.
bool prepare_board() {
    if (!make_dirs(g_opt.board)) {
        return false;
    }
    std::string eeprom = path_in_board("eeprom.bin");
    std::string fram = path_in_board("fram.bin");
    std::string scenario = path_in_board("scenario.ini");
    bool had_fram = exists(fram);
    std::string fram_before;
    if (had_fram) {
        std::ifstream in(fram, std::ios::binary);
        std::ostringstream ss;
        ss << in.rdbuf();
        fram_before = ss.str();
    }
    if (!exists(eeprom)) {
        if (!write_factory_defaults()) {
            return false;
        }
        // Storing the settings may touch the FRAM too: it keeps what it had before.
        if (!write_file(fram, had_fram ? fram_before : std::string(fram_size, '\0'))) {
            return false;
        }
    } else if (!had_fram && !write_file(fram, std::string(fram_size, '\0'))) {
        return false;
    }
    if (!exists(g_rtc_path)) {
        HibState h{};
        h.trim = 0x7FFF;
        h.rtc_seconds = g_opt.has_time ? g_opt.time : static_cast<uint32_t>(std::time(nullptr));
        if (!board::save_rtc(g_rtc_path, h)) {
            return false;
        }
    } else if (g_opt.has_time) {
        message("--time ignored: the board in %s already has its clock", g_opt.board.c_str());
    }
    if (!exists(scenario) && !write_file(scenario, board::scenario_template())) {
        return false;
    }
    // A new card, formatted as a PC would format it (FAT32), by the firmware's own FAT module, with
    // the spectrometer's factory calibration on it. A board without one runs on with an empty slot.
    std::string card = path_in_board("sdcard.img");
    if (!exists(card) &&
        !sd_make_image(card, card_bytes, FM_FAT32, {{"UVSCAL.CSV", dev::uvs_calibration_file()}})) {
        message("no card image in %s: the microSD slot is empty", g_opt.board.c_str());
    }
    return true;
}

// ---------------------------------------------------------------- terminal and signals

void restore_terminal() {
    if (g_tty_raw) {
        tcsetattr(0, TCSAFLUSH, &g_tty_saved);
        g_tty_raw = false;
    }
}

void on_signal(int sig) {
    shared().stop_signal = sig;
}

void set_signals() {
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0; // no restart: waits return so the stop is seen at once
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool open_pty() {
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        message("cannot open a pseudo-terminal: %s", std::strerror(errno));
        return false;
    }
    const char* name = ptsname(master);
    // Holding the other side open keeps the pty alive while no program has it open.
    g_pty_slave = open(name, O_RDWR | O_NOCTTY);
    if (g_pty_slave >= 0) {
        termios t{};
        tcgetattr(g_pty_slave, &t);
        cfmakeraw(&t);
        tcsetattr(g_pty_slave, TCSANOW, &t);
    }
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    std::fprintf(stderr, "console: %s\n", name); // the one line without "sim: ": tools look for it
    g_in_fd = master;
    g_out_fd = master;
    return true;
}

void set_up_console() {
    if (g_opt.pty) {
        return; // open_pty did it
    }
    g_out_fd = g_opt.quiet ? -1 : 1;
    if (!g_opt.script_path.empty()) {
        return; // the script is the keyboard
    }
    g_in_fd = 0;
    g_quit_key = true;
    if (isatty(0) && tcgetattr(0, &g_tty_saved) == 0) {
        termios raw = g_tty_saved;
        cfmakeraw(&raw);
        raw.c_oflag |= OPOST | ONLCR; // our own messages keep their line ends
        if (tcsetattr(0, TCSAFLUSH, &raw) == 0) {
            g_tty_raw = true;
            std::atexit(restore_terminal);
        }
    }
}

// ---------------------------------------------------------------- options

[[noreturn]] void bad_usage(const std::string& why) {
    message("%s", why.c_str());
    std::fputs(usage_text, stderr);
    std::exit(exit_usage);
}

void parse_options(int argc, char** argv) {
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
            g_opt.board = value();
        } else if (a == "--fast") {
            g_opt.fast = true;
        } else if (a == "--script") {
            g_opt.script_path = value();
            g_opt.fast = true;
        } else if (a == "--pty") {
            g_opt.pty = true;
        } else if (a == "--run-for") {
            std::string v = value();
            if (!script::parse_seconds(v, g_opt.run_for_ns)) {
                bad_usage("--run-for: bad SECONDS '" + v + "'");
            }
        } else if (a == "--time") {
            std::string v = value();
            if (!board::parse_utc(v, g_opt.time)) {
                bad_usage("--time: expected \"YYYY-MM-DD HH:MM:SS\" (UTC), got '" + v + "'");
            }
            g_opt.has_time = true;
        } else if (a == "--quiet") {
            g_opt.quiet = true;
        } else if (a == "--stats") {
            g_opt.stats = value();
        } else if (a == "--image") {
            g_opt.image = value();
        } else {
            bad_usage("unknown option '" + a + "'");
        }
    }
    if (g_opt.board.empty()) {
        bad_usage("--board needs a directory");
    }
}

void load_image() {
    if (g_opt.image.empty()) {
        return;
    }
    std::string error;
    if (!chip::load_image(g_opt.image, error)) {
        message("--image %s: %s", g_opt.image.c_str(), error.c_str());
        std::exit(exit_usage);
    }
}

void load_script() {
    if (g_opt.script_path.empty()) {
        return;
    }
    std::ifstream in(g_opt.script_path, std::ios::binary);
    if (!in) {
        message("cannot read %s: %s", g_opt.script_path.c_str(), std::strerror(errno));
        std::exit(exit_usage);
    }
    std::ostringstream ss;
    ss << in.rdbuf();
    std::string error;
    if (!script::parse(g_opt.script_path, ss.str(), g_script, error)) {
        message("%s", error.c_str());
        std::exit(exit_usage);
    }
}

// A memory file of the wrong size is not a board's memory (a truncated copy, another file): it is
// refused rather than padded into something the firmware would take as written.
bool memories_whole() {
    struct Memory {
        const char* name;
        uintmax_t bytes;
    };
    bool ok = true;
    for (Memory m : {Memory{"eeprom.bin", eeprom_size}, Memory{"fram.bin", fram_size}}) {
        std::string path = path_in_board(m.name);
        struct stat st {};
        if (stat(path.c_str(), &st) != 0) {
            message("cannot read %s: %s", path.c_str(), std::strerror(errno));
            ok = false;
        } else if (static_cast<uintmax_t>(st.st_size) != m.bytes) {
            message("%s: %ju bytes, the memory holds %ju; refused", path.c_str(),
                    static_cast<uintmax_t>(st.st_size), m.bytes);
            ok = false;
        }
    }
    return ok;
}

} // namespace

int main(int argc, char** argv) {
    parse_options(argc, argv);
    load_image();
    load_script();
    g_realtime = !g_opt.fast;
    g_rtc_path = path_in_board("rtc");

    void* mem = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        message("mmap: %s", std::strerror(errno));
        return exit_internal;
    }
    use_shared(static_cast<Shared*>(mem));
    clear_shared(0);
    set_board_dir(g_opt.board);

    if (!prepare_board()) {
        return exit_internal;
    }
    if (!memories_whole()) {
        return exit_usage;
    }
    Shared& s = shared();
    if (!board::load_rtc(g_rtc_path, s.hib)) {
        return exit_usage;
    }
    s.hib.fail_requests = 0;
    if (!board::load_scenario(path_in_board("scenario.ini"))) {
        return exit_usage;
    }
    s.run_for_ns = g_opt.run_for_ns;
    set_script(g_opt.script_path.empty() ? nullptr : &g_script);

    set_signals();
    if (g_opt.pty && !open_pty()) {
        return exit_internal;
    }
    set_up_console();
    g_wall_origin = wall_ns();
    int status = supervise();
    restore_terminal();
    return status;
}
