// The simulated UARTs: byte timing at the configured baud rate, FIFO depth and blocking, and the
// receive, receive time-out and transmit interrupts with the vector they raise; the same model seen
// through its registers, where the baud rate follows the latched divisor and the module clock; and
// the bus fault of a call on a UART whose clock is off.
#include "devices.h"
#include "registers.h"
#include "runtime.h"
#include "sim_test.h"
#include "test_board.h"

#include "board/board_util.h"
#include "driverlib/sysctl.h"
#include "driverlib/uart.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"
#include "inc/hw_uart.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr uint32_t config_8n1 = UART_CONFIG_WLEN_8 | UART_CONFIG_STOP_ONE | UART_CONFIG_PAR_NONE;
// 115200 from 16 MHz: divisor 8 + 44/64, so a bit lasts 8.6875 us and a 10-bit frame 86.875 us.
constexpr uint64_t frame_ns = 86875;

bool vector_pending(int v) {
    return sim::core().pending.test(static_cast<size_t>(v));
}

class UartTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        SysCtlPeripheralEnable(SYSCTL_PERIPH_UART0);
        UARTClockSourceSet(UART0_BASE, UART_CLOCK_PIOSC);
        UARTConfigSetExpClk(UART0_BASE, 16000000, 115200, config_8n1);
    }
};

TEST_F(UartTest, ConfigurationIsReportedOnlyWhileEnabled) {
    EXPECT_EQ(sim::uart_baud(0), 115108u); // what the divisors really give, rounded
    EXPECT_EQ(sim::uart_baud(4), 0u);
    uint32_t baud = 0, config = 0;
    UARTConfigGetExpClk(UART0_BASE, 16000000, &baud, &config);
    EXPECT_EQ(baud, 115107u); // what the divisors really give
    EXPECT_EQ(config, config_8n1);
    UARTDisable(UART0_BASE);
    EXPECT_EQ(sim::uart_baud(0), 0u);
    EXPECT_EQ(sim::dev::uart_actual_baud(0), 115108u); // the generator is still set up
}

// The divisor comes from the clock the caller names, the rate from the clock the UART runs on.
TEST_F(UartTest, AMisnamedClockGivesAWrongRate) {
    SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
    UARTClockSourceSet(UART0_BASE, UART_CLOCK_SYSTEM);
    UARTConfigSetExpClk(UART0_BASE, 16000000, 115200, config_8n1);
    EXPECT_EQ(sim::uart_baud(0), 359712u); // 50 MHz through a divisor meant for 16 MHz
    UARTConfigSetExpClk(UART0_BASE, SysCtlClockGet(), 115200, config_8n1);
    EXPECT_NEAR(static_cast<double>(sim::uart_baud(0)), 115200.0, 115200.0 * 0.02);
}

TEST_F(UartTest, ABurstLeavesAtOneFramePerByteInOrder) {
    const std::string text = "0123456789abcdef";
    uint64_t t0 = sim::now_ns();
    for (char c : text) {
        UARTCharPut(UART0_BASE, static_cast<unsigned char>(c));
    }
    EXPECT_LT(sim::now_ns() - t0, frame_ns); // 16 bytes fit without waiting
    EXPECT_TRUE(UARTBusy(UART0_BASE));
    while (UARTBusy(UART0_BASE)) {
    }
    EXPECT_NEAR(static_cast<double>(sim::now_ns() - t0), 16.0 * frame_ns, 2000.0);
    EXPECT_EQ(sim::test::console_output(), text);
    EXPECT_EQ(sim::stats().tx_bytes, 16u);
}

TEST_F(UartTest, PutBlocksWhileTheFifoIsFullAndNonBlockingPutRefuses) {
    uint64_t t0 = sim::now_ns();
    for (int i = 0; i < 17; ++i) { // the shifter and 16 in the FIFO
        UARTCharPut(UART0_BASE, 'x');
    }
    EXPECT_LT(sim::now_ns() - t0, frame_ns);
    EXPECT_FALSE(UARTSpaceAvail(UART0_BASE));
    EXPECT_FALSE(UARTCharPutNonBlocking(UART0_BASE, 'y'));
    UARTCharPut(UART0_BASE, 'z'); // waits for the first byte to leave
    EXPECT_GE(sim::now_ns() - t0, frame_ns);
    EXPECT_LT(sim::now_ns() - t0, frame_ns + 2000);
    sim::test::drain_console();
    EXPECT_EQ(sim::test::console_output(), std::string(17, 'x') + "z");
}

