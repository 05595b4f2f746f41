// The simulated ADS1248 behind the firmware's ADC front end: every channel of a known bath, noise,
// the conversion times per data rate, clipping, a converter that never gets ready, and the command
// and register interface spoken byte by byte.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "bath.h"
#include "board/pinmux.h"
#include "board/board_util.h"
#include "records/system.h"
#include "driverlib/gpio.h"
#include "driverlib/interrupt.h"
#include "driverlib/ssi.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "inc/hw_memmap.h"
#include "measure/ads1248_iso.h"
#include "sim_test.h"
#include "test_board.h"

namespace {

void start_board(void) {
    test_board::start_clocks();
}

void power_up(void) {
    openADS1248_iso();
    ADS1248_gpio_init();
}

std::vector<uint8_t> transfer(const std::vector<uint8_t>& out) {
    std::vector<uint8_t> in;
    uint32_t v = 0;
    while (SSIDataGetNonBlocking(SSI3_BASE, &v)) {
    }
    GPIOPinWrite(GPIO_PORTD_BASE, GPIO_PIN_1, 0);
    for (uint8_t b : out) {
        SSIDataPut(SSI3_BASE, b);
        SSIDataGet(SSI3_BASE, &v);
        in.push_back(static_cast<uint8_t>(v));
    }
    GPIOPinWrite(GPIO_PORTD_BASE, GPIO_PIN_1, GPIO_PIN_1);
    return in;
}

bool data_ready() {
    return !sim::gpio_level(GPIO_PORTE_BASE, GPIO_PIN_1);
}

// The reading the sample cycle takes for one row of its channel table.
struct Reading {
    int mux; // multiplexer position, -1 unchanged, -2/-3 bias selector low/high
    int pos, neg, trials, sps;
    float mean, std_dev;
} g_read;

void take_reading(void) {
    if (g_read.mux >= 0) {
        ADS1248_gpio_ADG1609_mux(static_cast<uint32_t>(g_read.mux));
    } else if (g_read.mux <= -2) {
        ADS1248_gpio3(g_read.mux == -3 ? 1 : 0);
    }
    SysCtlDelay(ADS1248_DELAY_PER_MS * 10);
    g_read.mean = pollADS1248_iso(g_read.pos, g_read.neg, g_read.trials, 1, g_read.sps);
    g_read.std_dev = sys_samp.AD24_std;
}

class Ads1248ModelTest : public ::testing::Test {
  protected:
    void SetUp() override { sim::test::reset_board(); }
    void power() {
        ASSERT_TRUE(sim::test::run(start_board).returned);
        ASSERT_TRUE(sim::test::run(power_up).returned);
    }
    static Reading read(int mux, int pos, int neg, int trials = 3, int sps = 2000) {
        g_read = Reading{mux, pos, neg, trials, sps, 0, -1};
        EXPECT_TRUE(sim::test::run(take_reading).returned);
        return g_read;
    }
};

TEST_F(Ads1248ModelTest, EveryChannelOfAKnownBath) {
    const char* baths[][3] = {{"7.6", "2", "30"}, {"8.2", "28", "36"}};
    for (auto& b : baths) {
        SetUp();
        sim::test::set_scenario("bath.ph", b[0]);
        sim::test::set_scenario("bath.temp", b[1]);
        sim::test::set_scenario("bath.sal", b[2]);
        power();
        sim::BathVolts v = sim::bath_volts();
        const double uv = 3e-6;
        EXPECT_NEAR(read(-2, 7, 6).mean, v.vbias_neg, uv);
        EXPECT_NEAR(read(-3, 7, 6).mean, v.vbias_pos, uv);
        EXPECT_NEAR(read(2, 1, 6).mean, v.ib, uv);
        EXPECT_NEAR(read(1, 1, 5).mean, v.ik, uv);
        EXPECT_NEAR(read(1, 1, 6).mean, v.vk, uv);
        EXPECT_NEAR(read(-1, 0, 6).mean, v.vtherm, uv);
        EXPECT_NEAR(read(3, 1, 5).mean, v.vrsi, uv) << "biased internal reading";
        EXPECT_NEAR(read(3, 1, 6).mean, v.vrsi, uv);
        EXPECT_NEAR(read(0, 1, 5).mean, v.vrse, uv) << "biased external reading";
        Reading vrse = read(0, 1, 6);
        EXPECT_NEAR(vrse.mean, v.vrse, uv);
        EXPECT_LT(vrse.std_dev, 1e-6f) << "no noise";
    }
}

TEST_F(Ads1248ModelTest, NoiseIsGaussianAtTheScenarioLevelAndReproducible) {
    sim::test::set_scenario("adc.noise_uv", "50");
    power();
    Reading r = read(3, 1, 6, 120);
    double vrsi = sim::bath_volts().vrsi;
    EXPECT_NEAR(r.std_dev, 50e-6, 8e-6);
    EXPECT_NEAR(r.mean, vrsi, 4 * 50e-6 / std::sqrt(120.0));

    SetUp();
    sim::test::set_scenario("adc.noise_uv", "50");
    power();
    Reading again = read(3, 1, 6, 120);
    EXPECT_EQ(again.mean, r.mean) << "same seed, same noise";
    EXPECT_EQ(again.std_dev, r.std_dev);

    SetUp();
    sim::test::set_scenario("adc.noise_uv", "50");
    sim::test::set_scenario("adc.seed", "2");
    power();
    EXPECT_NE(read(3, 1, 6, 120).std_dev, r.std_dev);
}

TEST_F(Ads1248ModelTest, ConversionTimeFollowsTheDataRate) {
    power();
    // Oscillator cycles (4.096 MHz) of the first result after a register write and of each further one.
    struct Case {
        int sps, trials;
        double first, next;
    } cases[] = {
        {20, 3, 208169, 204032}, {160, 4, 26594, 25504}, {1000, 10, 4674, 4096}, {5, 1, 820265, 816128}};
    for (const Case& c : cases) {
        uint64_t t0 = sim::now_ns();
        read(-1, 0, 6, c.trials, c.sps);
        double ms = static_cast<double>(sim::now_ns() - t0) / 1e6 - 10.0; // less the multiplexer wait
        double expected = (c.first + (c.trials - 1) * c.next) / 4096.0;
        EXPECT_NEAR(ms, expected, 0.1) << c.sps << " SPS, " << c.trials << " trials";
    }
}

TEST_F(Ads1248ModelTest, InputsClipAtTheReference) {
    sim::test::set_scenario("bias.pos", "9");
    sim::test::set_scenario("bias.neg", "-9");
    power();
    EXPECT_EQ(read(-3, 7, 6).mean, 2.0480001f);
    EXPECT_NEAR(read(-2, 7, 6).mean, -2.048f, 1e-6f);
}

TEST_F(Ads1248ModelTest, AStuckConverterNeverSignalsDataReady) {
    power();
    ASSERT_TRUE(sim::test::advance_s(0.3).returned);
    EXPECT_TRUE(data_ready()) << "5 SPS after the reset pulse";

    SetUp();
    sim::test::set_scenario("adc.stuck", "1");
    power();
    ASSERT_TRUE(sim::test::advance_s(1.0).returned);
    EXPECT_FALSE(data_ready());
}

// The firmware waits for data-ready without limit: only the external watchdog ends the stall. The
// watchdog was fed long before, so the stall it ends is the last half second of its minute.
TEST_F(Ads1248ModelTest, AStuckConverterStallsTheReadingUntilTheWatchdogResets) {
    sim::test::set_scenario("adc.stuck", "1");
    power();
    ASSERT_TRUE(sim::test::run(wdog_init).returned);
    uint64_t fed = sim::now_ns();
    ASSERT_TRUE(sim::test::advance_s(59.5).returned);
    g_read = Reading{3, 1, 6, 1, 2000, 0, -1};
    sim::test::Outcome o = sim::test::run(take_reading);
    EXPECT_FALSE(o.returned);
    EXPECT_EQ(o.event, sim::PowerEvent::watchdog);
    EXPECT_NEAR(static_cast<double>(sim::now_ns() - fed) / 1e9, 60.0, 0.01);
}

TEST_F(Ads1248ModelTest, CommandsAndRegisters) {
    power();
    ASSERT_TRUE(sim::test::run([] { transfer({0x06}); }).returned); // RESET
    static std::vector<uint8_t> regs;
    ASSERT_TRUE(sim::test::run([] {
                    regs = transfer({0x20, 0x0E, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                     0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
                }).returned);
    const std::vector<uint8_t> reset = {0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                        0x00, 0x40, 0x90, 0xFF, 0x00, 0x00, 0x00};
    EXPECT_EQ(std::vector<uint8_t>(regs.begin() + 2, regs.end()), reset);

    // Stop continuous reading: results then come only with RDATA, and data-ready clears on reading.
    static std::vector<uint8_t> nops, data;
    ASSERT_TRUE(sim::test::run([] {
                    transfer({0x16});                                                    // SDATAC
                    transfer({0x40, 0x03, 0x3E, 0x00, 0x30, ADS1248_gain_sps(1, 2000)}); // AIN7 - AIN6
                    transfer({0x4C, 0x01, 0x0F, 0x00});                                  // GPIO0..3 outputs
                    transfer({0x4E, 0x00, 0x08});                                        // bias selector high
                    while (GPIOPinRead(GPIO_PORTE_BASE, GPIO_PIN_1) != 0) {
                    }
                    nops = transfer({0xFF, 0xFF, 0xFF});
                    data = transfer({0x12, 0xFF, 0xFF, 0xFF}); // RDATA
                }).returned);
    EXPECT_EQ(nops, std::vector<uint8_t>({0xFF, 0xFF, 0xFF}));
    int32_t code = (data[1] << 16) | (data[2] << 8) | data[3];
    code = code & 0x800000 ? code - 0x1000000 : code;
    EXPECT_NEAR(code * 2.048 / 8388607, sim::bath_volts().vbias_pos, 1e-6);

    // Powering the isolated side down forgets the set-up and lets data-ready idle high.
    ASSERT_TRUE(sim::test::run(closeADS1248_iso).returned);
    EXPECT_FALSE(data_ready());
    ASSERT_TRUE(sim::test::run(openADS1248_iso).returned);
    ASSERT_TRUE(sim::test::run([] { regs = transfer({0x2C, 0x00, 0xFF}); }).returned);
    EXPECT_EQ(regs[2], 0x00);
}

} // namespace
