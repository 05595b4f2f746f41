// The PCAL6416 driver against the expander model: init switches everything off without a glitch,
// single outputs change alone, inputs read their pins, and bad pins or a missing part are refused.
#include <gtest/gtest.h>

#include <string>

#include "board/i2c0.h"
#include "board/pcal6416.h"
#include "devices.h"
#include "ports/uartstdio.h"
#include "sim_test.h"

namespace {

using sim::dev::pcal6416_pin_levels;

class Pcal6416 : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        UARTStdioConfig(0, 115200, 16000000);
        i2c0_init(0);
        sim::test::clear_console_output();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
};

TEST_F(Pcal6416, InitTurnsTheSwitchedLinesOff) {
    EXPECT_EQ(pcal6416_pin_levels(), 0xFFFF); // all inputs, pulled up, after power-up
    ASSERT_EQ(pcal6416_init(), 0);
    EXPECT_EQ(pcal6416_pin_levels(), 0xFF00);
    for (uint32_t pin = 0; pin < PCAL6416_PINS; pin++) {
        EXPECT_EQ(pcal6416_read_pin(pin), pin < 8 ? 0 : 1) << pin;
    }
    EXPECT_EQ(out(), "");
}

TEST_F(Pcal6416, OutputsChangeOneAtATime) {
    ASSERT_EQ(pcal6416_init(), 0);
    EXPECT_EQ(pcal6416_write_pin(PCAL6416_PUMP1, 1), 0);
    EXPECT_EQ(pcal6416_write_pin(PCAL6416_PWR_ENV_MON, 1), 0);
    EXPECT_EQ(pcal6416_write_pin(PCAL6416_PWR_LAMP, 5), 0); // any non-zero level is high
    EXPECT_EQ(pcal6416_pin_levels(), 0xFF91);
    EXPECT_EQ(pcal6416_read_pin(PCAL6416_PWR_ENV_MON), 1);

    EXPECT_EQ(pcal6416_write_pin(PCAL6416_PUMP1, 0), 0);
    EXPECT_EQ(pcal6416_write_pin(PCAL6416_PUMP1, 0), 0);
    EXPECT_EQ(pcal6416_pin_levels(), 0xFF90);
    EXPECT_EQ(pcal6416_read_pin(PCAL6416_PUMP1), 0);

    // Port 1 is inputs and pins end at 15.
    EXPECT_EQ(pcal6416_write_pin(8, 0), -1);
    EXPECT_EQ(pcal6416_write_pin(16, 1), -1);
    EXPECT_EQ(pcal6416_read_pin(16), -1);
    EXPECT_EQ(pcal6416_pin_levels(), 0xFF90);
}

TEST_F(Pcal6416, MissingPartIsReported) {
    sim::test::set_scenario("board.pcal6416", "0");
    EXPECT_EQ(pcal6416_init(), 1);
    EXPECT_EQ(out(), "\r\nERROR: PCAL6416 does not answer at I2C address 0x20\r\n");
    EXPECT_EQ(pcal6416_write_pin(PCAL6416_PUMP1, 1), -1);
    EXPECT_EQ(pcal6416_read_pin(0), -1);
}

} // namespace
