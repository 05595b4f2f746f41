// The simulated GPIO ports: pin-mask semantics of reads and writes, pads seen from outside, edge
// interrupts, and the external watchdog on PF0 (enable) and PF1 (feed).
#include "sim_test.h"

#include "driverlib/gpio.h"
#include "inc/hw_memmap.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t watchdog_ns = 60 * sim::ns_per_s;

class GpioTest : public ::testing::Test {
  protected:
    void SetUp() override { sim::test::reset_board(); }
};

TEST_F(GpioTest, WriteTouchesOnlyMaskedPinsAndReadReturnsThemInPlace) {
    GPIOPinTypeGPIOOutput(GPIO_PORTF_BASE, GPIO_PIN_1 | GPIO_PIN_2 | GPIO_PIN_3);
    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_2 | GPIO_PIN_3, 0xff);
    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_3, 0x00);

    EXPECT_EQ(GPIOPinRead(GPIO_PORTF_BASE, GPIO_PIN_2), GPIO_PIN_2);
    EXPECT_EQ(GPIOPinRead(GPIO_PORTF_BASE, 0xff), GPIO_PIN_2);
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTF_BASE, GPIO_PIN_2));  // red LED lit
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTF_BASE, GPIO_PIN_3)); // green LED dark
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTF_BASE, GPIO_PIN_1));
}

TEST_F(GpioTest, InputsFollowPullsAndOutsideDrivers) {
    GPIOPinTypeGPIOInput(GPIO_PORTA_BASE, GPIO_PIN_4 | GPIO_PIN_5);
    GPIOPadConfigSet(GPIO_PORTA_BASE, GPIO_PIN_4, GPIO_STRENGTH_2MA, GPIO_PIN_TYPE_STD_WPU);
    EXPECT_EQ(GPIOPinRead(GPIO_PORTA_BASE, GPIO_PIN_4 | GPIO_PIN_5), GPIO_PIN_4);

    // Writing the latch of an input changes nothing on the pad.
    GPIOPinWrite(GPIO_PORTA_BASE, GPIO_PIN_5, GPIO_PIN_5);
    EXPECT_EQ(GPIOPinRead(GPIO_PORTA_BASE, GPIO_PIN_5), 0);

    // An unconfigured pad has its digital function off and reads 0.
    EXPECT_EQ(GPIOPinRead(GPIO_PORTC_BASE, 0xff), 0);
}

TEST_F(GpioTest, PinsHandedToAPeripheralStopFollowingTheLatch) {
    GPIOPinTypeGPIOOutput(GPIO_PORTB_BASE, GPIO_PIN_4);
    GPIOPinWrite(GPIO_PORTB_BASE, GPIO_PIN_4, GPIO_PIN_4);
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTB_BASE, GPIO_PIN_4));
    GPIOPinTypeSSI(GPIO_PORTB_BASE, GPIO_PIN_4);
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTB_BASE, GPIO_PIN_4));
    EXPECT_EQ(GPIODirModeGet(GPIO_PORTB_BASE, GPIO_PIN_4), static_cast<uint32_t>(GPIO_DIR_MODE_HW));
}

TEST_F(GpioTest, AnOutputWriteIsSeenByAnEdgeInterruptOnlyWhenArmed) {
    // PB0 has nothing outside driving it (PE1, used before, carries the ADC's data-ready line).
    GPIOPinTypeGPIOOutput(GPIO_PORTB_BASE, GPIO_PIN_0);
    GPIOIntTypeSet(GPIO_PORTB_BASE, GPIO_PIN_0, GPIO_FALLING_EDGE);
    GPIOPinWrite(GPIO_PORTB_BASE, GPIO_PIN_0, GPIO_PIN_0);
    EXPECT_EQ(GPIOIntStatus(GPIO_PORTB_BASE, false), 0u); // a rising edge
    GPIOPinWrite(GPIO_PORTB_BASE, GPIO_PIN_0, 0);
    EXPECT_EQ(GPIOIntStatus(GPIO_PORTB_BASE, false), static_cast<uint32_t>(GPIO_INT_PIN_0));
    EXPECT_EQ(GPIOIntStatus(GPIO_PORTB_BASE, true), 0u); // not enabled
    GPIOIntEnable(GPIO_PORTB_BASE, GPIO_INT_PIN_0);
    EXPECT_EQ(GPIOIntStatus(GPIO_PORTB_BASE, true), static_cast<uint32_t>(GPIO_INT_PIN_0));
    GPIOIntClear(GPIO_PORTB_BASE, GPIO_INT_PIN_0);
    EXPECT_EQ(GPIOIntStatus(GPIO_PORTB_BASE, false), 0u);
}

