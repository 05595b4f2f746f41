// The Aanderaa 5860 driver, with the sensor's side played byte by byte onto port 4: the wake and
// "do sample", a parsed reply, the 2.5 s response limit, the 50 ms limit between characters, and a
// wrong configuration. A failed pass leaves the seven columns of the sensor's header group empty and
// says why on the console.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "board/pinmux.h"
#include "records/system.h"
#include "board/timebase.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "instruments/ctd_aand5860.h"
#include "instruments/ctd_base.h"
#include "instruments/ctd_sbe37.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"

namespace {

constexpr char no_sample_text[] = "CTD not responding with sample string after do sample";
constexpr uint64_t char_ns = 10 * sim::ns_per_s / 9600;

void start_board(void) {
    test_board::start_clocks();
    UARTStdioConfig(0, 115200, 16000000);
}

class CtdAand5860 : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        memset(&sys_data, 0, sizeof sys_data);
        memset(&sys_samp, 0, sizeof sys_samp);
        ASSERT_TRUE(sim::test::run(start_board).returned);
        sys_data.data_cfg[CFG_UART4_INST] = CTD_TYPE_AAND5860;
        sys_samp.sensor_sal = 31.0f;
        ctd = ctdDriver{};
        wait_consoleTx();
        sim::test::clear_console_output();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
    // Runs the pass up to the point where it waits for the reply.
    static int start() {
        int state = ctd_aand5860_stateMachine(1);
        while (state == 2) {
            state = ctd_aand5860_stateMachine(state);
        }
        return state;
    }
    // Steps the driver for `seconds`, or until the pass ends; returns the last state.
    static int step_for(int state, double seconds) {
        uint64_t end = sim::now_ns() + static_cast<uint64_t>(seconds * sim::ns_per_s);
        while (state != 0 && sim::now_ns() < end) {
            state = ctd_aand5860_stateMachine(state);
        }
        return state;
    }
    // The sensor sends text at 9600 baud (each character after one character time) while the
    // driver keeps stepping.
    static int reply(int state, const std::string& text) {
        for (char c : text) {
            state = step_for(state, double(char_ns) / sim::ns_per_s);
            sim::uart_receive(4, static_cast<uint8_t>(c));
        }
        return step_for(state, 0.01);
    }
};

TEST_F(CtdAand5860, ReplyIsParsedIntoSalinity) {
    int state = start();
    ASSERT_EQ(state, 3);
    EXPECT_EQ(ctd.type, CTD_TYPE_AAND5860);
    state = step_for(state, 1.2); // the sensor measures
    state = reply(state, "5860\t1234\t43.812\t12.345\t33.456\t1025.3\t1498.7\r\n");
    EXPECT_EQ(state, 0);
    EXPECT_EQ(ctd.state, 0);
    EXPECT_STREQ(uart4_prn_buf, "5860\t1234\t43.812\t12.345\t33.456\t1025.3\t1498.7");
    EXPECT_EQ(ctd.condo, 43.812f);
    EXPECT_EQ(ctd.tempC, 12.345f);
    EXPECT_EQ(ctd.salt, 33.456f);
    EXPECT_EQ(sys_samp.sensor_sal, 33.456f);
    EXPECT_EQ(out(), "");
}

TEST_F(CtdAand5860, NoReplyWithinTwoAndAHalfSeconds) {
    int state = start();
    uint64_t t0 = sim::now_ns();
    state = step_for(state, 3.0);
    EXPECT_EQ(state, 0);
    EXPECT_NEAR(double(sim::now_ns() - t0) / sim::ns_per_s, 2.5, 0.011);
    EXPECT_EQ(ctd.state, -1);
    EXPECT_EQ(ctd.type, 0u);
    EXPECT_STREQ(uart4_prn_buf, "\t\t\t\t\t\t");
    EXPECT_EQ(sys_samp.sensor_sal, 31.0f);
    EXPECT_EQ(
        out().rfind(
            "\r\nNo CTD response in 2.5sec, statemachine pumping too slow or instrument not connected\r\n",
            0),
        0u)
        << out();
}

