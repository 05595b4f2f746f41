// Power cuts in the middle of the data logger's appends. A power-on period appends numbered data
// lines with appendBufferToSDCard to a card whose data file already holds the lines before them (or
// does not exist yet). A reference run counts the period's sector writes; then, for every k, a fresh
// copy of the card and a fresh board run the same period with the power cut as soon as the k-th
// write has reached the card. After each cut fsck.fat -n may find only what an interrupted append is
// allowed to leave (lost clusters, a chain one cluster too long), the data file holds every line
// whose append had returned, in order, followed by at most part of the line in flight, and the other
// file on the card is untouched. The periods start from files of many sizes, so that the cuts fall
// in every step of an append: a new file, a new sector, a new cluster, a new sector of the FAT.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "board/pinmux.h"
#include "core/system.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "sim_test.h"
#include "test_board.h"
#include "storage/fatfs/fsck_check.h"
#include "storage/microsd.h"

namespace {

// The order of the writes is our FAT module's own; built against a user's upstream FatFs instead,
// these tests step back.
#ifdef HXC3_FATFS_UPSTREAM
constexpr bool our_module = false;
#else
constexpr bool our_module = true;
#endif

constexpr uint32_t rtc_start = 1767225600; // 2026-01-01 00:00:00 UTC
constexpr char data_name[] = "DATA.CSV";

// ------------------------------------------------------------ what runs on the board

uint32_t g_mount_result;
int g_first;    // number of the first line to append
int g_lines;    // appends in this power-on period
int g_returned; // appendBufferToSDCard calls that returned

void start_board(void) {
    test_board::start_clocks();
    std::memset(sys_data.fileName, 0, sizeof sys_data.fileName);
    std::memcpy(sys_data.fileName, data_name, sizeof data_name - 1);
    g_mount_result = init_uSDCard();
}

// Data line number i as a logger writes it every 15 minutes: 120 to 160 bytes, the length varying
// with the values so that line ends fall anywhere in a sector.
int format_line(char* buf, size_t size, int i) {
    int minutes = i * 15;
    return snprintf(buf, size,
                    "%05d,2026/01/%02d %02d:%02d:00,%d.%04d,7.%04d,-0.%06d,-0.%06d,%d.%04d,%d.%04d,%d.%03d,"
                    "%d.%03d,12.%05d,%d,%d,0x%04X,%.*s\r\n",
                    i, 1 + minutes / 1440, minutes / 60 % 24, minutes % 60, 7 + i % 2, (i * 7919) % 10000,
                    (i * 4177) % 10000, (i * 104729) % 1000000, (i * 15485) % 1000000, 10 + i % 9,
                    (i * 31) % 10000, 34 + i % 2, (i * 97) % 10000, i % 1000, (i * 37) % 1000, 200 + i % 50,
                    (i * 71) % 1000, (i * 313) % 100000, (i * 97) % 100000, (i * 131) % 1000000,
                    (i * 29) & 0xFFFF, 8 + (i * 7) % 31, "3141592653589793238462643383279502884197");
}

void append_lines(void) {
    char line[200];
    for (int i = 0; i < g_lines; i++) {
        format_line(line, sizeof line, g_first + i);
        appendBufferToSDCard(line);
        g_returned = i + 1;
    }
}

// ------------------------------------------------------------ the host side

// Runs a shell command; its exit status and its output (with its error output unless `quiet`).
int shell(const std::string& cmd, std::string* output, bool quiet = false) {
    std::string full = "export MTOOLS_SKIP_CHECK=1; { " + cmd + (quiet ? "; } 2>/dev/null" : "; } 2>&1");
    FILE* p = popen(full.c_str(), "r");
    if (p == nullptr) {
        return -1;
    }
    output->clear();
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) {
        output->append(buf, n);
    }
    int status = pclose(p);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A card image held in memory as its non-zero 4 KiB pieces, written out as a new sparse file for
// every run so that no run sees what an earlier one left.
struct Snapshot {
    uint64_t size = 0;
    std::vector<std::pair<uint64_t, std::vector<char>>> pieces;
};

bool take_snapshot(const std::string& path, Snapshot* snap) {
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        return false;
    }
    snap->pieces.clear();
    snap->size = static_cast<uint64_t>(lseek(fd, 0, SEEK_END));
    static const char zeros[4096] = {};
    std::vector<char> buf(sizeof zeros);
    // Holes of the sparse file are skipped whole.
    for (off_t data = lseek(fd, 0, SEEK_DATA); data >= 0; data = lseek(fd, data, SEEK_DATA)) {
        off_t hole = lseek(fd, data, SEEK_HOLE);
        for (data -= data % static_cast<off_t>(sizeof zeros); data < hole; data += sizeof zeros) {
            ssize_t n = pread(fd, buf.data(), buf.size(), data);
            if (n <= 0) {
                break;
            }
            if (std::memcmp(buf.data(), zeros, static_cast<size_t>(n)) != 0) {
                snap->pieces.emplace_back(data, std::vector<char>(buf.begin(), buf.begin() + n));
            }
        }
    }
    close(fd);
    return true;
}

