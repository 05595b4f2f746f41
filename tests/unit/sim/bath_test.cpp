// The simulated bath: its electrode voltages, read back through the firmware's own temperature and
// pH functions, give the bath that the scenario describes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "bath.h"
#include "records/system.h"
#include "measure/apf_math.h"
#include "ports/uartstdio.h"
#include "sim_test.h"

namespace {

class Bath : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        UARTStdioConfig(0, 115200, 16000000); // the defaults are announced on the console
        memset(&sys_data, 0, sizeof sys_data);
        initSysDataVariables();
    }
    static void set(const char* key, double value) { sim::test::set_scenario(key, std::to_string(value)); }
};

TEST_F(Bath, DefaultsAndPassThroughValues) {
    sim::BathVolts v = sim::bath_volts();
    EXPECT_DOUBLE_EQ(v.vk, -0.9);
    EXPECT_DOUBLE_EQ(v.ik, 1.5e-5);
    EXPECT_DOUBLE_EQ(v.ib, 1.0e-6);
    EXPECT_DOUBLE_EQ(v.vbias_pos, 1.8);
    EXPECT_DOUBLE_EQ(v.vbias_neg, -1.8);
    // The default bath (pH 8, 15 degC, salinity 35) lies well inside the converter's range.
    for (double x : {v.vtherm, v.vrsi, v.vrse}) {
        EXPECT_LT(std::fabs(x), 2.048);
    }
    EXPECT_GT(v.vtherm, 0.0);
    EXPECT_LT(v.vtherm, 3.3);

    set("bias.pos", 4.2);
    set("bias.neg", -3.0);
    set("sensor.vk", -1.1);
    v = sim::bath_volts();
    EXPECT_DOUBLE_EQ(v.vbias_pos, 2.1);
    EXPECT_DOUBLE_EQ(v.vbias_neg, -1.5);
    EXPECT_DOUBLE_EQ(v.vk, -1.1);
}

TEST_F(Bath, FirmwareReadsBackTheBathOverTheWorkingRange) {
    for (double ph : {7.6, 8.0, 8.2}) {
        for (double temp : {0.0, 2.0, 15.0, 28.0, 35.0}) {
            for (double sal : {20.0, 30.0, 36.0, 40.0}) {
                set("bath.ph", ph);
                set("bath.temp", temp);
                set("bath.sal", sal);
                sim::BathVolts v = sim::bath_volts();
                float tc = DuraFET_temp((float)v.vtherm, sys_data.TCOffset);
                EXPECT_NEAR(tc, temp, 0.001) << ph << " " << temp << " " << sal;
                EXPECT_NEAR(calc_pHint((float)v.vrsi, tc), ph, 1e-4) << ph << " " << temp << " " << sal;
                EXPECT_NEAR(calc_pHext((float)v.vrse, tc, (float)sal), ph, 1e-4)
                    << ph << " " << temp << " " << sal;
            }
        }
    }
}

TEST_F(Bath, SensorStandardPotentialsAreWhatCalibrationRecovers) {
    set("sensor.k0int", -0.35);
    set("sensor.k0ext", -1.25);
    set("bath.temp", 20.0);
    sim::BathVolts v = sim::bath_volts();
    // With the factory offsets the firmware is off by the potential difference over the slope...
    double slope = (20.0 + 273.15) * 8.31451 / 96487.0 * std::log(10.0);
    EXPECT_NEAR(calc_pHint((float)v.vrsi, 20.0f), 8.0 + 0.05 / slope, 1e-4);
    EXPECT_NEAR(calc_pHext((float)v.vrse, 20.0f, 35.0f), 8.0 + 0.05 / slope, 1e-4);
    // ...and right once it holds the sensor's own.
    sys_data.k0int = -0.35f;
    sys_data.k0ext = -1.25f;
    EXPECT_NEAR(calc_pHint((float)v.vrsi, 20.0f), 8.0, 1e-4);
    EXPECT_NEAR(calc_pHext((float)v.vrse, 20.0f, 35.0f), 8.0, 1e-4);
}

TEST_F(Bath, VoltagesMoveTheWayTheSensorDoes) {
    set("bath.temp", 10.0);
    sim::BathVolts cold = sim::bath_volts();
    set("bath.temp", 25.0);
    sim::BathVolts warm = sim::bath_volts();
    EXPECT_GT(cold.vtherm, warm.vtherm); // NTC thermistor on the low side of the divider

    set("bath.ph", 9.0);
    sim::BathVolts high = sim::bath_volts();
    // At 25 degC one pH unit is one Nernst slope on both cells.
    EXPECT_NEAR(high.vrsi - warm.vrsi, 0.0591587, 1e-6);
    EXPECT_NEAR(high.vrse - warm.vrse, 0.0591587, 1e-6);
    EXPECT_EQ(high.vtherm, warm.vtherm);
}

} // namespace
