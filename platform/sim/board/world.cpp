// The world around the board as the running firmware meets it: the host (hxc3-sim or the unit-test
// harness) with its console and its poll, the script and what it does to the board, the run's end,
// and the simulator's messages on stderr.
#include "runtime_internal.h"

#include "devices.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace sim {

namespace {

Host g_host;
const script::Script* g_script = nullptr;
bool g_script_due = true;   // console output arrived or a period began: step the script now
uint64_t g_script_next = 0; // virtual time the script wants to run again
uint64_t g_next_poll = 0;   // next call of the host's poll

constexpr uint64_t pin_pulse_ns = 100 * ns_per_ms;

void console_tx(int port, uint8_t b) {
    if (port != 0) {
        dev::instrument_tx(port, b);
        return;
    }
    script::console_output(shared().script, b);
    g_script_due = true;
    if (g_host.console_byte) {
        g_host.console_byte(b);
    }
}

// The script's effects while the firmware runs.
class AwakeEffects : public script::Effects {
  public:
    uint64_t char_ns() override { return console_char_ns(); }
    bool type(uint8_t b) override {
        uart_receive(0, b);
        return true;
    }
    void pin() override { shared().pin_until_ns = shared().now_ns + pin_pulse_ns; }
    void power_cycle() override { power_off(PowerEvent::power_cycle); }
    void exit() override {
        shared().exit_status = 0;
        power_off(PowerEvent::end);
    }
    void expect_failed(const script::Command& c) override {
        report_expect_failure(c);
        shared().exit_status = 1;
        power_off(PowerEvent::end);
    }
    void set(const std::string& key, const std::string& value) override {
        std::string why;
        if (!scenario_check(key, value, why) || !scenario_set(key, value)) {
            message("set %s %s: %s, ignored", key.c_str(), value.c_str(),
                    why.empty() ? "too long" : why.c_str());
            return;
        }
        scenario_apply(key);
    }
    void card(bool insert) override {
        Shared& s = shared();
        scenario_set("card", insert ? s.card_kind : "absent");
        scenario_apply("card");
    }
};

AwakeEffects g_awake_effects;

} // namespace

uint64_t world_next() {
    Shared& s = shared();
    uint64_t t = std::min(s.run_for_ns, typed_due_ns());
    if (g_script && !s.script.ended) {
        t = std::min(t, g_script_due ? s.now_ns : g_script_next);
    }
    if (g_host.poll && g_host.poll_interval_ns) {
        t = std::min(t, g_next_poll);
    }
    if (s.stop_signal) {
        t = s.now_ns;
    }
    return t;
}

void world_step(uint64_t now) {
    Shared& s = shared();
    if (s.stop_signal) {
        message("stopped by signal %d", static_cast<int>(s.stop_signal));
        s.exit_status = 128 + s.stop_signal;
        power_off(PowerEvent::end);
    }
    if (now >= s.run_for_ns) {
        s.exit_status = 0;
        power_off(PowerEvent::end);
    }
    deliver_typed(now);
    if (g_script && !s.script.ended && (g_script_due || now >= g_script_next)) {
        g_script_due = false;
        g_script_next = script::step(*g_script, s.script, now, awake_effects());
    }
    if (g_host.poll && g_host.poll_interval_ns && now >= g_next_poll) {
        g_next_poll = now + g_host.poll_interval_ns;
        g_host.poll(now);
    }
}

void world_restart(uint64_t now) {
    g_script_due = true;
    g_script_next = now;
    g_next_poll = now;
}

void set_host(const Host& h) {
    g_host = h;
    g_next_poll = shared().now_ns;
}

void set_script(const script::Script* s) {
    g_script = s;
    g_script_due = true;
}

const script::Script* current_script() {
    return g_script;
}

script::Effects& awake_effects() {
    return g_awake_effects;
}

void message(const char* fmt, ...) {
    char buf[1024] = "sim: ";
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf + 5, sizeof buf - 6, fmt, ap);
    va_end(ap);
    size_t len = 5 + static_cast<size_t>(std::clamp(n, 0, static_cast<int>(sizeof buf) - 7));
    buf[len++] = '\n';
    ssize_t ignored = write(2, buf, len);
    (void)ignored;
}

void report_expect_failure(const script::Command& c) {
    const script::Script* s = g_script;
    const script::State& st = shared().script;
    message("%s:%d: expect timed out after %.3f s: %s", s ? s->name.c_str() : "script", c.line,
            static_cast<double>(st.timeout_ns) / ns_per_s, script::quote(c.text).c_str());
    message("last %u bytes of console output:", st.tail_len);
    // One console line per message line, escaped, so that control characters stay visible.
    std::string tail = script::console_tail(st);
    size_t start = 0;
    while (start < tail.size()) {
        size_t nl = tail.find('\n', start);
        size_t end = nl == std::string::npos ? tail.size() : nl + 1;
        message("| %s", script::quote(tail.substr(start, end - start)).c_str());
        start = end;
    }
}

void connect_console() {
    set_uart_tx_sink(console_tx);
}

[[noreturn]] void power_off(PowerEvent ev) {
    shared().last_event = ev;
    if (g_host.power_off) {
        g_host.power_off(ev);
    }
    message("power off with no host to end the period");
    std::abort();
}

} // namespace sim