bool restore(const Snapshot& snap, const std::string& path) {
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        return false;
    }
    bool ok = ftruncate(fd, static_cast<off_t>(snap.size)) == 0;
    for (const auto& [off, data] : snap.pieces) {
        ok = ok && pwrite(fd, data.data(), data.size(), static_cast<off_t>(off)) ==
                       static_cast<ssize_t>(data.size());
    }
    close(fd);
    return ok;
}

constexpr char other_text[] = "2026/01/01 00:00:05 f_open error: FR_NOT_READY\r\n";

class PowerLoss : public ::testing::Test {
  protected:
    std::string dir;
    std::string image;
    Snapshot blank;             // the card as formatted
    std::string text;           // every line the test may append, numbered from 0
    std::vector<size_t> starts; // where each line starts in `text`, and its end

    // Figures over all periods.
    uint64_t tried = 0;
    uint64_t survived = 0;
    uint64_t in_flight[3] = {0, 0, 0}; // the line in flight found: not at all, whole, in part
    uint64_t repaired = 0;             // cuts that left lost clusters or a chain too long
    int reported = 0;

    void SetUp() override {
        if (!our_module) {
            GTEST_SKIP() << "upstream FatFs orders its writes its own way";
        }
        char name[] = "/tmp/hxc3-powerloss-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        image = dir + "/card.img";
    }
    void TearDown() override {
        sim::sd_cut_power_after_writes(0);
        sim::sd_set_image("");
        std::string out;
        if (!dir.empty()) {
            shell("rm -rf " + dir, &out);
        }
    }

    // A new board with the card in the slot, through the firmware's start-up mount.
    void boot() {
        sim::test::reset_board(rtc_start);
        sim::sd_set_image(image);
        ASSERT_TRUE(sim::test::run(start_board).returned);
        ASSERT_EQ(g_mount_result, 0u);
        sim::test::clear_console_output();
    }

    void make_text(int lines) {
        text.clear();
        starts.clear();
        char line[200];
        for (int i = 0; i < lines; i++) {
            starts.push_back(text.size());
            text.append(line, static_cast<size_t>(format_line(line, sizeof line, i)));
        }
        starts.push_back(text.size());
    }