TEST_F(UartTest, ReceivedBytesRaiseRxAtTheTriggerLevelAndRtAfterSilence) {
    UARTFIFOLevelSet(UART0_BASE, UART_FIFO_TX1_8, UART_FIFO_RX4_8); // RX at 8 bytes
    UARTIntEnable(UART0_BASE, UART_INT_RX | UART_INT_RT);
    for (int i = 0; i < 7; ++i) {
        sim::uart_receive(0, static_cast<uint8_t>('a' + i));
    }
    EXPECT_EQ(UARTIntStatus(UART0_BASE, true), 0u);
    EXPECT_FALSE(vector_pending(INT_UART0));
    sim::uart_receive(0, 'h');
    EXPECT_EQ(UARTIntStatus(UART0_BASE, true), static_cast<uint32_t>(UART_INT_RX));
    EXPECT_TRUE(vector_pending(INT_UART0));

    // Reading below the level drops RX; the rest waits for the time-out of 32 bit periods.
    EXPECT_EQ(UARTCharGetNonBlocking(UART0_BASE), 'a');
    EXPECT_EQ(UARTIntStatus(UART0_BASE, true), 0u);
    sim::core().pending.reset();
    sim::test::advance_s(20e-6);
    EXPECT_EQ(UARTIntStatus(UART0_BASE, true), 0u);
    sim::test::advance_s(300e-6);
    EXPECT_EQ(UARTIntStatus(UART0_BASE, true), static_cast<uint32_t>(UART_INT_RT));
    EXPECT_TRUE(vector_pending(INT_UART0));

    // Emptying the FIFO ends the time-out.
    int n = 0;
    while (UARTCharGetNonBlocking(UART0_BASE) >= 0) {
        ++n;
    }
    EXPECT_EQ(n, 7);
    EXPECT_EQ(UARTIntStatus(UART0_BASE, false) & UART_INT_RT, 0u);
    EXPECT_EQ(UARTCharGetNonBlocking(UART0_BASE), -1);
}

TEST_F(UartTest, AFullReceiveFifoLosesTheNextByteWithAnOverrun) {
    for (int i = 0; i < 17; ++i) {
        sim::uart_receive(0, static_cast<uint8_t>(i));
    }
    EXPECT_TRUE(UARTIntStatus(UART0_BASE, false) & UART_INT_OE);
    EXPECT_EQ(UARTRxErrorGet(UART0_BASE), static_cast<uint32_t>(UART_RXERROR_OVERRUN));
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(UARTCharGet(UART0_BASE), i);
    }
    EXPECT_FALSE(UARTCharsAvail(UART0_BASE));

    UARTDisable(UART0_BASE);
    sim::uart_receive(0, 'q'); // a receiver that is off hears nothing
    UARTEnable(UART0_BASE);
    EXPECT_FALSE(UARTCharsAvail(UART0_BASE));
}

// TX is an edge: it comes when the FIFO drains through its level, not merely for being below it.
TEST_F(UartTest, TxInterruptComesWhenTheFifoDrainsThroughItsLevel) {
    UARTFIFOLevelSet(UART0_BASE, UART_FIFO_TX4_8, UART_FIFO_RX4_8); // TX at 8 bytes or fewer
    UARTIntEnable(UART0_BASE, UART_INT_TX);
    EXPECT_EQ(UARTIntStatus(UART0_BASE, false) & UART_INT_TX, 0u); // empty, but never crossed

    for (int i = 0; i < 11; ++i) { // 1 in the shifter, 10 in the FIFO
        UARTCharPut(UART0_BASE, 't');
    }
    sim::test::advance_s(static_cast<double>(frame_ns) / 1e9 + 1e-6); // FIFO 10 -> 9
    EXPECT_EQ(UARTIntStatus(UART0_BASE, true), 0u);
    sim::test::advance_s(static_cast<double>(frame_ns) / 1e9); // FIFO 9 -> 8
    EXPECT_EQ(UARTIntStatus(UART0_BASE, true), static_cast<uint32_t>(UART_INT_TX));
    EXPECT_TRUE(vector_pending(INT_UART0));

    // Filling above the level clears it; draining through the level again sets it again.
    UARTCharPut(UART0_BASE, 't');
    EXPECT_EQ(UARTIntStatus(UART0_BASE, false) & UART_INT_TX, 0u);
    sim::test::advance_s(static_cast<double>(frame_ns) / 1e9);
    EXPECT_EQ(UARTIntStatus(UART0_BASE, true), static_cast<uint32_t>(UART_INT_TX));
    UARTIntClear(UART0_BASE, UART_INT_TX);
    EXPECT_EQ(UARTIntStatus(UART0_BASE, true), 0u);
    EXPECT_FALSE(vector_pending(INT_UART0));
}

