// The FAT module's tail calls on cards made by mkfs.fat and mcopy: a remembered end takes an append
// straight to a long file's last cluster, is refused whenever the file is not as remembered, a write
// the volume has no room for is refused before anything is written (and a full volume is not
// searched again), f_truncate gives clusters back, and a mount reads only the boot sector.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "sim_test.h"
#include "test_board.h"
#include "storage/fatfs/ff.h"
#include "storage/fatfs/ff_tail.h"

namespace {

// The tail calls are our module's own; built against a user's upstream FatFs they only walk.
#ifdef HXC3_FATFS_UPSTREAM
constexpr bool our_module = false;
#else
constexpr bool our_module = true;
#endif

void start_board(void) {
    test_board::start_clocks();
}

std::string text_of(size_t n, char c) {
    std::string s;
    for (size_t i = 0; s.size() < n; i++) {
        s += std::string(1, c) + std::to_string(i) + ",7.8123,-0.912345,12.3456\r\n";
    }
    s.resize(n);
    return s;
}

class FfTail : public ::testing::Test {
  protected:
    std::string image;
    FATFS fs{};
    FIL f{};

    void SetUp() override {
        if (!our_module) {
            GTEST_SKIP() << "upstream FatFs has no tail calls of its own";
        }
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(start_board).returned);
        image = test_board::make_blank_card("fftail", 0);
        ASSERT_FALSE(image.empty());
    }
    void TearDown() override {
        f_mount(nullptr, "", 0);
        sim::sd_set_image("");
        unlink(image.c_str());
    }
    void mount() {
        sim::sd_set_image(image);
        ASSERT_EQ(f_mount(&fs, "", 0), FR_OK);
    }
    std::string card_file(const char* name) { return test_board::card_file(image, name); }
    bool fsck_clean() {
        std::string cmd = "fsck.fat -n " + image + " >/dev/null 2>&1";
        return std::system(cmd.c_str()) == 0;
    }
    // Opens `name` for appending, seeks through `t`, writes `text`, and leaves `t` at the new end.
    // Returns the sectors read by the seek.
    uint64_t append(const char* name, const std::string& text, FFTAIL* t) {
        EXPECT_EQ(f_open(&f, name, FA_READ | FA_WRITE | FA_OPEN_ALWAYS), FR_OK);
        uint64_t before = sim::stats().sd_reads;
        EXPECT_EQ(f_seek_tail(&f, t), FR_OK);
        uint64_t reads = sim::stats().sd_reads - before;
        UINT bw = 0;
        EXPECT_EQ(f_write(&f, text.data(), static_cast<UINT>(text.size()), &bw), FR_OK);
        EXPECT_EQ(bw, text.size());
        EXPECT_EQ(f_sync(&f), FR_OK);
        EXPECT_EQ(f_get_tail(&f, t), FR_OK);
        EXPECT_EQ(f_close(&f), FR_OK);
        return reads;
    }
};

TEST_F(FfTail, ARememberedEndSkipsTheWalkOfALongChain) {
    ASSERT_TRUE(
        test_board::mkfs_card(image, "-F 16 -s 1", 16384)); // 512-byte clusters: 600 of them for this file
    std::string data = text_of(300000, 'D');
    ASSERT_TRUE(test_board::pc_copy(image, "DATA.TXT", data));
    ASSERT_NO_FATAL_FAILURE(mount());
    FFTAIL t{};
    uint64_t walk = append("DATA.TXT", "first\r\n", &t); // nothing remembered yet
    EXPECT_GT(walk, 4u);
    EXPECT_EQ(t.size, data.size() + 7);
    // Through the tail: the directory sector is still in the window; only the last sector is read.
    uint64_t straight = append("DATA.TXT", "second\r\n", &t);
    EXPECT_LE(straight, 1u);
    // After a fresh mount (a new wake) as well: the boot sector, the directory, the last sector.
    ASSERT_EQ(f_mount(&fs, "", 0), FR_OK);
    uint64_t before = sim::stats().sd_reads;
    append("DATA.TXT", "third\r\n", &t);
    EXPECT_LE(sim::stats().sd_reads - before, 3u);
    EXPECT_EQ(card_file("DATA.TXT"), data + "first\r\nsecond\r\nthird\r\n");
    EXPECT_TRUE(fsck_clean());
}