    // The formatted card with the other file and the first `first` lines copied on from a PC.
    void prepare(int first) {
        ASSERT_TRUE(restore(blank, image));
        std::string host = dir + "/host.txt";
        std::string out;
        FILE* f = std::fopen(host.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fputs(other_text, f);
        std::fclose(f);
        ASSERT_EQ(shell("mcopy -i " + image + " " + host + " ::/ERROR.TXT", &out), 0) << out;
        if (first > 0) {
            f = std::fopen(host.c_str(), "wb");
            ASSERT_NE(f, nullptr);
            std::fwrite(text.data(), 1, starts[first], f);
            std::fclose(f);
            ASSERT_EQ(shell("mcopy -o -i " + image + " " + host + " ::/" + data_name, &out), 0) << out;
        }
    }

    // What is wrong with the card after a cut while line `in_flight` was being appended: empty when
    // nothing. `found` is the data file's size.
    std::string check_after_cut(int in_flight, size_t* found) {
        std::string report;
        if (shell("fsck.fat -n " + image, &report) != 0) {
            if (!only_benign(report)) {
                return "fsck.fat -n finds damage:\n" + report.substr(0, 2000);
            }
            repaired++;
        }
        // The other file, then the data file (which only the first append makes).
        std::string back;
        int status = shell("mtype -i " + image + " ::/ERROR.TXT && mtype -i " + image + " ::/" + data_name,
                           &back, true);
        if (back.compare(0, sizeof other_text - 1, other_text) != 0) {
            return "the other file changed";
        }
        back.erase(0, sizeof other_text - 1);
        if (status != 0 && (in_flight > 0 || !back.empty())) {
            return "mtype cannot read the data file";
        }
        *found = back.size();
        if (text.compare(0, back.size(), back) != 0) {
            return "the data file differs from the lines appended";
        }
        if (back.size() < starts[in_flight] || back.size() > starts[in_flight + 1]) {
            return std::to_string(back.size()) + " bytes in the data file; expected " +
                   std::to_string(starts[in_flight]) + " to " + std::to_string(starts[in_flight + 1]);
        }
        return "";
    }

    // One power-on period appending `lines` lines to a data file of whole lines up to `bytes` bytes
    // (none: no file yet): the reference run, then a cut after each of its sector writes in turn.
    void cut_period(const char* card, size_t bytes, int lines) {
        int first = 0;
        while (starts[first + 1] <= bytes) {
            first++;
        }
        ASSERT_LE(first + lines, static_cast<int>(starts.size()) - 1);
        ASSERT_NO_FATAL_FAILURE(prepare(first));
        Snapshot start;
        ASSERT_TRUE(take_snapshot(image, &start));

        ASSERT_NO_FATAL_FAILURE(boot());
        g_first = first;
        g_lines = lines;
        g_returned = 0;
        uint64_t before = sim::stats().sd_writes;
        ASSERT_TRUE(sim::test::run(append_lines).returned);
        uint64_t n = sim::stats().sd_writes - before;
        EXPECT_EQ(sim::test::console_output(), ""); // no append reported an error
        std::string report;
        EXPECT_EQ(shell("fsck.fat -n " + image, &report), 0) << card << ", lines " << first << "+:\n"
                                                             << report;
        std::string back;
        ASSERT_EQ(shell("mtype -i " + image + " ::/" + data_name, &back), 0) << back;
        ASSERT_EQ(back, text.substr(0, starts[first + lines])) << card << ", lines " << first << "+";

        for (uint64_t k = 1; k <= n; k++) {
            ASSERT_TRUE(restore(start, image));
            ASSERT_NO_FATAL_FAILURE(boot());
            g_returned = 0;
            sim::sd_cut_power_after_writes(k);
            sim::test::Outcome o = sim::test::run(append_lines);
            sim::sd_cut_power_after_writes(0);
            int line = first + g_returned;
            std::string failure = "the power was not cut";
            size_t found = 0;
            if (!o.returned && o.event == sim::PowerEvent::power_cycle) {
                failure = check_after_cut(line, &found);
            }
            tried++;
            if (failure.empty()) {
                survived++;
                in_flight[found == starts[line] ? 0 : found == starts[line + 1] ? 1 : 2]++;
            } else if (++reported <= 10) {
                ADD_FAILURE() << card << ": appending lines " << first << " to " << first + lines - 1
                              << ", cut after sector write " << k << " of " << n << " (in line " << line
                              << "): " << failure;
            }
        }
    }

    // Adds the sizes of the data file at which its chain moves on to the next sectors of the FAT
    // (the first `count` of them), from the cluster where a file copied onto the card starts.
    void add_fat_sector_changes(int count, std::vector<size_t>* sizes) {
        make_text(1);
        ASSERT_NO_FATAL_FAILURE(prepare(1));
        ASSERT_NO_FATAL_FAILURE(boot());
        FIL f;
        ASSERT_EQ(f_open(&f, data_name, FA_READ), FR_OK);
        DWORD first = f.obj.sclust;
        ASSERT_EQ(f_close(&f), FR_OK);
        size_t cluster = g_sFatFs.csize * 512u;
        DWORD per_sector = g_sFatFs.fs_type == FS_FAT32 ? 128 : 256;
        for (int m = 1; m <= count; m++) {
            sizes->push_back(((first / per_sector + m) * per_sector - first) * cluster);
        }
    }

    // A power-on period from each size of the data file, and from a little before each of the first
    // two changes of FAT sector; the figures for the note.
    void cut_everywhere(const char* card, int lines, std::vector<size_t> sizes) {
        auto t0 = std::chrono::steady_clock::now();
        ASSERT_TRUE(take_snapshot(image, &blank));
        std::vector<size_t> changes;
        ASSERT_NO_FATAL_FAILURE(add_fat_sector_changes(2, &changes));
        for (size_t change : changes) {
            sizes.push_back(change - 1000);
        }
        make_text(static_cast<int>(*std::max_element(sizes.begin(), sizes.end()) / 120) + lines + 1);
        for (size_t bytes : sizes) {
            ASSERT_NO_FATAL_FAILURE(cut_period(card, bytes, lines));
        }
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        std::printf(
            "[ figures  ] %s: %zu power-on periods; cuts tried %llu, survived %llu (%llu with lost "
            "clusters or a chain too long); line in flight absent %llu, whole %llu, partial %llu; %.1f s\n",
            card, sizes.size(), static_cast<unsigned long long>(tried),
            static_cast<unsigned long long>(survived), static_cast<unsigned long long>(repaired),
            static_cast<unsigned long long>(in_flight[0]), static_cast<unsigned long long>(in_flight[1]),
            static_cast<unsigned long long>(in_flight[2]), seconds);
        RecordProperty("cuts_tried", std::to_string(tried));
        RecordProperty("cuts_survived", std::to_string(survived));
        EXPECT_GE(tried, 1000u);
        EXPECT_EQ(survived, tried) << card << ": cuts that left the card or the data file damaged";
    }
};

// The card a new simulated board gets: 256 MiB, FAT32 made by the firmware's f_mkfs with one FAT and
// 2 KiB clusters (a new sector of the FAT every 256 KiB of data file).
TEST_F(PowerLoss, CutAfterEveryWriteOfAppendsToTheSimulatorsFat32Card) {
    ASSERT_TRUE(sim::sd_make_image(image, 256ull << 20, FM_FAT32));
    cut_everywhere("FAT32", 25,
                   {0, 150, 1900, 4000, 6000, 10000, 16000, 30000, 50000, 80000, 130000, 200000, 300000,
                    400000, 600000, 800000});
}

// A card formatted on a PC: FAT16 with one FAT and 512-byte clusters, so that appends cross into
// new clusters every few lines (and a new sector of the FAT every 128 KiB).
TEST_F(PowerLoss, CutAfterEveryWriteOfAppendsToAFat16Card) {
    std::string out;
    ASSERT_EQ(shell("mkfs.fat -C -F 16 -f 1 -s 1 " + image + " 16384", &out), 0) << out;
    cut_everywhere("FAT16", 23,
                   {0, 150, 600, 1500, 2900, 4500, 8000, 12000, 20000, 33000, 50000, 80000, 160000, 200000,
                    300000, 400000});
}

} // namespace