// A pause of about 40 ms inside the line is tolerated; one of about 70 ms breaks the line.
TEST_F(CtdAand5860, GapBetweenCharactersIsLimitedToFiftyMilliseconds) {
    int state = start();
    state = reply(state, "5860\t1234\t43.8"); // ends with 10 ms of stepping
    state = step_for(state, 0.03);
    state = reply(state, "12\t12.3\t33.4\t1025.3\t1498.7\r\n");
    EXPECT_EQ(state, 0);
    EXPECT_EQ(ctd.state, 0);
    EXPECT_EQ(sys_samp.sensor_sal, 33.4f);

    sys_samp.sensor_sal = 31.0f;
    state = start();
    state = reply(state, "5860\t1234\t43.8");
    state = step_for(state, 0.06);
    EXPECT_EQ(state, 0);
    EXPECT_EQ(ctd.state, -1);
    EXPECT_EQ(ctd.type, 0u);
    EXPECT_STREQ(ctd_message, no_sample_text);
    EXPECT_STREQ(uart4_prn_buf, "\t\t\t\t\t\t");
    EXPECT_EQ(sys_samp.sensor_sal, 31.0f);
}

TEST_F(CtdAand5860, ShortOrEndlessRepliesDoNotStandAsData) {
    int state = start();
    state = reply(state, "5860\t1234\n");
    EXPECT_EQ(state, 0);
    EXPECT_EQ(sys_samp.sensor_sal, 0.0f);
    EXPECT_NE(out().find("sscanf for parsing Aanderaa 5860 does not return 7 args"), std::string::npos);
    EXPECT_STREQ(uart4_prn_buf, "\t\t\t\t\t\t");

    state = start();
    state = reply(state, std::string(100, '7'));
    EXPECT_EQ(state, 0);
    EXPECT_EQ(ctd.state, -1);
    EXPECT_STREQ(ctd_message, "ST7: error in ctd driver bufIndx exceeds buf size, ctd");
    EXPECT_STREQ(uart4_prn_buf, "\t\t\t\t\t\t");
}

// Numbers a garbled line can still hold (nan) are no reply; finite ones no sensor reports are out of
// range. Neither reaches the salinity or the line.
TEST_F(CtdAand5860, ReplyOutOfRangeIsNoData) {
    int state = start();
    state = reply(state, "5860\t1234\tnan\tnan\tnan\t1025.3\t1498.7\r\n");
    EXPECT_EQ(state, 0);
    EXPECT_EQ(ctd.tempC, 0.0f);
    EXPECT_EQ(sys_samp.sensor_sal, 0.0f);
    EXPECT_NE(out().find("does not return 7 args"), std::string::npos) << out();

    state = start();
    state = reply(state, "5860\t1234\t43.8\t99.0\t35.0\t1025.3\t1498.7\r\n");
    EXPECT_EQ(state, 0);
    EXPECT_EQ(ctd.tempC, 0.0f);
    EXPECT_EQ(sys_samp.sensor_sal, 0.0f);
    EXPECT_NE(out().find("Aanderaa 5860 reply out of range"), std::string::npos) << out();
    EXPECT_STREQ(uart4_prn_buf, "\t\t\t\t\t\t");
}

TEST_F(CtdAand5860, OtherCtdTypeIsRefusedAtOnce) {
    sys_data.data_cfg[CFG_UART4_INST] = 6;
    EXPECT_EQ(ctd_aand5860_stateMachine(1), 0);
    EXPECT_EQ(ctd.type, 0u);
    EXPECT_EQ(out(),
              "Error: sys_data.data_cfg[CFG_UART4_INST] = 6, no driver for this CTD type, Config -> Data "
              "Fields\r\n");
}

} // namespace
