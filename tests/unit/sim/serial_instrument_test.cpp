// Every instrument that answers a request, as the board meets it: the answer on time at the
// instrument's rate, each faulty variant (silent, garbage, slow, short), and a board UART that runs
// at another rate, which neither side understands.
#include "sim/serial_port.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using serial_port::Rx;

struct Instrument {
    const char* name;
    int port;
    uint32_t baud;
    const char* wake;    // sent first; what it answers is not the answer looked at
    const char* request; // ends with (or holds) the carriage return the answer is timed from
    double answer_s;     // from that carriage return to the answer's first byte
    const char* answer_start;
    const char* line_end;
    const char* prompt; // what follows the line
};

const Instrument instruments[] = {
    {"sbe37", 4, 9600, "\r", "ts\r", 2.5, "15,", "\r\n", "S>"},
    {"aand5860", 4, 9600, "x", "do sample\r\n", 1.0, "5860\t567\t", "\r\n", ""},
    {"optode", 3, 9600, "x", "Do Sample\r\n", 1.5, "MEASUREMENT\t3830\t1234\t", "\r\n", ""},
    {"brisa", 3, 9600, "\r", "ts\r", 3.0, "#000000", "\r\n", "S>"},
    {"picoph", 3, 19200, "", "MEA 1 47\r", 0.4, "MEA 1 47 0 ", "\r", ""},
};

struct Exchange {
    std::vector<Rx> rx;
    uint64_t cr_at; // when the request's carriage return left the board
};

// Wakes the instrument and sends its request with the board's port at `board_baud`, then listens
// for `seconds`, reading every `grid_s`.
Exchange exchange(const Instrument& in, uint32_t board_baud, double seconds, double grid_s = 0.001) {
    serial_port::open(in.port, board_baud);
    Exchange ex{};
    serial_port::send(in.port, in.wake);
    ex.rx = serial_port::listen(in.port, 0.2);
    std::string request = in.request;
    ex.cr_at = serial_port::sent_at(request.find('\r'), board_baud);
    serial_port::send(in.port, request);
    std::vector<Rx> more = serial_port::listen(in.port, seconds, grid_s);
    ex.rx.insert(ex.rx.end(), more.begin(), more.end());
    return ex;
}

// What arrived from `t` on: past the echo, the answer.
std::vector<Rx> from(const std::vector<Rx>& rx, uint64_t t) {
    std::vector<Rx> out;
    for (const Rx& r : rx) {
        if (r.at_ns >= t) {
            out.push_back(r);
        }
    }
    return out;
}

uint64_t seconds_ns(double s) {
    return static_cast<uint64_t>(s * sim::ns_per_s);
}

class SerialInstruments : public ::testing::Test {
  protected:
    // Puts the instrument (or one of its variants) on its port on a new board.
    static void plug(const Instrument& in, const std::string& suffix = "") {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::set_scenario(in.port == 3 ? "port3" : "port4", in.name + suffix));
    }
    // The answer the working instrument gives, from its first byte.
    static std::string normal_answer(const Instrument& in) {
        plug(in);
        Exchange ex = exchange(in, in.baud, in.answer_s + 0.5);
        return serial_port::text(from(ex.rx, ex.cr_at + seconds_ns(in.answer_s / 2)));
    }
};

TEST_F(SerialInstruments, AnswerComesOnTimeAtTheInstrumentsRate) {
    for (const Instrument& in : instruments) {
        SCOPED_TRACE(in.name);
        plug(in);
        Exchange ex = exchange(in, in.baud, in.answer_s + 0.5);
        std::vector<Rx> answer = from(ex.rx, ex.cr_at + seconds_ns(in.answer_s / 2));
        std::string text = serial_port::text(answer);
        ASSERT_EQ(text.rfind(in.answer_start, 0), 0u) << text;
        std::string tail = std::string(in.line_end) + in.prompt;
        EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
        EXPECT_EQ(text.find(in.line_end), text.size() - tail.size()) << "one line";
        double first_ms = double(answer.front().at_ns - ex.cr_at) / 1e6;
        EXPECT_NEAR(first_ms, in.answer_s * 1000 + 1, 2.0) << "the answer time and the 1 ms read grid";
        double char_ms = double(answer.back().at_ns - answer.front().at_ns) / double(answer.size() - 1) / 1e6;
        EXPECT_NEAR(char_ms, 10000.0 / in.baud, 0.05) << "one character time apart";
    }
}