// A remembered end that no longer describes the file is walked past, whatever in it is wrong: a
// last cluster that is another file's (found by the bytes of the last sector), a time stamp, a size,
// another volume.
TEST_F(FfTail, ARememberedEndIsUsedOnlyWhenTheFileIsAsRemembered) {
    ASSERT_TRUE(test_board::mkfs_card(image, "-F 16 -s 1", 16384));
    std::string data = text_of(5000, 'D');
    std::string other = text_of(1700, 'O');
    ASSERT_TRUE(test_board::pc_copy(image, "DATA.TXT", data));
    ASSERT_TRUE(test_board::pc_copy(image, "OTHER.TXT", other));
    ASSERT_NO_FATAL_FAILURE(mount());
    FFTAIL t{};
    FFTAIL o{};
    append("DATA.TXT", "a\r\n", &t);
    append("OTHER.TXT", "", &o); // just to learn where OTHER.TXT ends
    std::string expect = data + "a\r\n";

    FFTAIL wrong = t;
    wrong.lclust = o.lclust; // the other file's last cluster, everything else as it should be
    append("DATA.TXT", "b\r\n", &wrong);
    expect += "b\r\n";
    EXPECT_EQ(wrong.lclust, t.lclust);
    t = wrong;
    for (int field = 0; field < 3; field++) {
        FFTAIL w = t;
        if (field == 0) {
            w.stamp ^= 1;
        } else if (field == 1) {
            w.size -= 1;
        } else {
            w.vol_id ^= 1;
        }
        uint64_t reads = append("DATA.TXT", "c\r\n", &w);
        expect += "c\r\n";
        EXPECT_GT(reads, 1u) << field; // walked
        t = w;
    }
    EXPECT_EQ(card_file("DATA.TXT"), expect);
    EXPECT_EQ(card_file("OTHER.TXT"), other);
    EXPECT_TRUE(fsck_clean());
}

// FAT32 with 512-byte clusters, filled to its last few clusters by a PC.
TEST_F(FfTail, AWriteWithoutRoomIsRefusedBeforeAnythingIsWrittenAndFullIsRemembered) {
    ASSERT_TRUE(test_board::mkfs_card(image, "-F 32 -s 1",
                                      34816)); // a whole number of 512 KiB: what a card's CSD can state
    ASSERT_NO_FATAL_FAILURE(mount());
    DWORD free0 = 0;
    FATFS* p = nullptr;
    ASSERT_EQ(f_getfree("", &free0, &p), FR_OK);
    ASSERT_EQ(f_mount(&fs, "", 0), FR_OK);
    ASSERT_TRUE(test_board::pc_copy(image, "BIG.BIN", std::string((free0 - 3) * 512 - 100, 'x')));
    ASSERT_NO_FATAL_FAILURE(mount());

    FFTAIL t{};
    append("DATA.TXT", "line 0\r\n", &t); // takes one of the three free clusters
    ASSERT_EQ(f_open(&f, "DATA.TXT", FA_READ | FA_WRITE | FA_OPEN_ALWAYS), FR_OK);
    ASSERT_EQ(f_seek_tail(&f, &t), FR_OK);
    FFPLAN plan{};
    plan.tail = t;
    EXPECT_EQ(f_plan_tail(&f, 2100, &plan), FR_DENIED); // four more clusters: two are left
    EXPECT_EQ(plan.n_plan, 0u);
    ASSERT_EQ(f_plan_tail(&f, 1500, &plan), FR_OK);
    EXPECT_EQ(plan.n_plan, 2u);
    std::string fill(1500, 'f');
    UINT bw = 0;
    ASSERT_EQ(f_write(&f, fill.data(), 1500, &bw), FR_OK);
    ASSERT_EQ(f_sync(&f), FR_OK); // the last free cluster went: FSInfo says 0
    plan.n_plan = 0;
    EXPECT_EQ(f_plan_tail(&f, 600, &plan), FR_DENIED);
    EXPECT_EQ(f_free_hint(), 0u);
    EXPECT_EQ(f_close(&f), FR_OK);

    // The next mount finds the count in FSInfo and searches no further (here and in the firmware's
    // next wake).
    ASSERT_EQ(f_mount(&fs, "", 0), FR_OK);
    ASSERT_EQ(f_open(&f, "DATA.TXT", FA_READ | FA_WRITE | FA_OPEN_ALWAYS), FR_OK);
    ASSERT_EQ(f_get_tail(&f, &t), FR_INT_ERR); // not at its end yet
    t = FFTAIL{};
    ASSERT_EQ(f_seek_tail(&f, &t), FR_OK);
    uint64_t reads = sim::stats().sd_reads;
    EXPECT_EQ(f_plan_tail(&f, 600, &plan), FR_DENIED);
    EXPECT_LE(sim::stats().sd_reads - reads, 2u);
    // Told to look again, it reads the FAT (and still finds no room).
    f_set_free_hint(0xFFFFFFFF);
    EXPECT_EQ(f_plan_tail(&f, 600, &plan), FR_DENIED);
    EXPECT_GT(sim::stats().sd_reads - reads, 100u);
    EXPECT_EQ(f_close(&f), FR_OK);
    EXPECT_EQ(card_file("DATA.TXT"), "line 0\r\n" + fill);
    EXPECT_TRUE(fsck_clean());
}

