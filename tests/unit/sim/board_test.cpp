// The board directory files the runtime keeps: the hibernation module's `rtc` file, scenario.ini
// and the --stats lines.
#include "board.h"
#include "runtime.h"
#include "sim_test.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace {

class BoardFilesTest : public ::testing::Test {
  protected:
    std::string dir;
    void SetUp() override {
        char tmpl[] = "/tmp/hxc3-board-test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        sim::test::reset_board();
    }
    void TearDown() override {
        for (const char* f : {"rtc", "scenario.ini", "stats.csv"}) {
            std::remove((dir + "/" + f).c_str());
        }
        rmdir(dir.c_str());
    }
    void write(const std::string& name, const std::string& text) { std::ofstream(dir + "/" + name) << text; }
    std::string read(const std::string& name) {
        std::ifstream in(dir + "/" + name);
        std::ostringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
};

TEST_F(BoardFilesTest, RtcFileKeepsEveryField) {
    sim::HibState h{};
    h.rtc_seconds = 1767225600;
    h.rtc_sub_ns = 123456789;
    h.match0 = 1767226500;
    h.trim = 0x7FFF;
    h.ctl = 0x59;
    h.ris = 0x11;
    h.im = 0x01;
    h.active = 1;
    h.hibernating = 1;
    h.rtc_enabled = 1;
    h.data[15] = 0xCAFEF00D;
    ASSERT_TRUE(sim::board::save_rtc(dir + "/rtc", h));
    sim::HibState back{};
    ASSERT_TRUE(sim::board::load_rtc(dir + "/rtc", back));
    EXPECT_EQ(back.rtc_seconds, h.rtc_seconds);
    EXPECT_EQ(back.rtc_sub_ns, h.rtc_sub_ns);
    EXPECT_EQ(back.match0, h.match0);
    EXPECT_EQ(back.trim, h.trim);
    EXPECT_EQ(back.ctl, h.ctl);
    EXPECT_EQ(back.ris, h.ris);
    EXPECT_EQ(back.im, h.im);
    EXPECT_EQ(back.active, 1);
    EXPECT_EQ(back.hibernating, 1);
    EXPECT_EQ(back.rtc_enabled, 1);
    EXPECT_EQ(back.data[15], 0xCAFEF00Du);
    EXPECT_NE(read("rtc").find("2026-01-01 00:00:00 UTC"), std::string::npos) << "readable by a person";
    EXPECT_FALSE(sim::board::load_rtc(dir + "/missing", back));
}

// A state file is taken whole or refused, naming the file, the key and the value: never padded,
// wrapped or half-read into a board the firmware would take as its own.
TEST_F(BoardFilesTest, BrokenStateFilesAreRefused) {
    sim::HibState h{};
    for (const char* text :
         {"rtc_seconds = 4294967296\n", "rtc_seconds = -5\n", "rtc_sub_ns = 1000000000\n", "trim = 0x10000\n",
          "active = 2\n", "rtc_second = 5\n", "data = 1 2 3\n", "rtc_seconds\n"}) {
        write("rtc", text);
        EXPECT_FALSE(sim::board::load_rtc(dir + "/rtc", h)) << text;
    }
    write("rtc", "rtc_seconds = 4294967295\ndata = 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 0xffffffff\n");
    ASSERT_TRUE(sim::board::load_rtc(dir + "/rtc", h));
    EXPECT_EQ(h.rtc_seconds, 4294967295u);
    EXPECT_EQ(h.data[15], 0xFFFFFFFFu);

    for (const char* text :
         {"bath.ph = abc\n", "bath.temp = nan\n", "bath.temp = 1e30\n", "card.type = bogus\n",
          "card = maybe\n", "bath.ph = 7.5 8\n", "no.such.key = 1\n", "hibernate.fail = 2.5\n",
          "port3 = bogus\n", "port4 = ocr\n", "port4 = sbe37-loud\n", "bath.light = -2\n", "uvs = lamp-off\n",
          "uvs.noise = 1001\n", "uvs.noise = x\n", "uvs.seed = 1.5\n", "bath.no3 = 100.5\n"}) {
        write("scenario.ini", text);
        testing::internal::CaptureStderr();
        EXPECT_FALSE(sim::board::load_scenario(dir + "/scenario.ini")) << text;
        std::string said = testing::internal::GetCapturedStderr();
        std::string key = std::string(text).substr(0, std::string(text).find(' '));
        EXPECT_NE(said.find(dir + "/scenario.ini:1: " + key + " = "), std::string::npos) << said;
    }
    EXPECT_EQ(sim::scenario_num("bath.temp", 15.0), 15.0) << "a refused value is not kept";
    EXPECT_EQ(sim::scenario_str("card.type", "sdhc"), "sdhc");
    EXPECT_TRUE(sim::board::load_scenario(dir + "/missing.ini")) << "no file: every key at its default";
}

TEST_F(BoardFilesTest, ScenarioIniTakesValuesQuotesAndComments) {
    write("scenario.ini", "# comment\n"
                          "bath.ph = 7.9   # after the value\n"
                          "  port4=sbe37\n"
                          "port4.reply = \"  23.1, 35.0 # not a comment\\r\\n\"\n"
                          "hibernate.fail = 3\n");
    EXPECT_TRUE(sim::board::load_scenario(dir + "/scenario.ini"));
    EXPECT_EQ(sim::scenario_num("bath.ph", 8.0), 7.9);
    EXPECT_EQ(sim::scenario_str("port4", "none"), "sbe37");
    EXPECT_EQ(sim::scenario_str("port4.reply", ""), "  23.1, 35.0 # not a comment\r\n");
    EXPECT_EQ(sim::hib().fail_requests, 3);
}

TEST_F(BoardFilesTest, TheTemplateSetsNothing) {
    write("scenario.ini", sim::board::scenario_template());
    EXPECT_TRUE(sim::board::load_scenario(dir + "/scenario.ini"));
    EXPECT_EQ(sim::shared().scenario.count, 0);
    EXPECT_NE(sim::board::scenario_template().find("# card.type = sdhc"), std::string::npos);
}

TEST_F(BoardFilesTest, EveryTemplateDefaultIsAValueItsKeyTakes) {
    std::istringstream in(sim::board::scenario_template());
    std::string line;
    int keys = 0;
    while (std::getline(in, line)) {
        char key[64];
        char value[64];
        if (std::sscanf(line.c_str(), "# %63[a-z0-9_.] = %63s", key, value) != 2) {
            continue;
        }
        std::string why;
        EXPECT_TRUE(sim::scenario_check(key, value, why)) << line << ": " << why;
        ++keys;
    }
    EXPECT_GE(keys, 20);
}

TEST_F(BoardFilesTest, StatsHeaderComesOnceAtTheTop) {
    ASSERT_TRUE(sim::board::append_stats(dir + "/stats.csv", "a"));
    ASSERT_TRUE(sim::board::append_stats(dir + "/stats.csv", "b"));
    EXPECT_EQ(read("stats.csv"), std::string(sim::board::stats_header) + "\na\nb\n");
}

TEST_F(BoardFilesTest, PeriodLineHasTheContractedFields) {
    // reset_board started a power-up period at 2026-01-01 00:00:00.
    sim::test::advance_s(1.5);
    sim::stats().tx_bytes = 42;
    sim::stats().sd_reads = 3;
    // The stack column stays empty: the host build has no emulated stack to measure. The
    // spectrometer and its lamp stayed off.
    EXPECT_EQ(sim::end_period(), "2026-01-01T00:00:00Z,power,1500,3,0,42,,0,0");
    EXPECT_EQ(sim::end_period(), "") << "a period is written once";
}

TEST(UtcTest, ParsesAndFormatsTheTimeOption) {
    uint32_t t = 0;
    EXPECT_TRUE(sim::board::parse_utc("2026-01-01 00:00:00", t));
    EXPECT_EQ(t, 1767225600u);
    EXPECT_EQ(sim::board::format_utc(t), "2026-01-01 00:00:00");
    EXPECT_FALSE(sim::board::parse_utc("2026-02-30 00:00:00", t)) << "no such day";
    EXPECT_FALSE(sim::board::parse_utc("2026-01-01T00:00:00", t));
    EXPECT_FALSE(sim::board::parse_utc("2026-01-01 24:00:00", t));
    EXPECT_FALSE(sim::board::parse_utc("2026-01-01 00:00:00 extra", t));
    EXPECT_TRUE(sim::board::parse_utc("2106-02-07 06:28:15", t)) << "the RTC's last second";
    EXPECT_EQ(t, 4294967295u);
    EXPECT_FALSE(sim::board::parse_utc("2106-02-07 06:28:16", t)) << "past 32 bits";
}

} // namespace