// wdog_init's sequence: enable low, then high (arming starts the 60 s); the feed line idles low.
void arm_watchdog() {
    GPIOUnlockPin(GPIO_PORTF_BASE, GPIO_PIN_0); // PF0 comes out of reset locked
    GPIOPinTypeGPIOOutput(GPIO_PORTF_BASE, GPIO_PIN_0 | GPIO_PIN_1);
    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_0 | GPIO_PIN_1, 0);
    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_0, GPIO_PIN_0);
}

void feed_pulse() {
    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_1, GPIO_PIN_1);
    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_1, 0);
}

TEST_F(GpioTest, WatchdogIsDisarmedUntilItsEnableLineGoesHigh) {
    EXPECT_EQ(sim::watchdog_deadline_ns(), UINT64_MAX);
    feed_pulse(); // feeding a disarmed watchdog does not arm it
    EXPECT_EQ(sim::watchdog_deadline_ns(), UINT64_MAX);

    arm_watchdog();
    uint64_t armed_at = sim::now_ns();
    EXPECT_NEAR(static_cast<double>(sim::watchdog_deadline_ns()), static_cast<double>(armed_at + watchdog_ns),
                1000.0);

    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_0, 0);
    EXPECT_EQ(sim::watchdog_deadline_ns(), UINT64_MAX);
}

TEST_F(GpioTest, OnlyARisingEdgeOnTheFeedLineFeeds) {
    arm_watchdog();
    sim::test::advance_s(30);
    feed_pulse();
    uint64_t fed_at = sim::now_ns();
    EXPECT_NEAR(static_cast<double>(sim::watchdog_deadline_ns()), static_cast<double>(fed_at + watchdog_ns),
                1000.0);

    // Held high, the line feeds once; staying high is no feed.
    sim::test::advance_s(10);
    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_1, GPIO_PIN_1);
    uint64_t high_at = sim::now_ns();
    sim::test::advance_s(10);
    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_1, GPIO_PIN_1);
    EXPECT_NEAR(static_cast<double>(sim::watchdog_deadline_ns()), static_cast<double>(high_at + watchdog_ns),
                1000.0);

    // Re-arming restarts the time-out, as wdog_init does at every start.
    sim::test::advance_s(5);
    arm_watchdog();
    EXPECT_NEAR(static_cast<double>(sim::watchdog_deadline_ns()),
                static_cast<double>(sim::now_ns() + watchdog_ns), 1000.0);
}

TEST_F(GpioTest, AStarvedWatchdogResetsTheBoardAndAPowerOnDisarmsIt) {
    arm_watchdog();
    sim::test::advance_s(59);
    feed_pulse();
    sim::test::Outcome o = sim::test::advance_s(59.5);
    EXPECT_TRUE(o.returned);
    o = sim::test::advance_s(1);
    EXPECT_FALSE(o.returned);
    EXPECT_EQ(o.event, sim::PowerEvent::watchdog);

    sim::test::power_on(sim::WakeSource::watchdog);
    EXPECT_EQ(sim::watchdog_deadline_ns(), UINT64_MAX);
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTF_BASE, GPIO_PIN_2));
}

} // namespace

TEST_F(GpioTest, LockedPinsIgnoreTheirConfigurationUntilUnlocked) {
    GPIOPinTypeGPIOOutput(GPIO_PORTF_BASE, GPIO_PIN_0);
    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_0, GPIO_PIN_0);
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTF_BASE, GPIO_PIN_0));
    EXPECT_EQ(sim::watchdog_deadline_ns(), UINT64_MAX);

    GPIOUnlockPin(GPIO_PORTF_BASE, GPIO_PIN_0);
    GPIOPinTypeGPIOOutput(GPIO_PORTF_BASE, GPIO_PIN_0);
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTF_BASE, GPIO_PIN_0));
}
