// The Brisa model on UART3: its wake and prompt, the sample line's fourteen fields as they follow the
// board's clock and scenario, its sample count, and going back to sleep.
#include "bath.h"
#include "sim/serial_port.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

class BrisaModel : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board(1767225600 + 3723); // 2026-01-01 01:02:03 UTC
        sim::test::set_scenario("port3", "brisa");
        serial_port::open(3, 9600);
    }
    static std::string say(const std::string& text, double seconds) {
        return serial_port::say(3, text, seconds);
    }
    // The sample line's fields, after its echo and before its prompt.
    static std::vector<std::string> sample() {
        std::string all = say("ts\r", 3.2);
        EXPECT_EQ(all.rfind("ts\r\n#", 0), 0u) << all;
        EXPECT_EQ(all.substr(all.size() - 4), "\r\nS>") << all;
        return serial_port::split_tabs(all.substr(4, all.size() - 8));
    }
};

TEST_F(BrisaModel, WakesOnCarriageReturnWithItsPrompt) {
    EXPECT_EQ(say("ts", 0.1), "");
    EXPECT_EQ(say("\r", 0.1), "\r\nS>");
    EXPECT_EQ(say("\r", 0.1), "\r\nS>") << "an empty line";
    EXPECT_EQ(say("xy\r", 0.1), "xy\r\n?cmd S>");
}

TEST_F(BrisaModel, SampleLineFollowsTheClockAndTheScenario) {
    sim::test::set_scenario("bath.temp", "12.5");
    sim::test::set_scenario("bias.pos", "3.55");
    sim::test::set_scenario("board.temp", "21.25");
    sim::test::set_scenario("board.humidity", "41");
    say("\r", 0.05);
    std::vector<std::string> f = sample();
    ASSERT_EQ(f.size(), 14u);
    EXPECT_EQ(f[0], "#0000001");
    EXPECT_EQ(f[1], "01/01/2026 01:02:03");
    EXPECT_EQ(f[2], "    3.55");
    EXPECT_EQ(f[3], "   21.25");
    EXPECT_EQ(f[4], "      41");
    sim::BathVolts v = sim::bath_volts();
    EXPECT_NEAR(std::atof(f[5].c_str()), v.vtherm, 1e-6);
    EXPECT_EQ(f[7], "  12.500");
    EXPECT_NEAR(std::atof(f[8].c_str()), v.vrse, 1e-6);
    EXPECT_NEAR(std::atof(f[10].c_str()), -0.9, 1e-6) << "Vk";
    EXPECT_NEAR(std::atof(f[12].c_str()), 15.0, 1e-6) << "Ik, uV";
    EXPECT_NEAR(std::atof(f[13].c_str()), 1.0, 1e-6) << "Ib, uV";
    for (size_t i = 2; i < f.size(); ++i) {
        EXPECT_GE(f[i].size(), 8u) << "field " << i << " is at least eight wide";
    }

    sim::test::set_scenario("bath.ph", "7.0");
    f = sample();
    EXPECT_EQ(f[0], "#0000002");
    EXPECT_LT(std::atof(f[8].c_str()), v.vrse) << "a lower pH, a lower Vrse";
}

TEST_F(BrisaModel, CountStartsAgainAtPowerOnAndItSleepsAfterTwoMinutes) {
    say("\r", 0.05);
    sample();
    sim::test::power_on(sim::WakeSource::power);
    serial_port::open(3, 9600);
    EXPECT_EQ(say("ts\r", 3.2), "\r\nS>") << "asleep after the power-on: the CR wakes it";
    EXPECT_EQ(sample()[0], "#0000001");
    sim::test::advance_s(121);
    EXPECT_EQ(say("ts\r", 3.2), "\r\nS>");
}

} // namespace
