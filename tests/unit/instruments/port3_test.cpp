// The port-3 instrument drivers with the instrument's side played byte by byte onto UART3 at its
// baud rate: each instrument's reply becomes exactly its group's fields, echoes and prompts are
// skipped, and silence, noise and malformed replies end the pass by its time-out with empty fields
// and a message, logged once a day at most.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "storage/fault_note.h"
#include "records/system.h"
#include "driverlib/hibernate.h"
#include "instruments/brisa.h"
#include "instruments/ocr.h"
#include "instruments/optode.h"
#include "instruments/picoph.h"
#include "instruments/port3.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"

namespace {

struct Case {
    const port3Instrument* inst;
    int (*machine)(int);
    const char* reply;    // as the instrument sends it, line end included
    const char* expected; // the group's text in the sample line
};

const Case cases[] = {
    {&optode_instrument, optode_stateMachine,
     "MEASUREMENT\t3830\t1234\tOxygen: \t245.85\tSaturation: \t95.05\tTemperature: \t15.00\tDPhase: \t33.24\t"
     "BPhase: \t33.24\tRPhase: \t0.00\tBAmp: \t350.00\tBPot: \t25.00\tRAmp: \t0.00\tRawTem.: \t200.00\r\n",
     "3830\t1234\t245.85\t95.05\t15.00\t33.24\t33.24\t0.00\t350.00\t25.00\t0.00\t200.00"},
    {&ocr_instrument, ocr_stateMachine, "SATFI40123\t10.0000\t9.5000\t8.0000\t6.0000\r\n",
     "SATFI40123\t10.0000\t9.5000\t8.0000\t6.0000"},
    {&brisa_instrument, brisa_stateMachine,
     "#0000012\t11/24/2026 12:00:00\t    3.60\t   20.00\t      35\t0.512345\t0.000012\t  15.000\t"
     "-0.912345\t0.000020\t-0.900000\t0.000010\t    1.50\t   0.100\r\n",
     "#0000012\t11/24/2026 "
     "12:00:00\t3.60\t20.00\t35\t0.512345\t0.000012\t15.000\t-0.912345\t0.000020\t-0.900000\t"
     "0.000010\t1.50\t0.100"},
    {&picoph_instrument, picoph_stateMachine,
     "MEA 1 47 0 31250 0 0 0 15000 20000 150000 300 1013250 35000 25000 0 0 8000 0 0 0\r",
     "MEA\t1\t47\t0\t31250\t0\t0\t0\t15000\t20000\t150000\t300\t1013250\t35000\t25000\t0\t0\t8000\t0\t0\t0"},
};

uint32_t tabs(const char* text) {
    return static_cast<uint32_t>(std::count(text, text + strlen(text), '\t'));
}

uint32_t logged_word(uint32_t slot) {
    uint32_t words[FAULT_SLOTS] = {};
    HibernateDataGet(words, FAULT_SLOTS);
    return words[slot];
}

class Port3 : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        memset(&sys_data, 0, sizeof sys_data);
        ASSERT_TRUE(sim::test::run(test_board::start_board_with_sensors).returned);
        UARTStdioConfig(0, 115200, 16000000);
        port3 = uart3Driver{};
        wait_consoleTx();
        sim::test::clear_console_output();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
    // Steps the driver for `seconds`, or until the pass ends.
    static int step_for(const Case& c, int state, double seconds) {
        uint64_t end = sim::now_ns() + static_cast<uint64_t>(seconds * sim::ns_per_s);
        while (state != 0 && sim::now_ns() < end) {
            state = c.machine(state);
        }
        return state;
    }
    // Starts a pass and steps it until the command has gone out.
    static int start(const Case& c) {
        int state = c.machine(1);
        while (state == PORT3_STATE_WAKE_WAIT) {
            state = c.machine(state);
        }
        return state;
    }
    // The instrument sends text at its baud rate while the driver keeps stepping.
    static int reply(const Case& c, int state, const std::string& text) {
        double char_s = 10.0 / c.inst->baud;
        for (char ch : text) {
            state = step_for(c, state, char_s);
            sim::uart_receive(3, static_cast<uint8_t>(ch));
        }
        return step_for(c, state, 0.01);
    }
    static double seconds_since(uint64_t t0) { return double(sim::now_ns() - t0) / double(sim::ns_per_s); }
};

TEST_F(Port3, EachReplyFillsExactlyItsGroupsColumns) {
    for (const Case& c : cases) {
        SCOPED_TRACE(c.inst->name);
        int state = start(c);
        ASSERT_EQ(state, PORT3_STATE_RECEIVE);
        // The echo of the command and a prompt come first and are skipped.
        state = reply(c, state, std::string("\r\nS>") + "echo of the command\r\n" + c.reply);
        EXPECT_EQ(state, 0);
        EXPECT_EQ(port3.state, PORT3_STATE_IDLE);
        EXPECT_STREQ(uart3_prn_buf, c.expected);
        EXPECT_EQ(tabs(uart3_prn_buf) + 1, c.inst->fields);
    }
    EXPECT_EQ(out(), "");
}

