// Temperature and pH of a sample against a plain double-precision evaluation of the same
// equations, the cases where the exact arithmetic shows, the calibration potentials, and the vector
// statistics.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "board/i2c0.h"
#include "records/system.h"
#include "driverlib/sysctl.h"
#include "measure/apf_math.h"
#include "measure/sample.h"
#include "ports/uartstdio.h"
#include "sim_test.h"

namespace {

// ---- reference: the sensor equations in double precision throughout, written from the physics

constexpr double R_GAS = 8.31451;
constexpr double FARADAY = 96487.0;

double ref_slope(double tc) {
    return (tc + 273.15) * R_GAS / FARADAY * std::log(10.0);
}

double ref_temp_poly(double v) {
    double r = 20000.0 / (3.3 / v - 1.0);
    double l = std::log10(r);
    return sys_data.quadTherm_c0 + sys_data.quadTherm_c1 * r + sys_data.quadTherm_c2 * l +
           sys_data.quadTherm_c3 * l * l * l;
}

double ref_ph_int(double e, double tc) {
    return (e - (sys_data.k0int - 0.0011012 * (tc - 25.0))) / ref_slope(tc);
}

double ref_ph_ext(double e, double tc, double s) {
    double t = tc + 273.15;
    double z = 19.924 * s / (1000.0 - 1.005 * s);
    double so4 = 0.14 / 96.062 * s / 1.80655;
    double mcl = 0.99889 / 35.453 * s / 1.80655;
    double lt = std::log(t);
    double khso4 =
        std::exp(-4276.1 / t + 141.328 - 23.093 * lt + (-13856.0 / t + 324.57 - 47.986 * lt) * std::sqrt(z) +
                 (35474.0 / t - 771.54 + 114.723 * lt) * z - 2698.0 / t * std::pow(z, 1.5) +
                 1776.0 / t * z * z + std::log(1.0 - 0.001005 * s));
    double a = 3.43e-06 * tc * tc + 0.00067524 * tc + 0.49172143;
    double lg = 2.0 * (-a * std::sqrt(z) / (1.0 + 1.394 * std::sqrt(z)) + (0.08885 - 0.000111 * tc) * z);
    double eo = sys_data.k0ext - 0.0010482 * (tc - 25.0);
    double free_ph = (e - eo) / ref_slope(tc) + std::log10(mcl) + lg;
    return free_ph - std::log10(1.0 + so4 / khso4);
}

class PhMath : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        // The ports (the watchdog's feed line toggles in every delay, the converter's supply and
        // control lines), the EEPROM and the FRAM's bus are clocked, as after the firmware's start-up.
        for (uint32_t port = 0; port < 6; ++port) {
            SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOA + port);
        }
        SysCtlPeripheralEnable(SYSCTL_PERIPH_EEPROM0);
        i2c0_init(0);
        UARTStdioConfig(0, 115200, 16000000); // before the defaults are announced on it
        memset(&sys_data, 0, sizeof sys_data);
        memset(&sys_samp, 0, sizeof sys_samp);
        memset(&sampl, 0, sizeof sampl);
        initSysDataVariables();
        sim::test::drain_console();
        sim::test::clear_console_output();
    }
};

TEST_F(PhMath, ThermistorTemperatureFollowsTheCoefficientsOverTheWorkingRange) {
    for (double r = 5000.0; r <= 40000.0; r += 250.0) {
        float v = (float)(3.3 * r / (r + 20000.0));
        EXPECT_NEAR(DuraFET_temp(v, 0.0f), ref_temp_poly(v), 1e-4) << "R " << r;
        EXPECT_NEAR(DuraFET_temp(v, -0.75f), ref_temp_poly(v) - 0.75, 1e-4) << "R " << r;
    }
    // The curve is the factory one: about 21.5 degC at 10 kOhm, falling with resistance.
    EXPECT_NEAR(DuraFET_temp(1.1f, 0.0f), 21.5, 0.1);
    EXPECT_GT(DuraFET_temp(1.0f, 0.0f), DuraFET_temp(1.2f, 0.0f));
}

