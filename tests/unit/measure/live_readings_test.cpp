// Live readings on the simulated board: the printed numbers against the bath's known voltages, the
// statistics lines, the length and pacing of a series, a key ending it early, the isolated side off
// afterwards, the bias batteries and the board-sensor display.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bath.h"
#include "board/bme280.h"
#include "board/i2c0.h"
#include "board/pinmux.h"
#include "records/system.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "inc/hw_memmap.h"
#include "measure/live_readings.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"

namespace {

void start_board(void) {
    test_board::start_clocks();
    i2c0_init(0);
    bme280_init();
}

struct Series {
    std::string header;
    std::vector<double> values; // one per line
    std::vector<double> stds;   // per line, statistics lines only
};

// The header, then lines numbered from 1; anything else fails the test.
Series run_series(void (*fn)()) {
    wait_consoleTx();
    sim::test::clear_console_output();
    fn();
    wait_consoleTx();
    const std::string text = sim::test::console_output();
    Series s;
    size_t at = 2, end = text.find("\r\n", at);
    EXPECT_EQ(text.rfind("\r\n", 0), 0u) << text;
    s.header = text.substr(at, end - at);
    for (at = end + 2; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2) {
        unsigned n = 0;
        double v = 0, sd = 0;
        int fields = sscanf(text.c_str() + at, "%4u\t%lf\t%lf", &n, &v, &sd);
        EXPECT_GE(fields, 2) << text.substr(at, end - at);
        EXPECT_EQ(n, s.values.size() + 1);
        s.values.push_back(v);
        if (fields == 3) {
            s.stds.push_back(sd);
        }
    }
    EXPECT_EQ(at, text.size()) << "unterminated line";
    EXPECT_FALSE(sim::gpio_level(GPIO_PORTE_BASE, 0x01)) << "isolated supply (port E pin 0) still on";
    return s;
}

void expect_all_near(const std::vector<double>& values, double want, double tol) {
    for (double v : values) {
        EXPECT_NEAR(v, want, tol);
    }
}

class LiveReadings : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        memset(&sys_data, 0, sizeof sys_data);
        ASSERT_TRUE(sim::test::run(start_board).returned);
        initSysDataVariables();
        UARTEchoSet(false);
        sim::test::set_scenario("adc.noise_uv", "0");
        sim::test::set_scenario("bath.temp", "10");
    }
    void TearDown() override { UARTFlushRx(); }
};

// Each quantity in its unit: the temperature through the firmware's own conversion, the counter
// current in nA as the sample scales it, the substrate kept in volts.
TEST_F(LiveReadings, EachQuantityReadsTheBath) {
    const sim::BathVolts bath = sim::bath_volts();
    const double lsb2 = 5e-7;
    struct Case {
        void (*fn)();
        const char* label;
        double want, tol;
    };
    for (const Case& c : {
             Case{[] { test_tempc(1, 0, 0); }, "TempC (degC)", 10.0, 0.01},
             Case{[] { test_vtherm(1, 0, 0); }, "Vtherm (V)", bath.vtherm, lsb2},
             Case{[] { test_vrsi(1, 0, 0); }, "Vrsi (V)", bath.vrsi, lsb2},
             Case{[] { test_vrse(1, 0, 0); }, "Vrse (V)", bath.vrse, lsb2},
             Case{[] { test_vk(1, 0, 0); }, "Vk (V)", bath.vk, lsb2},
             Case{[] { test_ik(1, 0, 0); }, "Ik (nA)", bath.ik * 66666.667, 0.02},
             Case{[] { test_ib(1, 0, 0); }, "Ib (V)", bath.ib, lsb2},
         }) {
        SCOPED_TRACE(c.label);
        const Series s = run_series(c.fn);
        EXPECT_EQ(s.header, std::string(c.label) + ": 10 readings 0 ms apart, any key stops");
        EXPECT_EQ(s.values.size(), 10u);
        expect_all_near(s.values, c.want, c.tol);
    }
}

