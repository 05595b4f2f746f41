// The sampling schedule of a deployment: the next wake on the period's grid, and deploy, which
// samples, schedules and sleeps.
#include "measure/schedule.h"

#include "driverlib/hibernate.h"
#include "measure/sample.h"
#include "measure/pump.h"
#include "measure/sleep.h"
#include "ports/uartstdio.h"
#include "records/system.h"

namespace {

// Times are compared modulo 2^32, as the RTC counts: a time less than half the counter ahead of now
// is ahead of it, anything else behind.
bool ahead_of(uint32_t t, uint32_t now) {
    uint32_t ahead = t - now;
    return ahead != 0 && ahead < 0x80000000u;
}

// The first time after now on the grid of period through t (period > 0).
uint32_t next_slot_after(uint32_t t, uint32_t now, uint32_t period) {
    if (ahead_of(t, now)) {
        return t - ((t - now - 1) / period) * period;
    }
    return t + ((now - t) / period + 1) * period;
}

// A wake without a sample (a key, the menu, the host link) keeps the pending wake while it is still
// ahead within a period: advancing it would skip the scheduled sample. A pending wake that has
// passed (the operator kept the board awake through it), or that lies more than a period ahead (the
// clock was set back), moves to the first time after now on the same grid, so the schedule does not
// drift and neither a burst of catch-up samples nor a stream of two-second wakes follows.
void keep_pending_wake(void) {
    uint32_t now = HibernateRTCGet();
    uint32_t period = sys_data.sampling_period;
    uint32_t next = sys_samp.nextWakeUp;
    if (period == 0 || (ahead_of(next, now) && next - now <= period)) {
        return;
    }
    if (sys_data.sample_aligned != 0) {
        compute_nextWakeUp();
        return;
    }
    sys_samp.nextWakeUp = next_slot_after(next, now, period);
}

} // namespace

void deploy(uint32_t state, uint32_t skip_sample) {
    if (state != DEPLOYED) {
        uprintf("\r\n\r\nDeploy() Should NOT be IDLE, check arg error\r\n\r\n");
        wait_consoleTx();
        sleep(0, 0);
        return;
    }
    if (skip_sample == 0) {
        pump_and_sample(1, 1);
        compute_nextWakeUp();
    } else {
        keep_pending_wake();
    }
    sleep(1, sys_samp.nextWakeUp);
}

// Unaligned, the schedule advances from the previous wake, so it does not drift with the time a
// sample takes; a wake that would then lie more than one period away from now (the clock was set
// back or forward, the board was off for a while) moves onto the first slot of its grid after now,
// so that neither an endless run of two-second wakes nor a burst of catch-up samples follows.
// Aligned, the wake is the first point at or after now on the grid of sampling_period counted from
// the top of the hour. An aligned period of 0 has no grid: the wake is now, which sleep turns into a
// wake two seconds later.
uint32_t compute_nextWakeUp(void) {
    uint32_t period = sys_data.sampling_period;
    if (sys_data.sample_aligned == 0) {
        uint32_t next = sys_samp.nextWakeUp + period;
        uint32_t now = HibernateRTCGet();
        bool far_ahead = ahead_of(next, now) && next - now > period;
        bool far_behind = !ahead_of(next, now) && now - next >= period;
        if (period != 0 && (far_ahead || far_behind)) {
            next = next_slot_after(next, now, period);
        }
        sys_samp.nextWakeUp = next;
        return next;
    }
    uint32_t now = HibernateRTCGet();
    uint32_t t = now;
    if (period != 0) {
        // The first slot at or after now, but never the top of the hour itself; counted in whole
        // periods from the top of the hour, so it holds across the RTC's 32-bit wrap.
        uint32_t into_hour = now % 3600;
        uint32_t slots = into_hour <= period ? 1 : (into_hour + period - 1) / period;
        t = now - into_hour + slots * period;
    }
    sys_samp.nextWakeUp = t;
    return t;
}
