// The SBE37 driver against the simulated instrument on port 4: a pass from the wake to the parsed
// reply, how a reply may end, the 15-character window, silence, noise, a wrong configuration, the
// wake delay, and the salinity reaching the external-reference pH of a sample. The line always gets
// the six columns of the SBE37's header group, empty when the pass failed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "board/bme280.h"
#include "board/i2c0.h"
#include "board/pcal6416.h"
#include "board/pinmux.h"
#include "storage/microsd.h"
#include "records/system.h"
#include "board/timebase.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "instruments/ctd_aand5860.h"
#include "instruments/ctd_base.h"
#include "instruments/ctd_sbe37.h"
#include "measure/apf_math.h"
#include "measure/sample.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"
#include "storage/i2c_fram.h"

namespace {

constexpr char silent_text[] =
    "CTD not responding with SBE37 data, check connection, make sure data config is SBE37";
constexpr char too_long_text[] = "ST7: error in ctd driver bufIndx exceeds buf size, ctd";

double seconds_since(uint64_t t0) {
    return double(sim::now_ns() - t0) / double(sim::ns_per_s);
}

class CtdSbe37 : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        sim::test::reset_board();
        memset(&sys_data, 0, sizeof sys_data);
        memset(&sys_samp, 0, sizeof sys_samp);
        microSD_flg = 0;
        ASSERT_TRUE(sim::test::run(test_board::start_board_with_sensors).returned);
        sys_data.baud_rate = 115200;
        initSysDataVariables();
        sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
        sys_data.data_cfg[CFG_UART4_INST] = CTD_TYPE_SBE37;
        sys_data.diag = 0;
        sys_samp.sensor_sal = 31.0f; // left by an earlier pass
        ctd = ctdDriver{};
        sim::test::set_scenario("port4", "sbe37");
        clear_out();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
    static void clear_out() {
        wait_consoleTx();
        sim::test::clear_console_output();
    }
    // A whole pass as the sample cycle's final loop runs it: back-to-back steps. Returns the steps.
    static long pass() {
        long steps = 1;
        int state = ctd_sbe37_stateMachine(1);
        while (state != 0 && steps < 50000000) {
            state = ctd_sbe37_stateMachine(state);
            steps++;
        }
        return steps;
    }
    static void expect_success(const char* text, float temp, float sal) {
        EXPECT_EQ(ctd.state, 0);
        EXPECT_EQ(ctd.type, CTD_TYPE_SBE37);
        EXPECT_EQ(std::string(uart4_prn_buf), text);
        EXPECT_EQ(ctd.tempC, temp);
        EXPECT_EQ(ctd.salt, sal);
        EXPECT_EQ(sys_samp.sensor_sal, sal);
    }
    static void expect_failure(const char* text) {
        EXPECT_EQ(ctd.state, -1);
        EXPECT_EQ(ctd.type, 0u);
        EXPECT_STREQ(uart4_prn_buf, "\t\t\t\t\t");
        EXPECT_STREQ(ctd_message, text);
        EXPECT_EQ(sys_samp.sensor_sal, 31.0f); // the last good salinity stays in use
    }
};

TEST_F(CtdSbe37, ReplyBuiltFromTheBathIsParsed) {
    sim::test::set_scenario("bath.temp", "12.5");
    sim::test::set_scenario("bath.sal", "33.25");
    uint64_t t0 = sim::now_ns();
    pass();
    expect_success("12\t4\t\t33.25\t0\t0", 12.0f, 33.25f);
    // The 900 ms wake delay (counted in 10 ms ticks), the 20 ms gap before "ts", its three characters,
    // the 2.5 s sample time, and 16 characters at 9600 baud.
    EXPECT_NEAR(seconds_since(t0), 0.895 + 0.02 + 0.003 + 2.5 + 0.017, 0.01);
    EXPECT_EQ(out(), "");
}

TEST_F(CtdSbe37, ReplyEndedByLessThanCompletesLikeALineFeed) {
    sim::test::set_scenario("port4.reply", "9.5,3.6,34,1,2");
    pass();
    expect_success("9.5\t3.6\t\t34\t1\t2", 9.5f, 34.0f);

    sim::test::set_scenario("port4.reply", "9.5,3.6,34,1,2<");
    ctd = ctdDriver{};
    pass();
    expect_success("9.5\t3.6\t\t34\t1\t2", 9.5f, 34.0f);

    // What followed the "<" (line end and prompt) does not disturb the next pass.
    sim::test::set_scenario("port4.reply", "8,3,35.5,1,2");
    pass();
    expect_success("8\t3\t\t35.5\t1\t2", 8.0f, 35.5f);
}

