// Operator menus: the deployed command mode's keywords and refusals, the main menu's keys and its
// deadline, the deployment start dialogue on a card, and the console entry routines.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "core/main.h"
#include "ports/uartstdio.h"
#include "measure/schedule.h"
#include "menus/menu.h"
#include "records/system.h"
#include "hostlink/serial.h"
#include "measure/sample.h"
#include "sim_test.h"
#include "test_board.h"
#include "storage/config.h"
#include "storage/presets.h"
#include "storage/fatfs/ff.h"
#include "storage/microsd.h"

int hxc3_main(void);

namespace {

using test_board::run_shell;

constexpr uint32_t T0 = 1767225600; // 2026-01-01 00:00:00 UTC
constexpr uint32_t WAKE_ON_PIN = 0x10;
constexpr uint32_t WAKE_ON_RTC = 0x08;
constexpr uint32_t FRAM_SYS_SAMP = 0x0040;

int32_t fram_state(void) {
    int32_t state;
    memcpy(&state, sim::fram_bytes() + FRAM_SYS_SAMP, sizeof(state));
    return state;
}

// Results of the firmware calls the tests make inside run().
uint32_t g_result;
uint32_t g_default;

class MenuTest : public ::testing::Test {
  protected:
    virtual uint32_t start_rtc(void) const { return T0; }

    void SetUp() override {
        sim::test::reset_board(start_rtc());
        ASSERT_TRUE(sim::test::run([] {
                        init();
                        wakeSource = wake_handler(); // starts the RTC
                        sys_data.output = NORMAL;
                        sys_data.test_mode = 0;
                        sys_data.debug_flag = 1;
                        dbg_flag = 1; // main() copies it at start-up; an earlier test may have cleared it
                        sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
                        microSD_flg = 0;
                    }).returned);
        sim::test::drain_console();
        sim::test::clear_console_output();
    }

