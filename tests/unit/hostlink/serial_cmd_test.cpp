// Console command line: every word reaches its code, earlier words shadow later ones that share their
// beginning, the switch selectors (with the two bias words that read them elsewhere), and the rows
// that pick their handler from the rest of the line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "core/main.h"
#include "menus/menu.h"
#include "records/system.h"
#include "records/apf.h"
#include "hostlink/serial.h"
#include "hostlink/serial_cmd.h"
#include "measure/sample.h"
#include "ports/uartstdio.h"
#include "sim_test.h"

namespace {

constexpr uint32_t NOT_RETURNED = 0xFFFFFFFF;

uint32_t g_code;
void parse_line(void) {
    g_code = parse_rx0_buf();
}

struct Parsed {
    sim::test::Outcome outcome;
    uint32_t cmd;  // rx0.cmd: stored before the handler ran, so it is there even if the handler slept
    uint32_t code; // what parse_rx0_buf returned (NOT_RETURNED when the handler ended the power period)
};

class SerialCmd : public ::testing::Test {
  protected:
    void SetUp() override {
        // "m" opens the operator menu, which then finds no key and sleeps at once.
        deployDelay = 0;
        fresh_board();
    }
    void TearDown() override {
        deployDelay = 30;
        if (sim::test::board_on()) {
            UARTFlushTx(true);
            UARTFlushRx();
        }
    }

    static void fresh_board(void) {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(init).returned);
        apf_set_m2m_timeout();
        databarFlg = 0;
        clear_out();
    }

    // Parses text as the receive machine hands it over (lower case, NUL-terminated, length in
    // indx). A Ctrl-C waits on the console so that handlers which run until a key (bench tests,
    // transfers) stop at once; handlers that hibernate leave the board off, and the next line gets
    // a new board.
    static Parsed parse(const std::string& text) {
        if (!sim::test::board_on()) {
            fresh_board();
        }
        memset(rx0.buf, 0, sizeof(rx0.buf));
        memcpy(rx0.buf, text.data(), std::min(text.size(), sizeof(rx0.buf)));
        rx0.indx = static_cast<uint32_t>(std::min<size_t>(text.size(), 63));
        rx0.cmd = NOT_RETURNED;
        UARTFlushRx();
        sim::test::type("\x03");
        sim::test::advance_s(0.001);
        g_code = NOT_RETURNED;
        sim::test::Outcome o = sim::test::run(parse_line);
        return Parsed{o, rx0.cmd, g_code};
    }
    static uint32_t code_of(const std::string& text) {
        Parsed p = parse(text);
        if (p.outcome.returned) {
            EXPECT_EQ(p.code, p.cmd) << text << ": the code returned is the one stored";
        }
        return p.cmd;
    }
    static std::string out(void) {
        sim::test::drain_console();
        return sim::test::console_output();
    }
    static void clear_out(void) {
        sim::test::drain_console();
        sim::test::clear_console_output();
    }
};

struct WordCase {
    const char* line;
    uint32_t code;
};

// One line per row of the table, as a controller or a person sends it, and lines that match nothing.
// clang-format off
const WordCase every_word[] = {
    {"bake", 100}, {"c", 101}, {"c1", 103}, {"c2", 102}, {"cal", 104}, {"config", 81}, {"config help", 77},
    {"config all", 82}, {"ctd,?", 106}, {"ctd,1767225600,15.0,35.0,10.0", 105}, {"dev", 148}, {"dbg", 151},
    {"e", 107}, {"ec", 7}, {"filename", 18}, {"getfil", 18}, {"filename data2.txt", 19}, {"fit,?", 109},
    {"fit", 108}, {"gc", 6}, {"getperiod", 14}, {"gh", 8}, {"gm", 9}, {"hh", 149}, {"help", 13},
    {"h2m", 132}, {"h", 132}, {"init", 110}, {"ls", 136}, {"microsd", 84}, {"microsd 1", 85},
    {"mode,?", 112}, {"mode,2", 111}, {"m2m", 133}, {"off", 113}, {"p", 114}, {"per", 14}, {"per 20", 15},
    {"q", 115}, {"rtc,?", 117}, {"rtc,1767225600", 116}, {"sample", 93}, {"sampnum", 90},
    {"sampnum reset", 90}, {"sampnum,set,1", 23}, {"sampnum,get", 22}, {"s", 118},
    {"setfilename data3.txt", 19}, {"setperiod 60", 15}, {"settime 01/02/26 10:00:00", 12}, {"se,?", 120},
    {"se", 119}, {"sleep", 10}, {"nap", 10}, {"zz", 10}, {"zzz", 10}, {"quit", 10}, {"stop", 10},
    {"exit", 10}, {"sl", 5}, {"spectra,?", 123}, {"spectra", 122}, {"stat", 148}, {"ss", 4}, {"store", 84},
    {"store 1", 85}, {"sys", 134}, {"t", 124}, {"time", 11}, {"getti", 11}, {"time 01/02/26 10:00:00", 12},
    {"tint,?", 126}, {"tint,400", 125}, {"ts", 3}, {"type,2", 150}, {"t0", 145}, {"t1", 128}, {"t2", 129},
    {"w", 127}, {"wdog", 146}, {"ys", 143}, {"yr", 144}, {"z", 147}, {"m", 83}, {"", 0}, {"x", 0},
    {"cx", 0}, {"hello", 0}, {"se,", 0}, {"ww", 0}, {"zebra", 0}};
