// Timebase: SysTick counters, calibrated delays with their watchdog feeds and RTC calendar time.
#include <gtest/gtest.h>

#include <cstdlib>

#include "board/pinmux.h"
#include "board/board_util.h"
#include "board/timebase.h"
#include "driverlib/interrupt.h"
#include "driverlib/systick.h"
#include "sim_test.h"

namespace {

void start_board(void) {
    init_TM4C123GH6PM_64pin();
    SysTickPeriodSet(50000000 / 1000);
    SysTickIntEnable();
    SysTickEnable();
    IntMasterEnable();
}

double elapsed_s(uint64_t since_ns) {
    return double(sim::now_ns() - since_ns) / double(sim::ns_per_s);
}

class TimebaseTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(start_board).returned);
        watchDog = wdogData{};
    }
};

TEST_F(TimebaseTest, CountersFollowTheMillisecondTick) {
    Timer_1ms(1);
    Timer_10ms(1);
    sim::test::advance_s(0.25);
    EXPECT_NEAR(Timer_1ms(0), 250u, 1u);
    EXPECT_NEAR(Timer_10ms(0), 25u, 1u);
    EXPECT_EQ(Timer_1ms(1), 0u);
    EXPECT_EQ(Timer_1ms(0), 0u);
    EXPECT_NEAR(Timer_10ms(0), 25u, 1u); // the two counters are reset separately
}

TEST_F(TimebaseTest, DelaysFeedTheWatchdogOnlyWhenTheyWait) {
    sim::test::advance_s(0.1);
    watchDog.tickDelta = 7;

    delay_msec(0);
    EXPECT_EQ(watchDog.tickDelta, 7u) << "delay_msec(0) must not feed";

    delay_usec(0);
    EXPECT_EQ(watchDog.tickDelta, Timer_1ms(0)) << "delay_usec(0) feeds once";

    uint64_t start = sim::now_ns();
    delay_usec(0);
    EXPECT_LT(elapsed_s(start), 0.001) << "a zero count must not turn into a full SysCtlDelay wrap";
}

TEST_F(TimebaseTest, DelaysLastTheirCalibratedTime) {
    uint64_t start = sim::now_ns();
    delay_msec(20);
    EXPECT_NEAR(elapsed_s(start), 0.020, 0.0005);

    start = sim::now_ns();
    delay_usec(500);
    EXPECT_NEAR(elapsed_s(start), 0.0005, 0.0001);

    // Each millisecond also spends the 10 us feed pulse.
    start = sim::now_ns();
    delay_sec(0);
    EXPECT_NEAR(elapsed_s(start), 1.0, 0.02) << "delay_sec adds one second on purpose";

    start = sim::now_ns();
    delay_sec(2);
    EXPECT_NEAR(elapsed_s(start), 3.0, 0.06);
}

TEST_F(TimebaseTest, RtcTimeIsCalendarTimeWithoutZoneOffset) {
    sim::test::reset_board(1767225600 + 10 * 3600 + 7 * 60 + 5); // 2026-01-01 10:07:05 UTC
    struct tm* t = get_RTC_time();
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->tm_year, 126);
    EXPECT_EQ(t->tm_mon, 0);
    EXPECT_EQ(t->tm_mday, 1);
    EXPECT_EQ(t->tm_hour, 10);
    EXPECT_EQ(t->tm_min, 7);
    EXPECT_EQ(t->tm_sec, 5);
}

} // namespace
