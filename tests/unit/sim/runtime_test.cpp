// The runtime of the simulated board: SysTick in virtual time, interrupt masking and dispatch, the
// delay primitive and the ends of a power-on period as the test harness catches them.
#include "runtime.h"
#include "sim_test.h"

#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "inc/hw_ints.h"

#include <gtest/gtest.h>

namespace {

int g_ticks;
uint64_t g_tick_time;
void count_tick() {
    ++g_ticks;
    g_tick_time = sim::now_ns();
}

// A 1 ms SysTick (50 MHz / 1000) with the counting handler in place of the firmware's.
void start_systick() {
    sim::register_vector(FAULT_SYSTICK, count_tick);
    SysTickPeriodSet(50000);
    SysTickIntEnable();
    SysTickEnable();
}

class RuntimeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        g_ticks = 0;
        g_tick_time = 0;
    }
};

TEST_F(RuntimeTest, SysTickInterruptsOncePerPeriod) {
    start_systick();
    uint64_t start = sim::now_ns();
    sim::test::advance_s(1.0);
    EXPECT_EQ(g_ticks, 1000);
    EXPECT_EQ(g_tick_time, start + 1000 * sim::ns_per_ms) << "the last tick falls on the full second";
    SysTickDisable();
    sim::test::advance_s(1.0);
    EXPECT_EQ(g_ticks, 1000);
}

TEST_F(RuntimeTest, SysTickCountsDownThroughItsPeriod) {
    start_systick();
    sim::advance_ns(250 * 1000); // a quarter of the period
    uint32_t v = SysTickValueGet();
    EXPECT_LE(v, 37500u);
    EXPECT_GE(v, 37400u);
    EXPECT_EQ(SysTickPeriodGet(), 50000u);
}

TEST_F(RuntimeTest, MaskedInterruptsWaitAndMissedTicksAreOne) {
    start_systick();
    EXPECT_FALSE(IntMasterDisable()) << "returns whether they were disabled before";
    sim::test::advance_s(0.0105);
    EXPECT_EQ(g_ticks, 0);
    EXPECT_TRUE(IntMasterEnable());
    EXPECT_EQ(g_ticks, 1) << "the pending tick runs at once; ticks while pending are lost";
    sim::test::advance_s(0.001);
    EXPECT_EQ(g_ticks, 2);
}

TEST_F(RuntimeTest, DisabledVectorsStayPendingUntilEnabled) {
    static int uart_calls;
    uart_calls = 0;
    sim::register_vector(INT_UART2, [] { ++uart_calls; });
    sim::set_pending(INT_UART2, true);
    sim::test::advance_s(0.01);
    EXPECT_EQ(uart_calls, 0);
    IntEnable(INT_UART2);
    EXPECT_EQ(uart_calls, 1);
    EXPECT_EQ(IntIsEnabled(INT_UART2), 1u);
    IntPendSet(INT_UART2);
    EXPECT_EQ(uart_calls, 2);
}

// A handler takes no virtual time and is not entered again while it runs.
TEST_F(RuntimeTest, HandlersDoNotNestOrSpendTime) {
    static int depth, max_depth, calls;
    static uint64_t time_in_handler;
    depth = max_depth = calls = 0;
    time_in_handler = 0;
    sim::register_vector(INT_UART3, [] {
        ++calls;
        max_depth = std::max(max_depth, ++depth);
        uint64_t t = sim::now_ns();
        SysCtlDelay(16667); // a busy wait inside a handler
        if (calls == 1) {
            sim::set_pending(INT_UART3, true); // raised again while running
            IntPendSet(INT_UART3);
        }
        time_in_handler += sim::now_ns() - t;
        --depth;
    });
    IntEnable(INT_UART3);
    IntPendSet(INT_UART3);
    EXPECT_EQ(calls, 2) << "the second request runs after the first returns";
    EXPECT_EQ(max_depth, 1);
    EXPECT_EQ(time_in_handler, 0u);
}

