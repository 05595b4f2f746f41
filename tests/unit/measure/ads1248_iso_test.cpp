// The isolated ADC front end against the simulated ADS1248: code conversion at the rails, the mean
// truncated to whole codes, the population standard deviation, the SYS0 codes and their warnings,
// the trial cap, the general-purpose pin writers, and the power lines.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "board/pinmux.h"
#include "records/system.h"
#include "driverlib/gpio.h"
#include "driverlib/interrupt.h"
#include "driverlib/ssi.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "devices.h"
#include "inc/hw_memmap.h"
#include "measure/ads1248_iso.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"

namespace {

constexpr int port_d = 3, port_e = 4;

void start_board(void) {
    test_board::start_clocks();
}

void power_up(void) {
    openADS1248_iso();
    ADS1248_gpio_init();
}

// One framed transfer on SSI3, as a bench tool would do it: the bytes the converter sent back.
std::vector<uint8_t> transfer(const std::vector<uint8_t>& out) {
    std::vector<uint8_t> in;
    uint32_t stale = 0;
    while (SSIDataGetNonBlocking(SSI3_BASE, &stale)) {
    }
    GPIOPinWrite(GPIO_PORTD_BASE, GPIO_PIN_1, 0);
    for (uint8_t b : out) {
        uint32_t v = 0;
        SSIDataPut(SSI3_BASE, b);
        SSIDataGet(SSI3_BASE, &v);
        in.push_back(static_cast<uint8_t>(v));
    }
    GPIOPinWrite(GPIO_PORTD_BASE, GPIO_PIN_1, GPIO_PIN_1);
    return in;
}

uint8_t read_reg(uint8_t reg) {
    return transfer({static_cast<uint8_t>(0x20 | reg), 0x00, 0xFF})[2];
}

// OFC and FSC set so that a shorted input (AIN6 against itself) converts to exactly `code`:
// output = (0 - OFC) x FSC / 400000h.
void force_code(int32_t code) {
    int32_t ofc = -code;
    uint32_t fsc = 0x400000;
    if (code == -0x800000) {
        ofc = 0x400000;
        fsc = 0x800000;
    }
    uint32_t o = static_cast<uint32_t>(ofc) & 0xFFFFFF;
    transfer({0x44, 0x05, static_cast<uint8_t>(o), static_cast<uint8_t>(o >> 8),
              static_cast<uint8_t>(o >> 16), static_cast<uint8_t>(fsc), static_cast<uint8_t>(fsc >> 8),
              static_cast<uint8_t>(fsc >> 16)});
}

// Arguments and results of the firmware call run inside the harness.
struct Poll {
    int pos, neg, trials, gain, sps;
    float mean, std_dev;
} g_poll;
int32_t g_code;

void poll(void) {
    g_poll.mean = pollADS1248_iso(g_poll.pos, g_poll.neg, g_poll.trials, g_poll.gain, g_poll.sps);
    g_poll.std_dev = sys_samp.AD24_std;
}

void poll_forced(void) {
    force_code(g_code);
    poll();
}

class Ads1248IsoTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(start_board).returned);
        ASSERT_TRUE(sim::test::run(power_up).returned);
        sim::test::clear_console_output();
    }
    static std::string console() {
        sim::test::drain_console();
        return sim::test::console_output();
    }
    static Poll read_code(int32_t code, int trials, int gain) {
        g_code = code;
        g_poll = Poll{6, 6, trials, gain, 2000, 0, -1};
        EXPECT_TRUE(sim::test::run(poll_forced).returned);
        return g_poll;
    }
};

TEST_F(Ads1248IsoTest, CodesAreSignExtendedAndScaledInSinglePrecision) {
    EXPECT_EQ(read_code(0x7FFFFF, 1, 1).mean, 2.0480001f);
    EXPECT_EQ(read_code(-0x800000, 1, 1).mean, -2.0480003f);
    EXPECT_EQ(read_code(-1, 1, 1).mean, -2.4414066e-07f) << "0xFFFFFF";
    EXPECT_EQ(read_code(0, 1, 1).mean, 0.0f);
    EXPECT_EQ(read_code(-0x800000, 1, 1).std_dev, 0.0f) << "one trial has no deviation";
}

