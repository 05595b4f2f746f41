// The supervisor of hxc3-sim: every power-on period runs in a fresh child process that starts the
// firmware from main, as the chip starts from reset with RAM lost, and what outlives the period
// (virtual time, the hibernation module, the script's progress, the scenario, the figures) stays in
// the memory main shares with the children. While the board hibernates no firmware runs; the
// supervisor lets time pass to the wake. Unless --fast, virtual time keeps pace with the wall clock.
#include "supervisor.h"

#include "board.h"
#include "board_dir.h"
#include "chip.h"
#include "terminal.h"

#include "inc/hw_hibernate.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

int hxc3_main(void);

namespace sim::frontend {

namespace {

constexpr int event_exit_base = 20; // a period's child exits with this plus its PowerEvent

Options g_opt;
const script::Script* g_script = nullptr;
std::string g_rtc_path;
bool g_realtime = true;
uint64_t g_wall_origin = 0; // wall clock (CLOCK_MONOTONIC ns) at virtual time 0

uint64_t wall_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * ns_per_s + static_cast<uint64_t>(ts.tv_nsec);
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
        if (!keyboard_attached()) {
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
    set_script(g_script);
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
        if (!keyboard_attached()) {
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
    if (keyboard_attached()) {
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
        bool interactive = keyboard_attached();
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

} // namespace

// ---------------------------------------------------------------- the supervisor

int supervise(const Options& opt, const script::Script* script) {
    g_opt = opt;
    g_script = script;
    g_rtc_path = path_in_board(opt.board, "rtc");
    g_realtime = !opt.fast;
    g_wall_origin = wall_ns();
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
            if (keyboard_attached() && next != WakeSource::power) {
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

} // namespace sim::frontend
