// The RTC of the hibernation module, counting in virtual time: brought up to date whenever it is
// read, so that it runs on through hibernation and across power-on periods without a tick of its own.
#include "runtime_internal.h"

namespace sim {

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

} // namespace sim