TEST_F(Port3, SilenceEndsThePassAtItsTimeOutWithEmptyColumns) {
    for (const Case& c : cases) {
        SCOPED_TRACE(c.inst->name);
        sim::test::clear_console_output();
        int state = start(c);
        uint64_t t0 = sim::now_ns();
        state = step_for(c, state, 10.0);
        EXPECT_EQ(state, 0);
        EXPECT_NEAR(seconds_since(t0), c.inst->timeout_ticks / 100.0, 0.011);
        EXPECT_EQ(port3.state, PORT3_STATE_FAILED);
        EXPECT_EQ(tabs(uart3_prn_buf) + 1, c.inst->fields);
        EXPECT_EQ(strspn(uart3_prn_buf, "\t"), strlen(uart3_prn_buf));
        std::string expected = std::string("\r\nPort 3 ") + c.inst->name +
                               ": not responding, check connection and port 3 setting\r\n";
        EXPECT_EQ(out().rfind(expected, 0), 0u) << out();
    }
}

// Noise without line ends, a line longer than any reply, and malformed replies: none stands as data,
// and a good reply after the junk is still taken.
TEST_F(Port3, NoiseAndMalformedRepliesLeaveTheColumnsEmpty) {
    const Case& optode = cases[0];
    int state = start(optode);
    state = reply(optode, state, std::string(300, '\xA5'));
    state = step_for(optode, state, 10.0);
    EXPECT_EQ(state, 0);
    EXPECT_NE(out().find("Port 3 optode: no reply understood, check its settings and baud rate"),
              std::string::npos);
    EXPECT_EQ(tabs(uart3_prn_buf), 11u);

    state = start(optode);
    state = reply(optode, state, "MEASUREMENT" + std::string(300, ' ') + "\r\n" + optode.reply);
    EXPECT_EQ(state, 0);
    EXPECT_STREQ(uart3_prn_buf, optode.expected);

    const struct {
        const Case& c;
        const char* line;
    } bad[] = {
        {cases[0], "MEASUREMENT\t3830\tOxygen: \t245.85\r\n"},         // no serial number
        {cases[0], "MEASUREMENT\t3830\t1234\tOxygen: \tnan\r\n"},      // no value at all
        {cases[1], "SATFI40123\t10.0\t9.5\t8.0\r\n"},                  // a channel short
        {cases[1], "SATFI40123\t10.0\t9.5\t8.0\tx\r\n"},               // not a number
        {cases[2], "#0000012\t11/24/2026 12:00:00\t3.6\r\n"},          // cut short
        {cases[3], "MEA 1 47 0 31250 0 0 0 15000 20000 150000 300\r"}, // cut short
        {cases[3], "MEA 1 47 0 31250 0 0 0 15000 20000 150000 300 1013250 35000 25000 0 0 8.5 0 0 0\r"},
    };
    for (const auto& b : bad) {
        SCOPED_TRACE(b.line);
        sim::test::clear_console_output();
        state = start(b.c);
        state = reply(b.c, state, b.line);
        EXPECT_EQ(state, 0);
        EXPECT_EQ(port3.state, PORT3_STATE_FAILED);
        EXPECT_EQ(tabs(uart3_prn_buf) + 1, b.c.inst->fields);
        EXPECT_EQ(strspn(uart3_prn_buf, "\t"), strlen(uart3_prn_buf));
        EXPECT_NE(out().find("reply not understood"), std::string::npos) << out();
    }
}

// A label the optode leaves out gives an empty field in its place; the others keep their columns.
TEST_F(Port3, AnOptodeValueLeftOutLeavesItsColumnEmpty) {
    const Case& optode = cases[0];
    int state = start(optode);
    state =
        reply(optode, state, "MEASUREMENT 3830 1234 Oxygen: 245.85 Temperature: 15.00 RawTem.: 200.00\r\n");
    EXPECT_EQ(state, 0);
    EXPECT_STREQ(uart3_prn_buf, "3830\t1234\t245.85\t\t15.00\t\t\t\t\t\t\t200.00");
}

// A reply that came too late for one pass does not stand for the next.
TEST_F(Port3, ALateReplyIsNotTakenByTheNextPass) {
    const Case& picoph = cases[3];
    int state = start(picoph);
    state = step_for(picoph, state, 10.0);
    ASSERT_EQ(state, 0);
    for (const char* p = picoph.reply; *p != '\0'; p++) {
        sim::uart_receive(3, static_cast<uint8_t>(*p));
        sim::test::advance_s(10.0 / picoph.inst->baud);
    }
    state = start(picoph);
    state = step_for(picoph, state, 10.0);
    EXPECT_EQ(port3.state, PORT3_STATE_FAILED);
}

// A lasting failure is logged when first seen, not again the same day, again the next day, and at
// once after the instrument answered in between.
TEST_F(Port3, AFailureIsLoggedFirstThenDaily) {
    const Case& ocr = cases[1];
    auto silent_pass = [&]() {
        int state = start(ocr);
        step_for(ocr, state, 10.0);
    };
    EXPECT_EQ(logged_word(FAULT_PORT3), 0u);
    silent_pass();
    uint32_t first = logged_word(FAULT_PORT3);
    EXPECT_NE(first, 0u);
    HibernateRTCSet(HibernateRTCGet() + 3600);
    silent_pass();
    EXPECT_EQ(logged_word(FAULT_PORT3), first);
    HibernateRTCSet(HibernateRTCGet() + FAULT_REPEAT_S);
    silent_pass();
    EXPECT_GT(logged_word(FAULT_PORT3), first);

    int state = start(ocr);
    reply(ocr, state, ocr.reply);
    EXPECT_EQ(logged_word(FAULT_PORT3), 0u);
    EXPECT_EQ(logged_word(FAULT_PORT4), 0u);
}

} // namespace
