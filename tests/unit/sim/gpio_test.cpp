// The simulated GPIO ports: pin-mask semantics of reads and writes, pads seen from outside, edge
// interrupts, and the external watchdog on PF0 (enable) and PF1 (feed); through the TivaWare calls
// and through the registers the emulated processor reads and writes.
#include "registers.h"
#include "runtime.h"
#include "sim_test.h"

#include "driverlib/gpio.h"
#include "driverlib/sysctl.h"
#include "inc/hw_gpio.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t watchdog_ns = 60 * sim::ns_per_s;

// The ports' clocks on, as the firmware's pin set-up does first.
void enable_ports() {
    for (uint32_t i = 0; i < 6; ++i) {
        SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOA + i);
    }
}

class GpioTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        enable_ports();
    }
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

TEST_F(GpioTest, LockedPinsIgnoreTheirConfigurationUntilUnlocked) {
    GPIOPinTypeGPIOOutput(GPIO_PORTF_BASE, GPIO_PIN_0);
    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_0, GPIO_PIN_0);
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTF_BASE, GPIO_PIN_0));
    EXPECT_EQ(sim::watchdog_deadline_ns(), UINT64_MAX);

    GPIOUnlockPin(GPIO_PORTF_BASE, GPIO_PIN_0);
    GPIOPinTypeGPIOOutput(GPIO_PORTF_BASE, GPIO_PIN_0);
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTF_BASE, GPIO_PIN_0));
}

// ---------------------------------------------------------------- register door

constexpr int port_b = 1;
constexpr int port_d = 3;
constexpr int port_f = 5;

uint32_t reg(int port, uint32_t offset) {
    return sim::dev::gpio_reg_read(port, offset);
}

void set_reg(int port, uint32_t offset, uint32_t value) {
    sim::dev::gpio_reg_write(port, offset, value);
}

// The data register's address for the pins of a mask.
uint32_t data(uint8_t pins) {
    return GPIO_O_DATA + (static_cast<uint32_t>(pins) << 2);
}

TEST_F(GpioTest, RegisterDataWindowTouchesOnlyTheAddressedPinsAndTakesNoTime) {
    set_reg(port_f, GPIO_O_DIR, 0x0E);
    set_reg(port_f, GPIO_O_DEN, 0x0E);
    uint64_t t0 = sim::now_ns();
    set_reg(port_f, data(GPIO_PIN_2 | GPIO_PIN_3), 0xFF);
    set_reg(port_f, data(GPIO_PIN_1 | GPIO_PIN_3), GPIO_PIN_1); // PF3 off again, PF1 on, PF2 kept
    set_reg(port_f, data(0), 0x00);                             // no pin addressed: no change

    EXPECT_TRUE(sim::gpio_level(GPIO_PORTF_BASE, GPIO_PIN_1 | GPIO_PIN_2));
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTF_BASE, GPIO_PIN_3));
    EXPECT_EQ(reg(port_f, data(0xFF)), 0x06u);
    EXPECT_EQ(reg(port_f, data(GPIO_PIN_2)), 0x04u) << "read in place, other pins masked off";
    EXPECT_EQ(reg(port_f, data(GPIO_PIN_3)), 0x00u);
    EXPECT_EQ(sim::now_ns(), t0) << "the processor's cycles move time, not the register door";
    EXPECT_EQ(GPIOPinRead(GPIO_PORTF_BASE, 0xFF), 0x06) << "both doors reach one model";

    // One drive strength per pin: choosing 8 mA drops the 2 mA the pins come out of reset with.
    EXPECT_EQ(reg(port_f, GPIO_O_DR2R), 0xFFu);
    set_reg(port_f, GPIO_O_DR8R, GPIO_PIN_1);
    EXPECT_EQ(reg(port_f, GPIO_O_DR2R), 0xFDu);
    EXPECT_EQ(reg(port_f, GPIO_O_DR8R), 0x02u);
}

