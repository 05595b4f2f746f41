// The error log's behaviour without a usable card: it says so, and tries and reports every step.
#include <gtest/gtest.h>

#include <string>

#include "board/i2c0.h"
#include "board/pinmux.h"
#include "driverlib/interrupt.h"
#include "driverlib/systick.h"
#include "records/system.h"
#include "storage/error_log.h"
#include "storage/fatfs/ff.h"
#include "sim_test.h"

namespace {

void start_board(void) {
    init_TM4C123GH6PM_64pin();
    SysTickPeriodSet(50000000 / 1000);
    SysTickIntEnable();
    SysTickEnable();
    IntMasterEnable();
    i2c0_init(0); // the appends keep what they remember in the FRAM
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) {
        n++;
    }
    return n;
}

class ErrorLogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        f_unmount(""); // whatever an earlier test mounted is gone with the board it ran on
        ASSERT_TRUE(sim::test::run(start_board).returned);
    }
};

TEST_F(ErrorLogTest, ErrorStoreWithTheCardDisabledOnlySaysSo) {
    sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
    sim::test::clear_console_output();
    ASSERT_TRUE(sim::test::run([] { error_store("boom\r\n"); }).returned);
    sim::test::drain_console();
    EXPECT_EQ(sim::test::console_output(), "error_stor() not supported with microSD_flg=0 disabled\r\n");
}

// Without a mounted volume every step fails; each one is still attempted and reported.
TEST_F(ErrorLogTest, ErrorStoreReportsEveryFailedStepOnItsOwn) {
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
