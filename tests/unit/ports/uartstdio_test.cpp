// Console layer on UART0, checked from outside the board: what a terminal receives and what typed
// input the firmware reads back.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ports/uartstdio.h"
#include "sim_test.h"
#include "storage/microsd.h"

namespace {

class Console : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        UARTStdioConfig(0, 115200, 16000000);
        UARTEchoSet(true);
        UARTFlushRx();
        sim::test::clear_console_output();
    }
    void TearDown() override {
        UARTFlushTx(true);
        UARTFlushRx();
    }

    // Types text and lets it arrive (about 87 us per byte at 115200 baud).
    static void type_and_settle(const std::string& text) {
        sim::test::type(text);
        sim::test::advance_s(0.01 + 0.0001 * static_cast<double>(text.size()));
    }
    static const std::string& out() { return sim::test::console_output(); }
};

std::string numbered_text(size_t len) {
    std::string s;
    for (size_t i = 0; s.size() < len; i++) {
        s += std::to_string(i % 10);
    }
    return s;
}

// ---------------------------------------------------------------- output

TEST_F(Console, TextLongerThanTheTransmitRingArrivesWholeAndInOrder) {
    // A full sample line is longer than the transmit ring, so the writer has to wait for room.
    std::string line = numbered_text(1539) + "\n";
    ASSERT_GT(line.size(), UART_TX_BUFFER_SIZE);

    EXPECT_EQ(uprintf("%s", line.c_str()), static_cast<int>(line.size()));
    sim::test::advance_s(0.5);
    EXPECT_EQ(out(), line);
}

TEST_F(Console, BytesAreSentExactlyAsGiven) {
    // No line-end translation: "\n" stays one byte, "\r\n" stays two, NUL and 0xFF pass too.
    const char text[] = "a\nb\r\nc\r\0\xff";
    const uint32_t len = sizeof(text) - 1;
    EXPECT_EQ(UARTwrite(text, len), static_cast<int>(len));
    wait_consoleTx();
    EXPECT_EQ(out(), std::string(text, len));
}

TEST_F(Console, WaitConsoleTxReturnsAfterTheLastByteLeft) {
    std::string text = numbered_text(1200);
    UARTwrite(text.data(), static_cast<uint32_t>(text.size()));
    wait_consoleTx();
    // No time passes after the wait: everything must already be on the wire.
    EXPECT_EQ(out(), text);
    EXPECT_EQ(UARTTxBytesFree(), static_cast<int>(UART_TX_BUFFER_SIZE));
}

TEST_F(Console, FlushTxWaitsForTheRingOrDiscardsIt) {
    std::string text = numbered_text(600);
    UARTwrite(text.data(), static_cast<uint32_t>(text.size()));
    UARTFlushTx(false);
    EXPECT_EQ(UARTTxBytesFree(), static_cast<int>(UART_TX_BUFFER_SIZE));
    wait_consoleTx();
    EXPECT_EQ(out(), text);

    sim::test::clear_console_output();
    UARTwrite(text.data(), static_cast<uint32_t>(text.size()));
    UARTFlushTx(true);
    sim::test::advance_s(0.2);
    // At most what was already in the hardware FIFO still goes out.
    EXPECT_LT(out().size(), 40u);
    EXPECT_EQ(out(), text.substr(0, out().size()));
}

TEST_F(Console, DebugPrintsFollowTheDebugFlag) {
    uint32_t saved = dbg_flag;
    dbg_flag = 0;
    EXPECT_EQ(dbg_printf("hidden %d\r\n", 1), 0);
    dbg_flag = 1;
    EXPECT_EQ(dbg_printf("shown %d\r\n", 2), 9);
    dbg_flag = saved;
    wait_consoleTx();
    EXPECT_EQ(out(), "shown 2\r\n");
}

TEST_F(Console, ReconfiguringDrainsFirstThenChangesTheByteTiming) {
    std::string first = numbered_text(300);
    UARTwrite(first.data(), static_cast<uint32_t>(first.size()));
    // Pending output leaves at the old rate before the rate changes.
    UARTStdioConfig(0, 9600, 16000000);
    EXPECT_EQ(out(), first);

    // 100 bytes: about 104 ms at 9600 baud, about 9 ms at 115200.
    sim::test::clear_console_output();
    std::string text = numbered_text(100);
    UARTwrite(text.data(), static_cast<uint32_t>(text.size()));
    sim::test::advance_s(0.05);
    size_t slow = out().size();
    EXPECT_GT(slow, 30u);
    EXPECT_LT(slow, 70u);
    wait_consoleTx();
    EXPECT_EQ(out(), text);

    UARTStdioConfig(0, 115200, 16000000);
    sim::test::clear_console_output();
    UARTwrite(text.data(), static_cast<uint32_t>(text.size()));
    sim::test::advance_s(0.05);
    EXPECT_EQ(out(), text);
}

// ---------------------------------------------------------------- input

TEST_F(Console, GetsReadsATypedLineWithoutItsLineEnd) {
    type_and_settle("hello\r");
    char buf[32];
    EXPECT_EQ(UARTgets(buf, sizeof(buf)), 5);
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(UARTrdy(), 0);
}

TEST_F(Console, GetsBoundsTheLineAndDropsTheRestOfIt) {
    type_and_settle("abcdefghij\rxy\r");
    char buf[8];
    std::memset(buf, 'z', sizeof(buf));
    EXPECT_EQ(UARTgets(buf, 5), 4);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(buf[5], 'z'); // nothing written past len
    // The dropped tail of the long line does not leak into the next one.
    EXPECT_EQ(UARTgets(buf, sizeof(buf)), 2);
    EXPECT_STREQ(buf, "xy");
}

