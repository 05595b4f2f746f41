// Timebase: SysTick counters, calibrated delays with their watchdog feeds, RTC calendar time and
// the error log's behaviour without a usable card.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "board/i2c0.h"
#include "board/pinmux.h"
#include "core/board_util.h"
#include "core/system.h"
#include "core/timebase.h"
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
    i2c0_init(0); // the error log's appends keep what they remember in the FRAM
}

double elapsed_s(uint64_t since_ns) {
    return double(sim::now_ns() - since_ns) / double(sim::ns_per_s);
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) {
        n++;
    }
    return n;
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

TEST_F(TimebaseTest, ErrorStoreWithTheCardDisabledOnlySaysSo) {
    sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
    sim::test::clear_console_output();
    ASSERT_TRUE(sim::test::run([] { error_store("boom\r\n"); }).returned);
    sim::test::drain_console();
    EXPECT_EQ(sim::test::console_output(), "error_stor() not supported with microSD_flg=0 disabled\r\n");
}

// Without a mounted volume every step fails; each one is still attempted and reported.
TEST_F(TimebaseTest, ErrorStoreReportsEveryFailedStepOnItsOwn) {
    sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 1;
    sim::test::clear_console_output();
    ASSERT_TRUE(sim::test::run([] { error_store("boom\r\n"); }).returned);
    sim::test::drain_console();
    const std::string& out = sim::test::console_output();
    EXPECT_EQ(count(out, "Error.txt f_open error: "), 1u) << out;
    EXPECT_EQ(count(out, "Error.txt f_lseek error: "), 1u) << out;
    EXPECT_EQ(count(out, "Error.txt f_write error: "), 2u) << out;
    EXPECT_EQ(count(out, "Error.txt f_close error: "), 1u) << out;
    EXPECT_LT(out.find("f_open"), out.find("f_lseek"));
    EXPECT_LT(out.find("f_write"), out.find("f_close"));
}

} // namespace
