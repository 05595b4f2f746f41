// The main state machine: wake classification, the next wake time, and what one pass through main
// does for each stored state and wake source.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "core/main.h"
#include "measure/schedule.h"
#include "menus/menu.h"
#include "records/system.h"
#include "storage/settings.h"
#include "driverlib/sysctl.h"
#include "sim_test.h"

int hxc3_main(void);

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

void use_utc(void) {
    setenv("TZ", "UTC", 1);
    tzset();
}

// ---------------------------------------------------------------- wake classification

struct WakeCase {
    const char* what;
    uint8_t active;
    uint32_t status;
    int32_t state_before;
    uint32_t source;
    int32_t state_after;
    bool module_setup;
};

const WakeCase wake_cases[] = {
    {"pin", 1, 0x08, DEPLOYED, WAKE_PIN, DEPLOYED, false},
    {"pin wins over rtc", 1, 0x19, DEPLOYED, WAKE_PIN, DEPLOYED, false},
    {"rtc match", 1, 0x01, DEPLOYED, WAKE_RTC, DEPLOYED, false},
    {"rtc match with write complete", 1, 0x11, IDLE, WAKE_RTC, IDLE, false},
    {"vdd fail", 1, 0x90, DEPLOYED, WAKE_NOTSET, IDLE, true},
    {"reset wake", 1, 0x50, DEPLOYED, WAKE_NOTSET, IDLE, true},
    {"gpio wake", 1, 0x30, DEPLOYED, WAKE_NOTSET, IDLE, true},
    // An active module sees the write of its own enable complete before the status is read, so a
    // start with nothing else pending is a reset of a running board: a deployment goes on.
    {"nothing pending, deployed", 1, 0x00, DEPLOYED, WAKE_RTC, DEPLOYED, true},
    {"low battery only, idle", 1, 0x04, IDLE, WAKE_NOTSET, IDLE, true},
    {"only write complete, deployed", 1, 0x10, DEPLOYED, WAKE_RTC, DEPLOYED, true},
    {"write complete and low battery, deployed", 1, 0x14, DEPLOYED, WAKE_RTC, DEPLOYED, true},
    {"only write complete, idle", 1, 0x10, IDLE, WAKE_NOTSET, IDLE, true},
    {"module not active", 0, 0x09, DEPLOYED, WAKE_NOTSET, DEPLOYED, true},
};

uint32_t g_source;
// main runs wake_handler right after init(), whose pin set-up clocked the watchdog's port; the
// reset that stands in for the start closed it again.
void classify(void) {
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOF);
    g_source = wake_handler();
}

TEST(WakeHandlerTest, ClassifiesEveryStatusCombination) {
    for (const WakeCase& c : wake_cases) {
        SCOPED_TRACE(c.what);
        sim::test::reset_board(T0);
        ASSERT_TRUE(sim::test::run(init).returned);
        sim::hib().active = c.active;
        sim::hib().ris = c.status;
        sim::hib().rtc_enabled = 0;
        sim::test::power_on(sim::WakeSource::reset); // a start with the module as set up above
        sys_samp.state = c.state_before;

        ASSERT_TRUE(sim::test::run(classify).returned);
        EXPECT_EQ(g_source, c.source);
        EXPECT_EQ(sys_samp.state, c.state_after);
        EXPECT_EQ(sim::hib().rtc_enabled != 0, c.module_setup);
        if (c.module_setup) {
            EXPECT_EQ(sim::hib().trim, 0x7FFFu);
            EXPECT_EQ(sim::hib().im & 0x1D, 0u);
        }
    }
}

// ---------------------------------------------------------------- next wake time

uint32_t g_next;
void next_wake(void) {
    g_next = compute_nextWakeUp();
}

uint32_t next_wake_at(uint32_t now, uint8_t aligned, uint32_t period, uint32_t previous) {
    sim::test::reset_board(now);
    sys_data.sample_aligned = aligned;
    sys_data.sampling_period = period;
    sys_samp.nextWakeUp = previous;
    EXPECT_TRUE(sim::test::run(next_wake).returned);
    EXPECT_EQ(sys_samp.nextWakeUp, g_next) << "the result is also stored";
    return g_next;
}

TEST(NextWakeUpTest, AlignedWakesFallOnTheGridFromTheTopOfTheHour) {
    const uint32_t ten = T0 + 10 * 3600;
    EXPECT_EQ(next_wake_at(ten + 7 * 60, 1, 900, 0), ten + 15 * 60);
    EXPECT_EQ(next_wake_at(ten + 15 * 60, 1, 900, 0), ten + 15 * 60) << "a time equal to now is accepted";
    EXPECT_EQ(next_wake_at(ten + 59 * 60 + 30, 1, 900, 0), ten + 3600);
    EXPECT_EQ(next_wake_at(ten, 1, 900, 0), ten + 900);
    // The last (short) hour before the RTC's 32-bit wrap: the grid runs on past the wrap instead of
    // looking for a slot forever.
    const uint32_t last_hour = 0xFFFFFFFFu - 0xFFFFFFFFu % 3600;
    EXPECT_EQ(next_wake_at(last_hour + 1000, 1, 900, 0), last_hour + 1800);
}