TEST_F(PhMath, SteinhartHartFormUsesThePolynomialFieldsWithoutKelvinConversion) {
    sys_data.app_cfg[APPCFG_TEMPC_SH_ALG] = 1;
    sys_data.quadTherm_c0 = 1.1e-3;
    sys_data.quadTherm_c1 = 99.0; // not part of this form
    sys_data.quadTherm_c2 = 2.4e-4;
    sys_data.quadTherm_c3 = 1.5e-7;
    sys_data.shTherm_A = sys_data.shTherm_B = sys_data.shTherm_C = 1.0; // never read
    float v = 1.32f;
    double r = 20000.0 / (3.3 / (double)v - 1.0);
    double l = std::log(r);
    double kelvin = 1.0 / (1.1e-3 + 2.4e-4 * l + 1.5e-7 * l * l * l);
    EXPECT_NEAR(DuraFET_temp(v, 0.5f), kelvin + 0.5, 1e-4);
    EXPECT_GT(DuraFET_temp(v, 0.0f), 250.0f);

    // Any other selector gives the offset alone, exactly.
    sys_data.app_cfg[APPCFG_TEMPC_SH_ALG] = 2;
    EXPECT_EQ(DuraFET_temp(v, 1.234f), 1.234f);
    sys_data.app_cfg[APPCFG_TEMPC_SH_ALG] = 255;
    EXPECT_EQ(DuraFET_temp(v, -3.5f), -3.5f);
}

TEST_F(PhMath, InternalPhAgreesWithDoublePrecisionOverTemperatureAndVoltage) {
    const float k0s[] = {-0.4f, -0.37f};
    for (float k0 : k0s) {
        sys_data.k0int = k0;
        for (int ti = 0; ti <= 14; ti++) {
            float tc = 2.5f * (float)ti;
            for (int vi = 0; vi <= 30; vi++) {
                float e = -0.2f + 0.02f * (float)vi;
                EXPECT_NEAR(calc_pHint(e, tc), ref_ph_int(e, tc), 2e-4) << "TC " << tc << " E " << e;
            }
        }
    }
}

TEST_F(PhMath, ExternalPhAgreesWithDoublePrecisionOverTemperatureSalinityAndVoltage) {
    for (int ti = 0; ti <= 14; ti++) {
        float tc = 2.5f * (float)ti;
        for (int si = 0; si <= 8; si++) {
            float s = 20.0f + 2.5f * (float)si;
            for (int vi = 0; vi <= 20; vi++) {
                float e = -1.0f + 0.02f * (float)vi;
                EXPECT_NEAR(calc_pHext(e, tc, s), ref_ph_ext(e, tc, s), 2e-4)
                    << "TC " << tc << " S " << s << " E " << e;
            }
        }
    }
}

uint32_t bits_of(float x) {
    uint32_t b;
    memcpy(&b, &x, sizeof b);
    return b;
}

// Bit patterns worked out step by step from the equations with every float narrowing in place;
// a narrowing dropped or added anywhere moves the last bits of some of these.
TEST_F(PhMath, ResultsCarryTheSinglePrecisionSteps) {
    struct {
        float e, tc;
        uint32_t ph;
    } internal[] = {{0.0731f, 25.0f, 0x40ffe88f},
                    {0.05f, 3.7f, 0x40f87a1d},
                    {0.1137f, 31.3f, 0x4109e5ba},
                    {-0.021f, 12.9f, 0x40ce2ae6}};
    for (const auto& c : internal) {
        EXPECT_EQ(bits_of(calc_pHint(c.e, c.tc)), c.ph) << c.e << " " << c.tc;
    }
    struct {
        float e, tc, s;
        uint32_t ph;
    } external[] = {{-0.79f, 15.0f, 35.0f, 0x41021e2d},
                    {-0.8123f, 2.3f, 33.4f, 0x40fcdcdc},
                    {-0.7412f, 28.9f, 21.7f, 0x4108c1c0},
                    {-0.85f, 11.1f, 38.8f, 0x40e5b77a}};
    for (const auto& c : external) {
        EXPECT_EQ(bits_of(calc_pHext(c.e, c.tc, c.s)), c.ph) << c.e << " " << c.tc << " " << c.s;
    }
    struct {
        float v, offset;
        uint32_t tc;
    } therm[] = {{1.1f, 0.0f, 0x41ac0678}, {0.93f, 0.25f, 0x41d9a6d5}, {1.437f, -0.1f, 0x41425d9e}};
    for (const auto& c : therm) {
        EXPECT_EQ(bits_of(DuraFET_temp(c.v, c.offset)), c.tc) << c.v;
    }
}

