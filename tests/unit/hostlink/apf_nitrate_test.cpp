// The float's nitrate words on a board with the simulated UV spectrometer and its factory
// calibration on the card: known baths come back as their nitrate, "SL" repeats the reply byte for
// byte also after the board lost its RAM, and every way a sample or a bake can fail answers with its
// reason and leaves the spectrometer and lamp switched off.
//
// Tolerances. Each bath is sampled twice. With a noiseless detector (uvs.noise 0) only the counts'
// rounding to whole numbers is left: measured, at most 0.012 umol/kg, so 0.03 umol/kg catches any
// systematic fault - leaving out the density (2.5 %), the seawater term's temperature scaling or the
// integration-time scaling is worth far more. With the simulated detector's 4 counts of noise per
// pixel and scan (one dark and three light scans, 71 pixels) the spread over 40 noise seeds was
// 0.13-0.22 umol/kg standard deviation, so 1.0 umol/kg is about 4.5 of those, and well inside the
// 2-3 umol/kg accuracy of such sensors.
#include <cmath>
#include <fstream>

#include "devices.h"
#include "float_commands.h"

namespace {

using namespace float_test;

constexpr double NOISELESS_TOLERANCE = 0.03;
constexpr double TOLERANCE = 1.0;

class NitrateWords : public FloatCommandsOnCard {
  protected:
    void SetUp() override {
        FloatCommandsOnCard::SetUp();
        apf.sys_sensor_mode = 1;
        sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 1; // the error log on the card
        put_calibration(sim::dev::uvs_calibration_file());
    }
    // Puts a calibration file on the card and forgets the loaded one.
    void put_calibration(const std::string& text) {
        std::string path = image + ".cal";
        std::ofstream(path) << text;
        run_shell("MTOOLS_SKIP_CHECK=1 mcopy -o -i " + image + " " + path + " ::UVSCAL.CSV");
        unlink(path.c_str());
        remount();
    }
    void remount() {
        f_unmount("");
        ASSERT_EQ(init_uSDCard(), 0u);
        uvs_cal_state = UvsCalState::not_loaded;
    }
    static void water(float temp, float sal) {
        apf.CTD_Time = T0 - 60;
        apf.CTD_Temp = temp;
        apf.CTD_Salinity = sal;
        apf.CTD_Depth = 250.0f;
        sim::test::set_scenario("bath.temp", std::to_string(temp));
        sim::test::set_scenario("bath.sal", std::to_string(sal));
    }
    static std::string run_word(void (*word)()) {
        clear_out();
        sim::test::Outcome o = sim::test::run(word);
        EXPECT_TRUE(o.returned);
        return out();
    }
    // The supplies and the flags that say so are off.
    static void expect_powered_down() {
        EXPECT_EQ(sim::dev::pcal6416_pin_levels() & 0xC0, 0) << "spectrometer or lamp supply on";
        EXPECT_EQ(apf.isus_spec_pwr, 0u);
        EXPECT_EQ(apf.isus_lamp_pwr, 0u);
    }
};

TEST_F(NitrateWords, KnownBathsComeBackWithinTolerance) {
    struct Bath {
        float no3, temp, sal;
    } baths[] = {{0.0f, 2.0f, 34.2f},  {5.0f, 2.0f, 34.2f},  {30.0f, 2.0f, 34.2f},
                 {0.0f, 26.0f, 36.5f}, {5.0f, 26.0f, 36.5f}, {30.0f, 26.0f, 36.5f}};
    uint32_t n = 0;
    for (const Bath& b : baths) {
        for (const char* noise : {"0", "4"}) {
            SCOPED_TRACE(std::to_string(b.no3) + " umol/kg at " + std::to_string(b.temp) + " C, S " +
                         std::to_string(b.sal) + ", noise " + noise);
            sim::test::set_scenario("uvs.noise", noise);
            sim::test::set_scenario("bath.no3", std::to_string(b.no3));
            water(b.temp, b.sal);
            std::string reply = run_word(apf_take_sample_nitrate);
            ASSERT_EQ(reply.rfind("0xFFFF,NO3,01/01/26 ", 0), 0u) << reply;
            ASSERT_EQ(reply.substr(reply.size() - 2), "\r\n");
            std::vector<std::string> f = split(reply.substr(0, reply.size() - 2), ',');
            ASSERT_EQ(f.size(), 20u) << reply;
            EXPECT_EQ(f[3], std::to_string(++n)); // sample number
            EXPECT_EQ(f[4], "250.00");            // the controller's depth
            EXPECT_NEAR(atof(f[5].c_str()), b.no3, noise[0] == '0' ? NOISELESS_TOLERANCE : TOLERANCE);
            EXPECT_LT(atof(f[6].c_str()), 1e-3); // fit residual, absorbance
            EXPECT_NEAR(atof(f[9].c_str()), b.temp, 1e-3);
            EXPECT_NEAR(atof(f[10].c_str()), b.sal, 1e-3);
            EXPECT_NEAR(atof(f[11].c_str()), 1000.0, 5.0); // dark counts
            EXPECT_EQ(f[15], "1000");                      // integration ms
            EXPECT_EQ(f[18], "71");                        // pixels 17 to 87
            EXPECT_EQ(f[19], "0");                         // no flags
            expect_powered_down();
        }
    }
    EXPECT_EQ(apf.isus_sample_ctr, n);
    EXPECT_EQ(stored().isus_sample_ctr, n);
    EXPECT_EQ(apf.isus_error_ctr, 0u);
}

// Without the float's CTD the detector's temperature and the default salinity stand in, and the
// line says so; with a salinity fitted the CTD's is not needed.
TEST_F(NitrateWords, WaterWithoutTheFloatsCtd) {
    sim::test::set_scenario("bath.no3", "20");
    sim::test::set_scenario("bath.temp", "12");
    sim::test::set_scenario("bath.sal", "35");
    sim::test::set_scenario("board.temp", "12");
    sys_data.default_sal = 35.0f;
    std::vector<std::string> f = split(run_word(apf_take_sample_nitrate), ',');
    ASSERT_EQ(f.size(), 20u);
    EXPECT_NEAR(atof(f[5].c_str()), 20.0, TOLERANCE);
    EXPECT_NEAR(atof(f[9].c_str()), 12.0, 0.01);
    EXPECT_EQ(f[19].substr(0, 1), "1");

    apf.isus_salfit_mode = 1;
    sys_data.default_sal = 20.0f; // wrong, and not used
    f = split(run_word(apf_take_sample_nitrate), ',');
    ASSERT_EQ(f.size(), 20u);
    EXPECT_NEAR(atof(f[5].c_str()), 20.0, 2 * TOLERANCE);
    EXPECT_NEAR(atof(f[10].c_str()), 35.0, 0.1);
}

// "SL" after "T1" sends the same bytes, from FRAM, also after a power-on period; the float log
// holds the same line.
TEST_F(NitrateWords, SendLastRepeatsTheNitrateReply) {
    sim::test::set_scenario("bath.no3", "12.5");
    water(8.0f, 34.8f);
    const std::string sent = run_word(apf_take_sample_nitrate);
    ASSERT_EQ(sent.rfind("0xFFFF,NO3,", 0), 0u) << sent;
    EXPECT_EQ(run_word(apf_send_last_nitrate), sent);

    f_unmount("");
    sim::test::power_on(sim::WakeSource::pin);
    ASSERT_TRUE(sim::test::run(test_board::start_board_with_sensors).returned);
    memset(&apf, 0, sizeof apf);
    memset(prnBuf, 0, sizeof prnBuf);
    GetVarsFromNVRAM();
    EXPECT_EQ(run_word(apf_send_last_nitrate), sent);

    const std::vector<std::string> lines = split(card_file(APF_LOG_FILENAME), '\n');
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1].rfind("Prefix,Type,Date Time,SampleNum,CTD Depth[dbar],NO3[umol/kg],", 0), 0u);
    EXPECT_EQ(lines[2] + "\r\n", sent);
}

