// The unit-test harness: one in-memory board in the test process. Where hxc3-sim ends a process at
// power-off, the harness jumps back to the run() or wait that was going on.
#include "sim_test.h"

#include "runtime.h"

#include <csetjmp>
#include <cstring>

namespace sim::test {

namespace {

std::string g_console;
bool g_on = false;
std::jmp_buf* g_catch = nullptr;

void collect(uint8_t b) {
    g_console += static_cast<char>(b);
}

[[noreturn]] void off(PowerEvent ev) {
    g_on = false;
    leave_event_loop();
    end_period();
    core_reset(); // nothing runs on a board without power
    if (g_catch) {
        std::longjmp(*g_catch, 1);
    }
    message("power off outside sim::test::run (%d)", static_cast<int>(ev));
    std::abort();
}

void start_period(WakeSource src) {
    devices_power_on();
    connect_console();
    begin_period(src);
    g_on = true;
}

// Runs fn with power_off caught; the board is off afterwards when it was caught.
Outcome guarded(void (*fn)(void*), void* arg) {
    std::jmp_buf here;
    std::jmp_buf* outer = g_catch;
    g_catch = &here;
    if (setjmp(here) != 0) {
        g_catch = outer;
        return Outcome{false, shared().last_event};
    }
    fn(arg);
    g_catch = outer;
    return Outcome{true, PowerEvent::end};
}

WakeSource natural_wake(PowerEvent ev) {
    switch (ev) {
    case PowerEvent::reset:
        return WakeSource::reset;
    case PowerEvent::watchdog:
        return WakeSource::watchdog;
    case PowerEvent::hibernate:
        return WakeSource::pin;
    case PowerEvent::power_cycle:
    case PowerEvent::end:
        break;
    }
    return WakeSource::power;
}

} // namespace

void reset_board(uint32_t rtc_seconds) {
    use_shared(nullptr);
    clear_shared(rtc_seconds);
    set_board_dir("");
    sd_reset();
    set_script(nullptr);
    set_host(Host{collect, nullptr, 0, off});
    devices_power_on();
    std::memset(eeprom_bytes(), 0, eeprom_size);
    std::memset(fram_bytes(), 0, fram_size);
    start_period(WakeSource::power);
    g_console.clear();
}

Outcome run(void (*fn)()) {
    if (!g_on) {
        power_on(natural_wake(shared().last_event));
    }
    return guarded([](void* f) { reinterpret_cast<void (*)()>(f)(); }, reinterpret_cast<void*>(fn));
}

void power_on(WakeSource src) {
    if (g_on) {
        end_period();
    }
    if (src == WakeSource::rtc) {
        uint64_t at = rtc_match_time_ns();
        if (at != never && at > shared().now_ns) {
            shared().now_ns = at;
        }
    }
    apply_wake(src);
    start_period(src);
}

bool board_on() {
    return g_on;
}

const std::string& console_output() {
    return g_console;
}

void clear_console_output() {
    g_console.clear();
}

void type(const std::string& text) {
    type_console(text);
}

void type_after(double delay_s, const std::string& text) {
    type_console_after(static_cast<uint64_t>(delay_s * ns_per_s + 0.5), text);
}

Outcome advance_s(double seconds) {
    uint64_t ns = seconds <= 0 ? 0 : static_cast<uint64_t>(seconds * ns_per_s + 0.5);
    if (!g_on) {
        shared().now_ns += ns;
        return Outcome{true, PowerEvent::end};
    }
    return guarded([](void* p) { advance_ns(*static_cast<uint64_t*>(p)); }, &ns);
}

Outcome drain_console() {
    if (!g_on) {
        return Outcome{true, PowerEvent::end};
    }
    return guarded(
        [](void*) {
            uint64_t limit = now_ns() + 60 * ns_per_s;
            for (;;) {
                size_t before = g_console.size();
                advance_ns(4 * console_char_ns());
                if (g_console.size() == before || now_ns() >= limit) {
                    return;
                }
            }
        },
        nullptr);
}

void set_poll(void (*poll)(uint64_t now_ns), uint64_t interval_ns) {
    set_host(Host{collect, poll, poll != nullptr ? interval_ns : 0, off});
}

bool set_scenario(const std::string& key, const std::string& value) {
    std::string why;
    if (!scenario_check(key, value, why)) {
        message("set_scenario %s = %s: %s", key.c_str(), value.c_str(), why.c_str());
        return false;
    }
    if (!scenario_set(key, value)) {
        return false;
    }
    scenario_apply(key);
    return true;
}

} // namespace sim::test