// With a pressure sensor the reply has six fields; the pressure takes its own column instead of the
// salinity's, and the conductivity and pressure are kept in the driver record.
TEST_F(CtdSbe37, PressureTakesItsOwnColumn) {
    sim::test::set_scenario("port4.reply", "9,3,10,34,1,2");
    pass();
    expect_success("9\t3\t10\t34\t1\t2", 9.0f, 34.0f);
    EXPECT_EQ(ctd.pressure, 10.0f);
    EXPECT_EQ(ctd.condo, 3.0f);
}

// The window holds 15 stored characters; the carriage return counts as one (stored as a zero).
TEST_F(CtdSbe37, SixteenStoredCharactersAreTooLong) {
    sim::test::set_scenario("port4.reply", "10.5,3.6,34,1,2<"); // 15 stored: completes
    pass();
    expect_success("10.5\t3.6\t\t34\t1\t2", 10.5f, 34.0f);

    sys_samp.sensor_sal = 31.0f;
    sim::test::set_scenario("port4.reply", "10.5,3.6,34,1,2"); // 15 and the CR: 16
    clear_out();
    pass();
    expect_failure(too_long_text);
    EXPECT_EQ(ctd.bufIndx, 15u);
    EXPECT_EQ(out().rfind("\r\nST7: error in ctd driver bufIndx exceeds buf size, ctd\r\n", 0), 0u) << out();

    sim::test::set_scenario("port4.reply", "10.25,3.6,34,1,2<"); // 16 before the end mark
    pass();
    expect_failure(too_long_text);
}

TEST_F(CtdSbe37, SilenceEndsThePassAfterThreeAndAHalfSeconds) {
    for (const char* port : {"sbe37-silent", "none"}) {
        SCOPED_TRACE(port);
        sim::test::set_scenario("port4", port);
        uint64_t t0 = sim::now_ns();
        pass();
        expect_failure(silent_text);
        EXPECT_NEAR(seconds_since(t0), 0.9 + 0.04 + 3.5, 0.012);
    }
    EXPECT_NE(out().find(std::string("\r\n") + silent_text + "\r\n"), std::string::npos) << out();
}

TEST_F(CtdSbe37, NoiseIsCutOffAtTheWindow) {
    sim::test::set_scenario("port4", "sbe37-garbage");
    uint64_t t0 = sim::now_ns();
    pass();
    expect_failure(too_long_text);
    EXPECT_LT(seconds_since(t0), 3.5);
}

// While the sample cycle reads the ADC the driver is not stepped; the reply and the prompt after it
// (more than the 16-byte hardware FIFO) wait in port 4's ring, filled by its interrupt.
TEST_F(CtdSbe37, ReplyWaitsInTheRingWhileTheDriverIsNotStepped) {
    sim::test::set_scenario("port4.reply", "9.5,3.6,34,1,2");
    int state = ctd_sbe37_stateMachine(1);
    while (state == 2) {
        state = ctd_sbe37_stateMachine(state);
    }
    ASSERT_EQ(state, 3);
    sim::test::advance_s(3.0);
    EXPECT_EQ(ctd_rx_avail(), 18u); // "9.5,3.6,34,1,2\r\nS>"
    while (state != 0) {
        state = ctd_sbe37_stateMachine(state);
    }
    expect_success("9.5\t3.6\t\t34\t1\t2", 9.5f, 34.0f);
}

// A short line that is not a sample: the pass completes, the parse fails loudly and salinity is 0.
TEST_F(CtdSbe37, UnparsableReplyGivesSalinityZero) {
    sim::test::set_scenario("port4.reply", "?cmd S>");
    pass();
    EXPECT_EQ(ctd.state, 0);
    EXPECT_EQ(ctd.type, CTD_TYPE_SBE37);
    EXPECT_EQ(ctd.salt, 0.0f);
    EXPECT_EQ(ctd.tempC, 0.0f);
    EXPECT_EQ(sys_samp.sensor_sal, 0.0f);
    EXPECT_STREQ(uart4_prn_buf, "\t\t\t\t\t");
    EXPECT_EQ(
        out().rfind(
            "\r\nError:  sscanf for parsing MicroCat does not return 5 args.  ctd.state = 3.  TempC and "
            "salt are 0.0\r\n",
            0),
        0u)
        << out();
}

