// The oxygen optode model on UART3: the character that wakes it is lost, echo and the measurement
// line's fields as they follow the bath, commands it does not know, and going back to sleep.
#include "sim/serial_port.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

class OptodeModel : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        sim::test::set_scenario("port3", "optode");
        serial_port::open(3, 9600);
    }
    static std::string say(const std::string& text, double seconds) {
        return serial_port::say(3, text, seconds);
    }
    static double value(const std::vector<std::string>& f, const std::string& label) {
        for (size_t i = 0; i + 1 < f.size(); ++i) {
            if (f[i] == label) {
                return std::atof(f[i + 1].c_str());
            }
        }
        ADD_FAILURE() << "no " << label;
        return 0;
    }
    static std::vector<std::string> sample() {
        std::string all = say("Do Sample\r\n", 1.7);
        EXPECT_EQ(all.rfind("Do Sample\r\nMEASUREMENT\t", 0), 0u) << all;
        std::string line = all.substr(std::string("Do Sample\r\n").size());
        EXPECT_EQ(line.size() - 2, line.find("\r\n")) << "one line";
        return serial_port::split_tabs(line.substr(0, line.size() - 2));
    }
};

TEST_F(OptodeModel, WakingCharacterIsLostThenEverythingIsEchoed) {
    EXPECT_EQ(say("D", 0.1), "");
    EXPECT_EQ(say("hello\r\n", 0.1), "hello\r\n") << "an unknown command gets only its echo";
    EXPECT_EQ(say("do sAMPLE\r", 1.7).rfind("do sAMPLE\rMEASUREMENT\t3830\t1234\t", 0), 0u);
}

TEST_F(OptodeModel, MeasurementFollowsTheBath) {
    say("x", 0.05);
    sim::test::set_scenario("bath.temp", "20");
    sim::test::set_scenario("bath.o2", "284.65"); // fresh water in equilibrium with air at 20 degC
    std::vector<std::string> f = sample();
    ASSERT_EQ(f.size(), 23u);
    EXPECT_EQ(f[0], "MEASUREMENT");
    EXPECT_EQ(f[1], "3830");
    EXPECT_EQ(f[2], "1234");
    EXPECT_EQ(f[3], "Oxygen: ");
    EXPECT_EQ(f[21], "RawTem.: ");
    EXPECT_DOUBLE_EQ(value(f, "Oxygen: "), 284.65);
    EXPECT_DOUBLE_EQ(value(f, "Temperature: "), 20.0);
    EXPECT_NEAR(value(f, "Saturation: "), 100.0, 1.0);
    double phase_air = value(f, "DPhase: ");
    EXPECT_DOUBLE_EQ(value(f, "BPhase: "), phase_air);
    EXPECT_GT(phase_air, 25.0);
    EXPECT_LT(phase_air, 45.0);

    sim::test::set_scenario("bath.temp", "5");
    sim::test::set_scenario("bath.o2", "50");
    f = sample();
    EXPECT_GT(value(f, "DPhase: "), phase_air) << "less oxygen quenches less";
    EXPECT_NEAR(value(f, "Saturation: "), 50.0 / 398.0 * 100.0, 1.0); // 398 umol/kg at 5 degC
}

TEST_F(OptodeModel, SleepsAMinuteAfterTheLastCommand) {
    say("x", 0.05);
    say("Do Sample\r\n", 1.7);
    sim::test::advance_s(57);
    EXPECT_EQ(say("?\r", 0.1), "?\r") << "still awake";
    sim::test::advance_s(61);
    EXPECT_EQ(say("Do Sample\r\n", 1.7), "o Sample\r\n") << "the D woke it; the rest is no command";
}

} // namespace
