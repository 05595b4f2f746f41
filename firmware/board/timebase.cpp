// Timebase: SysTick millisecond counters, busy-wait delays and the RTC as calendar time.
//
// SysCtlDelay spends three processor cycles per count, so at 50 MHz one millisecond is 16667 counts
// and one microsecond 17. Every delay feeds the external watchdog so that long waits are safe.
#include "board/timebase.h"

#include <cstring>

#include "board/board_util.h"
#include "driverlib/hibernate.h"
#include "driverlib/sysctl.h"
#include "ports/uartstdio.h"

namespace {
constexpr uint32_t delay_counts_per_ms = 16667;
constexpr uint32_t delay_counts_per_us = 17;
} // namespace

volatile uint32_t timer_1ms = 0;
volatile uint32_t timer_10ms = 0;

bool timebase_tick(void) {
    uint32_t t = timer_1ms + 1;
    timer_1ms = t;
    if (t % 10 != 0) {
        return false;
    }
    timer_10ms = timer_10ms + 1;
    return true;
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

void print_time_t_Time(uint32_t t) {
    time_t seconds = static_cast<time_t>(t);
    char text[32];
    if (strftime(text, sizeof(text), "%m/%d/%Y %H:%M:%S", localtime(&seconds)) == 0) {
        return;
    }
    uprintf("%s", text);
}
