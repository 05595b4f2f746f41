// The Aanderaa 5860 model on UART4: the character that wakes it is lost, no echo, the sample line's
// seawater figures at a known point, commands it does not know, and going back to sleep.
#include "sim/serial_port.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

class Aand5860Model : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        sim::test::set_scenario("port4", "aand5860");
        serial_port::open(4, 9600);
    }
    static std::string say(const std::string& text, double seconds) {
        return serial_port::say(4, text, seconds);
    }
};

// At 15 degC and salinity 35 seawater's conductivity is 42.914 mS/cm by the definition of the
// practical salinity scale; density and sound speed are within their approximations of
// 1025.97 kg/m3 and 1506.7 m/s.
TEST_F(Aand5860Model, SampleLineAtStandardSeawater) {
    EXPECT_EQ(say("x", 0.1), "");
    std::string line = say("Do Sample\r\n", 1.2);
    int sn = 0;
    float c = 0, t = 0, s = 0, rho = 0, v = 0;
    char end[3] = "";
    ASSERT_EQ(std::sscanf(line.c_str(), "5860\t%d\t%f\t%f\t%f\t%f\t%f%2c", &sn, &c, &t, &s, &rho, &v, end), 7)
        << line;
    EXPECT_EQ(sn, 567);
    EXPECT_NEAR(c, 42.914, 0.001);
    EXPECT_FLOAT_EQ(t, 15.0f);
    EXPECT_FLOAT_EQ(s, 35.0f);
    EXPECT_NEAR(rho, 1025.97, 0.5);
    EXPECT_NEAR(v, 1506.7, 0.5);
    EXPECT_EQ(std::string(end, 2), "\r\n");
    EXPECT_EQ(line.find('\r'), line.size() - 2);
}

// Seawater of salinity 35 conducts 29.0 mS/cm at 0 degC and 53.09 at 25 degC.
TEST_F(Aand5860Model, ConductivityFollowsTemperatureAsSeawatersDoes) {
    say("x", 0.1);
    for (double known : {29.0, 53.09}) {
        sim::test::set_scenario("bath.temp", known < 40 ? "0" : "25");
        float c = 0;
        std::string line = say("do sample\r\n", 1.2);
        ASSERT_EQ(std::sscanf(line.c_str(), "5860\t567\t%f", &c), 1) << line;
        EXPECT_NEAR(c, known, 0.1);
    }
}

TEST_F(Aand5860Model, UnknownCommandsGetNothingAndItSleepsAfterAMinute) {
    say("x", 0.1);
    EXPECT_EQ(say("get all\r\n", 1.2), "");
    sim::test::advance_s(57);
    EXPECT_NE(say("do sample\r\n", 1.2), "") << "still awake";
    sim::test::advance_s(61);
    EXPECT_EQ(say("do sample\r\n", 1.2), "") << "the d woke it; the rest is no command";
}

} // namespace
