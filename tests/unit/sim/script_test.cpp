// The console script language: what parses, what is refused and where, and how the engine plays
// expect, send and wait in virtual time.
#include "script.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using sim::script::Op;

constexpr uint64_t ms = 1000000;
constexpr uint64_t s = 1000000000;

sim::script::Script parse_ok(const std::string& text) {
    sim::script::Script sc;
    std::string error;
    EXPECT_TRUE(sim::script::parse("t.sim", text, sc, error)) << error;
    return sc;
}

std::string parse_error(const std::string& text) {
    sim::script::Script sc;
    std::string error;
    EXPECT_FALSE(sim::script::parse("t.sim", text, sc, error)) << "accepted: " << text;
    return error;
}

TEST(ScriptParseTest, ReadsEveryCommandWithItsArguments) {
    auto sc = parse_ok("# a comment\n"
                       "\n"
                       "timeout 2.5\n"
                       "expect \"Sleeping...*\"   # the mark\n"
                       "send \"s\\r\"\n"
                       "wait 0.001\n"
                       "  pin\n"
                       "power-cycle\n"
                       "set bath.ph 7.95\n"
                       "set port4.reply \"a b # c\"\n"
                       "card remove\n"
                       "card insert\n"
                       "exit\n");
    ASSERT_EQ(sc.commands.size(), 11u);
    EXPECT_EQ(sc.commands[0].op, Op::timeout);
    EXPECT_EQ(sc.commands[0].ns, 2500 * ms);
    EXPECT_EQ(sc.commands[0].line, 3);
    EXPECT_EQ(sc.commands[1].op, Op::expect);
    EXPECT_EQ(sc.commands[1].text, "Sleeping...*");
    EXPECT_EQ(sc.commands[2].text, "s\r");
    EXPECT_EQ(sc.commands[3].ns, 1 * ms);
    EXPECT_EQ(sc.commands[4].op, Op::pin);
    EXPECT_EQ(sc.commands[5].op, Op::power_cycle);
    EXPECT_EQ(sc.commands[6].key, "bath.ph");
    EXPECT_EQ(sc.commands[6].text, "7.95");
    EXPECT_EQ(sc.commands[7].text, "a b # c") << "a # inside quotes is text";
    EXPECT_EQ(sc.commands[8].op, Op::card_remove);
    EXPECT_EQ(sc.commands[9].op, Op::card_insert);
    EXPECT_EQ(sc.commands[10].op, Op::exit);
    EXPECT_EQ(sc.commands[10].line, 13);
}

TEST(ScriptParseTest, TextTakesTheCEscapes) {
    auto sc = parse_ok("send \"\\r\\n\\t\\\\\\\"\\x41\\x7e\\x00z\"\r\n");
    ASSERT_EQ(sc.commands.size(), 1u);
    EXPECT_EQ(sc.commands[0].text, std::string("\r\n\t\\\"A~\0z", 9));
}

TEST(ScriptParseTest, SecondsGoDownToMilliseconds) {
    uint64_t ns = 0;
    EXPECT_TRUE(sim::script::parse_seconds("600", ns));
    EXPECT_EQ(ns, 600 * s);
    EXPECT_TRUE(sim::script::parse_seconds("0.25", ns));
    EXPECT_EQ(ns, 250 * ms);
    EXPECT_TRUE(sim::script::parse_seconds(".5", ns));
    EXPECT_EQ(ns, 500 * ms);
    EXPECT_TRUE(sim::script::parse_seconds("1.001", ns));
    EXPECT_EQ(ns, 1001 * ms);
    EXPECT_FALSE(sim::script::parse_seconds("1.0001", ns)) << "finer than a millisecond";
    EXPECT_FALSE(sim::script::parse_seconds("-1", ns));
    EXPECT_FALSE(sim::script::parse_seconds("1e3", ns));
    EXPECT_FALSE(sim::script::parse_seconds(".", ns));
    EXPECT_FALSE(sim::script::parse_seconds("1.2.3", ns));
}