// clang-format on

TEST_F(SerialCmd, EveryWordReachesItsCode) {
    for (const WordCase& c : every_word) {
        SCOPED_TRACE(c.line);
        EXPECT_EQ(code_of(c.line), c.code);
    }
    parse("t1");
    EXPECT_EQ(sample_select, 1u);
    parse("t2");
    EXPECT_EQ(sample_select, 2u);
}

TEST_F(SerialCmd, SleepOverSerialStoresItsOwnCodeThenEndsTheSession) {
    Parsed p = parse("slp");
    if (p.outcome.returned) {
        EXPECT_EQ(p.code, 10u);
        EXPECT_EQ(p.cmd, 10u);
    } else {
        EXPECT_EQ(p.cmd, 121u) << "the board slept inside the handler";
    }
}

TEST_F(SerialCmd, EarlierWordsShadowLaterOnes) {
    // "filesystem" reaches the name getter ("file" comes first), "getfilename" is long enough to be the
    // setter, the controller's "off" comes before the sleep word, "m", "t" and "se" match only alone,
    // and a one-digit period after "per " is not seen.
    // clang-format off
    const WordCase cases[] = {
    {"filesystem", 18}, {"getfilename", 19}, {"offline", 113}, {"sleepy", 10}, {"ctd,?x", 106},
    {"timestamp", 89}, {"timex", 11}, {"vk_std", 91}, {"vrsi_std", 87}, {"vtherm_std", 92}, {"tempc", 52},
    {"storex", 85}, {"setting", 12}, {"hhelp", 149}, {"helpme", 13}, {"m2", 0}, {"t3", 0}, {"se1", 0},
    {"periods", 14}, {"period 900", 15}, {"per 5", 14}, {"configx", 82}, {"microsdx", 85}, {"lsx", 136}};
    // clang-format on
    for (const WordCase& c : cases) {
        SCOPED_TRACE(c.line);
        EXPECT_EQ(code_of(c.line), c.code);
    }
}

// ---------------------------------------------------------------- switch selectors

TEST_F(SerialCmd, SwitchWordsTakeTheirSelectorAfterTheWord) {
    const struct {
        const char* word;
        uint32_t set, get, test;
    } switches[] = {{"ik", 36, 35, 37},        {"ib", 33, 32, 34},       {"tempc", 51, 50, 52},
                    {"timestamp", 25, 24, 89}, {"vbat", 70, 69, 71},     {"vk_std", 44, 43, 91},
                    {"vk", 41, 40, 42},        {"vrsi_std", 57, 56, 87}, {"vrse_std", 65, 64, 88},
                    {"vrsi", 54, 53, 55},      {"vrse", 62, 61, 63},     {"vtherm_std", 49, 48, 92},
                    {"vtherm", 46, 45, 47}};
    for (const auto& s : switches) {
        std::string w = s.word;
        SCOPED_TRACE(w);
        EXPECT_EQ(code_of(w + ",set,1"), s.set);
        EXPECT_EQ(code_of(w + " set 0"), s.set);
        EXPECT_EQ(code_of(w + ",get"), s.get);
        EXPECT_EQ(code_of(w), s.test);
        EXPECT_EQ(code_of(w + " 2000"), s.test);
    }

    // The setter gets the byte four places after the selector.
    parse("vk,set,1");
    EXPECT_EQ(sys_data.data_cfg[15], 1u);
    parse("vk,set,0");
    EXPECT_EQ(sys_data.data_cfg[15], 0u);
    parse("vk,sxx,1");
    EXPECT_EQ(sys_data.data_cfg[15], 1u) << "only the selector's first letter is read";
}

