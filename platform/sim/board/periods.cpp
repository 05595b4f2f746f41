// Power-on periods: the start of each (the chip from reset, the cause it reports), its end with the
// line --stats gets, and what the hibernation module shows after each kind of wake.
#include "runtime_internal.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace sim {

namespace {

uint32_t (*g_stack_probe)() = nullptr;

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

} // namespace

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

void set_stack_probe(uint32_t (*probe)()) {
    g_stack_probe = probe;
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
    world_restart(s.now_ns);
    leave_event_loop();
    g_stack_probe = nullptr;
    core_reset();
    // SYSCTL_CAUSE_SW, SYSCTL_CAUSE_EXT (the watchdog pulls the reset line), SYSCTL_CAUSE_POR.
    core().reset_cause = src == WakeSource::reset ? 0x10 : src == WakeSource::watchdog ? 0x01 : 0x02;
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

} // namespace sim
