// The hibernation module: the RTC in virtual time and its match, the status bits the firmware
// classifies a wake by, the staged failures of the hibernation request, and the wakes as the
// harness (like hxc3-sim) starts them; through the TivaWare calls and through the registers.
#include "registers.h"
#include "runtime.h"
#include "sim_test.h"

#include "driverlib/hibernate.h"
#include "driverlib/sysctl.h"
#include "inc/hw_hibernate.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"

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
// The module's clock enable is what tells a wake from a power-up, so it must be read before the
// firmware enables the module: afterwards it reads active, as on the chip.
TEST_F(HibernateTest, PowerUpReadsAsNotActiveUntilTheModuleIsEnabled) {
    sim::test::power_on(sim::WakeSource::power);
    EXPECT_EQ(HibernateIsActive(), 0u);
    HibernateEnableExpClk(50000000);
    EXPECT_NE(HibernateIsActive(), 0u);
    EXPECT_EQ(sim::hib().active, 1);
    sim::test::power_on(sim::WakeSource::reset);
    EXPECT_NE(HibernateIsActive(), 0u) << "a reset while the module runs";
}

// ---------------------------------------------------------------- register door

constexpr uint64_t write_ns = 3 * sim::ns_per_s / 32768; // three cycles of the 32.768 kHz clock

uint32_t reg(uint32_t address) {
    return sim::dev::hib_reg_read(address - HIB_BASE);
}

void set_reg(uint32_t address, uint32_t value) {
    sim::dev::hib_reg_write(address - HIB_BASE, value);
}

// What the image's driver does around every write: wait for write-complete, write, wait again.
void write_settled(uint32_t address, uint32_t value) {
    set_reg(address, value);
    sim::advance_ns(write_ns);
    ASSERT_NE(reg(HIB_CTL) & HIB_CTL_WRC, 0u);
}

TEST_F(HibernateTest, RegisterLoadRestartsTheSecondAndTheMatchRaisesItsStatus) {
    sim::advance_ns(700 * sim::ns_per_ms);
    write_settled(HIB_RTCLD, T0 + 100);
    EXPECT_EQ(reg(HIB_RTCC), T0 + 100);
    sim::advance_ns(sim::ns_per_s - write_ns - 1);
    EXPECT_EQ(reg(HIB_RTCC), T0 + 100) << "a full second from the load, not the rest of the old one";
    sim::advance_ns(1);
    EXPECT_EQ(reg(HIB_RTCC), T0 + 101);
    EXPECT_EQ(reg(HIB_RTCSS) & HIB_RTCSS_RTCSSC_M, 0u);

    write_settled(HIB_RTCM0, T0 + 103);
    EXPECT_EQ(reg(HIB_RTCM0), T0 + 103);
    set_reg(HIB_IC, 0xFFFFFFFF);
    sim::advance_ns(2 * sim::ns_per_s - write_ns - 1);
    EXPECT_EQ(reg(HIB_RIS), 0u);
    sim::advance_ns(1);
    EXPECT_EQ(reg(HIB_RTCC), T0 + 103);
    EXPECT_EQ(reg(HIB_RIS), static_cast<uint32_t>(HIB_RIS_RTCALT0));
    EXPECT_EQ(reg(HIB_MIS), 0u);
    write_settled(HIB_IM, HIB_RIS_RTCALT0);
    EXPECT_EQ(reg(HIB_MIS), static_cast<uint32_t>(HIB_RIS_RTCALT0));
    set_reg(HIB_IC, HIB_RIS_RTCALT0 | HIB_RIS_WC);
    EXPECT_EQ(reg(HIB_RIS), 0u);
}

