// The pH calibration dialogue of the configuration menu: typed and sampled bath values, the checks
// on each answer, and the potentials it stores.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "menus/config_menu.h"
#include "core/main.h"
#include "records/system.h"
#include "driverlib/interrupt.h"
#include "driverlib/systick.h"
#include "instruments/ctd_base.h"
#include "measure/apf_math.h"
#include "measure/sample.h"
#include "sim_test.h"

namespace {

double ref_slope(double tc) {
    return (tc + 273.15) * 8.31451 / 96487.0 * std::log(10.0);
}

class PhCalib : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run([] {
                        init();
                        initSysDataVariables();
                        memset(&sampl, 0, sizeof sampl);
                    }).returned);
        sim::test::drain_console();
        sim::test::clear_console_output();
    }
};

void run_ph_calib(const std::string& typed) {
    sim::test::type(typed);
    auto out = sim::test::run(ph_calib);
    ASSERT_TRUE(out.returned);
    sim::test::drain_console();
}

TEST_F(PhCalib, ManualCalibrationFindsOffsetsThatReturnTheBath) {
    sampl.fVtherm = 1.05f; // the thermistor of the last sample
    run_ph_calib("7.95\rN\r0.081\r-0.79\r12.5\r33.3\rY\r");
    const std::string& out = sim::test::console_output();
    EXPECT_NE(out.find("\r\nph_calib() not supported in this version\r\n"), std::string::npos);
    EXPECT_NE(out.find("pH cal pt = 7.950\r\n"), std::string::npos);
    EXPECT_NE(out.find("\r\n\r\nEo Int @ 25C = "), std::string::npos);
    EXPECT_NE(out.find("Accept and store calibration values(Y/N) [N]? "), std::string::npos);
    EXPECT_NE(out.find("\r\nCalibration values stored"), std::string::npos);

    EXPECT_NEAR(calc_pHint(0.081f, 12.5f), 7.95, 1e-4);
    EXPECT_NEAR(calc_pHext(-0.79f, 12.5f, 33.3f), 7.95, 1e-4);
    EXPECT_NEAR(DuraFET_temp(1.05f, sys_data.TCOffset), 12.5, 1e-3);
    EXPECT_NEAR(sys_data.k0int, 0.081 - 7.95 * ref_slope(12.5) - 0.0011012 * (25.0 - 12.5), 1e-5);
}

TEST_F(PhCalib, CalibrationPromptsRejectOutOfRangeAndKeepEmptyAnswers) {
    sampl.fVrsi = 0.07f;
    sampl.fVrse = -0.8f;
    sampl.fTempC = 20.0f;
    sampl.fVtherm = 1.05f;
    sys_data.default_sal = 35.0f;
    // pH 15 and -1 refused, then 8; Vrsi 3 refused then kept; Vrse kept; temperature 120 refused,
    // then 18; salinity kept. Then the operator declines.
    run_ph_calib("15\r-1\r8\rN\r3\r\r\r120\r18\r\rN\r");
    const std::string& out = sim::test::console_output();
    size_t first = out.find("\r\nEnter between 0 and 14");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(out.find("\r\nEnter between 0 and 14", first + 1), std::string::npos);
    EXPECT_NE(out.find("pH cal pt = 8.000\r\n"), std::string::npos);
    EXPECT_NE(out.find("\r\n\r\nEnter Vrsi [0.070000]: "), std::string::npos);
    EXPECT_NE(out.find("Enter number between -2 and 2\r\n\r\n"), std::string::npos);
    EXPECT_NE(out.find("\r\n\r\nEnter Vrse [-0.800000]: "), std::string::npos);
    EXPECT_NE(out.find("\r\nEnter bath temperature [20.000000]: "), std::string::npos);
    EXPECT_NE(out.find("\r\nEnter between 0 and 100"), std::string::npos);
    EXPECT_NE(out.find("\r\nEnter bath salinity [35.000000]: "), std::string::npos);
    EXPECT_EQ(out.find("Calibration values stored"), std::string::npos);
    // Declined: nothing changed.
    EXPECT_FLOAT_EQ(sys_data.k0int, -0.4f);
    EXPECT_FLOAT_EQ(sys_data.k0ext, -1.3f);
    EXPECT_EQ(sys_data.TCOffset, 0.0f);

    // The point entered last time is offered again; a word that is not a number ends the prompt.
    sim::test::clear_console_output();
    run_ph_calib("abc\rN\r\r\r\r\rN\r");
    EXPECT_NE(sim::test::console_output().find("Enter pH calibration point [8.000]: "), std::string::npos);
    EXPECT_NE(sim::test::console_output().find("DEBUG: sscanf fails to return 1"), std::string::npos);
    EXPECT_NE(sim::test::console_output().find("pH cal pt = 8.000\r\n"), std::string::npos);
}

TEST_F(PhCalib, AutomaticCalibrationAveragesTheSampledValues) {
    sampl.fVrsi = 0.075f;
    sampl.fVrse = -0.81f;
    sampl.fVtherm = 1.1f;
    sampl.fTempC = 19.0f; // the sensor's own temperature is not the bath's
    ctd.tempC = 21.0f;
    ctd.salt = 34.0f;
    // Only the sample number column: the cycle reads no channel and leaves these values standing.
    memset(sys_data.data_cfg + 1, 0, CFG_UART3_INST - 1);
    run_ph_calib("8\rY\rkY\rY\r");
    const std::string& out = sim::test::console_output();
    EXPECT_NE(out.find("\r\nPlace DuraFET and MicroCAT in calibration bath."), std::string::npos);
    EXPECT_NE(out.find("    Vrsi\t Vrsi-SD\t    Vrse\t Vrse-SD\t  Vtherm\tVthermSD\t   "
                       "TempC\tTempC-SD\tSalinity\tSal-SD"),
              std::string::npos);
    EXPECT_NE(out.find(" 0.07500\t"), std::string::npos);
    EXPECT_NE(out.find("Average of last "), std::string::npos);
    EXPECT_NE(out.find("\r\nMicroCAT Temperature = 21.000000 C  SD = "), std::string::npos);
    EXPECT_NE(out.find("\r\nMicroCAT Salinity = 34.000000  SD = "), std::string::npos);
    EXPECT_NE(out.find("Values acceptable (Y/N) [N]? "), std::string::npos);
    EXPECT_NE(out.find("\r\nCalibration values stored"), std::string::npos);
    EXPECT_NEAR(calc_pHint(0.075f, 21.0f), 8.0, 1e-4);
    EXPECT_NEAR(calc_pHext(-0.81f, 21.0f, 34.0f), 8.0, 1e-4);
}

} // namespace
