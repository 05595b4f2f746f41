// Power cuts in the middle of what the board really writes to its card: samples (get_sample), a
// deployment's headers, the error log and the float log (a float controller's pH sample writes both
// the data line and the float log). A power-on period runs a few such steps on a card whose files
// already hold text copied from a PC. A reference run records every file after each step and counts
// the period's sector writes; then, for every k, a fresh copy of the card (and of the FRAM) and a
// fresh board run the same period with the power cut as soon as the k-th write has reached the card.
// After each cut:
// - fsck.fat -n finds nothing, or only what an interrupted write may leave (lost clusters, a chain
//   one cluster longer than a file, on two FATs copies that differ with the first one right);
// - every file holds the text of every step that returned, and of the step in flight all or none (a
//   header, which is several appends, whole appends of it);
// - the board starts again, appends once more, and the card is then clean (the start-up repaired
//   what the cut left) with the new text after the old.
// A file untouched by the period stays as it was. The cards: FAT16 and FAT32, with one and with two
// FATs. `make powercut` runs every starting size; make test runs a slice of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "storage/error_log.h"
#include "core/main.h"
#include "records/system.h"
#include "storage/settings.h"
#include "board/timebase.h"
#include "records/apf.h"
#include "hostlink/apf_cmd.h"
#include "measure/sample.h"
#include "runtime.h"
#include "sim_test.h"
#include "storage/config.h"
#include "storage/fatfs/fsck_check.h"
#include "storage/microsd.h"