// The same check over a grid of 856 results (pH internal and external, temperature), folded into
// an FNV-1a hash of their bit patterns; the expected hash was worked out independently from the
// equations. Most single narrowings moved, added or dropped change tens to hundreds of the results.
TEST_F(PhMath, GridOfResultsCarriesTheSinglePrecisionSteps) {
    uint32_t h = 2166136261u;
    auto fold = [&h](float x) {
        uint32_t b = bits_of(x);
        for (int shift = 0; shift < 32; shift += 8) {
            h ^= (b >> shift) & 0xffu;
            h *= 16777619u;
        }
    };
    for (int i = 0; i < 36; i++) {
        float tc = (float)(i * 1.0 + 0.37);
        for (int j = 0; j < 6; j++) {
            fold(calc_pHint((float)(-0.1 + 0.05 * j + 0.0013 * i), tc));
        }
    }
    for (int i = 0; i < 36; i++) {
        float tc = (float)(i * 1.0 + 0.37);
        for (int k = 0; k < 5; k++) {
            float s = (float)(20.0 + 5.0 * k + 0.11 * i);
            for (int j = 0; j < 3; j++) {
                fold(calc_pHext((float)(-0.9 + 0.1 * j + 0.0017 * i), tc, s));
            }
        }
    }
    for (int i = 0; i < 100; i++) {
        fold(DuraFET_temp((float)(0.8 + 0.007 * i), 0.125f));
    }
    EXPECT_EQ(h, 0xef9b18d4u);
}

TEST_F(PhMath, SlopeAt25DegreesIsTheNernstValue) {
    // At 25 degC the temperature term vanishes: pH = (Eint - k0int) / S_T with S_T = 0.0591587.
    float k0 = sys_data.k0int;
    for (float ph : {2.0f, 7.0f, 8.0f, 10.0f}) {
        float e = k0 + 0.0591587f * ph;
        EXPECT_NEAR(calc_pHint(e, 25.0f), ph, 2e-5);
    }
    EXPECT_EQ(calc_pHint(k0, 25.0f), 0.0f);
    EXPECT_NEAR(0.5f / calc_pHint(k0 + 0.5f, 25.0f), 0.0591587, 5e-8);
}

TEST_F(PhMath, BadInputsFollowTheArithmetic) {
    EXPECT_EQ(calc_pHext(-0.8f, 15.0f, 0.0f), -std::numeric_limits<float>::infinity());
    EXPECT_TRUE(std::isnan(calc_pHext(-0.8f, 15.0f, -1.0f)));
    EXPECT_TRUE(std::isnan(DuraFET_temp(0.0f, 0.0f)));
}

TEST_F(PhMath, StoredTemperatureCoefficientsAreNotUsed) {
    float ti = calc_pHint(0.05f, 8.0f);
    float te = calc_pHext(-0.8f, 8.0f, 33.0f);
    float tt = DuraFET_temp(1.2f, 0.1f);
    sys_data.k2int = 5.0f;
    sys_data.k2ext = -7.0f;
    sys_data.TCSlope = 3.0f;
    sys_data.shTherm_A = sys_data.shTherm_B = sys_data.shTherm_C = 42.0;
    EXPECT_EQ(calc_pHint(0.05f, 8.0f), ti);
    EXPECT_EQ(calc_pHext(-0.8f, 8.0f, 33.0f), te);
    EXPECT_EQ(DuraFET_temp(1.2f, 0.1f), tt);
    // The standard potentials are: one millivolt moves the pH by 1/S_T millivolts' worth.
    sys_data.k0int += 0.001f;
    EXPECT_NEAR(ti - calc_pHint(0.05f, 8.0f), 0.001 / ref_slope(8.0), 1e-4);
}

// ---- calibration potentials