TEST_F(UartTest, EndOfTransmissionModeSignalsTheLastBit) {
    UARTTxIntModeSet(UART0_BASE, UART_TXINT_MODE_EOT);
    UARTCharPut(UART0_BASE, 'a');
    UARTCharPut(UART0_BASE, 'b');
    sim::test::advance_s(static_cast<double>(frame_ns) / 1e9 + 1e-6);
    EXPECT_EQ(UARTIntStatus(UART0_BASE, false) & UART_INT_TX, 0u);
    sim::test::advance_s(static_cast<double>(frame_ns) / 1e9);
    EXPECT_FALSE(UARTBusy(UART0_BASE));
    EXPECT_TRUE(UARTIntStatus(UART0_BASE, false) & UART_INT_TX);
}

TEST_F(UartTest, OtherPortsRunAtTheirOwnRateAndStayOffTheConsole) {
    SysCtlPeripheralEnable(SYSCTL_PERIPH_UART4);
    UARTConfigSetExpClk(UART4_BASE, 16000000, 9600, config_8n1);
    uint64_t t0 = sim::now_ns();
    UARTCharPut(UART4_BASE, 'S');
    while (UARTBusy(UART4_BASE)) {
    }
    EXPECT_NEAR(static_cast<double>(sim::now_ns() - t0), 1041667.0, 2000.0);
    EXPECT_EQ(sim::test::console_output(), "");
    EXPECT_EQ(sim::stats().tx_bytes, 0u);

    UARTIntEnable(UART4_BASE, UART_INT_RX);
    UARTFIFOLevelSet(UART4_BASE, UART_FIFO_TX1_8, UART_FIFO_RX1_8);
    sim::uart_receive(4, 'A');
    sim::uart_receive(4, 'B');
    EXPECT_TRUE(vector_pending(INT_UART4));
    EXPECT_FALSE(vector_pending(INT_UART0));
}

// ---------------------------------------------------------------- the register door

uint32_t reg(uint32_t offset) {
    return sim::dev::uart_reg_read(0, offset);
}

void set_reg(uint32_t offset, uint32_t value) {
    sim::dev::uart_reg_write(0, offset, value);
}

// The emulated processor moves virtual time on by itself; the model must show that time's state
// without the runtime having serviced it.
void run_cycles_for(uint64_t ns) {
    sim::shared().now_ns += ns;
}

class UartRegisterTest : public ::testing::Test {
  protected:
    void SetUp() override { sim::test::reset_board(); }

    // The chip driver's order: off, divisors, then the line-control write that latches them, on.
    static void configure(uint32_t ibrd, uint32_t fbrd, bool high_speed = false) {
        set_reg(UART_O_CTL, reg(UART_O_CTL) & ~(UART_CTL_UARTEN | UART_CTL_TXE | UART_CTL_RXE));
        uint32_t ctl = reg(UART_O_CTL) & ~UART_CTL_HSE;
        set_reg(UART_O_CTL, high_speed ? ctl | UART_CTL_HSE : ctl);
        set_reg(UART_O_IBRD, ibrd);
        set_reg(UART_O_FBRD, fbrd);
        set_reg(UART_O_LCRH, UART_LCRH_WLEN_8 | UART_LCRH_FEN);
        set_reg(UART_O_CTL, reg(UART_O_CTL) | UART_CTL_UARTEN | UART_CTL_TXE | UART_CTL_RXE);
    }
};

