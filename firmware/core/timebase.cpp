// Timebase: SysTick millisecond counters, busy-wait delays and the Error.txt log.
//
// SysCtlDelay spends three processor cycles per count, so at 50 MHz one millisecond is 16667 counts
// and one microsecond 17. Every delay feeds the external watchdog so that long waits are safe.
#include "core/timebase.h"

#include <cstring>

#include "core/board_util.h"
#include "core/system.h"
#include "driverlib/hibernate.h"
#include "driverlib/sysctl.h"
#include "ports/uartstdio.h"
#include "storage/fatfs/diskio.h"
#include "storage/fatfs/ff.h"
#include "storage/microsd.h"
#include "storage/sd_append.h"

namespace {
constexpr uint32_t delay_counts_per_ms = 16667;
constexpr uint32_t delay_counts_per_us = 17;
} // namespace

volatile uint32_t timer_1ms = 0;
volatile uint32_t timer_10ms = 0;

extern "C" void SysTickHandler(void) {
    uint32_t t = timer_1ms + 1;
    timer_1ms = t;
    if (t % 10 == 0) {
        disk_timerproc();
        timer_10ms = timer_10ms + 1;
    }
}

uint32_t Timer_1ms(uint32_t reset) {
    if (reset == 1) {
        timer_1ms = 0;
        return 0;
    }
    return timer_1ms;
}

uint32_t Timer_10ms(uint32_t reset) {
    if (reset == 1) {
        timer_10ms = 0;
        return 0;
    }
    return timer_10ms;
}

void delay_usec(uint32_t us) {
    // SysCtlDelay(0) would count down from 2^32 (over four minutes), so zero skips the wait.
    if (us > 0) {
        SysCtlDelay(delay_counts_per_us * us);
    }
    wdog_pet();
}

void delay_msec(uint32_t ms) {
    for (uint32_t i = 0; i < ms; i++) {
        wdog_pet();
        SysCtlDelay(delay_counts_per_ms);
    }
}

void delay_sec(uint32_t s) {
    for (uint64_t i = 0; i <= s; i++) {
        delay_msec(1000);
    }
}

struct tm* get_RTC_time(void) {
    time_t t = static_cast<time_t>(HibernateRTCGet());
    return localtime(&t);
}

// Each step runs even when an earlier one failed, and each failure is reported on its own: the log
// is the last resort for a fault, so it tries as much as it can.
void error_store(const char* message) {
    if (sys_data.app_cfg[APPCFG_MICROSD_ENABLE] == 0) {
        uprintf("error_stor() not supported with microSD_flg=0 disabled\r\n");
        return;
    }

    const char* log = "Error.txt ";
    sd_append_report(log, AppendStep::open, sd_append_open("Error.txt", TailSlot::error_log));
    sd_append_report(log, AppendStep::seek, sd_append_seek());
    char stamp[50];
    size_t len = strftime(stamp, sizeof(stamp), "\r\n%Y/%m/%d %H:%M:%S ", get_RTC_time());
    sd_append_report(log, AppendStep::write, sd_append_write(stamp, static_cast<uint32_t>(len)));
    sd_append_report(log, AppendStep::write,
                     sd_append_write(message, static_cast<uint32_t>(strlen(message))));
    sd_append_report(log, AppendStep::close, sd_append_close());
}

RtcDeadline rtc_deadline(uint32_t seconds) {
    return RtcDeadline{HibernateRTCGet(), seconds};
}

bool rtc_deadline_passed(const RtcDeadline& d) {
    return HibernateRTCGet() - d.start >= d.seconds;
}

uint32_t rtc_seconds_left(const RtcDeadline& d) {
    uint32_t gone = HibernateRTCGet() - d.start;
    return gone < d.seconds ? d.seconds - gone : 0;
}

// In 2000..2099 every fourth year is a leap year, 2000 included.
uint32_t rtc_seconds_of(int year, int month, int day, int hour, int minute, int second) {
    static constexpr uint16_t days_before_month[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    uint32_t years = static_cast<uint32_t>(year - 1970);
    uint32_t leap_days = static_cast<uint32_t>(year - 1 - 1968) / 4; // leap years from 1970 to year - 1
    uint32_t days = years * 365 + leap_days + days_before_month[month - 1] + static_cast<uint32_t>(day - 1);
    if (month > 2 && year % 4 == 0) {
        days++;
    }
    return ((days * 24 + static_cast<uint32_t>(hour)) * 60 + static_cast<uint32_t>(minute)) * 60 +
           static_cast<uint32_t>(second);
}

uint32_t days_in_month(int year, int month) {
    static constexpr uint8_t days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12) {
        return 0;
    }
    return days[month - 1] + (month == 2 && year % 4 == 0 ? 1 : 0);
}