// Each failure: the reason in the NAK, an error counted, the last good reply still there for SL,
// and the supplies off.
TEST_F(NitrateWords, EveryFailureAnswersItsReasonAndPowersDown) {
    water(15.0f, 35.0f);
    const std::string good = run_word(apf_take_sample_nitrate);
    ASSERT_EQ(good.rfind("0xFFFF,NO3,", 0), 0u) << good;
    struct Fault {
        const char* key;
        const char* value;
        const char* reply;
    } faults[] = {{"uvs", "lamp-fail", "NAK,T1,LampFail"},
                  {"uvs", "lamp-weak", "NAK,T1,LampFail"},
                  {"uvs", "silent", "NAK,T1,NoSpectrometer"},
                  {"uvs", "garbage", "NAK,T1,NoSpectrometer"},
                  {"uvs", "none", "NAK,T1,NoSpectrometer"}};
    uint32_t errors = 0;
    for (const Fault& f : faults) {
        SCOPED_TRACE(std::string(f.key) + " = " + f.value);
        sim::test::set_scenario(f.key, f.value);
        EXPECT_EQ(run_word(apf_take_sample_nitrate), f.reply);
        EXPECT_EQ(apf.isus_error_ctr, ++errors);
        expect_powered_down();
        EXPECT_EQ(run_word(apf_send_last_nitrate), good);
    }
    sim::test::set_scenario("uvs", "present");
    apf.isus_pixel_beg = 95;
    EXPECT_EQ(run_word(apf_take_sample_nitrate), "NAK,T1,PixelWindow");
    apf.isus_pixel_beg = 17;

    put_calibration("");
    EXPECT_EQ(run_word(apf_take_sample_nitrate), "NAK,T1,CalFileErr line 1");
    put_calibration("H,serial,UVS1234\nH,pixels,many\n");
    EXPECT_EQ(run_word(apf_take_sample_nitrate), "NAK,T1,CalFileErr line 2");
    EXPECT_EQ(run_word(apf_get_cfg_isus), "ACK,C1,1000,1,2,3,17,87,3,5000,1,0,1,30,0,CalFileErr line 2");
    run_shell("MTOOLS_SKIP_CHECK=1 mdel -i " + image + " ::UVSCAL.CSV");
    remount();
    EXPECT_EQ(run_word(apf_take_sample_nitrate), "NAK,T1,NoCalFile");
    EXPECT_EQ(run_word(apf_bake_uv_lamp), "NAK,BAKE,NoCalFile");
    expect_powered_down();
    EXPECT_EQ(stored().isus_last_error, -121);
    EXPECT_NE(card_file("ERROR.TXT").find("Nitrate T1 failed: NoCalFile"), std::string::npos);
}

// The bake runs the lamp for its time and reports the light; a weak lamp is refused. C1 names the
// calibration it runs with.
TEST_F(NitrateWords, BakeAndConfiguration) {
    apf.isus_clean_lamp = 20;
    std::string reply = run_word(apf_bake_uv_lamp);
    ASSERT_EQ(reply.rfind("ACK,BAKE,20,", 0), 0u) << reply;
    EXPECT_GT(atof(reply.c_str() + 12), 5000.0);
    expect_powered_down();
    sim::test::set_scenario("uvs", "lamp-weak");
    EXPECT_EQ(run_word(apf_bake_uv_lamp), "NAK,BAKE,LampFail");
    expect_powered_down();
    EXPECT_EQ(run_word(apf_get_cfg_isus), "ACK,C1,1000,1,2,3,17,87,3,5000,1,0,1,20,91,UVS1234");
}

} // namespace
