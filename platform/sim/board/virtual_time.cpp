// Virtual time and the event loop that lets it pass: whatever is due next (SysTick, a device, the
// watchdog, the world around the board) happens at its time, and the interrupts it raises are taken
// between events.
#include "runtime_internal.h"

#include <algorithm>
#include <cstdlib>

namespace sim {

namespace {

bool g_in_advance = false;

// The next event of any kind; *device is the devices' own, which run_due_events takes as it is
// (nothing runs between the two).
uint64_t next_event_time(uint64_t* device) {
    Core& c = core();
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
    Core& c = core();
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

} // namespace

uint64_t now_ns() {
    return shared().now_ns;
}

void advance_ns(uint64_t ns) {
    if (core().in_handler || g_in_advance) {
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
    core().in_handler = false;
}

uint64_t next_event_ns() {
    uint64_t device = 0;
    return next_event_time(&device);
}

} // namespace sim
