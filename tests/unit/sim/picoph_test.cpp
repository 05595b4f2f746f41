// The Pico-pH model on UART3: the measurement's eighteen results in their places, the channel and
// sensor bits sent back as given, the phase falling with pH, and what it refuses.
#include "sim/serial_port.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

namespace {

class PicoPhModel : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        sim::test::set_scenario("port3", "picoph");
        serial_port::open(3, 19200);
    }
    static std::string say(const std::string& text, double seconds = 0.5) {
        return serial_port::say(3, text, seconds);
    }
    static std::vector<long> results(const std::string& answer) {
        std::istringstream words(answer);
        std::string mea;
        long channel = 0, sensors = 0, r = 0;
        words >> mea >> channel >> sensors;
        std::vector<long> out;
        while (words >> r) {
            out.push_back(r);
        }
        return out;
    }
};

TEST_F(PicoPhModel, MeasurementHasEveryResultInItsPlace) {
    sim::test::set_scenario("bath.temp", "-1.5");
    sim::test::set_scenario("board.temp", "22.25");
    sim::test::set_scenario("board.humidity", "40.5");
    sim::test::set_scenario("bath.ph", "7.5");
    EXPECT_EQ(say("MEA 1 47\r"),
              "MEA 1 47 0 35000 0 0 0 -1500 22250 150000 300 1013250 40500 25000 0 0 7500 0 0 0\r")
        << "no echo; at pH = pKa the phase is half way between 20 and 50 degrees";
}

TEST_F(PicoPhModel, PhaseFallsWithPhAndChannelAndSensorsComeBack) {
    long last = 1000000;
    for (const char* ph : {"6.0", "7.0", "8.0", "9.0"}) {
        sim::test::set_scenario("bath.ph", ph);
        std::string answer = say("MEA 2 3\n\r");
        ASSERT_EQ(answer.rfind("MEA 2 3 ", 0), 0u) << answer;
        std::vector<long> r = results(answer);
        ASSERT_EQ(r.size(), 18u);
        EXPECT_EQ(r[14], std::lround(std::stod(ph) * 1000));
        EXPECT_LT(r[1], last);
        EXPECT_GT(r[1], 20000);
        EXPECT_LT(r[1], 50000);
        last = r[1];
    }
}

TEST_F(PicoPhModel, AnythingElseIsAnUnknownCommand) {
    for (const char* cmd : {"MEAS 1 47\r", "MEA 1\r", "MEA 1 47 5\r", "MEA x 47\r", "mea 1 47\r", "\r"}) {
        EXPECT_EQ(say(cmd, 0.05), "#ERRO -21\r") << cmd;
    }
    EXPECT_EQ(say("MEA 1 47\r").rfind("MEA 1 47 0 ", 0), 0u) << "an error leaves nothing behind";
}

} // namespace