// Numbers no MicroCAT reports (a garbled line can still scan) are refused like an unparsable reply:
// nan and inf are no numbers at all, the others out of range.
TEST_F(CtdSbe37, ReplyOutOfRangeGivesSalinityZero) {
    for (const char* bad : {"nan,4,35,0,0", "15,4,inf,0,0", "15,4,61,0,0", "15,4,-1,0,0", "99,4,35,0,0"}) {
        SCOPED_TRACE(bad);
        sim::test::clear_console_output();
        sim::test::set_scenario("port4.reply", bad);
        pass();
        EXPECT_EQ(ctd.salt, 0.0f);
        EXPECT_EQ(ctd.tempC, 0.0f);
        EXPECT_EQ(sys_samp.sensor_sal, 0.0f);
        EXPECT_NE(out().find("TempC and salt are 0.0"), std::string::npos) << out();
        EXPECT_STREQ(uart4_prn_buf, "\t\t\t\t\t");
    }
}

TEST_F(CtdSbe37, OtherCtdTypeIsRefusedAtOnce) {
    sys_data.data_cfg[CFG_UART4_INST] = 7;
    EXPECT_EQ(ctd_sbe37_stateMachine(1), 0);
    EXPECT_EQ(ctd.type, 0u);
    EXPECT_EQ(ctd.state, 0);
    EXPECT_EQ(out(),
              "Error: sys_data.data_cfg[CFG_UART4_INST] = 7, no driver for this CTD type, Config -> Data "
              "Fields\r\n");
    EXPECT_EQ(ctd_sbe37_stateMachine(0), 0);
}

// The instrument hears nothing until 900 ms after the port was opened: it answers a carriage return
// with its prompt, so nothing arrives before then.
TEST_F(CtdSbe37, WakeCarriageReturnWaitsNineHundredMilliseconds) {
    ASSERT_EQ(ctd_sbe37_stateMachine(1), 2);
    uint64_t t0 = sim::now_ns();
    int state = 2;
    while (state == 2) {
        EXPECT_EQ(ctd_rx_avail(), 0u);
        delay_msec(1);
        state = ctd_sbe37_stateMachine(state);
    }
    EXPECT_EQ(state, 3);
    double woke = seconds_since(t0) - 0.04; // the call that sends also waits its two command gaps
    EXPECT_GE(woke, 0.89);
    EXPECT_LT(woke, 0.905);
    while (state != 0) {
        state = ctd_sbe37_stateMachine(state);
    }
    EXPECT_EQ(ctd.type, CTD_TYPE_SBE37);
}

// End to end: the salinity the CTD reports, not the configured default, goes into the external pH.
TEST_F(CtdSbe37, SalinityReachesTheExternalPh) {
    sim::test::set_scenario("adc.noise_uv", "0");
    sim::test::set_scenario("bath.ph", "7.9");
    sim::test::set_scenario("bath.temp", "10");
    sim::test::set_scenario("bath.sal", "30");
    sys_data.default_sal = 35.0f;
    sys_data.data_cfg[CFG_CALC_PH_VRSE] = 1;
    sys_data.data_cfg[CFG_CALC_TEMP] = 1;
    sys_data.data_cfg[CFG_VRSE] = 1;
    sys_data.data_cfg[CFG_V_THERMISTOR] = 1;
    get_sample(0, 0);
    EXPECT_EQ(ctd.type, CTD_TYPE_SBE37);
    EXPECT_EQ(sys_samp.sensor_sal, 30.0f);
    EXPECT_EQ(sampl.pHext, calc_pHext(sampl.fVrse, sampl.fTempC, 30.0f));
    EXPECT_NE(sampl.pHext, calc_pHext(sampl.fVrse, sampl.fTempC, 35.0f));
    EXPECT_NEAR(sampl.pHext, 7.9, 0.002);
    EXPECT_NE(std::string(prnBuf).find("\t10\t3\t\t30.00\t0\t0\r\n"), std::string::npos) << prnBuf;
}

} // namespace
