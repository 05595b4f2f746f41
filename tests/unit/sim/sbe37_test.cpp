// The SBE37 model on UART4: waking on a carriage return, echo, the "ts" reply after the sample time
// built from the bath or given by the scenario, an empty port, and going back to sleep (the faulty
// variants are in serial_instrument_test.cpp).
#include "sim/serial_port.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using serial_port::Rx;

class Sbe37Model : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        sim::test::set_scenario("port4", "sbe37");
        serial_port::open(4, 9600);
    }
    static void send(const std::string& text) { serial_port::send(4, text); }
    static std::vector<Rx> listen(double seconds) { return serial_port::listen(4, seconds); }
    static std::string text(const std::vector<Rx>& rx) { return serial_port::text(rx); }
};

TEST_F(Sbe37Model, WakesOnCarriageReturnOnlyAndEchoesWhileAwake) {
    send("ts");
    EXPECT_EQ(text(listen(0.1)), "");
    send("\r");
    EXPECT_EQ(text(listen(0.1)), "S>");
    send("xy\r");
    EXPECT_EQ(text(listen(0.1)), "xy\r\n?cmd S>");
}

TEST_F(Sbe37Model, SampleArrivesAfterTheSampleTimeAtTheBaudRate) {
    sim::test::set_scenario("bath.temp", "12.5");
    sim::test::set_scenario("bath.sal", "33.25");
    send("\r");
    listen(0.05);
    send("ts\r");
    uint64_t sent = sim::now_ns() + 3 * 10 * sim::ns_per_s / 9600; // the command's CR has left
    std::vector<Rx> rx = listen(3.0);
    std::string all = text(rx);
    ASSERT_EQ(all.substr(0, 4), "ts\r\n");
    std::string line = all.substr(4, all.find('\n', 4) - 4 + 1);
    EXPECT_EQ(line, "12,4,33.25,0,0\r\n");
    EXPECT_EQ(all.substr(4 + line.size()), "S>");
    double first_ms = double(rx[4].at_ns - sent) / 1e6;
    EXPECT_NEAR(first_ms, 2501.0, 2.0); // sample time, one character time, the 1 ms read grid
    double per_char_ms = double(rx[4 + line.size() - 1].at_ns - rx[4].at_ns) / double(line.size() - 1) / 1e6;
    EXPECT_NEAR(per_char_ms, 1.04, 0.1);
}

// The line always fits 14 characters and carries salinity to at least one decimal place, and its
// conductivity rises with temperature and salinity as seawater's does.
TEST_F(Sbe37Model, BathLineFitsTheReplyWindowAndTracksTheBath) {
    send("\r");
    listen(0.05);
    double last_c = 0;
    for (double temp : {-1.5, 2.0, 15.0, 28.0, 35.0}) {
        for (double sal : {20.0, 33.4, 36.0, 40.0}) {
            SCOPED_TRACE(std::to_string(temp) + " degC, S " + std::to_string(sal));
            sim::test::set_scenario("bath.temp", std::to_string(temp));
            sim::test::set_scenario("bath.sal", std::to_string(sal));
            send("ts\r");
            std::string all = text(listen(2.6));
            std::string line = all.substr(4, all.find('\r', 4) - 4);
            EXPECT_LE(line.size(), 14u) << line;
            float t = 0, c = 0, s = 0;
            ASSERT_EQ(std::sscanf(line.c_str(), "%f,%f,%f", &t, &c, &s), 3) << line;
            EXPECT_NEAR(s, sal, 0.05);
            EXPECT_NEAR(t, temp, 0.5);
            if (sal == 20.0) {
                EXPECT_GT(c, last_c - 0.5); // rounded to whole S/m at worst
                last_c = c;
            }
            EXPECT_NEAR(c, sal / 35.0 * (2.9 + 0.09 * temp), 0.9);
        }
    }
}

TEST_F(Sbe37Model, ScenarioReplyIsSentExactly) {
    sim::test::set_scenario("port4.reply", "1,2,3,x,y<junk");
    send("\r");
    listen(0.05);
    send("TS\r");
    EXPECT_EQ(text(listen(2.6)), "TS\r\n1,2,3,x,y<junk\r\nS>");
}

TEST_F(Sbe37Model, EmptyPortAnswersNothing) {
    sim::test::set_scenario("port4", "none");
    send("\rts\r");
    EXPECT_EQ(text(listen(3.0)), "");
}

TEST_F(Sbe37Model, SleepsAfterTwoMinutesWithoutACommand) {
    send("\r");
    listen(0.05);
    sim::test::advance_s(121);
    send("ts\r"); // asleep: "ts" is ignored, the CR only wakes it
    EXPECT_EQ(text(listen(3.0)), "S>");
}

TEST_F(Sbe37Model, PowerOnPutsItToSleepWithNothingPending) {
    send("\r");
    listen(0.05);
    send("ts\r");
    listen(0.5);
    sim::test::power_on(sim::WakeSource::power);
    serial_port::open(4, 9600);
    EXPECT_EQ(text(listen(3.0)), "");
}

} // namespace