TEST_F(UartRegisterTest, TheRateFollowsTheLatchedDivisorAndTheModuleClock) {
    EXPECT_EQ(reg(UART_O_CTL), static_cast<uint32_t>(UART_CTL_TXE | UART_CTL_RXE)); // reset value
    EXPECT_EQ(sim::uart_baud(0), 0u);

    configure(8, 44); // 115200 from 16 MHz
    EXPECT_EQ(sim::uart_baud(0), 115108u);

    // New divisors wait for the line-control write.
    set_reg(UART_O_IBRD, 104);
    set_reg(UART_O_FBRD, 11);
    EXPECT_EQ(sim::dev::uart_actual_baud(0), 115108u);
    set_reg(UART_O_LCRH, UART_LCRH_WLEN_8 | UART_LCRH_FEN);
    EXPECT_EQ(sim::dev::uart_actual_baud(0), 9600u);

    // The same divisor on the 50 MHz system clock runs 3.125 times too fast, until the clock
    // source register selects the 16 MHz oscillator.
    configure(8, 44);
    SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
    EXPECT_EQ(sim::dev::uart_actual_baud(0), 359712u);
    set_reg(UART_O_CC, UART_CLOCK_PIOSC);
    EXPECT_EQ(reg(UART_O_CC), static_cast<uint32_t>(UART_CLOCK_PIOSC));
    EXPECT_EQ(sim::dev::uart_actual_baud(0), 115108u);

    // 115200 from 50 MHz; high-speed mode doubles what a divisor gives.
    set_reg(UART_O_CC, UART_CLOCK_SYSTEM);
    configure(27, 8);
    EXPECT_NEAR(static_cast<double>(sim::dev::uart_actual_baud(0)), 115200.0, 115200.0 * 0.02);
    configure(27, 8, true);
    EXPECT_NEAR(static_cast<double>(sim::dev::uart_actual_baud(0)), 230400.0, 230400.0 * 0.02);

    // An integer divisor of 0 does not run the generator.
    configure(0, 44);
    EXPECT_EQ(sim::uart_baud(0), 0u);
}

TEST_F(UartRegisterTest, AByteTakesTheFrameTimeOfTheRealRate) {
    configure(8, 44);
    set_reg(UART_O_DR, 'A');
    EXPECT_EQ(reg(UART_O_FR) & (UART_FR_BUSY | UART_FR_TXFE),
              static_cast<uint32_t>(UART_FR_BUSY | UART_FR_TXFE));
    run_cycles_for(frame_ns - 1);
    EXPECT_TRUE(reg(UART_O_FR) & UART_FR_BUSY);
    EXPECT_EQ(sim::test::console_output(), "");
    run_cycles_for(1);
    EXPECT_FALSE(reg(UART_O_FR) & UART_FR_BUSY);
    EXPECT_EQ(sim::test::console_output(), "A");

    // On a 50 MHz system clock the divisor meant for 16 MHz sends the frame in a third of the time.
    SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
    set_reg(UART_O_DR, 'B');
    run_cycles_for(frame_ns * 8 / 25 + 1);
    EXPECT_FALSE(reg(UART_O_FR) & UART_FR_BUSY);
    EXPECT_EQ(sim::test::console_output(), "AB");
}

TEST_F(UartRegisterTest, FifoFlagsAndLostBytes) {
    EXPECT_EQ(reg(UART_O_FR), static_cast<uint32_t>(UART_FR_TXFE | UART_FR_RXFE));

    // With the transmitter off the FIFO fills: full at 16, the 17th write is lost, and the UART
    // counts as busy while it holds data.
    configure(8, 44);
    set_reg(UART_O_CTL, UART_CTL_UARTEN | UART_CTL_RXE);
    for (int i = 0; i < 17; ++i) {
        set_reg(UART_O_DR, static_cast<uint32_t>('a' + i));
    }
    EXPECT_EQ(reg(UART_O_FR), static_cast<uint32_t>(UART_FR_TXFF | UART_FR_RXFE | UART_FR_BUSY));
    set_reg(UART_O_CTL, UART_CTL_UARTEN | UART_CTL_TXE | UART_CTL_RXE);
    run_cycles_for(16 * frame_ns);
    EXPECT_EQ(reg(UART_O_FR), static_cast<uint32_t>(UART_FR_TXFE | UART_FR_RXFE));
    EXPECT_EQ(sim::test::console_output(), "abcdefghijklmnop");

    // Without the FIFO the holding register is full with one byte.
    set_reg(UART_O_CTL, UART_CTL_UARTEN | UART_CTL_RXE);
    set_reg(UART_O_LCRH, UART_LCRH_WLEN_8);
    set_reg(UART_O_DR, 'z');
    EXPECT_TRUE(reg(UART_O_FR) & UART_FR_TXFF);
    set_reg(UART_O_LCRH, UART_LCRH_WLEN_8 | UART_LCRH_FEN);

    // Receive side: full at 16; the 17th byte is lost with an overrun, which the reads report
    // until a byte gets into the FIFO again, and the status register keeps until cleared.
    for (int i = 0; i < 17; ++i) {
        sim::uart_receive(0, static_cast<uint8_t>(i));
    }
    EXPECT_TRUE(reg(UART_O_FR) & UART_FR_RXFF);
    EXPECT_EQ(reg(UART_O_RSR), static_cast<uint32_t>(UART_RXERROR_OVERRUN));
    EXPECT_TRUE(reg(UART_O_RIS) & UART_INT_OE);
    EXPECT_EQ(reg(UART_O_DR), static_cast<uint32_t>(UART_DR_OE | 0));
    sim::uart_receive(0, 0x55);
    for (int i = 1; i < 16; ++i) {
        EXPECT_EQ(reg(UART_O_DR), static_cast<uint32_t>(i));
    }
    EXPECT_EQ(reg(UART_O_DR), 0x55u);
    EXPECT_TRUE(reg(UART_O_FR) & UART_FR_RXFE);
    EXPECT_EQ(reg(UART_O_DR), 0u); // an empty FIFO reads nothing
    EXPECT_EQ(reg(UART_O_RSR), static_cast<uint32_t>(UART_RXERROR_OVERRUN));
    set_reg(UART_O_ECR, 0);
    EXPECT_EQ(reg(UART_O_RSR), 0u);
}