TEST_F(FfTail, TruncateGivesBackTheClustersPastThePointer) {
    ASSERT_TRUE(test_board::mkfs_card(image, "-F 16 -s 1", 16384));
    std::string data = text_of(3000, 'D');
    ASSERT_TRUE(test_board::pc_copy(image, "DATA.TXT", data));
    ASSERT_NO_FATAL_FAILURE(mount());
    DWORD free0 = 0;
    FATFS* p = nullptr;
    ASSERT_EQ(f_getfree("", &free0, &p), FR_OK);
    ASSERT_EQ(f_open(&f, "DATA.TXT", FA_READ | FA_WRITE), FR_OK);
    ASSERT_EQ(f_lseek(&f, 700), FR_OK);
    EXPECT_EQ(f_truncate(&f), FR_OK);
    EXPECT_EQ(f_size(&f), 700u);
    EXPECT_EQ(f_close(&f), FR_OK);
    DWORD free1 = 0;
    ASSERT_EQ(f_getfree("", &free1, &p), FR_OK);
    EXPECT_EQ(free1, free0 + 6 - 2); // six clusters held 3000 bytes, two hold 700
    ASSERT_EQ(f_open(&f, "DATA.TXT", FA_READ | FA_WRITE), FR_OK);
    EXPECT_EQ(f_truncate(&f), FR_OK); // at 0: the file keeps no cluster
    EXPECT_EQ(f_close(&f), FR_OK);
    EXPECT_EQ(card_file("DATA.TXT"), "");
    EXPECT_TRUE(fsck_clean());
}

// A wake that appends within its last cluster reads the boot sector and the directory, not FSInfo.
TEST_F(FfTail, AMountReadsOnlyTheBootSector) {
    ASSERT_TRUE(test_board::mkfs_card(image, "-F 32", 65536));
    ASSERT_TRUE(test_board::pc_copy(image, "DATA.TXT", "x\r\n"));
    ASSERT_NO_FATAL_FAILURE(mount());
    uint64_t before = sim::stats().sd_reads;
    ASSERT_EQ(f_open(&f, "DATA.TXT", FA_READ), FR_OK);
    EXPECT_EQ(sim::stats().sd_reads - before, 2u);
    EXPECT_EQ(f_close(&f), FR_OK);
}

} // namespace