TEST_F(HibernateTest, RegisterWriteCompletesThreeSlowClockCyclesLater) {
    set_reg(HIB_IC, 0xFFFFFFFF);
    ASSERT_NE(reg(HIB_CTL) & HIB_CTL_WRC, 0u);
    uint64_t t0 = sim::now_ns();
    set_reg(HIB_DATA + 4 * 15, 0xCAFEF00D);
    EXPECT_EQ(sim::now_ns(), t0) << "no time passes in the register door";
    EXPECT_EQ(reg(HIB_DATA + 4 * 15), 0xCAFEF00Du);
    EXPECT_EQ(reg(HIB_CTL) & HIB_CTL_WRC, 0u);
    sim::advance_ns(write_ns - 1);
    EXPECT_EQ(reg(HIB_CTL) & HIB_CTL_WRC, 0u);
    EXPECT_EQ(reg(HIB_RIS), 0u);
    sim::advance_ns(1);
    EXPECT_NE(reg(HIB_CTL) & HIB_CTL_WRC, 0u);
    EXPECT_EQ(reg(HIB_RIS), static_cast<uint32_t>(HIB_RIS_WC));

    // Clearing the status is no write in the module's clock domain.
    set_reg(HIB_IC, HIB_RIS_WC);
    EXPECT_NE(reg(HIB_CTL) & HIB_CTL_WRC, 0u);
    sim::advance_ns(write_ns);
    EXPECT_EQ(reg(HIB_RIS), 0u);

    uint32_t back[16] = {};
    HibernateDataGet(back, 16);
    EXPECT_EQ(back[15], 0xCAFEF00Du) << "both doors reach one battery-backed memory";
}

void request_by_register() {
    set_reg(HIB_CTL, (reg(HIB_CTL) & ~HIB_CTL_WRC) | HIB_CTL_HIBREQ);
}

// The image's HibernateIsActive reads CLK32EN: at the start of a power-on period it must give the
// answer the API gives.
TEST_F(HibernateTest, RegisterClockEnableTellsAWakeFromAPowerUp) {
    write_settled(HIB_RTCM0, T0 + 60);
    uint32_t ctl = reg(HIB_CTL) & ~HIB_CTL_WRC;
    EXPECT_EQ(ctl & (HIB_CTL_CLK32EN | HIB_CTL_RTCEN),
              static_cast<uint32_t>(HIB_CTL_CLK32EN | HIB_CTL_RTCEN));
    write_settled(HIB_CTL, ctl | HIB_CTL_RTCWEN);
    EXPECT_EQ(HibernateWakeGet(), static_cast<uint32_t>(HIBERNATE_WAKE_RTC));
    set_reg(HIB_IC, 0xFFFFFFFF);
    sim::test::Outcome o = sim::test::run(request_by_register);
    ASSERT_FALSE(o.returned);
    EXPECT_EQ(o.event, sim::PowerEvent::hibernate);

    sim::test::power_on(sim::WakeSource::rtc);
    EXPECT_NE(reg(HIB_CTL) & HIB_CTL_CLK32EN, 0u);
    EXPECT_NE(HibernateIsActive(), 0u);
    EXPECT_EQ(reg(HIB_RIS), static_cast<uint32_t>(HIB_RIS_RTCALT0 | HIB_RIS_WC));
    EXPECT_EQ(reg(HIB_CTL) & HIB_CTL_HIBREQ, 0u) << "the request acts once";

    sim::test::power_on(sim::WakeSource::power);
    EXPECT_EQ(reg(HIB_CTL), static_cast<uint32_t>(HIB_CTL_WRC));
    EXPECT_EQ(HibernateIsActive(), 0u);
    write_settled(HIB_CTL, HIB_CTL_CLK32EN);
    EXPECT_NE(reg(HIB_CTL) & HIB_CTL_CLK32EN, 0u) << "the module runs once its clock is enabled";
}

TEST_F(HibernateTest, RegisterRequestTakesTheStagedFailuresAndAStoppedModule) {
    sim::test::set_scenario("hibernate.fail", "1");
    EXPECT_TRUE(sim::test::run(request_by_register).returned);
    sim::advance_ns(write_ns);
    EXPECT_FALSE(sim::test::run(request_by_register).returned);

    sim::test::power_on(sim::WakeSource::pin);
    write_settled(HIB_CTL, HIB_CTL_RTCEN); // the clock stopped: the request goes nowhere
    EXPECT_TRUE(sim::test::run(request_by_register).returned);
}

void read_rtc() {
    HibernateRTCGet();
}

void gate_off_and_read_rtc() {
    SysCtlPeripheralDisable(SYSCTL_PERIPH_HIBERNATE);
    read_rtc();
}

// Unlike the other modules, the hibernation module's clock gate comes out of reset open.
TEST(HibernateClockTest, ACallAfterTheModuleClockIsGatedOffIsABusFault) {
    sim::test::reset_board(T0);
    sim::register_vector(FAULT_HARD, nullptr);
    EXPECT_TRUE(sim::test::run(read_rtc).returned);
    sim::test::Outcome o = sim::test::run(gate_off_and_read_rtc);
    EXPECT_FALSE(o.returned);
    EXPECT_EQ(o.event, sim::PowerEvent::reset);
}

} // namespace