TEST_F(SerialCmd, BiasWordsReadTheirSelectorsWhereTheyAlwaysHave) {
    // "biasneg" looks at the fifth character, inside the word: every form is the bench test.
    sys_data.data_cfg[21] = 0;
    EXPECT_EQ(code_of("biasneg,set,1"), 28u);
    EXPECT_EQ(sys_data.data_cfg[21], 0u) << "the switch is never reached";
    EXPECT_EQ(code_of("biasneg,get"), 28u);
    EXPECT_EQ(code_of("biasneg"), 28u);

    // "biaspos" finds "s" after the word but looks for "g" inside it.
    sys_data.data_cfg[20] = 0;
    EXPECT_EQ(code_of("biaspos,set,1"), 30u);
    EXPECT_EQ(sys_data.data_cfg[20], 1u);
    EXPECT_EQ(code_of("biaspos,get"), 31u);
    EXPECT_EQ(code_of("biaspos"), 31u);
}

// ---------------------------------------------------------------- rows that read the line

TEST_F(SerialCmd, PeriodIsSetWithAValueAndPrintedWithout) {
    sys_data.sample_aligned = 0;
    EXPECT_EQ(code_of("per 20"), 15u);
    EXPECT_EQ(sys_data.sampling_period, 20u);
    clear_out();
    EXPECT_EQ(code_of("per"), 14u);
    EXPECT_NE(out().find("20"), std::string::npos);
}

TEST_F(SerialCmd, StreamingIntervalFromTheLine) {
    // The digit tested is the one after the digit read.
    const std::pair<const char*, uint32_t> cases[] = {
        {"sample", 5}, {"sample 3", 5}, {"sample 30", 3}, {"sample 9x", 5}, {"sample 72", 7}};
    for (const auto& [text, seconds] : cases) {
        SCOPED_TRACE(text);
        databarFlg = 0;
        EXPECT_EQ(code_of(text), 93u);
        EXPECT_EQ(databarFlg, 1u);
        EXPECT_EQ(barfSampleTime, seconds);
    }
    EXPECT_EQ(code_of("nap"), 10u);
    EXPECT_EQ(databarFlg, 0u);
}

TEST_F(SerialCmd, LineTimeOutWordsSetTheSilenceThatEndsALine) {
    const std::pair<const char*, uint32_t> cases[] = {{"hh", 2000},    {"hhh", 2000},  {"hhhh", 3000},
                                                      {"hhhhh", 4000}, {"help", 1000}, {"h2m", 1000},
                                                      {"h", 1000},     {"m2m", 250}};
    for (const auto& [text, ms] : cases) {
        SCOPED_TRACE(text);
        apf_set_m2m_timeout();
        clear_out();
        parse(text);
        EXPECT_EQ(rx0.tick_ms_delim, ms);
        if (text[1] == 'h') {
            EXPECT_NE(out().find("term time = " + std::to_string(ms) + " msec"), std::string::npos);
        }
    }
}

TEST_F(SerialCmd, ListingTakesTheWordsOfTheLine) {
    parse("ls");
    EXPECT_EQ(out().find("usage:"), std::string::npos);
    clear_out();
    parse("ls a b c");
    EXPECT_NE(out().find("usage:"), std::string::npos) << "three words are more than ls takes";
}

// ---------------------------------------------------------------- replies and help

TEST_F(SerialCmd, SmallRepliesAndHelpTexts) {
    print_prompt();
    print_NAK();
    print_cmd_version();
    EXPECT_EQ(out(), "\r\n>NAK\r\nv5.0.3 HXC3 revA\r\n");

    clear_out();
    print_cmd_help();
    std::string help = out();
    for (const char* text :
         {"** datalogger setup:  0 for off, 1 for on\r\n", "** commands:\r\n",
          " stop, exit, quit, <ctrl-c>\r\n", "vrsi set 1    vrsi get    vrsi    vrsi 0   vrsi 2000"}) {
        EXPECT_NE(help.find(text), std::string::npos) << text;
    }

    clear_out();
    print_cmd_big_help();
    std::string card = out();
    for (const char* row :
         {"                 Ping:  W          ACK\r\n", "         Error Counts:  E          ACK,E,3,3033\r\n",
          "      Initialize Vars:  INIT       ACK,INIT\r\n",
          "     Integration Time:  TINT,400   ACK,TINT,400\r\n"}) {
        EXPECT_NE(card.find(row), std::string::npos) << row;
    }
}

} // namespace
