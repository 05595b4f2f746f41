// Watchdog feeding statistics and lines, the external watchdog seen from the board, and the LEDs.
#include <gtest/gtest.h>

#include <string>

#include "board/pinmux.h"
#include "board/board_util.h"
#include "board/timebase.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "inc/hw_memmap.h"
#include "sim_test.h"

namespace {

constexpr uint8_t PF0 = 0x01, PF1 = 0x02, PF2 = 0x04, PF3 = 0x08;

void bring_up(void) {
    init_TM4C123GH6PM_64pin();
    SysTickPeriodSet(50000000 / 1000);
    SysTickIntEnable();
    SysTickEnable();
    IntMasterEnable();
}

class BoardUtilTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(bring_up).returned);
        watchDog = wdogData{};
        Timer_1ms(1);
    }
};

TEST_F(BoardUtilTest, FeedStatisticsKeepTheLongestGap) {
    wdog_init();
    sim::test::advance_s(0.1);
    wdog_pet();
    sim::test::advance_s(0.4);
    wdog_pet();
    sim::test::advance_s(0.25);
    wdog_pet();
    sim::test::advance_s(0.25);
    wdog_pet();

    EXPECT_NEAR(watchDog.tickLongest, 400u, 1u);
    EXPECT_EQ(watchDog.tickDelta, Timer_1ms(0));
    EXPECT_NEAR(watchDog.tickTot, 1000u, 1u);
    EXPECT_EQ(watchDog.bitten, 0u);
}

TEST_F(BoardUtilTest, InitEnablesTheWatchdogAndFeedPulsesEndLow) {
    wdog_init();
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTF_BASE, PF0));
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTF_BASE, PF1));
    wdog_pet();
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTF_BASE, PF1));
}

// Long waits are safe because every delay feeds; a busy loop that does not feed is reset.
TEST_F(BoardUtilTest, ExternalWatchdogResetsOnlyAStarvedBoard) {
    auto fed = sim::test::run([] {
        wdog_init();
        delay_sec(70);
    });
    EXPECT_TRUE(fed.returned);

    auto starved = sim::test::run([] {
        wdog_init();
        for (int i = 0; i < 90; i++) {
            SysCtlDelay(16666667); // one second, no feed
        }
    });
    EXPECT_FALSE(starved.returned);
    EXPECT_EQ(starved.event, sim::PowerEvent::watchdog);
}

TEST_F(BoardUtilTest, LedsFollowTheirStoredState) {
    led_init();
    EXPECT_EQ(ledRedState, 0u);
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTF_BASE, PF2));

    led_red_on();
    EXPECT_EQ(ledRedState, 1u);
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTF_BASE, PF2));
    led_red_toggle();
    EXPECT_EQ(ledRedState, 0u);
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTF_BASE, PF2));
    led_red_toggle();
    EXPECT_EQ(ledRedState, 1u);

    led_green(1);
    EXPECT_EQ(ledGreenState, 1u);
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTF_BASE, PF3));
    led_green_toggle();
    EXPECT_EQ(ledGreenState, 0u);
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTF_BASE, PF3));
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTF_BASE, PF2)) << "the green LED must not touch the red one";
}

// Operators and logs recognise these lines by their exact text; the silent switches print nothing.
TEST_F(BoardUtilTest, SwitchesThisBoardLacksAnnounceThemselvesVerbatim) {
    struct {
        void (*routine)(void);
        const char* text;
    } cases[] = {
        {pwr_iso_on, "\r\npwr_iso_on is not ported on HXC3, board_util, line 190\r\n"},
        {pwr_iso_off, "\r\npwr_iso_off is not ported on HXC3, board_util, line 201\r\n"},
        {pwr_flash_on, "pwr_flash_on needs imp board_util\r\n"},
        {pwr_flash_off, "pwr_flash_off needs imp board_util\r\n"},
        {pwr_uSD_off, "pwr_uSD_on needs imp board_util\r\n"},
        {pump_on, "pump_on is PCAL6416 on HXC3 baseboard, not supported yet board_util line 339\r\n"},
        {pump_off, "pump_off is PCAL6416 on HXC3 baseboard, not supported yet board_util line 357\r\n"},
        {console_on, "\r\nconsole enable is not ported on HXC3, board_util, line 118\r\n"},
        {read_wdog_flipflop, "Not implemented yet\r\n"},
        {pwr_uSD_on, ""},
        {console_off, ""},
        {solenoid_hit, ""},
        {pwr_ctd_on, ""},
    };
    for (auto c : cases) {
        SCOPED_TRACE(c.text);
        sim::test::drain_console();
        sim::test::clear_console_output();
        ASSERT_TRUE(sim::test::run(c.routine).returned);
        sim::test::drain_console();
        EXPECT_EQ(sim::test::console_output(), std::string(c.text));
    }
}

} // namespace