TEST_F(SerialInstruments, SilentOnesSendNothingAtAll) {
    for (const Instrument& in : instruments) {
        SCOPED_TRACE(in.name);
        plug(in, "-silent");
        Exchange ex = exchange(in, in.baud, in.answer_s + 11, 0.005);
        EXPECT_EQ(serial_port::text(ex.rx), "");
    }
}

TEST_F(SerialInstruments, GarbageIsNoiseWithoutALineEnd) {
    for (const Instrument& in : instruments) {
        SCOPED_TRACE(in.name);
        plug(in, "-garbage");
        Exchange ex = exchange(in, in.baud, in.answer_s + 1);
        std::string noise = serial_port::text(from(ex.rx, ex.cr_at + seconds_ns(in.answer_s / 2)));
        EXPECT_GE(noise.size(), 30u);
        for (char c : noise) {
            EXPECT_GE(static_cast<uint8_t>(c), 0x80) << noise;
        }
    }
}

TEST_F(SerialInstruments, SlowOnesAnswerTenSecondsLate) {
    for (const Instrument& in : instruments) {
        SCOPED_TRACE(in.name);
        std::string normal = normal_answer(in);
        plug(in, "-slow");
        Exchange ex = exchange(in, in.baud, in.answer_s + 10.5);
        std::vector<Rx> answer = from(ex.rx, ex.cr_at + seconds_ns(in.answer_s / 2));
        ASSERT_FALSE(answer.empty());
        double first_ms = double(answer.front().at_ns - ex.cr_at) / 1e6;
        EXPECT_NEAR(first_ms, in.answer_s * 1000 + 10001, 2.0);
        std::string text = serial_port::text(answer);
        EXPECT_EQ(text.size(), normal.size()) << text;
        EXPECT_EQ(text.rfind(in.answer_start, 0), 0u) << text;
    }
}

TEST_F(SerialInstruments, ShortOnesStopHalfWayForGood) {
    for (const Instrument& in : instruments) {
        SCOPED_TRACE(in.name);
        std::string normal = normal_answer(in);
        size_t line = normal.find(in.line_end) + std::string(in.line_end).size();
        plug(in, "-short");
        Exchange ex = exchange(in, in.baud, in.answer_s + 11, 0.005);
        std::string cut = serial_port::text(from(ex.rx, ex.cr_at + seconds_ns(in.answer_s / 2)));
        EXPECT_EQ(cut.rfind(in.answer_start, 0), 0u) << cut;
        EXPECT_NEAR(double(cut.size()), line / 2.0, 1.0) << cut;
        EXPECT_EQ(cut.find_first_of("\r\n"), std::string::npos) << cut;
    }
}

// Within 3 % of its rate the instrument still understands the board; further off, neither side
// reads the other: the board gets nothing but bytes with the top bit set.
TEST_F(SerialInstruments, BoardRateMustBeWithinThreePercent) {
    for (const Instrument& in : instruments) {
        SCOPED_TRACE(in.name);
        plug(in);
        Exchange near = exchange(in, static_cast<uint32_t>(in.baud * 1.02), in.answer_s + 0.5);
        EXPECT_NE(serial_port::text(near.rx).find(in.answer_start), std::string::npos);
        for (double factor : {1.05, 0.95, 2.0}) {
            plug(in);
            Exchange off = exchange(in, static_cast<uint32_t>(in.baud * factor), in.answer_s + 1);
            std::string text = serial_port::text(off.rx);
            EXPECT_EQ(text.find(in.answer_start), std::string::npos) << factor;
            for (char c : text) {
                EXPECT_GE(static_cast<uint8_t>(c), 0x80) << factor;
            }
        }
    }
}

} // namespace