    sim::test::Outcome command(const std::string& typed, uint32_t timeout_s = 5) {
        sim::test::type(typed);
        g_default = timeout_s;
        sim::test::Outcome out = sim::test::run([] { g_result = exec_command(g_default); });
        sim::test::drain_console();
        return out;
    }
    // The keys come once the menu has been printed: it discards what came before.
    sim::test::Outcome menu(const std::string& typed) {
        if (!typed.empty()) {
            sim::test::type_after(0.2, typed);
        }
        sim::test::Outcome out = sim::test::run(exec_main_menu);
        sim::test::drain_console();
        return out;
    }
    const std::string& out() const { return sim::test::console_output(); }
    size_t count(const std::string& text) const {
        size_t n = 0;
        for (size_t at = out().find(text); at != std::string::npos; at = out().find(text, at + 1)) {
            ++n;
        }
        return n;
    }
    uint32_t wake_conditions(void) const { return sim::hib().ctl & (WAKE_ON_PIN | WAKE_ON_RTC); }
};

// ---------------------------------------------------------------- deployed command mode

TEST_F(MenuTest, CommandModeRefusesWhatIsNoKeywordAndActsOnPrefixes) {
    sys_samp.state = DEPLOYED;
    // An empty line, the prompt's pump words and a disabled upload are all refused; "go" resumes.
    ASSERT_TRUE(command("\rpumpon\rpumpoff\rgdata\rgo away\r").returned);
    EXPECT_EQ(g_result, 1u);
    EXPECT_EQ(count("NAK\r\n"), 4u) << out();
    EXPECT_EQ(count("bottom of command loop"), 4u);
    EXPECT_EQ(out().find("Invalid command"), std::string::npos) << "only verbose output explains";
    EXPECT_EQ(out().find("Enter command"), std::string::npos) << "normal output has no prompt";

    // A line beginning with a keyword acts as that keyword.
    uint32_t before = sys_samp.current_sample;
    ASSERT_TRUE(command("tsunami\r").returned);
    EXPECT_EQ(g_result, 1u);
    EXPECT_EQ(sys_samp.current_sample, before + 1) << "ts takes a sample";
    ASSERT_TRUE(command("stopwatch\r").returned);
    EXPECT_EQ(g_result, 0u);
    EXPECT_EQ(sys_samp.state, IDLE);
    EXPECT_EQ(fram_state(), IDLE) << "the end of the deployment is stored at once";
}

TEST_F(MenuTest, CommandModeVerboseExplainsAndTimesOut) {
    sys_samp.state = DEPLOYED;
    sys_data.output = VERBOSE;
    ASSERT_TRUE(command("hello\r").returned);
    EXPECT_EQ(g_result, 1u);
    EXPECT_NE(out().find("\r\nEnter command (ts, ss, gh, gm, gc, gdata, pumpon, pumpoff, stop): "),
              std::string::npos);
    EXPECT_NE(out().find("\r\nInvalid commandNAK\r\n"), std::string::npos) << out();
    EXPECT_NE(out().find("\r\n\r\nNo command, resuming..."), std::string::npos);
    EXPECT_EQ(sys_samp.state, DEPLOYED);
}

// "ss" discards what was typed, takes its sample (about 2.4 s) and then waits for "sl".
TEST_F(MenuTest, SsWaitsForSlAndPrintsTheSample) {
    sys_samp.state = DEPLOYED;
    sys_samp.current_sample = 0;
    sys_data.data_cfg[CFG_SAMPLE_NUM] = 1;
    sim::test::type("ss\r");
    sim::test::type_after(4.0, "sl\r");
    ASSERT_TRUE(sim::test::run([] { g_result = exec_command(5); }).returned);
    sim::test::drain_console();
    EXPECT_EQ(g_result, 1u);
    EXPECT_NE(out().find("#0000000\r\n"), std::string::npos) << "the sample line: " << out();
    EXPECT_EQ(out().find("NAK"), std::string::npos);

    // Anything else is reported and the loop goes on with the next line.
    sim::test::clear_console_output();
    sim::test::type("ss\r");
    sim::test::type_after(4.0, "xx\rgo\r");
    ASSERT_TRUE(sim::test::run([] { g_result = exec_command(5); }).returned);
    sim::test::drain_console();
    EXPECT_EQ(g_result, 1u);
    EXPECT_NE(out().find("\r\nexpected sl, received xx"), std::string::npos) << out();

    // No answer: the deployment resumes.
    sim::test::clear_console_output();
    sys_data.output = VERBOSE;
    sim::test::type("ss\r");
    ASSERT_TRUE(sim::test::run([] { g_result = exec_command(5); }).returned);
    sim::test::drain_console();
    EXPECT_EQ(g_result, 1u);
    EXPECT_NE(out().find("\r\n\r\nNo command, resuming deployment..."), std::string::npos) << out();
}

// ---------------------------------------------------------------- entry routines

TEST_F(MenuTest, YesOrNoTakesTheFirstKeyOfTheLine) {
    struct Case {
        const char* typed;
        uint32_t dflt;
        uint32_t expected;
    };
    const Case cases[] = {{"y\r", 0, 1}, {"Yes\r", 0, 1}, {"n\r", 1, 0}, {"N\r", 1, 0},
                          {"x\r", 0, 0}, {"x\r", 1, 1},   {"\r", 1, 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.typed);
        sim::test::type(c.typed);
        g_default = c.dflt;
        ASSERT_TRUE(sim::test::run([] { g_result = yesOrNoMenuChoice("Go? ", g_default); }).returned);
        EXPECT_EQ(g_result, c.expected);
    }
}

TEST_F(MenuTest, DateAndTimeIsReadAsUtcSecondsAndBadEntriesGiveZero) {
    struct Case {
        const char* typed;
        uint32_t expected;
    };
    const Case cases[] = {
        {"01/02/26 03:04:05\r", T0 + 86400 + 3 * 3600 + 4 * 60 + 5},
        {"02/29/28 00:00:00\r", 1835395200}, // a leap day
        {"02/30/26 00:00:00\r", 0},          // no such day
        {"13/01/26 00:00:00\r", 0},
        {"01/01/26 24:00:00\r", 0},
        {"tomorrow\r", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.typed);
        sim::test::type(c.typed);
        ASSERT_TRUE(sim::test::run([] { g_result = getDateAndTime(); }).returned);
        EXPECT_EQ(g_result, c.expected);
    }
    // Nobody answers: nothing after the time limit.
    uint64_t start = sim::now_ns();
    ASSERT_TRUE(sim::test::run([] { g_result = getDateAndTime(); }).returned);
    EXPECT_EQ(g_result, 0u);
    EXPECT_GT(sim::now_ns() - start, 60 * sim::ns_per_s);
}

TEST_F(MenuTest, TimeLimitedInputAndPlainKeys) {
    char line[8];
    static char* g_line;
    g_line = line;
    sim::test::type("abcdefghij\r");
    ASSERT_TRUE(sim::test::run([] {
                    g_result = static_cast<uint32_t>(getUserInputTimeLimit(g_line, 8, 3));
                }).returned);
    EXPECT_EQ(g_result, 7u) << "the line is cut to the buffer";
    EXPECT_STREQ(line, "abcdefg");
    ASSERT_TRUE(sim::test::run([] {
                    g_result = static_cast<uint32_t>(getUserInputTimeLimit(g_line, 8, 3));
                }).returned);
    EXPECT_EQ(static_cast<int32_t>(g_result), -1);

    sim::test::type("q");
    ASSERT_TRUE(sim::test::run([] { g_result = get_key(); }).returned);
    EXPECT_EQ(g_result, uint32_t('q'));
}

// ---------------------------------------------------------------- main menu

TEST_F(MenuTest, MenuPrintsItsEntriesAndLeavesForTheCommandLine) {
    sim::test::type_after(0.5, "5\r");
    sim::test::type_after(1.0, "c\r");
    ASSERT_TRUE(menu("").returned);
    EXPECT_NE(out().find("\r\n\r\n\r\nMain Menu -- v5.0.3 HXC3 revA -- Will sleep in 30 seconds\r\n"
                         "1 -- Configure\r\n2 -- Test\r\n3 -- Sleep\r\n4 -- Deploy\r\n5 -- Files\r\n"
                         "6 -- Commandline\r\n7 -- VeskZone\r\nH -- Help\r\nEnter Selection: "),
              std::string::npos)
        << out();
    EXPECT_NE(out().find("\r\nMicroSD card not detected, file commands are not available\r\n"),
              std::string::npos);
    EXPECT_EQ(count("Main Menu --"), 2u) << "the menu comes back after a refused entry";
}

TEST_F(MenuTest, MenuDeadlineSleepsAnIdleBoard) {
    sys_samp.state = IDLE;
    uint64_t start = sim::now_ns();
    sim::test::Outcome o = menu("x"); // a stray byte without its Enter does not hold the menu
    EXPECT_FALSE(o.returned);
    EXPECT_EQ(o.event, sim::PowerEvent::hibernate);
    double waited = double(sim::now_ns() - start) / double(sim::ns_per_s);
    EXPECT_GE(waited, 29.0);
    EXPECT_LT(waited, 32.0);
    EXPECT_NE(out().find("\r\nexec_main_menu:***** SLEEP *****\r\n*"), std::string::npos) << out();
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN);
}