namespace {

#ifdef HXC3_FATFS_UPSTREAM
constexpr bool our_module = false; // upstream FatFs orders its writes its own way
#else
constexpr bool our_module = true;
#endif

constexpr uint32_t rtc_start = 1767225600; // 2026-01-01 00:00:00 UTC

// The files as the firmware and as mtools name them.
constexpr char data_name[] = "DATA.TXT";
const char* const files[] = {"DATA.TXT", "ERROR.TXT", "APFLOG.TXT", "OTHER.TXT"};
constexpr size_t file_count = sizeof files / sizeof files[0];

// ------------------------------------------------------------ what runs on the board

void sample(void) {
    get_sample(0, 1);
}
void log_error(void) {
    error_store("f_open error: FR_NOT_READY\r\n");
}
void metadata_header(void) {
    write_metadata_header();
}
void data_header(void) {
    write_data_header();
}
void float_sample(void) {
    apf_take_sample_pH();
}

// The factory settings, logging to DATA.TXT with the default columns, stored as QA leaves a board.
void set_up_board(void) {
    init();
    initSysDataVariables();
    std::memset(sys_data.fileName, 0, sizeof sys_data.fileName);
    std::memcpy(sys_data.fileName, data_name, sizeof data_name - 1);
    storeSysDataVariables();
}

// Where the data file starts and how its clusters map onto FAT sectors, as the firmware sees it.
DWORD g_first_cluster;
UINT g_cluster_bytes;
UINT g_entries_per_fat_sector;
void find_data_file(void) {
    init();
    FIL f;
    g_first_cluster = 0;
    if (f_open(&f, data_name, FA_READ) == FR_OK) {
        g_first_cluster = f.obj.sclust;
        f_close(&f);
    }
    g_cluster_bytes = g_sFatFs.csize * 512u;
    g_entries_per_fat_sector = g_sFatFs.fs_type == FS_FAT32 ? 128 : 256;
}

struct Step {
    void (*run)(void);
    bool several_appends; // a cut may leave some of its appends whole and the rest out
};

std::vector<Step> g_steps;
size_t g_returned; // steps that returned in this power-on period

void run_steps(void) {
    for (const Step& s : g_steps) {
        s.run();
        g_returned++;
    }
}

// ------------------------------------------------------------ the host side

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

// What the board keeps through a power cut: the card image (as its non-zero 4 KiB pieces, written
// out as a new sparse file for every run) and the FRAM and EEPROM.
struct Snapshot {
    uint64_t size = 0;
    std::vector<std::pair<uint64_t, std::vector<char>>> pieces;
    std::vector<uint8_t> fram;
    std::vector<uint8_t> eeprom;
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
    snap->fram.assign(sim::fram_bytes(), sim::fram_bytes() + sim::fram_size);
    snap->eeprom.assign(sim::eeprom_bytes(), sim::eeprom_bytes() + sim::eeprom_size);
    return true;
}

bool restore_image(const Snapshot& snap, const std::string& path) {
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

// Text a PC put in the files before the period: numbered lines of a logger's width.
std::string pc_text(size_t bytes, const char* tag) {
    std::string text;
    for (int i = 0; text.size() < bytes; i++) {
        char line[200];
        int n =
            snprintf(line, sizeof line, "%s %05d,2026/01/01 00:00:00,7.%04d,-0.%06d,12.%05d,%.*s\r\n", tag, i,
                     (i * 7919) % 10000, (i * 104729) % 1000000, (i * 313) % 100000, 8 + (i * 7) % 61,
                     "3141592653589793238462643383279502884197169399375105820974944592307816406286");
        text.append(line, static_cast<size_t>(n));
    }
    text.resize(bytes);
    return text;
}

using Contents = std::map<std::string, std::string>;

struct Card {
    const char* name;
    std::string mkfs; // "" for the firmware's own FAT32 format; IMG stands for the image
};

// Whether `now` is a state the step in flight may leave between `before` and `after`.
bool allowed(const std::string& now, const std::string& before, const std::string& after, bool several) {
    if (now == before || now == after) {
        return true;
    }
    if (before == "(none)" && now.empty()) {
        return true; // the file was made, its first text not yet
    }
    return several && now.size() > before.size() && now.size() < after.size() &&
           after.compare(0, now.size(), now) == 0 && now.compare(now.size() - 2, 2, "\r\n") == 0;
}

class PowerCut : public ::testing::Test {
  protected:
    std::string dir;
    std::string image;
    Snapshot formatted;

    // Figures over the whole test.
    uint64_t tried = 0;
    uint64_t survived = 0;
    uint64_t lost = 0;        // cuts that left lost clusters,
    uint64_t too_long = 0;    // a chain longer than its file,
    uint64_t fats_differ = 0; // or the copies of the FAT different
    int reported = 0;

    void SetUp() override {
        if (!our_module) {
            GTEST_SKIP() << "upstream FatFs orders its writes its own way";
        }
        char name[] = "/tmp/hxc3-powercut-XXXXXX";
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

    static bool sweep() {
        const char* env = std::getenv("HXC3_POWERCUT_SWEEP");
        return env != nullptr && std::strcmp(env, "1") == 0;
    }

    void format(const Card& card) {
        std::string out;
        if (card.mkfs.empty()) {
            ASSERT_TRUE(sim::sd_make_image(image, 256ull << 20, FM_FAT32));
        } else {
            std::string cmd = card.mkfs;
            cmd.replace(cmd.find("IMG"), 3, image);
            ASSERT_EQ(shell(cmd, &out), 0) << out;
        }
        ASSERT_TRUE(take_snapshot(image, &formatted));
    }

    Contents read_files() {
        Contents c;
        for (const char* f : files) {
            std::string text;
            if (shell("mtype -i " + image + " ::/" + f, &text, true) != 0) {
                text = "(none)";
            }
            c[f] = text;
        }
        return c;
    }

    // A new board with the card: the factory settings, then the files a PC left on the card.
    void prepare(size_t data_bytes, size_t log_bytes, Snapshot* start) {
        ASSERT_TRUE(restore_image(formatted, image));
        std::string out;
        const std::pair<const char*, std::string> pc[] = {
            {"DATA.TXT", pc_text(data_bytes, "D")},
            {"ERROR.TXT", pc_text(log_bytes, "E")},
            {"APFLOG.TXT", pc_text(log_bytes, "A")},
            {"OTHER.TXT", pc_text(700, "O")},
        };
        for (const auto& [name, text] : pc) {
            if (text.empty()) {
                continue;
            }
            std::string host = dir + "/host.txt";
            FILE* f = std::fopen(host.c_str(), "wb");
            ASSERT_NE(f, nullptr);
            std::fwrite(text.data(), 1, text.size(), f);
            std::fclose(f);
            ASSERT_EQ(shell("mcopy -o -i " + image + " " + host + " ::/" + name, &out), 0) << out;
        }
        sim::test::reset_board(rtc_start);
        sim::sd_set_image(image);
        ASSERT_TRUE(sim::test::run(set_up_board).returned);
        ASSERT_TRUE(take_snapshot(image, start));
    }

    // The board as it was at the start of the period: same card, FRAM, EEPROM and clock.
    void boot(const Snapshot& start) {
        ASSERT_TRUE(restore_image(start, image));
        sim::test::reset_board(rtc_start);
        std::memcpy(sim::fram_bytes(), start.fram.data(), start.fram.size());
        std::memcpy(sim::eeprom_bytes(), start.eeprom.data(), start.eeprom.size());
        sim::sd_set_image(image);
        ASSERT_TRUE(sim::test::run(init).returned);
        sim::test::clear_console_output();
    }

    // After a cut in step `in_flight`: what is wrong with the card, empty when nothing.
    std::string check_after_cut(size_t in_flight, const std::vector<Contents>& after) {
        std::string report;
        if (shell("fsck.fat -n " + image, &report) != 0) {
            if (!only_benign(report, {"/DATA.TXT", "/ERROR.TXT", "/APFLOG.TXT"})) {
                return "fsck.fat -n finds damage:\n" + report.substr(0, 2000);
            }
            lost += report.find("Reclaimed") != std::string::npos ? 1 : 0;
            too_long += report.find("Truncating") != std::string::npos ? 1 : 0;
            fats_differ += report.find("FATs differ") != std::string::npos ? 1 : 0;
        }
        Contents now = read_files();
        for (const char* f : files) {
            if (!allowed(now[f], after[in_flight].at(f), after[in_flight + 1].at(f),
                         g_steps[in_flight].several_appends)) {
                return std::string(f) + " holds " + std::to_string(now[f].size()) +
                       " bytes; the step in flight " + "took it from " +
                       std::to_string(after[in_flight].at(f).size()) + " to " +
                       std::to_string(after[in_flight + 1].at(f).size());
            }
        }
        // The next start-up repairs what the cut left, and the next append goes after what is there.
        sim::test::Outcome o = sim::test::run(init);
        if (!o.returned) {
            return "the board did not start again";
        }
        g_returned = 0;
        o = sim::test::run(g_steps[in_flight].run);
        if (!o.returned) {
            return "the next append did not return";
        }
        if (shell("fsck.fat -n " + image, &report) != 0) {
            return "after the next start and append, fsck.fat -n finds:\n" + report.substr(0, 2000);
        }
        Contents next = read_files();
        for (const char* f : files) {
            if (next[f].compare(0, now[f].size(), now[f]) != 0 && now[f] != "(none)") {
                return std::string(f) + " lost text with the next append";
            }
        }
        if (next == now) {
            return "the next append wrote nothing";
        }
        return "";
    }

    // One power-on period of `steps` from files of the given sizes: the reference run, then a cut
    // after each of its sector writes in turn.
    void cut_period(const Card& card, size_t data_bytes, size_t log_bytes, const std::vector<Step>& steps) {
        Snapshot start;
        ASSERT_NO_FATAL_FAILURE(prepare(data_bytes, log_bytes, &start));
        g_steps = steps;

        ASSERT_NO_FATAL_FAILURE(boot(start));
        std::vector<Contents> after{read_files()};
        uint64_t first_write = sim::stats().sd_writes;
        for (const Step& s : steps) {
            ASSERT_TRUE(sim::test::run(s.run).returned);
            after.push_back(read_files());
        }
        uint64_t n = sim::stats().sd_writes - first_write;
        std::string report;
        ASSERT_EQ(shell("fsck.fat -n " + image, &report), 0) << card.name << ", from " << data_bytes << ":\n"
                                                             << report;
        EXPECT_EQ(after.back().at("OTHER.TXT"), after.front().at("OTHER.TXT"));

        for (uint64_t k = 1; k <= n; k++) {
            ASSERT_NO_FATAL_FAILURE(boot(start));
            g_returned = 0;
            sim::sd_cut_power_after_writes(k);
            sim::test::Outcome o = sim::test::run(run_steps);
            sim::sd_cut_power_after_writes(0);
            std::string failure = "the power was not cut";
            if (!o.returned && o.event == sim::PowerEvent::power_cycle && g_returned < steps.size()) {
                failure = check_after_cut(g_returned, after);
            }
            tried++;
            if (failure.empty()) {
                survived++;
            } else if (++reported <= 10) {
                ADD_FAILURE() << card.name << ", data file from " << data_bytes << " bytes, logs from "
                              << log_bytes << ": cut after write " << k << " of " << n << " (in step "
                              << g_returned << "): " << failure;
            }
        }
    }

    void print_figures(const Card& card, double seconds) {
        std::printf("[ figures  ] %s: cuts tried %llu, survived %llu; left lost clusters %llu, a chain too "
                    "long %llu, differing FATs %llu; %.1f s\n",
                    card.name, static_cast<unsigned long long>(tried),
                    static_cast<unsigned long long>(survived), static_cast<unsigned long long>(lost),
                    static_cast<unsigned long long>(too_long), static_cast<unsigned long long>(fats_differ),
                    seconds);
        EXPECT_EQ(survived, tried) << card.name;
    }

    // Every writer, from sizes that put its appends at the start of a file, across a sector and a
    // cluster boundary, and (in the sweep) at many more places.
    void cut_everywhere(const Card& card) {
        auto t0 = std::chrono::steady_clock::now();
        ASSERT_NO_FATAL_FAILURE(format(card));
        const std::vector<Step> samples = {
            {sample, false}, {sample, false}, {sample, false}, {sample, false}};
        const std::vector<Step> deploy = {{metadata_header, true}, {data_header, false}, {sample, false}};
        const std::vector<Step> errors = {{log_error, false}, {log_error, false}, {log_error, false}};
        const std::vector<Step> floats = {{float_sample, false}, {float_sample, false}};

        std::vector<size_t> sizes = {0, 1900, 3950};
        if (sweep()) {
            sizes.clear();
            for (size_t s = 0; s < 9000; s += 97) {
                sizes.push_back(s);
            }
        }
        // Just before the data file's chain moves on to the next sector of the FAT, where a new
        // cluster's entry and the link to it are in two sectors written one after the other.
        Snapshot start;
        ASSERT_NO_FATAL_FAILURE(prepare(100, 0, &start));
        ASSERT_TRUE(sim::test::run(find_data_file).returned);
        ASSERT_NE(g_first_cluster, 0u);
        UINT per = g_entries_per_fat_sector;
        size_t boundary = ((g_first_cluster / per + 1) * per - g_first_cluster) * g_cluster_bytes;
        for (size_t back : {300u, 500u}) {
            sizes.push_back(boundary - back);
        }
        for (size_t s : sizes) {
            ASSERT_NO_FATAL_FAILURE(cut_period(card, s, 0, samples));
        }
        ASSERT_NO_FATAL_FAILURE(cut_period(card, 1000, 0, deploy));
        ASSERT_NO_FATAL_FAILURE(cut_period(card, 1000, 0, errors));
        ASSERT_NO_FATAL_FAILURE(cut_period(card, 1000, 1950, errors));
        ASSERT_NO_FATAL_FAILURE(cut_period(card, 2000, 0, floats));
        ASSERT_NO_FATAL_FAILURE(cut_period(card, 2000, 1500, floats));
        if (sweep()) {
            for (size_t s = 0; s < 6000; s += 250) {
                ASSERT_NO_FATAL_FAILURE(cut_period(card, s, s, deploy));
                ASSERT_NO_FATAL_FAILURE(cut_period(card, s, s, errors));
                ASSERT_NO_FATAL_FAILURE(cut_period(card, s, s, floats));
            }
        }
        print_figures(card, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
};

// The card a new simulated board gets: FAT32 formatted by the firmware, one FAT, 2 KiB clusters.
TEST_F(PowerCut, Fat32OneFat) {
    cut_everywhere(Card{"FAT32, one FAT", ""});
}

// A PC's FAT32: two FATs, 512-byte clusters, so appends often take new clusters.
TEST_F(PowerCut, Fat32TwoFats) {
    cut_everywhere(Card{"FAT32, two FATs", "mkfs.fat -C -F 32 -s 1 IMG 65536 >/dev/null"});
}

TEST_F(PowerCut, Fat16OneFat) {
    cut_everywhere(Card{"FAT16, one FAT", "mkfs.fat -C -F 16 -f 1 -s 1 IMG 16384 >/dev/null"});
}

TEST_F(PowerCut, Fat16TwoFats) {
    cut_everywhere(Card{"FAT16, two FATs", "mkfs.fat -C -F 16 -s 2 IMG 16384 >/dev/null"});
}

} // namespace
