// The instrument ports: which UARTs the board brings out, the receive ring filled by the interrupt
// while nobody reads, its bound and the count of what it lost, and ports kept apart; and the set-up
// that every UART, the console's too, goes through.
#include <gtest/gtest.h>

#include <string>

#include "driverlib/uart.h"
#include "inc/hw_memmap.h"
#include "inc/hw_uart.h"
#include "ports/uarts.h"
#include "ports/uartstdio.h"
#include "registers.h"
#include "sim_test.h"
#include "test_board.h"

namespace {

constexpr uint32_t piosc = 16000000;

class Uarts : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(test_board::start_clocks).returned);
    }
    // Bytes arrive at 9600 baud while the main loop does not read them.
    static void arrive(int port, const std::string& text) {
        for (char c : text) {
            sim::uart_receive(port, static_cast<uint8_t>(c));
            sim::test::advance_s(10.0 / 9600);
        }
    }
};

TEST_F(Uarts, OnlyThePortsWithPinsOpen) {
    for (uint32_t port : {2u, 3u, 4u, 6u}) {
        EXPECT_TRUE(uart_port_usable(port)) << port;
        EXPECT_TRUE(uart_init(port, 9600, piosc)) << port;
    }
    for (uint32_t port : {0u, 1u, 5u, 7u, 8u}) {
        EXPECT_FALSE(uart_port_usable(port)) << port;
        EXPECT_FALSE(uart_init(port, 9600, piosc)) << port;
        EXPECT_EQ(uart_rx_avail(port), 0u);
        EXPECT_EQ(uart_getc(port), -1);
        uart_puts(port, "ignored");
    }
}

// The interrupt keeps taking bytes from the 16-byte FIFO into the ring; what no longer fits is
// counted, and what was kept comes out in order.
TEST_F(Uarts, TheRingHoldsAReplyAndCountsWhatItLost) {
    ASSERT_TRUE(uart_init(3, 9600, piosc));
    std::string text;
    for (uint32_t i = 0; i < UART_RX_RING_SIZE + 44; i++) {
        text.push_back(static_cast<char>('a' + i % 26));
    }
    arrive(3, text);
    EXPECT_EQ(uart_rx_avail(3), UART_RX_RING_SIZE);
    EXPECT_EQ(uart_overruns(3), 44u);
    std::string got;
    for (int32_t c = uart_getc(3); c >= 0; c = uart_getc(3)) {
        got.push_back(static_cast<char>(c));
    }
    EXPECT_EQ(got, text.substr(0, UART_RX_RING_SIZE));

    uart_init(3, 9600, piosc);
    EXPECT_EQ(uart_overruns(3), 0u);
    arrive(3, "xyz");
    uart_flush_rx(3);
    EXPECT_EQ(uart_rx_avail(3), 0u);
}

TEST_F(Uarts, PortsAreKeptApart) {
    ASSERT_TRUE(uart_init(2, 9600, piosc));
    ASSERT_TRUE(uart_init(6, 9600, piosc));
    arrive(6, "six");
    arrive(2, "2");
    EXPECT_EQ(uart_rx_avail(6), 3u);
    EXPECT_EQ(uart_getc(2), '2');
    EXPECT_EQ(uart_getc(2), -1);
    EXPECT_EQ(uart_getc(6), 's');
}

// One set-up for all, each port keeping its own: 8N1 at the asked rate from the asked clock, FIFOs
// on with interrupts at 1/8, and its interrupt sources (the console's the receive ones, the
// instrument ports' also the overrun their handler counts), with nothing left pending.
TEST_F(Uarts, EachPortIsSetUpWithItsRateClockAndInterrupts) {
    UARTStdioConfig(0, 115200, piosc);
    ASSERT_TRUE(uart_init(3, 9600, piosc));
    ASSERT_TRUE(uart_init(4, 19200, SysCtlClockGet()));
    struct Case {
        int port;
        uint32_t base;
        uint32_t baud;
        uint32_t clock_source;
        uint32_t interrupts;
    };
    const Case cases[] = {
        {0, UART0_BASE, 115200, UART_CLOCK_PIOSC, UART_INT_RX | UART_INT_RT},
        {3, UART3_BASE, 9600, UART_CLOCK_PIOSC, UART_INT_RX | UART_INT_RT | UART_INT_OE},
        {4, UART4_BASE, 19200, UART_CLOCK_SYSTEM, UART_INT_RX | UART_INT_RT | UART_INT_OE},
    };
    for (const Case& c : cases) {
        EXPECT_NEAR(sim::uart_baud(c.port), c.baud, c.baud / 100) << c.port;
        uint32_t baud = 0;
        uint32_t frame = 0;
        UARTConfigGetExpClk(c.base, 16000000, &baud, &frame);
        EXPECT_EQ(frame, UART_CONFIG_WLEN_8 | UART_CONFIG_STOP_ONE | UART_CONFIG_PAR_NONE) << c.port;
        EXPECT_EQ(UARTClockSourceGet(c.base), c.clock_source) << c.port;
        uint32_t tx_level = 99;
        uint32_t rx_level = 99;
        UARTFIFOLevelGet(c.base, &tx_level, &rx_level);
        EXPECT_EQ(tx_level, UART_FIFO_TX1_8) << c.port;
        EXPECT_EQ(rx_level, UART_FIFO_RX1_8) << c.port;
        EXPECT_NE(sim::dev::uart_reg_read(c.port, UART_O_LCRH) & UART_LCRH_FEN, 0u) << c.port;
        EXPECT_EQ(sim::dev::uart_reg_read(c.port, UART_O_IM), c.interrupts) << c.port;
        EXPECT_EQ(UARTIntStatus(c.base, true), 0u) << c.port;
    }
}

} // namespace