TEST(ScriptParseTest, BadLinesAreNamedWithFileAndLine) {
    EXPECT_EQ(parse_error("exit\n\nfrobnicate\n"), "t.sim:3: unknown command 'frobnicate'");
    EXPECT_EQ(parse_error("expect \"abc\n"), "t.sim:1: TEXT has no closing double quote");
    EXPECT_EQ(parse_error("expect abc\n"), "t.sim:1: expect needs a double-quoted TEXT");
    EXPECT_EQ(parse_error("send \"\"\n"), "t.sim:1: send needs a non-empty TEXT");
    EXPECT_EQ(parse_error("send \"\\q\"\n"), "t.sim:1: unknown escape \\q");
    EXPECT_EQ(parse_error("send \"\\x4\"\n"), "t.sim:1: \\x needs two hex digits");
    EXPECT_EQ(parse_error("wait\n"), "t.sim:1: wait needs SECONDS");
    EXPECT_EQ(parse_error("timeout 1.5s\n"),
              "t.sim:1: bad SECONDS '1.5s' (a number, at most three decimals)");
    EXPECT_EQ(parse_error("pin now\n"), "t.sim:1: unexpected text after the pin command");
    EXPECT_EQ(parse_error("expect \"a\" \"b\"\n"), "t.sim:1: unexpected text after the expect command");
    EXPECT_EQ(parse_error("card eject\n"), "t.sim:1: card needs 'remove' or 'insert'");
    EXPECT_EQ(parse_error("set bath.ph\n"), "t.sim:1: set needs a VALUE after the key");
    EXPECT_EQ(parse_error("set b@d 1\n"), "t.sim:1: bad scenario key 'b@d'");
    EXPECT_EQ(parse_error("set bath.ph abc\n"), "t.sim:1: set bath.ph abc: not a number");
    EXPECT_EQ(parse_error("set bath.temp 1e30\n"), "t.sim:1: set bath.temp 1e30: outside -5 to 60");
    EXPECT_EQ(parse_error("set bath.temp nan\n"), "t.sim:1: set bath.temp nan: not a number");
    EXPECT_EQ(parse_error("set hibernate.fail 1.5\n"), "t.sim:1: set hibernate.fail 1.5: not a whole number");
    EXPECT_EQ(parse_error("set card.type bogus\n"),
              "t.sim:1: set card.type bogus: not one of: sdhc sdsc sdv1 mmc badv2");
    EXPECT_EQ(parse_error("set bath.phh 8\n"), "t.sim:1: set bath.phh 8: no such key");
    EXPECT_EQ(parse_error("set bath.o2 -1\n"), "t.sim:1: set bath.o2 -1: outside 0 to 1000");
    EXPECT_EQ(
        parse_error("set port3 ocr-loud\n").rfind("t.sim:1: set port3 ocr-loud: not one of: none optode ", 0),
        0u);
    EXPECT_EQ(
        parse_error("set port4 optode\n").rfind("t.sim:1: set port4 optode: not one of: none sbe37 ", 0), 0u)
        << "a port 3 instrument on port 4";
}

TEST(ScriptParseTest, QuoteShowsControlCharacters) {
    EXPECT_EQ(sim::script::quote("a\r\n\"\x01"), "\"a\\r\\n\\\"\\x01\"");
}

// ---------------------------------------------------------------- the engine

// Records what the script did to the board.
class Recorder : public sim::script::Effects {
  public:
    uint64_t char_time = 100 * 1000; // 100 us a character
    std::vector<std::pair<uint64_t, uint8_t>> typed;
    uint64_t now = 0;
    int pins = 0;
    int cycles = 0;
    int exits = 0;
    int failures = 0;
    int failed_line = 0;
    std::vector<std::string> sets;
    bool accept_typing = true;

    uint64_t char_ns() override { return char_time; }
    bool type(uint8_t b) override {
        typed.emplace_back(now, b);
        return accept_typing;
    }
    void pin() override { ++pins; }
    void power_cycle() override { ++cycles; }
    void exit() override { ++exits; }
    void expect_failed(const sim::script::Command& c) override {
        ++failures;
        failed_line = c.line;
    }
    void set(const std::string& key, const std::string& value) override { sets.push_back(key + "=" + value); }
    void card(bool insert) override { sets.push_back(insert ? "card=in" : "card=out"); }
};

class ScriptEngineTest : public ::testing::Test {
  protected:
    std::unique_ptr<sim::script::State> st = std::make_unique<sim::script::State>();
    Recorder fx;
    sim::script::Script sc;

    void load(const std::string& text) {
        sc = parse_ok(text);
        sim::script::reset(*st);
    }
    uint64_t step_at(uint64_t t) {
        fx.now = t;
        return sim::script::step(sc, *st, t, fx);
    }
    void output(const std::string& text) {
        for (char c : text) {
            sim::script::console_output(*st, static_cast<uint8_t>(c));
        }
    }
};

