// Receive state machine of the console session: which first bytes open a line, how a line ends (carriage
// return or silence), the way into the operator menu, framed lines, long lines and backspace, and the
// acknowledgement readers used when the board talks to a controller.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "core/main.h"
#include "devices.h"
#include "menus/menu.h"
#include "records/apf.h"
#include "hostlink/serial.h"
#include "measure/sample.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "spectrometer/uvs.h"

namespace {

std::vector<int32_t> g_results;
double g_pump_s;

// Polls the receive machine for g_pump_s seconds of virtual time, as the session loop does, keeping
// every non-zero result. Stops at the first -1 (the session loop would end there).
void pump_loop(void) {
    const uint64_t end = sim::now_ns() + static_cast<uint64_t>(g_pump_s * 1e9);
    while (sim::now_ns() < end) {
        int32_t r = handle_m2m_comm();
        if (r == 0) {
            sim::advance_ns(50000);
            continue;
        }
        g_results.push_back(r);
        if (r < 0) {
            return;
        }
    }
}

class SerialSession : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(init).returned);
        apf.sys_sensor_mode = 2;
        // The operator menu, when it opens, finds no key and sleeps at once.
        deployDelay = 0;
        apf_set_m2m_timeout();
        m2m_statemachine_init();
        databarFlg = 0;
        clear_out();
    }
    void TearDown() override {
        deployDelay = 30;
        if (sim::test::board_on()) {
            UARTFlushTx(true);
            UARTFlushRx();
        }
    }

    // Types text now and polls the machine for the given virtual time.
    static sim::test::Outcome send(const std::string& text, double seconds = 0.05) {
        sim::test::type(text);
        return pump(seconds);
    }
    static sim::test::Outcome pump(double seconds) {
        g_pump_s = seconds;
        g_results.clear();
        return sim::test::run(pump_loop);
    }
    static bool ended(void) { return !g_results.empty() && g_results.back() == -1; }
    static std::string out(void) {
        sim::test::drain_console();
        return sim::test::console_output();
    }
    static void clear_out(void) {
        sim::test::drain_console();
        sim::test::clear_console_output();
    }
    static std::string line(void) { return std::string(reinterpret_cast<const char*>(rx0.buf)); }
};

// ---------------------------------------------------------------- first byte and line ends

TEST_F(SerialSession, OnlyTheFirstLettersOfCommandWordsOpenALine) {
    const std::string accepted = "BCDEFGHILMNOPQRSTVWYZ";
    std::string firsts = "1, \n\x7f";
    for (char c = 'A'; c <= 'Z'; c++) {
        firsts += c;
        firsts += static_cast<char>(c + 32);
    }
    for (char c : firsts) {
        SCOPED_TRACE(std::string(1, c));
        m2m_statemachine_init();
        clear_out();
        ASSERT_TRUE(send(std::string(1, c), 0.01).returned);
        ASSERT_EQ(g_results, std::vector<int32_t>{1});
        if (accepted.find(static_cast<char>(c & ~0x20)) != std::string::npos && c >= 'A') {
            EXPECT_EQ(rx0.state, 2u);
            EXPECT_EQ(line(), std::string(1, static_cast<char>(c | 0x20)));
            EXPECT_EQ(out(), std::string(1, c)) << "echoed as typed";
        } else {
            EXPECT_EQ(rx0.state, 0u);
            EXPECT_EQ(rx0.indx, 0u);
            EXPECT_EQ(out(), "NAK\r\n\r\n>");
        }
    }
}

TEST_F(SerialSession, CarriageReturnOrSilenceEndsTheLine) {
    ASSERT_TRUE(send("bx\r").returned);
    EXPECT_EQ(out(), "bx\r\nNAK\r\n\r\n>") << "a line that matches nothing is refused";
    EXPECT_FALSE(ended());

    // A slow typist in machine mode: 0.2 s keeps the line open, 0.25 s ends it.
    ASSERT_TRUE(send("st", 0.2).returned);
    EXPECT_EQ(rx0.state, 2u);
    ASSERT_TRUE(pump(0.1).returned);
    EXPECT_EQ(rx0.state, 0u);
    EXPECT_NE(out().find("st\r\nNAK\r\n"), std::string::npos) << "\"st\" was parsed alone";
    ASSERT_TRUE(send("op\r").returned);
    EXPECT_FALSE(ended()) << "the rest of the word is a line of its own";

    clear_out();
    ASSERT_TRUE(send("STOP\r").returned);
    EXPECT_TRUE(ended()) << "a sleep word in one piece ends the session";
    EXPECT_EQ(out(), "STOP\r\n") << "and leaves the prompt to whoever comes next";
}

