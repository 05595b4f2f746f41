// The runtime of the simulated board: virtual time and the event loop that lets it pass, the
// processor's interrupts, the RTC of the hibernation module, the scenario values, the per-period
// figures, and the world around the board (script, typed input, the run's end) as the event loop
// meets it while the firmware runs.
#include "runtime.h"

#include "devices.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <sstream>
#include <unistd.h>

namespace sim {

namespace {

Shared g_local_state;
Shared* g_state = &g_local_state;
Core g_core;
Host g_host;
std::string g_board_dir;
const script::Script* g_script = nullptr;

bool g_in_advance = false;
uint32_t (*g_stack_probe)() = nullptr;
bool g_script_due = true;   // console output arrived or a period began: step the script now
uint64_t g_script_next = 0; // virtual time the script wants to run again
uint64_t g_next_poll = 0;   // next call of the host's poll

constexpr uint64_t pin_pulse_ns = 100 * ns_per_ms;

const char* wake_name(WakeSource w) {
    switch (w) {
    case WakeSource::power:
        return "power";
    case WakeSource::pin:
        return "pin";
    case WakeSource::rtc:
        return "rtc";
    case WakeSource::watchdog:
        return "watchdog";
    case WakeSource::reset:
        return "reset";
    }
    return "power";
}

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

uint64_t typed_due_ns(const Shared& s) {
    uint64_t t = s.typed_next_ns;
    for (uint32_t i = 0; i < s.typed_holds; ++i) {
        if (s.typed_pos == s.typed_hold_pos[i]) {
            t = std::max(t, s.typed_hold_ns[i]);
        }
    }
    return t;
}

uint64_t world_next() {
    Shared& s = shared();
    uint64_t t = s.run_for_ns;
    if (s.typed_pos < s.typed_len) {
        t = std::min(t, typed_due_ns(s));
    }
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
    while (s.typed_pos < s.typed_len && typed_due_ns(s) <= now) {
        s.typed_next_ns = typed_due_ns(s);
        uart_receive(0, static_cast<uint8_t>(s.typed[s.typed_pos++]));
        s.typed_next_ns += console_char_ns();
    }
    if (s.typed_pos == s.typed_len) {
        s.typed_pos = s.typed_len = 0;
        s.typed_holds = 0;
    }
    if (g_script && !s.script.ended && (g_script_due || now >= g_script_next)) {
        g_script_due = false;
        g_script_next = script::step(*g_script, s.script, now, awake_effects());
    }
    if (g_host.poll && g_host.poll_interval_ns && now >= g_next_poll) {
        g_next_poll = now + g_host.poll_interval_ns;
        g_host.poll(now);
    }
}

// The next event of any kind; *device is the devices' own, which run_due_events takes as it is
// (nothing runs between the two).
uint64_t next_event_time(uint64_t* device) {
    Core& c = g_core;
    uint64_t t = world_next();
    if (c.systick_enabled) {
        t = std::min(t, c.systick_next_ns);
    }
    *device = devices_next_event_ns();
    t = std::min(t, *device);
    t = std::min(t, watchdog_deadline_ns());
    return t;
}

void run_due_events(uint64_t device) {
    Core& c = g_core;
    uint64_t now = shared().now_ns;
    if (c.systick_enabled && c.systick_next_ns <= now) {
        c.systick_next_ns += systick_period_ns();
        if (c.systick_int) {
            set_pending(systick_vector, true);
        }
    }
    if (device <= now) {
        devices_service(now);
    }
    if (watchdog_deadline_ns() <= now) {
        power_off(PowerEvent::watchdog);
    }
    if (world_next() <= now) {
        world_step(now);
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

ScenarioEntry* scenario_find(const std::string& key) {
    Scenario& sc = shared().scenario;
    for (int i = 0; i < sc.count; ++i) {
        if (key == sc.entries[i].key) {
            return &sc.entries[i];
        }
    }
    return nullptr;
}

} // namespace

// ---------------------------------------------------------------- state

Shared& shared() {
    return *g_state;
}

void use_shared(Shared* s) {
    g_state = s ? s : &g_local_state;
}

void clear_shared(uint32_t rtc_seconds) {
    Shared& s = shared();
    // The scenario's change count only grows, also across a cleared board: what was computed from an
    // earlier scenario must never look current again.
    uint32_t changes = s.scenario.changes;
    std::memset(&s, 0, sizeof s);
    s.scenario.changes = changes + 1;
    s.run_for_ns = never;
    s.hib.rtc_seconds = rtc_seconds;
    s.hib.trim = 0x7FFF;
    script::reset(s.script);
    std::strcpy(s.card_kind, "present");
    g_script_due = true;
    g_script_next = 0;
    g_next_poll = 0;
}

HibState& hib() {
    rtc_sync();
    return shared().hib;
}
PeriodStats& stats() {
    return shared().stats;
}

void on_time_switch(OnTime& t, bool on, uint64_t now) {
    if (on == t.on) {
        return;
    }
    if (t.on) {
        t.ended_ns += now - t.since_ns;
    }
    t.on = on;
    t.since_ns = now;
}

uint64_t on_time_ns(const OnTime& t, uint64_t now) {
    return t.on ? t.ended_ns + (now - t.since_ns) : t.ended_ns;
}

WakeSource wake_source() {
    return shared().wake;
}
uint32_t card_changes() {
    return shared().card_changes;
}
Core& core() {
    return g_core;
}

const std::string& board_dir() {
    return g_board_dir;
}
void set_board_dir(const std::string& dir) {
    g_board_dir = dir;
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

// ---------------------------------------------------------------- virtual time

uint64_t now_ns() {
    return shared().now_ns;
}

void advance_ns(uint64_t ns) {
    if (g_core.in_handler || g_in_advance) {
        return; // handlers take no time; nothing inside the loop waits
    }
    g_in_advance = true;
    Shared& s = shared();
    uint64_t target = ns > never - s.now_ns ? never - 1 : s.now_ns + ns;
    dispatch_interrupts();
    uint64_t stuck_at = s.now_ns;
    uint32_t same_time = 0;
    for (;;) {
        uint64_t device = 0;
        uint64_t t = next_event_time(&device);
        if (t > target) {
            break;
        }
        if (t > s.now_ns) {
            s.now_ns = t;
        }
        if (s.now_ns == stuck_at) {
            if (++same_time > 1000000) {
                message("the event loop makes no progress at %.9f s of virtual time",
                        static_cast<double>(s.now_ns) / ns_per_s);
                std::abort();
            }
        } else {
            stuck_at = s.now_ns;
            same_time = 0;
        }
        run_due_events(device);
        dispatch_interrupts();
    }
    s.now_ns = target;
    g_in_advance = false;
}

void spend_cycles(uint32_t cycles) {
    advance_ns(static_cast<uint64_t>(cycles) * ns_per_cycle);
}

// The loop that advance_ns is in at the moment a power-on period ends is left for good.
void leave_event_loop() {
    g_in_advance = false;
    g_core.in_handler = false;
}

// ---------------------------------------------------------------- interrupts

bool int_master_disable() {
    bool was = g_core.masked;
    g_core.masked = true;
    return was;
}

bool int_master_enable() {
    bool was = g_core.masked;
    g_core.masked = false;
    dispatch_interrupts();
    return was;
}

bool int_masked() {
    return g_core.masked;
}

void set_pending(int vector, bool pending) {
    if (vector < 0 || vector >= num_vectors) {
        return;
    }
    g_core.pending.set(static_cast<size_t>(vector), pending);
    g_core.maybe_ready |= pending;
}

void register_vector(int vector, Handler h) {
    if (vector >= 0 && vector < num_vectors) {
        g_core.handlers[vector] = h;
    }
}

void nvic_enable(int vector, bool on) {
    if (vector < 16 || vector >= num_vectors) {
        return; // system exceptions are always enabled
    }
    g_core.enabled.set(static_cast<size_t>(vector), on);
    g_core.maybe_ready |= on;
    if (on) {
        dispatch_interrupts();
    }
}

void dispatch_interrupts() {
    Core& c = g_core;
    if (c.emulated) {
        return; // the emulated processor takes them between its instructions
    }
    while (c.maybe_ready && !c.masked && !c.in_handler) {
        std::bitset<num_vectors> ready = c.pending & c.enabled;
        if (ready.none()) {
            c.maybe_ready = false;
            return;
        }
        size_t v = ready._Find_first();
        c.pending.reset(v);
        Handler h = c.handlers[v];
        if (!h) {
            continue; // nothing in the vector table for it
        }
        c.in_handler = true;
        ++c.handlers_run;
        h();
        c.in_handler = false;
    }
}

void wait_for_interrupt() {
    Core& c = g_core;
    if (c.in_handler) {
        return;
    }
    uint64_t before = c.handlers_run;
    while ((c.pending & c.enabled).none() && c.handlers_run == before) {
        uint64_t now = shared().now_ns;
        uint64_t device = 0;
        uint64_t t = next_event_time(&device);
        advance_ns(t > now && t != never ? t - now : ns_per_ms);
    }
}

uint64_t next_event_ns() {
    uint64_t device = 0;
    return next_event_time(&device);
}

// The emulated processor runs at the clock its registers select; the host build's processor always
// runs at ns_per_cycle, whatever clock the firmware set (it only reads the setting back).
uint64_t systick_period_ns() {
    if (!g_core.emulated) {
        return static_cast<uint64_t>(g_core.systick_period) * ns_per_cycle;
    }
    uint32_t hz = g_core.clock_hz ? g_core.clock_hz : 16000000;
    return static_cast<uint64_t>(g_core.systick_period) * ns_per_s / hz;
}

void set_stack_probe(uint32_t (*probe)()) {
    g_stack_probe = probe;
}

void core_reset() {
    Core& c = g_core;
    c = Core{};
    for (int v = 0; v < 16; ++v) {
        c.enabled.set(static_cast<size_t>(v));
    }
    c.clock_hz = 16000000; // the precision internal oscillator until SysCtlClockSet
    // The hibernation module's run-mode clock gate is the one that comes out of reset open.
    c.periph_enabled[c.periph_count++] = 0xF0001400; // SYSCTL_PERIPH_HIBERNATE
    install_vectors();
}

// ---------------------------------------------------------------- the RTC

void rtc_sync() {
    Shared& s = shared();
    HibState& h = s.hib;
    uint64_t now = s.now_ns;
    if (now <= s.rtc_synced_ns) {
        return;
    }
    uint64_t elapsed = now - s.rtc_synced_ns;
    s.rtc_synced_ns = now;
    if (!h.rtc_enabled) {
        return;
    }
    uint64_t total = h.rtc_sub_ns + elapsed;
    uint64_t seconds = total / ns_per_s;
    h.rtc_sub_ns = total % ns_per_s;
    if (seconds == 0) {
        return;
    }
    uint32_t to_match = h.match0 - h.rtc_seconds;
    if (to_match != 0 && to_match <= seconds) {
        h.ris |= 0x01;
    }
    h.rtc_seconds += static_cast<uint32_t>(seconds);
}

uint64_t rtc_match_time_ns() {
    rtc_sync();
    const HibState& h = hib();
    uint32_t to_match = h.match0 - h.rtc_seconds;
    if (!h.rtc_enabled || to_match == 0 || to_match > 0x7FFFFFFFu) {
        return never;
    }
    return shared().now_ns + static_cast<uint64_t>(to_match) * ns_per_s - h.rtc_sub_ns;
}

// ---------------------------------------------------------------- scenario

namespace {

// What a scenario value may be: a number within a range (whole where it counts something), one of
// a few names, or any text.
struct KeySpec {
    const char* key;
    enum Kind { number, whole, name, text } kind;
    double lo;
    double hi;
    const char* names; // for `name`: the accepted values, separated by blanks
};

const KeySpec key_specs[] = {
    {"bath.ph", KeySpec::number, 0.0, 14.0, nullptr},
    {"bath.temp", KeySpec::number, -5.0, 60.0, nullptr},
    {"bath.sal", KeySpec::number, 0.1, 60.0, nullptr},
    {"bath.no3", KeySpec::number, 0.0, 100.0, nullptr},
    {"bath.o2", KeySpec::number, 0.0, 1000.0, nullptr},
    {"bath.light", KeySpec::number, 0.0, 1000.0, nullptr},
    {"sensor.k0int", KeySpec::number, -3.0, 3.0, nullptr},
    {"sensor.k0ext", KeySpec::number, -3.0, 3.0, nullptr},
    {"sensor.vk", KeySpec::number, -3.0, 3.0, nullptr},
    {"sensor.ik", KeySpec::number, -3.0, 3.0, nullptr},
    {"sensor.ib", KeySpec::number, -3.0, 3.0, nullptr},
    {"adc.noise_uv", KeySpec::number, 0.0, 1e6, nullptr},
    {"adc.seed", KeySpec::whole, 0.0, 4294967295.0, nullptr},
    {"adc.stuck", KeySpec::whole, 0.0, 1.0, nullptr},
    {"board.vbat", KeySpec::number, 0.0, 40.0, nullptr},
    {"board.temp", KeySpec::number, -40.0, 85.0, nullptr},
    {"board.humidity", KeySpec::number, 0.0, 100.0, nullptr},
    {"board.amps", KeySpec::number, -15.0, 15.0, nullptr},
    {"board.bme280.id", KeySpec::whole, 0.0, 255.0, nullptr},
    {"board.fram", KeySpec::whole, 0.0, 1.0, nullptr},
    {"board.ina260", KeySpec::whole, 0.0, 1.0, nullptr},
    {"board.pcal6416", KeySpec::whole, 0.0, 1.0, nullptr},
    {"board.xtal", KeySpec::whole, 0.0, 1.0, nullptr},
    {"bias.pos", KeySpec::number, 0.0, 12.0, nullptr},
    {"bias.neg", KeySpec::number, -12.0, 0.0, nullptr},
    {"hibernate.fail", KeySpec::whole, 0.0, 255.0, nullptr},
    {"card.cut_after_writes", KeySpec::whole, 0.0, 1e9, nullptr},
    {"card", KeySpec::name, 0, 0, "present absent protected"},
    {"card.type", KeySpec::name, 0, 0, "sdhc sdsc sdv1 mmc badv2"},
    {"port3", KeySpec::name, 0, 0,
     "none optode optode-silent optode-garbage optode-slow optode-short ocr ocr-silent ocr-garbage ocr-slow "
     "ocr-short brisa brisa-silent brisa-garbage brisa-slow brisa-short picoph picoph-silent picoph-garbage "
     "picoph-slow picoph-short"},
    {"port4", KeySpec::name, 0, 0,
     "none sbe37 sbe37-silent sbe37-garbage sbe37-slow sbe37-short aand5860 aand5860-silent aand5860-garbage "
     "aand5860-slow aand5860-short"},
    {"port4.reply", KeySpec::text, 0, 0, nullptr},
    {"port4.delay", KeySpec::number, 0.0, 60.0, nullptr},
    {"uvs", KeySpec::name, 0, 0, "present none silent garbage lamp-fail lamp-weak"},
    {"uvs.noise", KeySpec::number, 0.0, 1000.0, nullptr},
    {"uvs.seed", KeySpec::whole, 0.0, 4294967295.0, nullptr},
};

bool is_one_of(const std::string& value, const char* names) {
    std::istringstream words(names);
    std::string w;
    while (words >> w) {
        if (w == value) {
            return true;
        }
    }
    return false;
}

} // namespace

bool scenario_check(const std::string& key, const std::string& value, std::string& why) {
    for (const KeySpec& k : key_specs) {
        if (key != k.key) {
            continue;
        }
        if (k.kind == KeySpec::text) {
            return true;
        }
        if (k.kind == KeySpec::name) {
            if (is_one_of(value, k.names)) {
                return true;
            }
            why = std::string("not one of: ") + k.names;
            return false;
        }
        char* end = nullptr;
        double v = std::strtod(value.c_str(), &end);
        if (value.empty() || end == value.c_str() || *end != '\0' || !std::isfinite(v)) {
            why = "not a number";
            return false;
        }
        if (k.kind == KeySpec::whole && v != std::floor(v)) {
            why = "not a whole number";
            return false;
        }
        if (v < k.lo || v > k.hi) {
            char range[96];
            std::snprintf(range, sizeof range, "outside %g to %g", k.lo, k.hi);
            why = range;
            return false;
        }
        return true;
    }
    why = "no such key";
    return false;
}

bool scenario_set(const std::string& key, const std::string& value) {
    Scenario& sc = shared().scenario;
    if (key.size() >= sizeof sc.entries[0].key || value.size() >= sizeof sc.entries[0].value) {
        return false;
    }
    ScenarioEntry* e = scenario_find(key);
    if (!e) {
        if (sc.count == scenario_max) {
            return false;
        }
        e = &sc.entries[sc.count++];
        std::strcpy(e->key, key.c_str());
    }
    std::strcpy(e->value, value.c_str());
    sc.changes++;
    return true;
}

uint32_t scenario_changes() {
    return shared().scenario.changes;
}

void scenario_apply(const std::string& key) {
    Shared& s = shared();
    if (key == "hibernate.fail") {
        double n = scenario_num(key, 0);
        s.hib.fail_requests = static_cast<uint8_t>(std::clamp(n, 0.0, 255.0));
    } else if (key == "card") {
        std::string v = scenario_str("card", "present");
        if (v != "absent" && v.size() < sizeof s.card_kind) {
            std::strcpy(s.card_kind, v.c_str());
        }
        ++s.card_changes;
    }
}

double scenario_num(const std::string& key, double dflt) {
    const ScenarioEntry* e = scenario_find(key);
    if (!e) {
        return dflt;
    }
    char* end = nullptr;
    double v = std::strtod(e->value, &end);
    if (end == e->value || *end != '\0') {
        return dflt;
    }
    return v;
}

std::string scenario_str(const std::string& key, const std::string& dflt) {
    const ScenarioEntry* e = scenario_find(key);
    return e ? std::string(e->value) : dflt;
}

// ---------------------------------------------------------------- power-on periods

void connect_console() {
    set_uart_tx_sink(console_tx);
}

void begin_period(WakeSource src) {
    // The chip's C library has no time zone: its calendar time is UTC, whatever the host's is.
    setenv("TZ", "UTC0", 1);
    tzset();
    Shared& s = shared();
    rtc_sync();
    s.wake = src;
    s.period_running = true;
    s.period_start_rtc = s.hib.rtc_seconds;
    s.period_start_ns = s.now_ns;
    s.stats = PeriodStats{};
    g_script_due = true;
    g_next_poll = s.now_ns;
    g_in_advance = false;
    g_stack_probe = nullptr;
    core_reset();
    // SYSCTL_CAUSE_SW, SYSCTL_CAUSE_EXT (the watchdog pulls the reset line), SYSCTL_CAUSE_POR.
    g_core.reset_cause = src == WakeSource::reset ? 0x10 : src == WakeSource::watchdog ? 0x01 : 0x02;
}

std::string end_period() {
    Shared& s = shared();
    if (!s.period_running) {
        return "";
    }
    s.period_running = false;
    time_t start = static_cast<time_t>(s.period_start_rtc);
    struct tm t {};
    gmtime_r(&start, &t);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &t);
    char stack[16] = "";
    if (g_stack_probe) {
        std::snprintf(stack, sizeof stack, "%u", g_stack_probe());
    }
    char line[256];
    std::snprintf(line, sizeof line, "%s,%s,%llu,%llu,%llu,%llu,%s,%llu,%llu", stamp, wake_name(s.wake),
                  static_cast<unsigned long long>((s.now_ns - s.period_start_ns) / ns_per_ms),
                  static_cast<unsigned long long>(s.stats.sd_reads),
                  static_cast<unsigned long long>(s.stats.sd_writes),
                  static_cast<unsigned long long>(s.stats.tx_bytes), stack,
                  static_cast<unsigned long long>(on_time_ns(s.stats.uvs_supply, s.now_ns) / ns_per_ms),
                  static_cast<unsigned long long>(on_time_ns(s.stats.lamp_supply, s.now_ns) / ns_per_ms));
    return line;
}

[[noreturn]] void power_off(PowerEvent ev) {
    shared().last_event = ev;
    if (g_host.power_off) {
        g_host.power_off(ev);
    }
    message("power off with no host to end the period");
    std::abort();
}

void apply_wake(WakeSource src) {
    rtc_sync();
    HibState& h = hib();
    h.hibernating = 0;
    switch (src) {
    case WakeSource::rtc:
        h.ris |= 0x01 | 0x10;
        break;
    case WakeSource::pin:
        h.ris |= 0x08 | 0x10;
        break;
    case WakeSource::power:
        h.active = 0;
        h.rtc_enabled = 0;
        h.ctl = 0;
        h.ris = 0;
        h.im = 0;
        break;
    case WakeSource::reset:
    case WakeSource::watchdog:
        break;
    }
}

// ---------------------------------------------------------------- console input

uint64_t console_char_ns() {
    uint32_t baud = uart_baud(0);
    if (baud == 0) {
        baud = 115200;
    }
    return 10 * ns_per_s / baud; // start bit, eight data bits, stop bit
}

void type_console(const std::string& text) {
    Shared& s = shared();
    if (s.typed_pos == s.typed_len) {
        s.typed_pos = s.typed_len = 0;
        s.typed_holds = 0;
        s.typed_next_ns = s.now_ns + console_char_ns();
    }
    for (char ch : text) {
        if (s.typed_len == sizeof s.typed) {
            message("typed input longer than %zu bytes: the rest is dropped", sizeof s.typed);
            return;
        }
        s.typed[s.typed_len++] = ch;
    }
}

void type_console_after(uint64_t delay_ns, const std::string& text) {
    Shared& s = shared();
    if (s.typed_pos == s.typed_len) {
        s.typed_pos = s.typed_len = 0;
        s.typed_next_ns = s.now_ns + console_char_ns();
    }
    if (s.typed_holds == std::size(s.typed_hold_pos)) {
        message("more than %zu pauses in typed input: the text is dropped", std::size(s.typed_hold_pos));
        return;
    }
    s.typed_hold_pos[s.typed_holds] = s.typed_len;
    s.typed_hold_ns[s.typed_holds] = s.now_ns + delay_ns;
    ++s.typed_holds;
    for (char ch : text) {
        if (s.typed_len == sizeof s.typed) {
            return;
        }
        s.typed[s.typed_len++] = ch;
    }
}

} // namespace sim
