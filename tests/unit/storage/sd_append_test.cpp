// Appending through the card's append sessions across wakes: a card edited on a PC between two wakes
// (the data file appended to, cut short, removed and made again, another file in its clusters, or a
// different card altogether) gets the next line at the right place and nothing else changes; a full
// card refuses the line whole, says so, is not searched again at every wake, and takes lines again
// once the firmware frees space.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "records/system.h"
#include "driverlib/hibernate.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"
#include "storage/fatfs/ff.h"
#include "storage/microsd.h"
#include "storage/sd_append.h"

namespace {

// Built against a user's upstream FatFs, a full card is searched at every wake (FatFs's own way).
#ifdef HXC3_FATFS_UPSTREAM
constexpr bool our_module = false;
#else
constexpr bool our_module = true;
#endif

void start_board(void) {
    test_board::start_clocks();
}

// A wake: the start-up mount, then one line appended to the data file.
std::string g_line;
void wake_and_append(void) {
    init_uSDCard();
    appendBufferToSDCard(g_line.c_str());
}

class SdAppend : public ::testing::Test {
  protected:
    std::string image;

    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(start_board).returned);
        std::memset(sys_data.fileName, 0, sizeof sys_data.fileName);
        std::memcpy(sys_data.fileName, "DATA.TXT", 8);
        image = test_board::make_blank_card("append", 0);
        ASSERT_FALSE(image.empty());
    }
    void TearDown() override {
        f_mount(nullptr, "", 0);
        sim::sd_set_image("");
        unlink(image.c_str());
    }
    int mtools(const std::string& command) {
        return std::system(("MTOOLS_SKIP_CHECK=1 " + command + " >/dev/null 2>&1").c_str());
    }
    std::string card_file(const char* name) { return test_board::card_file(image, name); }
    bool fsck_clean() { return std::system(("fsck.fat -n " + image + " >/dev/null 2>&1").c_str()) == 0; }
    // One wake appending `line`; returns the sectors it read.
    uint64_t wake(const std::string& line) {
        g_line = line;
        uint64_t before = sim::stats().sd_reads;
        EXPECT_TRUE(sim::test::run(wake_and_append).returned);
        return sim::stats().sd_reads - before;
    }
    std::string console() {
        sim::test::drain_console();
        std::string out = sim::test::console_output();
        sim::test::clear_console_output();
        return out;
    }
};

std::string lines(int from, int count, char tag) {
    std::string s;
    for (int i = from; i < from + count; i++) {
        char line[96];
        snprintf(line, sizeof line, "%c%05d,2026/01/01 00:00:00,7.8123,-0.912345,12.3456,35.0123,0.0012\r\n",
                 tag, i);
        s += line;
    }
    return s;
}

TEST_F(SdAppend, APcEditBetweenWakesIsFollowed) {
    ASSERT_TRUE(test_board::mkfs_card(image, "-F 16 -s 1", 16384));
    std::string other = lines(0, 40, 'O');
    ASSERT_TRUE(test_board::pc_copy(image, "OTHER.TXT", other));
    sim::sd_set_image(image);
    std::string data;
    auto logged = [&](const std::string& line) {
        wake(line);
        data += line;
        EXPECT_EQ(card_file("DATA.TXT"), data);
        EXPECT_EQ(card_file("OTHER.TXT"), other);
        EXPECT_TRUE(fsck_clean());
        EXPECT_EQ(console(), "");
    };
    for (int i = 0; i < 30; i++) {
        logged(lines(i, 1, 'B'));
    }
    // A PC appends to the data file.
    data += lines(0, 25, 'P');
    ASSERT_TRUE(test_board::pc_copy(image, "DATA.TXT", data));
    logged(lines(30, 1, 'B'));
    // ... cuts it short.
    data = data.substr(0, 700);
    ASSERT_TRUE(test_board::pc_copy(image, "DATA.TXT", data));
    logged(lines(31, 1, 'B'));
    // ... removes it, and another file takes its clusters.
    ASSERT_EQ(mtools("mdel -i " + image + " ::/DATA.TXT"), 0);
    other += lines(40, 30, 'O');
    ASSERT_TRUE(test_board::pc_copy(image, "OTHER.TXT", other));
    data.clear();
    logged(lines(32, 1, 'B'));
    // ... and makes it again.
    ASSERT_EQ(mtools("mdel -i " + image + " ::/DATA.TXT"), 0);
    data = lines(0, 3, 'Q');
    ASSERT_TRUE(test_board::pc_copy(image, "DATA.TXT", data));
    logged(lines(33, 1, 'B'));
    // Another card, with a data file of the same name and size in other clusters.
    std::string second = image + ".2";
    ASSERT_TRUE(test_board::mkfs_card(second, "-F 16 -s 1", 16384));
    ASSERT_TRUE(test_board::pc_copy(second, "FILLER.TXT", lines(0, 10, 'F')));
    ASSERT_TRUE(test_board::pc_copy(second, "DATA.TXT", data));
    std::string first_card = image;
    image = second;
    sim::sd_set_image(image);
    other = "";
    ASSERT_TRUE(test_board::pc_copy(image, "OTHER.TXT", other));
    logged(lines(34, 1, 'B'));
    unlink(second.c_str());
    image = first_card;
}

// A FAT16 card (no FSInfo) with 512-byte clusters, filled by a PC to its last two clusters.
TEST_F(SdAppend, AFullCardRefusesWholeLinesAndIsNotSearchedAtEveryWake) {
    ASSERT_TRUE(test_board::mkfs_card(image, "-F 16 -s 1", 16384));
    sim::sd_set_image(image);
    wake("");
    FATFS* fs = nullptr;
    DWORD free0 = 0;
    ASSERT_EQ(f_getfree("", &free0, &fs), FR_OK);
    ASSERT_EQ(f_mount(&g_sFatFs, "", 0), FR_OK);
    ASSERT_TRUE(test_board::pc_copy(image, "FILLER.BIN", std::string((free0 - 2) * 512, 'f')));
    std::string data;
    int n = 0;
    std::string out;
    for (; n < 20 && out.empty(); n++) {
        std::string line = lines(n, 1, 'B');
        wake(line);
        out = console();
        if (out.empty()) {
            data += line;
        }
    }
    EXPECT_EQ(out, "f_write error: card full\r\n");
    EXPECT_EQ(card_file("DATA.TXT"), data); // whole lines only
    EXPECT_TRUE(fsck_clean());

    if (!our_module) {
        return;
    }
    // Remembered: the next wakes read a few sectors, not the 64 of the FAT.
    EXPECT_LT(wake(lines(n, 1, 'B')), 8u);
    EXPECT_EQ(console(), "f_write error: card full\r\n");
    // A day later it looks again.
    ASSERT_TRUE(sim::test::run([] { HibernateRTCSet(HibernateRTCGet() + 86400); }).returned);
    EXPECT_GT(wake(lines(n, 1, 'B')), 64u);
    EXPECT_EQ(console(), "f_write error: card full\r\n");
    EXPECT_LT(wake(lines(n, 1, 'B')), 8u);
    console();

    // The firmware removes a file: the next line goes in, right after the last whole one.
    ASSERT_EQ(f_unlink("FILLER.BIN"), FR_OK);
    sd_append_space_freed();
    std::string line = lines(100, 1, 'B');
    wake(line);
    EXPECT_EQ(console(), "");
    EXPECT_EQ(card_file("DATA.TXT"), data + line);
    EXPECT_TRUE(fsck_clean());
}

} // namespace