TEST_F(UartRegisterTest, InterruptFlagsThroughRisMisAndIcr) {
    configure(8, 44);
    set_reg(UART_O_IFLS, UART_FIFO_TX1_8 | UART_FIFO_RX1_8); // RX at 2 bytes
    set_reg(UART_O_IM, UART_INT_RX | UART_INT_RT);
    sim::uart_receive(0, 'a');
    EXPECT_EQ(reg(UART_O_RIS) & UART_INT_RX, 0u);
    sim::uart_receive(0, 'b');
    EXPECT_EQ(reg(UART_O_MIS), static_cast<uint32_t>(UART_INT_RX));
    EXPECT_TRUE(vector_pending(INT_UART0));
    set_reg(UART_O_ICR, UART_INT_RX);
    EXPECT_EQ(reg(UART_O_RIS), 0u);
    EXPECT_FALSE(vector_pending(INT_UART0));

    // 32 bit periods of silence with data waiting: the time-out, seen without the runtime's help.
    run_cycles_for(32 * frame_ns / 10 + 1);
    EXPECT_EQ(reg(UART_O_MIS), static_cast<uint32_t>(UART_INT_RT));
    EXPECT_TRUE(vector_pending(INT_UART0));
    reg(UART_O_DR);
    reg(UART_O_DR);
    EXPECT_EQ(reg(UART_O_RIS), 0u); // emptying the FIFO ends it

    // End-of-transmission mode: TX when the last bit has left, masked until enabled.
    set_reg(UART_O_CTL, reg(UART_O_CTL) | UART_CTL_EOT);
    set_reg(UART_O_DR, 'x');
    run_cycles_for(frame_ns);
    EXPECT_EQ(reg(UART_O_RIS), static_cast<uint32_t>(UART_INT_TX));
    EXPECT_EQ(reg(UART_O_MIS), 0u);
    set_reg(UART_O_IM, UART_INT_TX);
    EXPECT_TRUE(vector_pending(INT_UART0));
}

// ---------------------------------------------------------------- clock gating

// The clocks and the console as the firmware starts them, and the watchdog armed.
void start_console(void) {
    test_board::start_clocks();
    wdog_init();
}

void put_on_uart1(void) {
    UARTCharPut(UART1_BASE, 'x');
}

// The chip answers with a bus fault: the firmware's fault handler reports it and stops, and the
// watchdog ends the period.
TEST(UartClockTest, ACallOnAnUnclockedUartIsABusFault) {
    sim::test::reset_board();
    ASSERT_TRUE(sim::test::run(start_console).returned);
    sim::test::clear_console_output();
    sim::test::Outcome o = sim::test::run(put_on_uart1);
    EXPECT_FALSE(o.returned);
    EXPECT_EQ(o.event, sim::PowerEvent::watchdog);
    EXPECT_NE(sim::test::console_output().find("Crash"), std::string::npos);
}

} // namespace