TEST_F(GpioTest, RegisterLockGuardsTheCommitOfPF0AndPD7) {
    EXPECT_EQ(reg(port_f, GPIO_O_LOCK), GPIO_LOCK_LOCKED);
    EXPECT_EQ(reg(port_f, GPIO_O_CR), 0xFEu);
    EXPECT_EQ(reg(port_d, GPIO_O_CR), 0x7Fu);

    // wdog_init's lines driven high while PF0 is still locked: its digital enable does not take.
    set_reg(port_f, GPIO_O_DIR, 0x03);
    set_reg(port_f, GPIO_O_DEN, 0x03);
    set_reg(port_f, data(0x03), 0x01);
    EXPECT_EQ(reg(port_f, GPIO_O_DEN), 0x02u);
    EXPECT_EQ(sim::watchdog_deadline_ns(), UINT64_MAX);

    set_reg(port_f, GPIO_O_CR, 0xFF);
    EXPECT_EQ(reg(port_f, GPIO_O_CR), 0xFEu) << "the commit register ignores writes while locked";
    set_reg(port_f, GPIO_O_LOCK, GPIO_LOCK_KEY);
    EXPECT_EQ(reg(port_f, GPIO_O_LOCK), GPIO_LOCK_UNLOCKED);
    set_reg(port_f, GPIO_O_CR, 0x01);
    EXPECT_EQ(reg(port_f, GPIO_O_CR), 0xFFu) << "the unprotected pins stay committed";
    set_reg(port_f, GPIO_O_LOCK, 0);
    EXPECT_EQ(reg(port_f, GPIO_O_LOCK), GPIO_LOCK_LOCKED);

    set_reg(port_f, GPIO_O_DEN, 0x03);
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTF_BASE, GPIO_PIN_0));
    EXPECT_EQ(sim::watchdog_deadline_ns(), sim::now_ns() + watchdog_ns) << "PF0 rising arms the watchdog";

    // Taking the commit back freezes PF0 as it is.
    set_reg(port_f, GPIO_O_LOCK, GPIO_LOCK_KEY);
    set_reg(port_f, GPIO_O_CR, 0x00);
    set_reg(port_f, GPIO_O_LOCK, 0);
    set_reg(port_f, GPIO_O_DEN, 0x00);
    EXPECT_EQ(reg(port_f, GPIO_O_DEN), 0x01u);
}

TEST_F(GpioTest, RegisterInterruptsLatchEdgesAndFollowLevels) {
    set_reg(port_b, GPIO_O_DIR, 0x03);
    set_reg(port_b, GPIO_O_DEN, 0x03);
    set_reg(port_b, GPIO_O_IS, GPIO_PIN_1);  // PB1 level-sensitive, PB0 edge
    set_reg(port_b, GPIO_O_IEV, GPIO_PIN_1); // PB1 when high, PB0 on a falling edge
    set_reg(port_b, data(0x03), GPIO_PIN_0);
    EXPECT_EQ(reg(port_b, GPIO_O_RIS), 0u) << "a rising edge and a low level";

    set_reg(port_b, data(GPIO_PIN_0), 0);
    set_reg(port_b, data(GPIO_PIN_1), GPIO_PIN_1);
    EXPECT_EQ(reg(port_b, GPIO_O_RIS), 0x03u);
    EXPECT_EQ(reg(port_b, GPIO_O_MIS), 0u);
    EXPECT_FALSE(sim::core().pending.test(INT_GPIOB));
    set_reg(port_b, GPIO_O_IM, 0x03);
    EXPECT_EQ(reg(port_b, GPIO_O_MIS), 0x03u);
    EXPECT_TRUE(sim::core().pending.test(INT_GPIOB));

    set_reg(port_b, GPIO_O_ICR, 0x03);
    EXPECT_EQ(reg(port_b, GPIO_O_RIS), GPIO_PIN_1) << "a level source stays while its level lasts";
    set_reg(port_b, data(GPIO_PIN_1), 0);
    EXPECT_EQ(reg(port_b, GPIO_O_RIS), 0u);
    EXPECT_FALSE(sim::core().pending.test(INT_GPIOB));
}

// ---------------------------------------------------------------- clock gating

void write_port_a() {
    GPIOPinWrite(GPIO_PORTA_BASE, GPIO_PIN_0, GPIO_PIN_0);
}

void write_port_a_after_enabling() {
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOA);
    write_port_a();
}

TEST(GpioClockTest, ACallOnAPortWhoseClockIsOffIsABusFault) {
    sim::test::reset_board();
    sim::register_vector(FAULT_HARD, nullptr); // no firmware handler: the fault resets the chip
    sim::test::Outcome o = sim::test::run(write_port_a);
    EXPECT_FALSE(o.returned);
    EXPECT_EQ(o.event, sim::PowerEvent::reset);
    EXPECT_TRUE(sim::test::run(write_port_a_after_enabling).returned);
}

} // namespace