TEST_F(Ads1248IsoTest, MeanIsTruncatedToWholeCodesBeforeScaling) {
    // Gain 2, code 3: 3 / 2 truncates to 1; every reading is 1.5 codes, so the deviation from the
    // truncated mean is half a code.
    Poll p = read_code(3, 4, 2);
    EXPECT_EQ(p.mean, 2.4414066e-07f);
    EXPECT_NEAR(p.std_dev, 0.5 * 2.4414066e-07, 1e-13);
    EXPECT_EQ(read_code(-3, 4, 2).mean, -2.4414066e-07f) << "toward zero, not down";
    EXPECT_EQ(read_code(7, 3, 4).mean, 2.4414066e-07f);
}

// Two boards with the same noise seed convert the same noisy values: the first is read code by code
// here, the second by the firmware, whose mean and deviation must follow from those codes.
TEST(Ads1248IsoNoise, MeanAndPopulationDeviationFollowFromTheCodes) {
    constexpr int trials = 5;
    auto board = [] {
        sim::test::reset_board();
        sim::test::set_scenario("adc.noise_uv", "40");
        sim::test::set_scenario("adc.seed", "7");
        EXPECT_TRUE(sim::test::run(start_board).returned);
        EXPECT_TRUE(sim::test::run(power_up).returned);
    };

    board();
    static std::vector<int32_t> codes;
    codes.clear();
    ASSERT_TRUE(sim::test::run([] {
                    transfer({0x40, 0x03, 0x0E, 0x00, 0x30, ADS1248_gain_sps(1, 160)});
                    for (int i = 0; i < trials; i++) {
                        while (GPIOPinRead(GPIO_PORTE_BASE, GPIO_PIN_1) != 0) {
                        }
                        std::vector<uint8_t> b = transfer({0xFF, 0xFF, 0xFF});
                        int32_t c = (b[0] << 16) | (b[1] << 8) | b[2];
                        codes.push_back(c & 0x800000 ? c - 0x1000000 : c);
                    }
                }).returned);
    ASSERT_EQ(codes.size(), static_cast<size_t>(trials));

    board();
    g_poll = Poll{1, 6, trials, 1, 160, 0, -1};
    ASSERT_TRUE(sim::test::run(poll).returned);

    int64_t sum = 0;
    for (int32_t c : codes) {
        sum += c;
    }
    float mean = static_cast<float>(sum / trials) * 2.4414066e-07f;
    EXPECT_EQ(g_poll.mean, mean);
    double squares = 0;
    for (int32_t c : codes) {
        double d = c * 2.4414066e-07 - mean;
        squares += d * d;
    }
    double population = std::sqrt(squares / trials);
    EXPECT_NEAR(g_poll.std_dev, population, population * 1e-4);
    EXPECT_GT(std::fabs(g_poll.std_dev - std::sqrt(squares / (trials - 1))), population * 0.05)
        << "n, not n - 1";
}

TEST_F(Ads1248IsoTest, GainAndRateCodesWithTheirWarnings) {
    const int gains[] = {1, 2, 4, 8, 16, 32, 64, 128};
    const int rates[] = {5, 10, 20, 40, 80, 160, 320, 640, 1000, 2000};
    for (int g = 0; g < 8; g++) {
        for (int r = 0; r < 10; r++) {
            EXPECT_EQ(ADS1248_gain_sps(gains[g], rates[r]), (g << 4) | r) << gains[g] << " " << rates[r];
        }
    }
    EXPECT_EQ(console(), "");

    EXPECT_EQ(ADS1248_gain_sps(3, 2000), 0x09);
    EXPECT_EQ(console(), "\r\n\r\nUnrecognized PGA gain. Setting to 1.");
    sim::test::clear_console_output();
    EXPECT_EQ(ADS1248_gain_sps(128, 60), 0x70);
    EXPECT_EQ(console(), "\r\n\r\nUnrecognized data rate. Setting to 5 sps.");
    sim::test::clear_console_output();
    EXPECT_EQ(ADS1248_gain_sps(0, 0), 0x00);
    EXPECT_EQ(
        console(),
        "\r\n\r\nUnrecognized PGA gain. Setting to 1.\r\n\r\nUnrecognized data rate. Setting to 5 sps.");
}