// The potentials found for a bath make the forward formulas return the bath's pH, on both references
// and over the working range of temperature and salinity.
TEST_F(PhMath, CalibrationPotentialsReturnTheBath) {
    for (float t : {2.0f, 12.5f, 30.0f}) {
        for (float sal : {20.0f, 35.0f}) {
            sys_data.k0int = calib_k0int(0.081f, 7.95f, t);
            sys_data.k0ext = calib_k0ext(-0.79f, 7.95f, t, sal);
            EXPECT_NEAR(calc_pHint(0.081f, t), 7.95, 1e-4) << t << " degC";
            EXPECT_NEAR(calc_pHext(-0.79f, t, sal), 7.95, 1e-4) << t << " degC, S " << sal;
        }
    }
}

// ---- vector statistics

TEST(VectorStats, MinMaxKeepsTheFirstOfTiesAndReadsTheFirstElementForAnEmptyVector) {
    const float falling[] = {5.0f, 4.0f, 3.0f, -1.0f};
    float mn = 0, mx = 0;
    FloatVectorMinMax(4, falling, &mn, &mx);
    EXPECT_EQ(mn, -1.0f);
    EXPECT_EQ(mx, 5.0f);
    const float mixed[] = {2.0f, 9.0f, -3.0f, 9.0f, 0.5f};
    FloatVectorMinMax(5, mixed, &mn, &mx);
    EXPECT_EQ(mn, -3.0f);
    EXPECT_EQ(mx, 9.0f);
    FloatVectorMinMax(0, mixed, &mn, &mx);
    EXPECT_EQ(mn, 2.0f);
    EXPECT_EQ(mx, 2.0f);

    const uint16_t rising[] = {10, 20, 65535};
    uint16_t smn = 0, smx = 0;
    ShortVectorMinMax(3, rising, &smn, &smx);
    EXPECT_EQ(smn, 10);
    EXPECT_EQ(smx, 65535);
    ShortVectorMinMax(0, rising + 1, &smn, &smx);
    EXPECT_EQ(smn, 20);
    EXPECT_EQ(smx, 20);
}

TEST(VectorStats, MeanAndSampleStandardDeviation) {
    const float v[] = {2.0f, 4.0f, 4.0f, 4.0f, 5.0f, 5.0f, 7.0f, 9.0f};
    float mean = -1, sd = -1;
    FloatVectorMeanStdDev(8, v, &mean, &sd);
    EXPECT_FLOAT_EQ(mean, 5.0f);
    EXPECT_FLOAT_EQ(sd, (float)std::sqrt(32.0 / 7.0)); // n - 1, not the population form

    const uint16_t counts[] = {60000, 60010, 60020};
    ShortVectorMeanStdDev(3, counts, &mean, &sd);
    EXPECT_FLOAT_EQ(mean, 60010.0f);
    EXPECT_FLOAT_EQ(sd, 10.0f);

    // One value: the mean is that value, the deviation 0 / 0.
    FloatVectorMeanStdDev(1, v + 6, &mean, &sd);
    EXPECT_EQ(mean, 7.0f);
    EXPECT_TRUE(std::isnan(sd));
    // None: mean 0 / 0, deviation sqrt(0 / -1) = -0.
    FloatVectorMeanStdDev(0, v, &mean, &sd);
    EXPECT_TRUE(std::isnan(mean));
    EXPECT_EQ(sd, 0.0f);
    EXPECT_TRUE(std::signbit(sd));
    ShortVectorMeanStdDev(0, counts, &mean, &sd);
    EXPECT_TRUE(std::isnan(mean));
    EXPECT_TRUE(std::signbit(sd));
}

TEST_F(PhMath, FahrenheitAndTheChecksumPlaceholder) {
    EXPECT_EQ(CtoF(100.0f), 212.0f);
    EXPECT_EQ(CtoF(-40.0f), -40.0f);
    EXPECT_FLOAT_EQ(CtoF(21.5f), 70.7f);

    const uint8_t data[4] = {1, 2, 3, 4};
    uvsDbgFlg = 0;
    EXPECT_EQ(fCrc16Bit(data), 65535);
    sim::test::drain_console();
    EXPECT_EQ(sim::test::console_output(), "");
    uvsDbgFlg = 1;
    EXPECT_EQ(fCrc16Bit(data), 65535);
    uvsDbgFlg = 0;
    sim::test::drain_console();
    EXPECT_EQ(sim::test::console_output(), "fCrc16Bit needs imp, apf_util\r\n");
}

} // namespace
