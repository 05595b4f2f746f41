// The simulated UARTs: byte timing at the configured baud rate, FIFO depth and blocking, and the
// receive, receive time-out and transmit interrupts with the vector they raise.
#include "runtime.h"
#include "sim_test.h"

#include "driverlib/uart.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"

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
        UARTClockSourceSet(UART0_BASE, UART_CLOCK_PIOSC);
        UARTConfigSetExpClk(UART0_BASE, 16000000, 115200, config_8n1);
    }
};

TEST_F(UartTest, ConfigurationIsReportedOnlyWhileEnabled) {
    EXPECT_EQ(sim::uart_baud(0), 115200u);
    EXPECT_EQ(sim::uart_baud(4), 0u);
    uint32_t baud = 0, config = 0;
    UARTConfigGetExpClk(UART0_BASE, 16000000, &baud, &config);
    EXPECT_EQ(baud, 115107u); // what the divisors really give
    EXPECT_EQ(config, config_8n1);
    UARTDisable(UART0_BASE);
    EXPECT_EQ(sim::uart_baud(0), 0u);
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

} // namespace