TEST_F(MenuTest, MenuDeadlineVerboseSleepMessage) {
    sys_samp.state = IDLE;
    sys_data.output = VERBOSE;
    sim::test::Outcome o = menu("");
    EXPECT_EQ(o.event, sim::PowerEvent::hibernate);
    EXPECT_NE(out().find("\r\n\r\nSleeping...*hit any key to wake\r\n\r\n\r\n"), std::string::npos) << out();
}

TEST_F(MenuTest, MenuDeadlineResumesADeployment) {
    sys_samp.state = DEPLOYED;
    sys_data.sampling_period = 600;
    sys_data.sample_aligned = 0;
    sys_samp.nextWakeUp = T0 + 300;
    sim::test::Outcome o = menu("");
    EXPECT_EQ(o.event, sim::PowerEvent::hibernate);
    EXPECT_NE(out().find("\r\nEMM: DEPLOYED, calling deploy(DEPLOYED)\r\n"), std::string::npos);
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN | WAKE_ON_RTC);
    EXPECT_EQ(sim::hib().match0, T0 + 300) << "the pending sample is kept";
    EXPECT_EQ(fram_state(), DEPLOYED);
}

// A controller that finds the menu open sends "U": the menu shows again in the same loop, and its
// deadline holds however many arrive, whether the menu was opened by four Enters or by "m" on the
// command line (both run the menu inside the receive machine).
TEST_F(MenuTest, ControllerKeysNeverNestTheMenuOrHoldItOpen) {
    for (const char* opener : {"\r\r\r\rx", "m\r"}) {
        SCOPED_TRACE(opener[0] == 'm' ? "m" : "four Enters");
        sim::test::reset_board(T0);
        ASSERT_TRUE(sim::test::run([] {
                        init();
                        wakeSource = wake_handler();
                        sys_data.debug_flag = 1;
                        dbg_flag = 1; // main() copies it at start-up; an earlier test may have cleared it
                        sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
                        sys_samp.state = IDLE;
                    }).returned);
        sim::test::drain_console();
        sim::test::clear_console_output();
        sim::test::type_after(0.5, opener);
        for (int i = 0; i < 7; i++) { // the typing model keeps eight pauses
            sim::test::type_after(2.0 + 3.0 * i, "U");
        }
        uint64_t start = sim::now_ns();
        sim::test::Outcome o = sim::test::run([] {
            m2m_statemachine_init();
            apf_set_m2m_timeout();
            exec_main_loop(100);
        });
        sim::test::drain_console();
        EXPECT_EQ(o.event, sim::PowerEvent::hibernate);
        double awake = double(sim::now_ns() - start) / double(sim::ns_per_s);
        EXPECT_LT(awake, 33.0) << "the 30-second deadline holds";
        EXPECT_EQ(count("Main Menu --"), 8u) << "each U shows the menu again";
        EXPECT_EQ(count("exec_main_menu:***** SLEEP *****"), 1u) << "one menu, not nested ones";
        EXPECT_NE(out().find("Will sleep in 2"), std::string::npos) << "the time left is shown";
    }
}

