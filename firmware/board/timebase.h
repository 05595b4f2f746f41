// Timebase of the controller: the 1 ms SysTick counters used for time-outs, the calibrated busy-wait
// delays that keep the watchdog fed, and the RTC as calendar time.
#pragma once

#include <cstdint>
#include <ctime>

// Written by the SysTick interrupt only (and cleared through Timer_1ms(1) / Timer_10ms(1)).
extern volatile uint32_t timer_1ms;
extern volatile uint32_t timer_10ms;

// One millisecond of SysTick: true when it completes a 10 ms tick.
bool timebase_tick(void);

// reset == 1 clears the counter and returns 0; any other value returns the count.
uint32_t Timer_1ms(uint32_t reset);
uint32_t Timer_10ms(uint32_t reset);

void delay_usec(uint32_t us);
void delay_msec(uint32_t ms);
// Waits s + 1 seconds: delay_sec(0) is one second.
void delay_sec(uint32_t s);

// Calendar time of the RTC seconds (the runtime's static localtime result).
struct tm* get_RTC_time(void);

// Prints RTC seconds as "mm/dd/yyyy hh:mm:ss" on the console.
void print_time_t_Time(uint32_t t);

// RTC seconds of a calendar time in 2000..2099 (the RTC keeps UTC, no daylight saving). The fields
// are taken as given: callers check their ranges.
uint32_t rtc_seconds_of(int year, int month, int day, int hour, int minute, int second);
// Days in a month of a year in 2000..2099; 0 for a month outside 1..12.
uint32_t days_in_month(int year, int month);

// A time limit in RTC seconds that holds across the clock's 32-bit wrap (2106): it compares the
// seconds gone since its start, never two absolute times.
struct RtcDeadline {
    uint32_t start;
    uint32_t seconds;
};
RtcDeadline rtc_deadline(uint32_t seconds);
bool rtc_deadline_passed(const RtcDeadline& d);
uint32_t rtc_seconds_left(const RtcDeadline& d);
