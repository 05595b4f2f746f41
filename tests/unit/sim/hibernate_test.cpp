// The hibernation module: the RTC in virtual time and its match, the status bits the firmware
// classifies a wake by, the staged failures of the hibernation request, and the wakes as the
// harness (like hxc3-sim) starts them.
#include "runtime.h"
#include "sim_test.h"

#include "driverlib/hibernate.h"

#include <gtest/gtest.h>

namespace {

constexpr uint32_t T0 = 1767225600; // 2026-01-01 00:00:00 UTC

void start_module() {
    HibernateEnableExpClk(50000000);
    HibernateRTCEnable();
    HibernateRTCSet(T0);
}

class HibernateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board(T0);
        start_module();
    }
};

TEST_F(HibernateTest, RtcCountsVirtualSecondsAndMatchSetsItsStatus) {
    HibernateRTCMatchSet(0, T0 + 5);
    HibernateIntClear(0xFFFFFFFF);
    sim::test::advance_s(4.99);
    EXPECT_EQ(HibernateRTCGet(), T0 + 4);
    EXPECT_EQ(HibernateIntStatus(false) & HIBERNATE_INT_RTC_MATCH_0, 0u);
    uint32_t ss = HibernateRTCSSGet();
    EXPECT_GE(ss, 32768u * 99 / 100 - 10);
    sim::test::advance_s(0.02);
    EXPECT_EQ(HibernateRTCGet(), T0 + 5);
    EXPECT_EQ(HibernateIntStatus(false), HIBERNATE_INT_RTC_MATCH_0) << "clearing left write-complete clear";
    EXPECT_EQ(HibernateIntStatus(true), 0u) << "masked status: the interrupt is not enabled";
    HibernateIntEnable(HIBERNATE_INT_RTC_MATCH_0);
    EXPECT_EQ(HibernateIntStatus(true), HIBERNATE_INT_RTC_MATCH_0);
    EXPECT_EQ(HibernateRTCMatchGet(0), T0 + 5);
}

TEST_F(HibernateTest, EveryWriteRaisesWriteComplete) {
    HibernateIntClear(0xFFFFFFFF);
    EXPECT_EQ(HibernateIntStatus(false), 0u);
    uint64_t t = sim::now_ns();
    HibernateRTCTrimSet(0x7FFF);
    EXPECT_EQ(HibernateIntStatus(false), HIBERNATE_INT_WR_COMPLETE);
    EXPECT_GE(sim::now_ns() - t, 90000u) << "a write takes three cycles of the 32 kHz clock";
    EXPECT_EQ(HibernateRTCTrimGet(), 0x7FFFu);
}

TEST_F(HibernateTest, StoppedRtcKeepsItsTime) {
    HibernateRTCDisable();
    sim::test::advance_s(10);
    EXPECT_EQ(HibernateRTCGet(), T0);
    HibernateRTCEnable();
    sim::test::advance_s(2);
    EXPECT_EQ(HibernateRTCGet(), T0 + 2);
}

TEST_F(HibernateTest, WakeConditionsDataAndRetentionReadBack) {
    HibernateWakeSet(HIBERNATE_WAKE_PIN | HIBERNATE_WAKE_RTC);
    EXPECT_EQ(HibernateWakeGet(), HIBERNATE_WAKE_PIN | HIBERNATE_WAKE_RTC);
    uint32_t words[3] = {1, 2, 0xDEADBEEF};
    HibernateDataSet(words, 3);
    uint32_t back[3] = {};
    HibernateDataGet(back, 3);
    EXPECT_EQ(back[2], 0xDEADBEEFu);
    HibernateGPIORetentionEnable();
    EXPECT_TRUE(HibernateGPIORetentionGet());
    HibernateGPIORetentionDisable();
    EXPECT_FALSE(HibernateGPIORetentionGet());
}

void request() {
    HibernateRequest();
}

TEST_F(HibernateTest, StagedFailuresLetTheRequestReturn) {
    sim::test::set_scenario("hibernate.fail", "2");
    EXPECT_TRUE(sim::test::run(request).returned);
    EXPECT_TRUE(sim::test::run(request).returned);
    sim::test::Outcome out = sim::test::run(request);
    EXPECT_FALSE(out.returned) << "the third request cuts the power";
    EXPECT_EQ(out.event, sim::PowerEvent::hibernate);
    EXPECT_EQ(sim::hib().hibernating, 1);
}

TEST_F(HibernateTest, RequestOnAStoppedModuleDoesNothing) {
    HibernateDisable();
    EXPECT_TRUE(sim::test::run(request).returned);
}

TEST_F(HibernateTest, RtcWakeComesAtTheMatchWithItsStatus) {
    HibernateRTCMatchSet(0, T0 + 60);
    HibernateWakeSet(HIBERNATE_WAKE_RTC);
    HibernateIntClear(0xFFFFFFFF);
    ASSERT_FALSE(sim::test::run(request).returned);
    sim::test::power_on(sim::WakeSource::rtc);
    EXPECT_EQ(HibernateRTCGet(), T0 + 60);
    EXPECT_LT(HibernateRTCSSGet(), 5u) << "woken right at the second";
    EXPECT_EQ(HibernateIntStatus(false), HIBERNATE_INT_RTC_MATCH_0 | HIBERNATE_INT_WR_COMPLETE);
    EXPECT_NE(HibernateIsActive(), 0u);
    EXPECT_EQ(sim::wake_source(), sim::WakeSource::rtc);
}

TEST_F(HibernateTest, PinWakeShowsThePinStatus) {
    HibernateIntClear(0xFFFFFFFF);
    ASSERT_FALSE(sim::test::run(request).returned);
    sim::test::advance_s(30);
    sim::test::power_on(sim::WakeSource::pin);
    EXPECT_EQ(HibernateIntStatus(false), HIBERNATE_INT_PIN_WAKE | HIBERNATE_INT_WR_COMPLETE);
    EXPECT_EQ(HibernateRTCGet(), T0 + 30) << "the RTC ran through the hibernation";
}

// A power-up finds the module off: the firmware's question "did the chip come out of hibernation?"
// stays no after it starts the module's clock itself.
TEST_F(HibernateTest, PowerUpReadsAsNotActive) {
    sim::test::power_on(sim::WakeSource::power);
    EXPECT_EQ(HibernateIsActive(), 0u);
    HibernateEnableExpClk(50000000);
    EXPECT_EQ(HibernateIsActive(), 0u);
    EXPECT_EQ(sim::hib().active, 1);
    sim::test::power_on(sim::WakeSource::reset);
    EXPECT_NE(HibernateIsActive(), 0u) << "a reset while the module runs";
}

} // namespace
