// The INA260 driver against the supply monitor model: battery volts and load current in the part's
// 1.25 mV and 1.25 mA steps (current signed), and a missing part.
#include <gtest/gtest.h>

#include <string>

#include "board/i2c0.h"
#include "board/ina260.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "storage/i2c_fram.h"

namespace {

class Ina260 : public ::testing::Test {
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

TEST_F(Ina260, ReadsBatteryVoltsAndLoadCurrent) {
    float v = 0, a = 0;
    // No set-up needed: the part converts from power-up.
    ASSERT_EQ(ina260_system_voltageCurrent(&v, &a), 0);
    EXPECT_NEAR(v, 12.0, 0.00125);
    EXPECT_NEAR(a, 0.05, 0.00125);

    ASSERT_EQ(ina260_init(), 0);
    struct Case {
        const char* volts;
        const char* amps;
    };
    for (Case c : {Case{"14.7253", "0.1234"}, Case{"3.3", "-0.2"}, Case{"0", "0"}, Case{"35.9", "1.5"}}) {
        sim::test::set_scenario("board.vbat", c.volts);
        sim::test::set_scenario("board.amps", c.amps);
        ASSERT_EQ(ina260_system_voltageCurrent(&v, &a), 0);
        EXPECT_NEAR(v, std::stod(c.volts), 0.00125) << c.volts;
        EXPECT_NEAR(a, std::stod(c.amps), 0.00125) << c.amps;
    }
    EXPECT_EQ(out(), "");
}

TEST_F(Ina260, MissingPartGivesZerosAndAMessage) {
    sim::test::set_scenario("board.ina260", "0");
    EXPECT_EQ(ina260_init(), 1);
    EXPECT_EQ(out(), "\r\nERROR: INA260 not found at I2C address 0x40\r\n");
    float v = 1, a = 1;
    EXPECT_EQ(ina260_system_voltageCurrent(&v, &a), -1);
    EXPECT_EQ(v, 0.0f);
    EXPECT_EQ(a, 0.0f);
    EXPECT_EQ(fram_probe(), FRAM_PROBE_OK);
}

} // namespace