// ---------------------------------------------------------------- deployment start

class DeployStartTest : public MenuTest {
  protected:
    std::string image;

    void SetUp() override {
        MenuTest::SetUp();
        image = test_board::make_card_image("deploy");
        ASSERT_FALSE(image.empty());
        sim::sd_set_image(image);
        ASSERT_TRUE(sim::test::run([] {
                        init_uSDCard();
                        microSD_flg = 1;
                        sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 1;
                        memset(sys_data.fileName, 0, sizeof sys_data.fileName);
                        memcpy(sys_data.fileName, "DEPLOY.TXT", 10);
                        sys_data.sampling_period = 900;
                        sys_data.sample_aligned = 0;
                        sys_data.pump1_ontime = 0;
                        sys_samp.current_sample = 17;
                    }).returned);
        sim::test::clear_console_output();
    }
    void TearDown() override {
        f_unmount("");
        sim::sd_set_image("");
        unlink(image.c_str());
    }
    std::string card_file(const char* name) const {
        return run_shell("MTOOLS_SKIP_CHECK=1 mtype -i " + image + " ::" + name + " 2>&1");
    }
};

TEST_F(DeployStartTest, DeploysFromTheMenuAndSleepsTwoSeconds) {
    sim::test::Outcome o = menu("4\rfirst dive\r");
    EXPECT_EQ(o.event, sim::PowerEvent::hibernate);
    uint32_t now = sim::hib().rtc_seconds;
    EXPECT_EQ(sim::hib().match0, sys_data.deploy_time + 1) << "the first sample two seconds after the start";
    EXPECT_LE(sim::hib().match0, now + 2);
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN | WAKE_ON_RTC);
    EXPECT_EQ(fram_state(), DEPLOYED);
    EXPECT_EQ(sys_samp.current_sample, 0u);
    EXPECT_NE(
        out().find("\r\n\r\nStarting deployment...       Hit a key, then type 'stop' to end deployment.\r\n"),
        std::string::npos)
        << out();
    EXPECT_EQ(out().find("Ctrl-X"), std::string::npos) << "no pump, no pump message";
    EXPECT_STREQ(reinterpret_cast<const char*>(sys_data.deploy_note), "first dive");
    std::string file = card_file("DEPLOY.TXT");
    EXPECT_NE(file.find("first dive"), std::string::npos) << file;
    EXPECT_NE(file.find("//--****"), std::string::npos) << "the metadata header";
}