TEST_F(Ads1248IsoTest, MoreThan120TrialsAreCappedAfterAWarning) {
    // At 2000 SPS the first result takes 2370 oscillator cycles and each further one 2048.
    auto expected_ns = [](int n) { return (2370 + (n - 1) * 2048) * 1000000000.0 / 4096000; };
    g_poll = Poll{6, 6, 121, 1, 2000, 0, -1};
    uint64_t t0 = sim::now_ns();
    ASSERT_TRUE(sim::test::run(poll).returned);
    double took = static_cast<double>(sim::now_ns() - t0);
    EXPECT_NEAR(took, expected_ns(120), 100000);
    EXPECT_EQ(console(), "MAX TRIALS is 120 in ADS1248_iso, more trials (avg) than 120 was requested, edit "
                         "pollADS1248_iso() and recompile");

    g_poll = Poll{6, 6, 0, 1, 2000, 1, -1};
    ASSERT_TRUE(sim::test::run(poll).returned);
    EXPECT_EQ(g_poll.mean, 0.0f);
    EXPECT_EQ(g_poll.std_dev, 0.0f);
}

TEST_F(Ads1248IsoTest, PinWritersReplaceTheWholeDataRegister) {
    EXPECT_EQ(read_reg(0x0C), 0x0F) << "GPIO0..3 are general-purpose pins";
    EXPECT_EQ(read_reg(0x0D), 0x00) << "all outputs";
    EXPECT_EQ(read_reg(0x0E), 0x00);

    const uint8_t expected[4] = {0x07, 0x02, 0x01, 0x04};
    for (uint32_t chan = 0; chan < 4; chan++) {
        ADS1248_gpio3(1);
        ADS1248_gpio_ADG1609_mux(chan);
        EXPECT_EQ(read_reg(0x0E), expected[chan]) << "position " << chan << ", bias selector cleared";
    }
    ADS1248_gpio3(1);
    EXPECT_EQ(read_reg(0x0E), 0x08) << "multiplexer bits cleared";
    ADS1248_gpio3(2);
    EXPECT_EQ(read_reg(0x0E), 0x00);
    EXPECT_EQ(console(), "");

    ADS1248_gpio_ADG1609_mux(4);
    EXPECT_EQ(read_reg(0x0E), 0x04) << "out of range takes position 3";
    EXPECT_EQ(console(),
              "Mux channels are 0 to 3 in ADS1248_iso, error in arg for ADS1248_gpio_ADG1609_mux\r\n");
}

TEST_F(Ads1248IsoTest, PowerLinesAroundASample) {
    using sim::dev::gpio_alternate;
    using sim::dev::gpio_driven_low;
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTE_BASE, GPIO_PIN_0 | GPIO_PIN_2 | GPIO_PIN_3))
        << "supply, START, reset";
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTD_BASE, GPIO_PIN_1)) << "chip select idle high";
    EXPECT_TRUE(gpio_alternate(port_d, GPIO_PIN_0 | GPIO_PIN_2 | GPIO_PIN_3));
    EXPECT_TRUE(sim::peripheral_enabled(SYSCTL_PERIPH_SSI3));

    ASSERT_TRUE(sim::test::run(closeADS1248_iso).returned);
    EXPECT_TRUE(gpio_driven_low(port_d, GPIO_PIN_0 | GPIO_PIN_1 | GPIO_PIN_3));
    EXPECT_FALSE(gpio_alternate(port_d, GPIO_PIN_2));
    EXPECT_EQ(GPIODirModeGet(GPIO_PORTD_BASE, GPIO_PIN_2), GPIO_DIR_MODE_IN);
    EXPECT_TRUE(gpio_driven_low(port_e, GPIO_PIN_0)) << "isolated supply off";
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTE_BASE, GPIO_PIN_2 | GPIO_PIN_3));
    EXPECT_FALSE(sim::peripheral_enabled(SYSCTL_PERIPH_SSI3));
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTE_BASE, GPIO_PIN_1)) << "data-ready idles high with the side off";

    // Opening takes the 2 ms lead, the 10 ms reset pulse and the 20 ms settling wait.
    uint64_t t0 = sim::now_ns();
    ASSERT_TRUE(sim::test::run(openADS1248_iso).returned);
    EXPECT_NEAR(static_cast<double>(sim::now_ns() - t0) / 1e6, 32.0, 0.1);
    EXPECT_EQ(read_reg(0x0C), 0x00) << "the reset pulse cleared the pin set-up";
}

} // namespace