// The schedule advances from the previous wake, unless that leaves it more than one period from now:
// then it moves onto the first slot of its own grid after now.
TEST(NextWakeUpTest, UnalignedWakesAdvanceFromThePreviousWake) {
    const uint32_t now = T0 + 10 * 3600;
    EXPECT_EQ(next_wake_at(now, 0, 600, now - 30), now + 570);
    EXPECT_EQ(next_wake_at(now, 0, 600, now - 620), now - 20)
        << "less than a period late: the guard wakes it";
    EXPECT_EQ(next_wake_at(now, 0, 600, now - 5000), now + 400) << "an outage: no catch-up burst";
    const uint32_t slot_after_now = 1600 + ((now - 1600) / 600 + 1) * 600;
    EXPECT_EQ(next_wake_at(now, 0, 600, 1000), slot_after_now) << "a schedule from long ago";
    EXPECT_EQ(next_wake_at(now, 0, 600, now + 100000), now + 400)
        << "the clock set back: not an endless run of two-second wakes";
    // Across the 32-bit wrap of the RTC, slots keep their distance.
    EXPECT_EQ(next_wake_at(0xFFFFFF00u, 0, 600, 0xFFFFFE00u), 0xFFFFFE00u + 600);
}

TEST(NextWakeUpTest, AlignedZeroPeriodEndsAtNow) {
    const uint32_t now = T0 + 10 * 3600 + 7 * 60;
    EXPECT_EQ(next_wake_at(now, 1, 0, 0), now);
}

// ---------------------------------------------------------------- one pass through main

struct Stored {
    int32_t state;
    uint32_t period;
    uint32_t next;
    uint8_t exec_switch;
    output_mode output = NORMAL;
};
Stored g_stored;

void store_settings(void) {
    init();
    sys_data.debug_flag = 1;
    sys_data.output = g_stored.output;
    sys_data.test_mode = 0;
    sys_data.sample_aligned = 0;
    sys_data.sampling_period = g_stored.period;
    sys_data.app_cfg[APPCFG_EXEC_SWITCHERONI] = g_stored.exec_switch;
    sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
    sys_samp.state = g_stored.state;
    sys_samp.nextWakeUp = g_stored.next;
    storeSysDataVariables();
}

class MainPassTest : public ::testing::Test {
  protected:
    void SetUp() override { use_utc(); }

    // A board whose EEPROM and FRAM hold the given settings, about to start with this hibernation
    // status (active = 0: a power-up).
    void prepare(Stored stored, uint8_t active, uint32_t status) {
        sim::test::reset_board(T0);
        g_stored = stored;
        ASSERT_TRUE(sim::test::run(store_settings).returned);
        sim::test::drain_console();
        sim::hib().active = active;
        sim::hib().rtc_enabled = active; // a module that ran before keeps its RTC running
        sim::hib().ris = status;
        sim::hib().ctl &= ~(WAKE_ON_PIN | WAKE_ON_RTC);
        sim::test::power_on(active ? sim::WakeSource::reset : sim::WakeSource::power);
        sim::test::clear_console_output();
        start_ns = sim::now_ns();
    }

    sim::test::Outcome boot(void) {
        sim::test::Outcome out = sim::test::run([] { hxc3_main(); });
        sim::test::drain_console();
        return out;
    }

    double awake_s(void) const { return double(sim::now_ns() - start_ns) / double(sim::ns_per_s); }
    bool printed(const char* text) const {
        return sim::test::console_output().find(text) != std::string::npos;
    }
    uint32_t wake_conditions(void) const { return sim::hib().ctl & (WAKE_ON_PIN | WAKE_ON_RTC); }

    uint64_t start_ns = 0;
};

TEST_F(MainPassTest, PowerUpEndsADeploymentAndStoresIdle) {
    prepare({DEPLOYED, 600, T0}, 0, 0);
    sim::test::Outcome out = boot();
    EXPECT_EQ(out.event, sim::PowerEvent::hibernate);
    EXPECT_TRUE(printed("\r\n(wakeSource == WAKE_NOTSET)\r\n"));
    EXPECT_FALSE(printed("calling deploy"));
    EXPECT_EQ(fram_state(), IDLE);
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN) << "an ended deployment sleeps without an RTC wake";
}

TEST_F(MainPassTest, RtcWakeSamplesAndSchedulesTheNextWake) {
    prepare({DEPLOYED, 600, T0 - 300}, 1, 0x01);
    sim::test::Outcome out = boot();
    EXPECT_EQ(out.event, sim::PowerEvent::hibernate);
    EXPECT_TRUE(printed("\r\nMAIN: calling deploy(DEPLOYED)\r\n"));
    EXPECT_FALSE(printed("\r\n>")) << "a scheduled sample does not open a session";
    EXPECT_EQ(sim::hib().match0, T0 + 300);
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN | WAKE_ON_RTC);
    EXPECT_EQ(fram_state(), DEPLOYED);
    EXPECT_LT(awake_s(), 90.0) << "no 100-second session";
}

