// Pin multiplexing: the locked NMI pins (PD7, PF0) must take their functions like the others.
#include <gtest/gtest.h>

#include "board/pinmux.h"
#include "devices.h"
#include "sim_test.h"

namespace {

constexpr int port_a = 0, port_b = 1, port_c = 2, port_d = 3, port_e = 4, port_f = 5;

TEST(PinmuxTest, EveryPinTakesItsFunctionIncludingTheLockedOnes) {
    sim::test::reset_board();
    ASSERT_TRUE(sim::test::run(init_TM4C123GH6PM_64pin).returned);

    EXPECT_TRUE(sim::dev::gpio_driven_low(port_f, 0x0F)) << "watchdog enable, feed and both LEDs";
    EXPECT_TRUE(sim::dev::gpio_alternate(port_d, 0xC0)) << "UART2 on PD6/PD7";
    EXPECT_TRUE(sim::dev::gpio_alternate(port_a, 0x3F)) << "console and SD card SSI";
    EXPECT_TRUE(sim::dev::gpio_alternate(port_b, 0xFC)) << "I2C0 and the flash SSI";
    EXPECT_TRUE(sim::dev::gpio_alternate(port_c, 0xF0)) << "ports 3 and 4";
    EXPECT_FALSE(sim::dev::gpio_alternate(port_c, 0x0F)) << "JTAG pins are left alone";
    EXPECT_TRUE(sim::dev::gpio_alternate(port_d, 0x30)) << "UART6";
    EXPECT_TRUE(sim::dev::gpio_driven_low(port_d, 0x0B)) << "ADC clock, select, transmit idle low";
    EXPECT_FALSE(sim::dev::gpio_alternate(port_e, 0x30)) << "PE4/PE5 stay the flash's lines, not UART5";
    EXPECT_TRUE(sim::dev::gpio_driven_low(port_e, 0x20)) << "flash supply off";
    EXPECT_EQ(sim::dev::gpio_pad_levels(port_e) & 0x10, 0x10) << "flash chip 1 not selected";
    EXPECT_TRUE(sim::dev::gpio_driven_low(port_e, 0x01)) << "isolated supply off";
}

} // namespace