TEST_F(SerialSession, HelpLengthensTheSilenceToOneSecondAndM2mRestoresIt) {
    ASSERT_TRUE(send("help\r", 0.5).returned);
    ASSERT_TRUE(send("st", 0.9).returned);
    EXPECT_EQ(rx0.state, 2u);
    ASSERT_TRUE(send("op\r").returned);
    EXPECT_TRUE(ended()) << "a person's pause of 0.9 s stays inside the line";

    m2m_statemachine_init();
    ASSERT_TRUE(send("st", 1.1).returned);
    EXPECT_EQ(rx0.state, 0u) << "1.1 s ends it";

    ASSERT_TRUE(send("m2m\r").returned);
    ASSERT_TRUE(send("st", 0.3).returned);
    EXPECT_EQ(rx0.state, 0u);
}

TEST_F(SerialSession, WhichCommandsEndTheSession) {
    apf.sys_sensor_mode = 0;
    ASSERT_TRUE(send("TS\r", 5).returned);
    EXPECT_TRUE(ended()) << "a sample request in legacy mode";

    apf.sys_sensor_mode = 2;
    m2m_statemachine_init();
    ASSERT_TRUE(send("W\r", 0.2).returned);
    EXPECT_FALSE(ended());
    EXPECT_EQ(rx0.state, 0u);

    // Capitals from a controller are matched in lower case: "SAMPLE" starts streaming.
    ASSERT_TRUE(send("SAMPLE\r", 0.1).returned);
    EXPECT_FALSE(ended());
    EXPECT_EQ(databarFlg, 1u);
    EXPECT_EQ(barfSampleTime, 5u);
    ASSERT_TRUE(send("SLEEP\r", 0.1).returned);
    EXPECT_TRUE(ended());
    EXPECT_EQ(databarFlg, 0u) << "a sleep word stops streaming";
}

// ---------------------------------------------------------------- the way into the menu

TEST_F(SerialSession, FourCarriageReturnsOpenTheMenuOnTheNextByte) {
    for (uint32_t i = 1; i <= 3; i++) {
        ASSERT_TRUE(send("\r", 0.01).returned);
        EXPECT_EQ(rx0.state, 0u);
        EXPECT_EQ(rx0.cr_cnt, i);
    }
    ASSERT_TRUE(send("\r", 0.01).returned);
    EXPECT_EQ(g_results, std::vector<int32_t>{1});
    EXPECT_EQ(rx0.state, 1u);
    EXPECT_EQ(out(), "\r\n>\r\n>\r\n>\r\n>");

    // The next byte, whatever it is, powers down what a controller left on and runs the menu, which
    // may end in sleep when nobody answers it.
    ASSERT_TRUE(sim::test::run([] {
                    uvs_spec_power(1);
                    uvs_lamp_power(1);
                }).returned);
    ASSERT_EQ(sim::dev::pcal6416_pin_levels() & 0xC0, 0xC0);
    apf.isus_spec_pwr = 1;
    apf.isus_lamp_pwr = 1;
    clear_out();
    sim::test::Outcome o = send("x");
    std::string text = sim::test::console_output();
    size_t spectrometer = text.find("\n  Spectrometer Power was left ON! Powering DOWN...\n");
    size_t lamp = text.find("\n  Fiberlight Power was left ON! Powering DOWN...\n");
    ASSERT_NE(spectrometer, std::string::npos);
    ASSERT_NE(lamp, std::string::npos);
    EXPECT_LT(spectrometer, lamp);
    EXPECT_EQ(apf.isus_spec_pwr, 0u);
    EXPECT_EQ(apf.isus_lamp_pwr, 0u);
    EXPECT_EQ(sim::dev::pcal6416_pin_levels() & 0xC0, 0) << "spectrometer and lamp supplies off";
    if (o.returned) {
        ASSERT_FALSE(g_results.empty());
        EXPECT_EQ(g_results.front(), 1);
        EXPECT_EQ(rx0.state, 0u);
    } else {
        EXPECT_NE(o.event, sim::PowerEvent::watchdog) << "the menu put the board to sleep";
    }
}

// ---------------------------------------------------------------- framed lines, editing, long lines