TEST_F(DeployStartTest, PolledModeWritesTheFilesAndSleepsIdle) {
    sys_data.sampling_period = 0;
    sim::test::Outcome o = menu("4\r\r");
    EXPECT_EQ(o.event, sim::PowerEvent::hibernate);
    EXPECT_NE(out().find("\r\n\r\nDeployed in polled mode, space to wake, then ts ...\r\n\r\n"),
              std::string::npos);
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN) << "a polled deployment wakes only on a key";
    EXPECT_EQ(fram_state(), IDLE);
    EXPECT_NE(card_file("DEPLOY.TXT").find("//--****"), std::string::npos);
}

TEST_F(DeployStartTest, AFileErrorAbortsTheDeployment) {
    sim::test::set_scenario("card", "protected");
    ASSERT_TRUE(sim::test::run([] { init_uSDCard(); }).returned);
    sim::test::Outcome o = menu("4\r\r");
    EXPECT_EQ(o.event, sim::PowerEvent::hibernate);
    EXPECT_NE(
        out().find(
            "\r\n\r\nFile system error, check SD Card, Aborting deployment, sleeping in IDLE state\r\n"),
        std::string::npos)
        << out();
    EXPECT_EQ(fram_state(), IDLE);
    EXPECT_EQ(wake_conditions(), WAKE_ON_PIN);
}

TEST_F(DeployStartTest, PumpDialogueTakesADelayInMinutes) {
    sys_data.pump1_ontime = 10;
    // Test mode yes, delayed start yes, in minutes, 15 minutes, then the note.
    sim::test::Outcome o = menu("4\ry\ry\ry\r15\rpumped\r");
    EXPECT_EQ(o.event, sim::PowerEvent::hibernate);
    EXPECT_NE(out().find("SBE pump will run and must be immersed at start time!"), std::string::npos);
    EXPECT_NE(out().find("\r\nPump test mode active\r\n"), std::string::npos);
    EXPECT_NE(out().find("\r\nPump start delay is 15 minutes, pump starts at "), std::string::npos) << out();
    EXPECT_NE(out().find("  Ctrl-X <Enter> to terminate pump cycle"), std::string::npos);
    EXPECT_EQ(sys_data.test_mode, 1u);
    EXPECT_EQ(sys_samp.start_pump_cntdown, 900u);
    // The delay counts from when it was typed, a little after the start.
    EXPECT_GE(sys_data.start_pump_time, sys_data.deploy_time - 1 + 900);
    EXPECT_LT(sys_data.start_pump_time, sys_data.deploy_time - 1 + 900 + 60);
}

// Started at 00:07, an aligned 15-minute deployment samples two seconds after the start and then
// on the quarter hours, not 15 minutes after the start.
class AlignedDeployTest : public DeployStartTest {
  protected:
    uint32_t start_rtc(void) const override { return T0 + 420; }
};

TEST_F(AlignedDeployTest, WakesFallOnTheQuarterHours) {
    // A whole sample (a few seconds): a wake that ended within its own second would have "now" on the
    // grid and be taken again two seconds later.
    ASSERT_TRUE(sim::test::run(config_data_fields_all).returned);
    sys_data.sample_aligned = 1;
    sys_data.sampling_period = 900;
    ASSERT_EQ(menu("4\r\r").event, sim::PowerEvent::hibernate);
    EXPECT_EQ(sim::hib().match0, T0 + 422);
    const uint32_t grid[] = {T0 + 900, T0 + 1800, T0 + 2700};
    for (uint32_t expected : grid) {
        sim::test::power_on(sim::WakeSource::rtc);
        sim::test::Outcome o = sim::test::run([] { hxc3_main(); });
        EXPECT_EQ(o.event, sim::PowerEvent::hibernate);
        EXPECT_EQ(sim::hib().match0, expected);
    }
    EXPECT_EQ(fram_state(), DEPLOYED);
}

} // namespace