// Mean and deviation of n conversions a line: exactly 0 on a quiet input, above 0 with noise, the
// mean still at the bath.
TEST_F(LiveReadings, StatisticsLines) {
    const Series quiet = run_series([] { test_vrsi(1, 1, 5); });
    EXPECT_EQ(quiet.header, "Vrsi (V): 10 lines of mean and standard deviation of 5 readings, any key stops");
    ASSERT_EQ(quiet.stds.size(), 10u);
    expect_all_near(quiet.values, sim::bath_volts().vrsi, 5e-7);
    expect_all_near(quiet.stds, 0.0, 0.0);

    sim::test::set_scenario("adc.noise_uv", "50");
    const Series noisy = run_series([] { test_tempc(1, 1, 40); });
    ASSERT_EQ(noisy.stds.size(), 10u);
    expect_all_near(noisy.values, 10.0, 0.05);
    EXPECT_GT(noisy.stds[0] + noisy.stds[9], 0.0);
}

// Ten lines per unit of the argument (0 counts as 1), with the pause between plain readings; a key
// ends a series after the line under way and is consumed.
TEST_F(LiveReadings, LengthPacingAndKeyStop) {
    EXPECT_EQ(run_series([] { test_vk(3, 0, 0); }).values.size(), 30u);
    EXPECT_EQ(run_series([] { test_ib(0, 1, 1); }).values.size(), 10u);
    const uint64_t t0 = sim::now_ns();
    EXPECT_EQ(run_series([] { test_vrse(1, 0, 500); }).values.size(), 10u);
    const double elapsed_s = static_cast<double>(sim::now_ns() - t0) / 1e9;
    EXPECT_GE(elapsed_s, 4.5) << "nine pauses of 500 ms";
    EXPECT_LT(elapsed_s, 8.0);

    sim::test::type_after(1.2, "x");
    const size_t lines = run_series([] { test_vrsi(1, 0, 500); }).values.size();
    EXPECT_GE(lines, 2u);
    EXPECT_LE(lines, 4u);
    EXPECT_EQ(UARTrdy(), 0) << "the key is consumed";

    sim::test::type("q");
    sim::test::advance_s(0.01);
    EXPECT_EQ(run_series([] { test_vk(1, 1, 5); }).values.size(), 0u);
    EXPECT_EQ(UARTrdy(), 0);
}

// Each bias battery on its own selector side, at its full voltage (the reading doubled).
TEST_F(LiveReadings, BiasBatteries) {
    sim::test::set_scenario("bias.pos", "3.5");
    sim::test::set_scenario("bias.neg", "-3.3");
    const Series pos = run_series([] { test_bias_bat(BIAS_BAT_POS); });
    EXPECT_EQ(pos.header, "Bias battery + (V): 10 readings 500 ms apart, any key stops");
    EXPECT_EQ(pos.values.size(), 10u);
    expect_all_near(pos.values, 3.5, 0.0005);
    const Series neg = run_series([] { test_bias_bat(BIAS_BAT_NEG); });
    EXPECT_EQ(neg.values.size(), 10u);
    expect_all_near(neg.values, -3.3, 0.0005);
}

// The board battery and the housing sensors once; a missing monitor is said as such.
TEST_F(LiveReadings, BatteryAndHousingSensors) {
    sim::test::set_scenario("board.vbat", "11.5");
    sim::test::set_scenario("board.amps", "0.125");
    sim::test::set_scenario("board.temp", "23.5");
    sim::test::set_scenario("board.humidity", "41");
    sim::test::clear_console_output();
    display_battery_boardSensors();
    wait_consoleTx();
    std::string text = sim::test::console_output();
    float v[5] = {};
    ASSERT_EQ(sscanf(text.c_str(), "\r\nMain battery: %f V  %f A\r\nHousing: %f degC  %f %%RH  %f hPa", &v[0],
                     &v[1], &v[2], &v[3], &v[4]),
              5)
        << text;
    EXPECT_EQ(text.substr(text.size() - 5), "hPa\r\n");
    EXPECT_NEAR(v[0], 11.5, 0.01);
    EXPECT_NEAR(v[1], 0.125, 0.002);
    EXPECT_NEAR(v[2], 23.5, 0.02);
    EXPECT_NEAR(v[3], 41.0, 0.1);
    EXPECT_NEAR(v[4], 1013.25, 1.0);

    sim::test::set_scenario("board.ina260", "0");
    sim::test::clear_console_output();
    display_battery_boardSensors();
    wait_consoleTx();
    text = sim::test::console_output();
    EXPECT_EQ(text.rfind("\r\nMain battery: INA260 not answering\r\nHousing: ", 0), 0u) << text;
}

} // namespace