TEST_F(MainPassTest, PinWakeWithoutCommandResumesWithoutSample) {
    prepare({DEPLOYED, 600, T0 - 300}, 1, 0x08);
    sim::test::Outcome out = boot();
    EXPECT_EQ(out.event, sim::PowerEvent::hibernate);
    EXPECT_TRUE(printed("\r\nMAIN: DEPLOYED, calling exec_command\r\n"));
    EXPECT_TRUE(printed("\r\nMAIN: calling deploy(DEPLOYED) after key command\r\n"));
    EXPECT_EQ(sim::hib().match0, T0 + 300) << "the schedule continues from the previous wake";
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN | WAKE_ON_RTC);
    EXPECT_GE(awake_s(), 5.0) << "the operator gets five seconds";
    EXPECT_LT(awake_s(), 10.0);
}

// A key wake between two samples keeps the sample that was pending; one that has passed while the
// operator kept the board awake moves to the next time on the same grid, with no catch-up burst.
TEST_F(MainPassTest, PinWakeKeepsThePendingSampleOnItsGrid) {
    prepare({DEPLOYED, 60, T0 + 53}, 1, 0x08);
    boot();
    EXPECT_EQ(sim::hib().match0, T0 + 53) << "the pending sample is kept";

    prepare({DEPLOYED, 60, T0 - 600}, 1, 0x08);
    boot();
    EXPECT_EQ(sim::hib().match0, T0 + 60) << "next grid time after the key wake";
}

TEST_F(MainPassTest, HostLinkSwitchServesTheSessionThenResumes) {
    prepare({DEPLOYED, 600, T0 + 100, 1}, 1, 0x01);
    sim::test::Outcome out = boot();
    EXPECT_EQ(out.event, sim::PowerEvent::hibernate);
    EXPECT_FALSE(printed("calling deploy"));
    EXPECT_TRUE(printed("\r\n>"));
    EXPECT_GE(awake_s(), 100.0);
    EXPECT_EQ(sim::hib().match0, T0 + 700);
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN | WAKE_ON_RTC);
}

TEST_F(MainPassTest, IdleServesTheSessionThenSleepsIdle) {
    prepare({IDLE, 600, T0}, 0, 0);
    sim::test::Outcome out = boot();
    EXPECT_EQ(out.event, sim::PowerEvent::hibernate);
    const std::string& text = sim::test::console_output();
    size_t idle = text.find("\r\nMAIN: state = IDLE\r\n");
    size_t prompt = text.find("\r\n>", idle);
    ASSERT_NE(idle, std::string::npos) << text;
    ASSERT_NE(prompt, std::string::npos) << text;
    EXPECT_NE(text.find("*", prompt), std::string::npos) << text;
    EXPECT_GE(awake_s(), 100.0);
    EXPECT_LT(awake_s(), 103.0);
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN);
    EXPECT_EQ(fram_state(), IDLE);
}

TEST_F(MainPassTest, IdleSessionEndsWithTheVerboseSleepMessage) {
    prepare({IDLE, 600, T0, 0, VERBOSE}, 0, 0);
    sim::test::Outcome out = boot();
    EXPECT_EQ(out.event, sim::PowerEvent::hibernate);
    const std::string& text = sim::test::console_output();
    size_t prompt = text.find("\r\n>");
    ASSERT_NE(prompt, std::string::npos) << text;
    EXPECT_EQ(text.substr(prompt + 3), "\r\n\r\nSleeping...*hit any key to wake\r\n\r\n\r\n");
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN);
}

TEST_F(MainPassTest, InvalidStoredStateIsReportedAndEnded) {
    prepare({7, 600, T0}, 0, 0);
    sim::test::Outcome out = boot();
    EXPECT_EQ(out.event, sim::PowerEvent::hibernate);
    EXPECT_TRUE(printed("ERROR in sys_samp.state = 7"));
    EXPECT_EQ(fram_state(), IDLE);
}

// Deployed command mode as main's pin wake uses it: the operator's line arrives while it waits.
uint32_t g_command_result;

TEST(DeployedCommandTest, StopEndsTheDeploymentAndOtherLinesAreRefused) {
    use_utc();
    sim::test::reset_board(T0);
    ASSERT_TRUE(sim::test::run([] {
                    init();
                    wakeSource = wake_handler();
                    sys_samp.state = DEPLOYED;
                }).returned);
    sim::test::drain_console();
    sim::test::clear_console_output();

    ASSERT_TRUE(sim::test::run([] {
                    sim::test::type("hello\rstop now\r");
                    g_command_result = exec_command(5);
                }).returned);
    EXPECT_EQ(g_command_result, 0u);
    EXPECT_EQ(sys_samp.state, IDLE);
    EXPECT_EQ(fram_state(), IDLE);
    sim::test::drain_console();
    EXPECT_NE(sim::test::console_output().find("NAK\r\n"), std::string::npos);

    sys_samp.state = DEPLOYED;
    ASSERT_TRUE(sim::test::run([] { g_command_result = exec_command(5); }).returned);
    EXPECT_EQ(g_command_result, 1u) << "no line within the time limit resumes the deployment";
    EXPECT_EQ(sys_samp.state, DEPLOYED);
}

} // namespace