TEST_F(SerialSession, FramedLinesAreSwallowedWithoutParsing) {
    // "zz" would end the session if it were parsed.
    ASSERT_TRUE(send("<zz\r").returned);
    EXPECT_FALSE(ended());
    EXPECT_EQ(out(), "\r\n>") << "no echo, no NAK: only the fresh prompt";

    clear_out();
    ASSERT_TRUE(send("\xaaSTOP", 0.01).returned);
    EXPECT_EQ(rx0.state, 3u);
    EXPECT_EQ(line(), "stop");
    ASSERT_TRUE(pump(0.3).returned);
    EXPECT_EQ(rx0.state, 0u) << "silence ends the frame";
    EXPECT_FALSE(ended());

    ASSERT_TRUE(send("<ab<cd,").returned);
    EXPECT_EQ(rx0.state, 0u) << "the first byte that is not a letter or a frame start resets";
    EXPECT_EQ(out(), "\r\n>\r\n>");
}

TEST_F(SerialSession, LongLinesKeepTheFirst63BytesAndTheLastOne) {
    std::string typed = "B";
    for (int i = 0; typed.size() < 70; i++) {
        typed += static_cast<char>('A' + i % 26);
    }
    typed += "Q";
    ASSERT_TRUE(send(typed, 0.02).returned);
    EXPECT_EQ(rx0.indx, 63u);
    std::string lower;
    for (char c : typed) {
        lower += static_cast<char>(c | 0x20);
    }
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(rx0.buf), 63), lower.substr(0, 63));
    EXPECT_EQ(rx0.buf[63], 'q');
    EXPECT_EQ(rx0.buf_end, 0u) << "the full buffer is still a terminated string";
    EXPECT_EQ(out(), typed) << "every byte is echoed";

    clear_out();
    ASSERT_TRUE(send("\r").returned);
    EXPECT_EQ(out(), "\r\nNAK\r\n\r\n>");
}

TEST_F(SerialSession, BackspaceTakesBackTheLastByte) {
    ASSERT_TRUE(send("stx\b", 0.01).returned);
    EXPECT_EQ(line(), "st");
    EXPECT_EQ(out(), "stx\b \b");
    ASSERT_TRUE(send("op\r").returned);
    EXPECT_TRUE(ended()) << "\"stop\" after the correction";

    // Rubbing out more than was typed leaves an empty open line; the next letter starts it again.
    m2m_statemachine_init();
    ASSERT_TRUE(send("q\b\x7f", 0.3).returned);
    EXPECT_EQ(rx0.state, 2u);
    EXPECT_EQ(rx0.indx, 0u);
    ASSERT_TRUE(send("zz\r").returned);
    EXPECT_TRUE(ended());
}

// ---------------------------------------------------------------- acknowledgements

TEST(MatchAck, AcceptsExactlyTheThreeLettersInAnyCase) {
    const std::pair<const char*, int32_t> cases[] = {
        {"ACK", 6},   {"ack\r\n", 6}, {"Ack\njunk", 6}, {"NAK", 21},     {"nak\r", 21},  {"ACKS", -1},
        {"xACK", -1}, {"AC", -1},     {"", -1},         {"\r\nACK", -1}, {"NAKACK", -1}, {"ok", -1}};
    for (const auto& [text, expect] : cases) {
        char buf[16];
        strcpy(buf, text);
        EXPECT_EQ(MatchACK(buf), expect) << text;
    }
}

int32_t g_ack;
void wait_ack(void) {
    g_ack = waitACK(200);
}

TEST_F(SerialSession, WaitAckReadsThreeLettersWithinTheTimeOut) {
    const struct {
        const char* reply;
        int32_t result;
        const char* shown;
    } cases[] = {{"ACK", 1, "DBG: good ACK"},       {"ack", 1, "DBG: good ACK"},
                 {"AC1", 0, "DBG: illegal char 1"}, {"NAKS", 0, "DBG: string too big, S"},
                 {"AC", -1, "DBG: good char C"},    {"", -1, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        UARTFlushRx();
        clear_out();
        sim::test::type(c.reply);
        uint64_t t0 = sim::now_ns();
        ASSERT_TRUE(sim::test::run(wait_ack).returned);
        EXPECT_EQ(g_ack, c.result);
        EXPECT_NE(out().find(c.shown), std::string::npos);
        if (c.result == -1) {
            EXPECT_NEAR(static_cast<double>(sim::now_ns() - t0) / 1e9, 0.2, 0.01);
        }
    }
}

} // namespace
