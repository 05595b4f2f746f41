// The BME280 driver against the sensor model: the integer compensation of the driver reads back
// the housing conditions the model encoded with the double-precision formulas, each reading is a
// fresh forced measurement, and a missing or foreign part gives a message and no hang.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "board/bme280.h"
#include "board/i2c0.h"
#include "driverlib/sysctl.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "storage/i2c_fram.h"

namespace {

class Bme280 : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        // Every delay toggles the watchdog's feed line (PF1): its port is clocked, as after the
        // firmware's pin set-up.
        SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOF);
        UARTStdioConfig(0, 115200, 16000000);
        i2c0_init(0);
        sim::test::clear_console_output();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
    static double ms_since(uint64_t start_ns) { return double(sim::now_ns() - start_ns) / sim::ns_per_ms; }
};

TEST_F(Bme280, ReadsTheHousingConditionsBack) {
    struct Case {
        const char* temp;
        const char* rh;
    };
    for (Case c : {Case{"20.0", "35"}, Case{"-5.25", "8.5"}, Case{"2.0", "92"}, Case{"38.7", "61.3"}}) {
        sim::test::set_scenario("board.temp", c.temp);
        sim::test::set_scenario("board.humidity", c.rh);
        ASSERT_EQ(bme280_init(), 0);
        float t = 0, h = 0, p = 0;
        ASSERT_EQ(bme280_read(&t, &h, &p), 0);
        EXPECT_NEAR(t, std::stod(c.temp), 0.05) << c.temp;
        EXPECT_NEAR(h, std::stod(c.rh), 0.5) << c.rh;
        EXPECT_NEAR(p, 1013.25, 0.5);

        EXPECT_NEAR(bme280_get_fTemperature(), std::stod(c.temp), 0.05);
        EXPECT_EQ(bme280_get_uiHumidity(), static_cast<uint32_t>(std::lround(std::stod(c.rh))));
    }
    EXPECT_EQ(out(), "");
}

// Every call waits for its own conversion: a change of the housing shows in the next reading, and
// the wait is the conversion time of what was asked for.
TEST_F(Bme280, EachReadingIsANewForcedMeasurement) {
    ASSERT_EQ(bme280_init(), 0);
    sim::test::set_scenario("board.temp", "10.0");
    uint64_t t0 = sim::now_ns();
    EXPECT_NEAR(bme280_get_fTemperature(), 10.0, 0.05);
    const double temp_ms = ms_since(t0);
    EXPECT_GE(temp_ms, 3.55);
    EXPECT_LT(temp_ms, 8.0);

    sim::test::set_scenario("board.temp", "11.5");
    sim::test::set_scenario("board.humidity", "70");
    t0 = sim::now_ns();
    EXPECT_EQ(bme280_get_uiHumidity(), 70u);
    const double hum_ms = ms_since(t0);
    EXPECT_GE(hum_ms, 6.4);
    EXPECT_LT(hum_ms, 11.0);
    EXPECT_NEAR(bme280_get_fTemperature(), 11.5, 0.05);

    // Pressure alone is no option: temperature always comes along.
    float p = 0;
    ASSERT_EQ(bme280_read(nullptr, nullptr, &p), 0);
    EXPECT_NEAR(p, 1013.25, 0.5);
}

TEST_F(Bme280, MissingOrForeignPartIsReportedWithoutHanging) {
    sim::test::set_scenario("board.bme280.id", "0");
    uint64_t t0 = sim::now_ns();
    EXPECT_EQ(bme280_init(), 1);
    EXPECT_EQ(bme280_get_fTemperature(), BME280_NO_TEMP);
    EXPECT_EQ(bme280_get_uiHumidity(), BME280_NO_HUMIDITY);
    EXPECT_LT(ms_since(t0), 2.0);
    EXPECT_EQ(out(), "\r\nERROR: BME280 does not answer at I2C address 0x76\r\n");
    EXPECT_EQ(fram_probe(), FRAM_PROBE_OK) << "the bus must be free after the refused address";

    sim::test::clear_console_output();
    sim::test::set_scenario("board.bme280.id", "88"); // 0x58, a BMP280
    EXPECT_EQ(bme280_init(), 2);
    float t = 1.5f;
    EXPECT_LT(bme280_read(&t, nullptr, nullptr), 0);
    EXPECT_EQ(t, 1.5f);
    EXPECT_EQ(out(), "\r\nERROR: BME280 chip id 0x58, expected 0x60\r\n");

    // Fitted again: the next init finds it.
    sim::test::set_scenario("board.bme280.id", "96");
    EXPECT_EQ(bme280_init(), 0);
    EXPECT_NEAR(bme280_get_fTemperature(), 20.0, 0.05);
}

} // namespace
