// Sleep and hibernation. Everything the next pass needs is written to FRAM before the request,
// because RAM does not survive hibernation.
#include "measure/sleep.h"

#include "board/board_util.h"
#include "records/system.h"
#include "storage/settings.h"
#include "board/timebase.h"
#include "storage/error_log.h"
#include "driverlib/hibernate.h"
#include "driverlib/sysctl.h"
#include "records/apf.h"
#include "ports/uartstdio.h"
#include "storage/i2c_fram.h"

namespace {
// Waits here are plain busy loops of the delay primitive (three cycles per count at 50 MHz), with
// no watchdog feed: the board is about to lose power anyway.
constexpr uint32_t delay_counts_per_ms = 16667;

void busy_wait_ms(uint32_t ms) {
    SysCtlDelay(delay_counts_per_ms * ms);
}

// A scheduled wake must lie in (now + 2, now + 3600]. Anything else, including a time more than one
// hour ahead, is taken as invalid and the board wakes two seconds from now instead.
// The seconds ahead are taken modulo 2^32, as the RTC counts, so the guard holds across its wrap.
uint32_t guard_wake_time(uint32_t wake_time, uint32_t now) {
    uint32_t ahead = wake_time - now;
    if (ahead <= 2 || ahead > 3600) {
        return now + 2;
    }
    return wake_time;
}

void sleep_idle(uint32_t state) {
    HibernateWakeSet(HIBERNATE_WAKE_PIN);
    bool verbose = sys_data.output == VERBOSE;
    if (state == IDLE) {
        if (verbose) {
            uprintf("\r\n\r\nSleeping...*");
        } else {
            print_sleep();
        }
    }
    if (verbose) {
        uprintf("hit any key to wake\r\n\r\n\r\n");
    }
    busy_wait_ms(25);
}

void sleep_until(uint32_t wake_time) {
    wake_time = guard_wake_time(wake_time, HibernateRTCGet());
    HibernateRTCMatchSet(0, wake_time);
    HibernateWakeSet(HIBERNATE_WAKE_PIN | HIBERNATE_WAKE_RTC);
    if (sys_data.test_mode == 1 || sys_data.output == VERBOSE) {
        uprintf("\r\n\r\nSleeping until ");
        print_time_t_Time(wake_time);
    }
}

void sleep_polled(void) {
    HibernateWakeSet(HIBERNATE_WAKE_PIN);
    uprintf("\r\n\r\nSleeping in polled mode..\r\n\r\n\r\n");
}

// Reached only when the hibernation module did not cut the power (on the Tessel board a fitted
// JP1 does that). A reset restarts main with the state already persisted.
void hibernation_failed(void) {
    console_on();
    uprintf("\r\n\r\n\r\nHibernation error!  Possible cause: remove JP1 on Tessel board \r\n\r\n\r\n");
    error_store("Hibernation error.  Possible cause: remove JP1 on Tessel board.  \r\n");
    uprintf("\r\n\r\n\r\nCalling SysCtrlReset...\r\n\r\n\r\n");
    busy_wait_ms(100);
    SysCtlReset();
}
} // namespace

void sleep(uint32_t state, uint32_t wake_time) {
    sys_samp.state = state;
    if (state != DEPLOYED) {
        sleep_idle(state);
    } else if (wake_time != 0) {
        sleep_until(wake_time);
    } else {
        sleep_polled();
    }

    UARTFlushTx(false);
    storeSysSampFRAMVariables();
    fram_apf_store_all();
    console_off();

    uint32_t status = HibernateIntStatus(false);
    HibernateIntClear(status);
    // 0x7FFF is the RTC's nominal trim (no correction of the 32.768 kHz crystal).
    HibernateRTCTrimSet(0x7FFF);
    HibernateRequest();

    busy_wait_ms(100);
    hibernation_failed();
}

void print_sleep(void) {
    uprintf("*");
}

void sleep_debug(void) {
    uint32_t status = HibernateIntStatus(false);
    HibernateIntClear(status);
    if ((status & HIBERNATE_INT_PIN_WAKE) == 0) {
        sys_samp.state = status & HIBERNATE_INT_RTC_MATCH_0;
    }
}