TEST_F(Console, GetsTakesLfAndCrLfAsOneLineEnd) {
    type_and_settle("ab\r\ncd\nef\r");
    char buf[16];
    UARTgets(buf, sizeof(buf));
    EXPECT_STREQ(buf, "ab");
    UARTgets(buf, sizeof(buf));
    EXPECT_STREQ(buf, "cd");
    UARTgets(buf, sizeof(buf));
    EXPECT_STREQ(buf, "ef");
    EXPECT_EQ(UARTRxBytesAvail(), 0);
}

TEST_F(Console, PeekFindsTheCarriageReturnWithoutConsumingInput) {
    EXPECT_EQ(UARTPeek('\r'), -1);
    type_and_settle("xyz");
    EXPECT_EQ(UARTPeek('\r'), -1);
    EXPECT_EQ(UARTPeek('y'), 1);
    type_and_settle("\r");
    EXPECT_EQ(UARTPeek('\r'), 3);
    EXPECT_EQ(UARTPeek('q'), -1);
    EXPECT_EQ(UARTRxBytesAvail(), 4);
    EXPECT_NE(UARTrdy(), 0);
    EXPECT_EQ(getChar(), 'x');
    EXPECT_EQ(UARTPeek('\r'), 2);
}

TEST_F(Console, FlushRxDiscardsPendingInput) {
    type_and_settle("stale\r");
    ASSERT_NE(UARTrdy(), 0);
    UARTFlushRx();
    EXPECT_EQ(UARTrdy(), 0);
    EXPECT_EQ(UARTPeek('\r'), -1);
    type_and_settle("new\r");
    char buf[16];
    UARTgets(buf, sizeof(buf));
    EXPECT_STREQ(buf, "new");
}

TEST_F(Console, EchoShowsTypingAndEditsBackspace) {
    type_and_settle("abc\bd\r");
    EXPECT_EQ(out(), "abc\b \bd\r\n");
    char buf[16];
    UARTgets(buf, sizeof(buf));
    EXPECT_STREQ(buf, "abd");

    // Non-printable bytes are kept but not shown; a backspace at an empty line does nothing.
    sim::test::clear_console_output();
    type_and_settle("\b\x01q\r");
    EXPECT_EQ(out(), "q\r\n");
    EXPECT_EQ(UARTgets(buf, sizeof(buf)), 2);
    EXPECT_EQ(buf[0], '\x01');
}

TEST_F(Console, EchoOffKeepsBytesRawAndSilent) {
    UARTEchoSet(false);
    type_and_settle("a\bb\r\n\xaa");
    EXPECT_EQ(out(), "");
    EXPECT_EQ(UARTRxBytesAvail(), 6);
    const unsigned char expected[] = {'a', '\b', 'b', '\r', '\n', 0xaa};
    for (unsigned char c : expected) {
        EXPECT_EQ(getChar(), c);
    }
    EXPECT_EQ(UARTrdy(), 0);
}

TEST_F(Console, ReceiveRingKeepsTheOldestBytesWhenFull) {
    UARTEchoSet(false);
    std::string typed = numbered_text(UART_RX_BUFFER_SIZE + 40);
    type_and_settle(typed);
    ASSERT_EQ(UARTRxBytesAvail(), static_cast<int>(UART_RX_BUFFER_SIZE));
    std::string got;
    while (UARTrdy()) {
        got += static_cast<char>(getChar());
    }
    EXPECT_EQ(got, typed.substr(0, UART_RX_BUFFER_SIZE));
}

// A line longer than the ring still ends where it was typed to end: its end replaces the last byte
// kept, with echo on and off, so a reader waiting for the end is not left waiting.
TEST_F(Console, LineEndThatFindsTheRingFullStillEndsTheLine) {
    for (bool echo : {true, false}) {
        SCOPED_TRACE(echo ? "echo on" : "echo off");
        UARTEchoSet(echo);
        std::string typed = numbered_text(UART_RX_BUFFER_SIZE + 40);
        type_and_settle(typed + "\r");
        ASSERT_EQ(UARTRxBytesAvail(), static_cast<int>(UART_RX_BUFFER_SIZE));
        EXPECT_EQ(UARTPeek('\r'), static_cast<int>(UART_RX_BUFFER_SIZE - 1));
        char buf[16];
        EXPECT_EQ(UARTgets(buf, sizeof buf), 15);
        EXPECT_EQ(UARTrdy(), 0) << "the whole cut line was taken";
        type_and_settle("next\r");
        EXPECT_EQ(UARTgets(buf, sizeof buf), 4);
        EXPECT_STREQ(buf, "next");
    }
}

// ---------------------------------------------------------------- file system result names

TEST(FresultNames, EveryResultHasItsName) {
    EXPECT_STREQ(StringFromFresult(FR_OK), "FR_OK");
    EXPECT_STREQ(StringFromFresult(FR_DISK_ERR), "FR_DISK_ERR");
    EXPECT_STREQ(StringFromFresult(FR_NOT_READY), "FR_NOT_READY");
    EXPECT_STREQ(StringFromFresult(FR_INVALID_OBJECT), "FR_INVALID_OBJECT");
    EXPECT_STREQ(StringFromFresult(FR_NO_FILESYSTEM), "FR_NO_FILESYSTEM");
    EXPECT_STREQ(StringFromFresult(FR_INVALID_PARAMETER), "FR_INVALID_PARAMETER");
    for (int fr = FR_OK; fr <= FR_INVALID_PARAMETER; fr++) {
        EXPECT_STRNE(StringFromFresult(static_cast<FRESULT>(fr)), "UNKNOWN ERROR CODE") << fr;
    }
    EXPECT_STREQ(StringFromFresult(static_cast<FRESULT>(20)), "UNKNOWN ERROR CODE");
}

} // namespace
