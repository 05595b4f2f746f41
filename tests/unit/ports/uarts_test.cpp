// The instrument ports: which UARTs the board brings out, the receive ring filled by the interrupt
// while nobody reads, its bound and the count of what it lost, and ports kept apart.
#include <gtest/gtest.h>

#include <string>

#include "ports/uarts.h"
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

} // namespace
