// Sleep: the wake-time guard, the wake conditions and messages of the three cases, what is persisted
// before the request, and the recovery when hibernation does not cut the power.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "core/main.h"
#include "storage/microsd.h"
#include "measure/sleep.h"
#include "records/system.h"
#include "sim_test.h"

namespace {

constexpr uint32_t T0 = 1767225600; // 2026-01-01 00:00:00 UTC
constexpr uint32_t WAKE_ON_PIN = 0x10;
constexpr uint32_t WAKE_ON_RTC = 0x08;
constexpr uint32_t FRAM_SYS_SAMP = 0x0040;

int32_t fram_state(void) {
    int32_t state;
    memcpy(&state, sim::fram_bytes() + FRAM_SYS_SAMP, sizeof(state));
    return state;
}

// Start-up as main does it before the session: the hibernation module is running afterwards.
void start_up(void) {
    init();
    wakeSource = wake_handler();
}

uint32_t g_state;
uint32_t g_wake;
void call_sleep(void) {
    sleep(g_state, g_wake);
}

class SleepTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        sim::test::reset_board(T0);
        ASSERT_TRUE(sim::test::run(start_up).returned);
        sys_data.output = NORMAL;
        sys_data.test_mode = 0;
        sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
        sim::hib().ctl &= ~(WAKE_ON_PIN | WAKE_ON_RTC);
        sim::test::drain_console();
        sim::test::clear_console_output();
    }

    // Sleeps and returns how it ended; the console is drained afterwards.
    sim::test::Outcome sleep_now(uint32_t state, uint32_t wake_time) {
        g_state = state;
        g_wake = wake_time;
        sim::test::Outcome out = sim::test::run(call_sleep);
        sim::test::drain_console();
        return out;
    }

    uint32_t wake_conditions() const { return sim::hib().ctl & (WAKE_ON_PIN | WAKE_ON_RTC); }
};

TEST_F(SleepTest, DeployedWakeTimeOutsideTheNextHourBecomesTwoSeconds) {
    struct {
        uint32_t ahead;
        uint32_t expected;
    } cases[] = {{1, 2}, {2, 2}, {3, 3}, {3600, 3600}, {3601, 2}};
    for (auto c : cases) {
        SCOPED_TRACE(c.ahead);
        sim::test::reset_board(T0);
        ASSERT_TRUE(sim::test::run(start_up).returned);
        sim::test::Outcome out = sleep_now(DEPLOYED, T0 + c.ahead);
        EXPECT_FALSE(out.returned);
        EXPECT_EQ(out.event, sim::PowerEvent::hibernate);
        EXPECT_EQ(sim::hib().match0, T0 + c.expected);
        EXPECT_EQ(wake_conditions(), WAKE_ON_PIN | WAKE_ON_RTC);
    }
}

TEST_F(SleepTest, DeployedSleepAnnouncesItsWakeInTestModeOrVerbose) {
    sleep_now(DEPLOYED, T0 + 600);
    EXPECT_EQ(sim::test::console_output(), "");

    sim::test::reset_board(T0);
    ASSERT_TRUE(sim::test::run(start_up).returned);
    sys_data.output = NORMAL;
    sys_data.test_mode = 1;
    sim::test::drain_console();
    sim::test::clear_console_output();
    sleep_now(DEPLOYED, T0 + 600);
    EXPECT_EQ(sim::test::console_output(), "\r\n\r\nSleeping until 01/01/2026 00:10:00");
}

TEST_F(SleepTest, IdleSleepWakesOnThePinOnly) {
    sim::test::Outcome out = sleep_now(IDLE, 0);
    EXPECT_EQ(out.event, sim::PowerEvent::hibernate);
    EXPECT_EQ(sim::test::console_output(), "*");
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN);
}

TEST_F(SleepTest, VerboseIdleSleepExplainsHowToWake) {
    sys_data.output = VERBOSE;
    sleep_now(IDLE, 0);
    EXPECT_EQ(sim::test::console_output(), "\r\n\r\nSleeping...*hit any key to wake\r\n\r\n\r\n");
}

TEST_F(SleepTest, PolledDeployedSleepArmsNoRtcWake) {
    sim::test::Outcome out = sleep_now(DEPLOYED, 0);
    EXPECT_EQ(out.event, sim::PowerEvent::hibernate);
    EXPECT_EQ(sim::test::console_output(), "\r\n\r\nSleeping in polled mode..\r\n\r\n\r\n");
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN);
}

TEST_F(SleepTest, StateIsPersistedBeforeTheRequest) {
    sleep_now(DEPLOYED, T0 + 600);
    EXPECT_EQ(fram_state(), DEPLOYED);

    sim::test::reset_board(T0);
    ASSERT_TRUE(sim::test::run(start_up).returned);
    sys_samp.state = DEPLOYED;
    sleep_now(IDLE, 0);
    EXPECT_EQ(fram_state(), IDLE);
}

TEST_F(SleepTest, FailedHibernationReportsLogsAndResets) {
    sim::hib().fail_requests = 1;
    sim::test::Outcome out = sleep_now(IDLE, 0);
    EXPECT_FALSE(out.returned);
    EXPECT_EQ(out.event, sim::PowerEvent::reset);

    const std::string& text = sim::test::console_output();
    size_t console = text.find("\r\nconsole enable is not ported on HXC3, board_util, line 118\r\n");
    size_t error =
        text.find("\r\n\r\n\r\nHibernation error!  Possible cause: remove JP1 on Tessel board \r\n\r\n\r\n");
    size_t log = text.find("error_stor() not supported with microSD_flg=0 disabled\r\n");
    size_t reset = text.find("\r\n\r\n\r\nCalling SysCtrlReset...\r\n\r\n\r\n");
    ASSERT_NE(console, std::string::npos) << text;
    ASSERT_NE(error, std::string::npos) << text;
    ASSERT_NE(log, std::string::npos) << text;
    ASSERT_NE(reset, std::string::npos) << text;
    EXPECT_LT(console, error);
    EXPECT_LT(error, log);
    EXPECT_LT(log, reset);
    EXPECT_EQ(fram_state(), IDLE) << "the state must already be persisted for the next start";
}

TEST_F(SleepTest, SleepDebugKeepsTheRtcBitUnlessThePinWoke) {
    struct {
        uint32_t status;
        int32_t before;
        int32_t after;
    } cases[] = {{0x01, IDLE, 1}, {0x10, DEPLOYED, 0}, {0x09, 5, 5}, {0x08, DEPLOYED, DEPLOYED}};
    for (auto c : cases) {
        SCOPED_TRACE(c.status);
        sim::hib().ris = c.status;
        sys_samp.state = c.before;
        ASSERT_TRUE(sim::test::run(sleep_debug).returned);
        EXPECT_EQ(sys_samp.state, c.after);
    }
}

} // namespace