TEST_F(ScriptEngineTest, ExpectFailsExactlyAtItsTimeout) {
    load("timeout 2\nexpect \"ready\"\nexit\n");
    EXPECT_EQ(step_at(1 * s), 3 * s) << "the expect waits until its deadline";
    output("not yet");
    EXPECT_EQ(step_at(3 * s - 1), 3 * s);
    EXPECT_EQ(fx.failures, 0);
    step_at(3 * s);
    EXPECT_EQ(fx.failures, 1);
    EXPECT_EQ(fx.failed_line, 2);
    EXPECT_EQ(fx.exits, 0);
    EXPECT_TRUE(st->failed);
    EXPECT_EQ(step_at(10 * s), UINT64_MAX) << "a failed script does nothing more";
    EXPECT_EQ(fx.failures, 1);
}

TEST_F(ScriptEngineTest, EachExpectMatchesOnlyAfterThePreviousMatch) {
    load("expect \">\"\nexpect \">\"\nexit\n");
    output("\r\n>");
    step_at(0);
    EXPECT_EQ(st->cursor, 1u) << "the first prompt is used up by the first expect";
    step_at(1 * ms);
    EXPECT_EQ(fx.exits, 0);
    output("abc\r\n>");
    step_at(2 * ms);
    EXPECT_EQ(fx.exits, 1);
}

TEST_F(ScriptEngineTest, OutputBeforeTheExpectCountsAndMatchesAcrossChunks) {
    load("wait 1\nexpect \"Hibernation error!\"\nexit\n");
    step_at(0);
    output("xx Hiber");
    step_at(500 * ms);
    output("nation err");
    step_at(1 * s); // the wait ends; the expect starts with half the text already seen
    EXPECT_EQ(fx.exits, 0);
    output("or!");
    step_at(1 * s + 1);
    EXPECT_EQ(fx.exits, 1);
}

TEST_F(ScriptEngineTest, AFullMatchBufferKeepsTheNewestOutput) {
    load("expect \"END\"\nexit\n");
    step_at(0);
    output(std::string(3 * sim::script::match_capacity, '.'));
    step_at(1);
    output("EN");
    output("D");
    step_at(2);
    EXPECT_EQ(fx.exits, 1);
    EXPECT_EQ(sim::script::console_tail(*st).size(), sim::script::tail_capacity);
    EXPECT_EQ(sim::script::console_tail(*st).substr(sim::script::tail_capacity - 4), ".END");
}

TEST_F(ScriptEngineTest, SendTypesAtTheCharacterTime) {
    load("send \"ab\"\nwait 0.001\nexit\n");
    EXPECT_EQ(step_at(0), 100 * 1000u) << "the first byte arrives one character time after the start";
    EXPECT_TRUE(fx.typed.empty());
    EXPECT_EQ(step_at(100 * 1000), 200 * 1000u);
    EXPECT_EQ(step_at(200 * 1000), 200 * 1000 + 1 * ms) << "then the wait starts";
    ASSERT_EQ(fx.typed.size(), 2u);
    EXPECT_EQ(fx.typed[0], std::make_pair(uint64_t{100 * 1000}, uint8_t{'a'}));
    EXPECT_EQ(fx.typed[1], std::make_pair(uint64_t{200 * 1000}, uint8_t{'b'}));
    step_at(200 * 1000 + 1 * ms);
    EXPECT_EQ(fx.exits, 1);
}

TEST_F(ScriptEngineTest, ALostByteDropsTheRestOfTheSend) {
    load("send \"abc\"\nexit\n");
    fx.accept_typing = false; // the board hibernates: the first key wakes it and is lost
    step_at(0);
    step_at(100 * 1000);
    EXPECT_EQ(fx.typed.size(), 1u);
    EXPECT_EQ(fx.exits, 1);
}

TEST_F(ScriptEngineTest, InstantCommandsRunInOrderAndTheEndOfTheScriptExits) {
    load("set bath.ph 1\npin\ncard remove\ncard insert\npower-cycle\nset port4.reply \"x y\"\n");
    step_at(0);
    EXPECT_EQ(fx.cycles, 1);
    EXPECT_EQ(st->cursor, 5u) << "the engine stops after a power cycle so that it can take effect";
    step_at(0);
    EXPECT_EQ(fx.pins, 1);
    EXPECT_EQ(fx.sets, (std::vector<std::string>{"bath.ph=1", "card=out", "card=in", "port4.reply=x y"}));
    EXPECT_EQ(fx.exits, 1) << "running off the end is an exit";
}

} // namespace