TEST_F(RuntimeTest, SysCtlDelayTakesThreeCyclesPerCount) {
    uint64_t t = sim::now_ns();
    SysCtlDelay(16667);
    EXPECT_EQ(sim::now_ns() - t, 16667u * 60);
}

TEST_F(RuntimeTest, ClockSettingReportsFiftyMegahertz) {
    EXPECT_EQ(SysCtlClockGet(), 16000000u) << "the internal oscillator after reset";
    SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
    EXPECT_EQ(SysCtlClockGet(), 50000000u);
    SysCtlClockSet(SYSCTL_SYSDIV_2_5 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
    EXPECT_EQ(SysCtlClockGet(), 80000000u);
    SysCtlClockSet(SYSCTL_SYSDIV_1 | SYSCTL_USE_OSC | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
    EXPECT_EQ(SysCtlClockGet(), 16000000u);
}

TEST_F(RuntimeTest, PeripheralsAreReadyOnceEnabled) {
    EXPECT_FALSE(SysCtlPeripheralReady(SYSCTL_PERIPH_UART0));
    SysCtlPeripheralEnable(SYSCTL_PERIPH_UART0);
    EXPECT_TRUE(SysCtlPeripheralReady(SYSCTL_PERIPH_UART0));
    EXPECT_TRUE(sim::peripheral_enabled(SYSCTL_PERIPH_UART0));
    SysCtlPeripheralDisable(SYSCTL_PERIPH_UART0);
    EXPECT_FALSE(sim::peripheral_enabled(SYSCTL_PERIPH_UART0));
    sim::test::power_on(sim::WakeSource::reset);
    EXPECT_EQ(SysCtlResetCauseGet(), 0x10u) << "a software reset";
}

void reset_now() {
    SysCtlReset();
}
void return_normally() {}

TEST_F(RuntimeTest, RunCatchesTheEndOfThePeriod) {
    start_systick();
    sim::test::Outcome out = sim::test::run(reset_now);
    EXPECT_FALSE(out.returned);
    EXPECT_EQ(out.event, sim::PowerEvent::reset);
    EXPECT_FALSE(sim::test::board_on());
    int ticks = g_ticks;
    sim::test::advance_s(1.0);
    EXPECT_EQ(g_ticks, ticks) << "nothing runs on a board without power";
    EXPECT_TRUE(sim::test::run(return_normally).returned);
    EXPECT_TRUE(sim::test::board_on());
    EXPECT_EQ(sim::wake_source(), sim::WakeSource::reset);
}

TEST_F(RuntimeTest, ScenarioValuesReadBackWithDefaults) {
    EXPECT_EQ(sim::scenario_num("bath.ph", 8.0), 8.0);
    sim::test::set_scenario("bath.ph", "7.5");
    sim::test::set_scenario("port4", "sbe37");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(sim::test::set_scenario("bath.temp", "warm"));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("bath.temp = warm: not a number"),
              std::string::npos);
    EXPECT_EQ(sim::scenario_num("bath.ph", 8.0), 7.5);
    EXPECT_EQ(sim::scenario_str("port4", "none"), "sbe37");
    EXPECT_EQ(sim::scenario_num("bath.temp", 15.0), 15.0) << "refused: the default stays";
}

TEST_F(RuntimeTest, CardRemovalAndInsertionAreCounted) {
    uint32_t before = sim::card_changes();
    sim::test::set_scenario("card", "protected");
    EXPECT_EQ(sim::card_changes(), before + 1);
    sim::awake_effects().card(false);
    EXPECT_EQ(sim::scenario_str("card", "present"), "absent");
    sim::awake_effects().card(true);
    EXPECT_EQ(sim::scenario_str("card", "present"), "protected") << "the same card goes back in";
    EXPECT_EQ(sim::card_changes(), before + 3);
}

} // namespace
