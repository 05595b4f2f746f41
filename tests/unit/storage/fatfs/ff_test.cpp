// The FAT module through the whole card stack (driver, simulated card, image file), checked against
// the PC tools: images made by mkfs.fat and filled by mcopy are read and written by the firmware,
// then checked with fsck.fat -n and read back with mtype; f_mkfs makes cards the tools accept; bad
// images give errors, never a crash; a power cut at any sector write leaves the card consistent
// apart from what an interrupted append may leave.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

#include "board/pinmux.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "sim_test.h"
#include "test_board.h"
#include "storage/fatfs/ff.h"
#include "storage/fatfs/fsck_check.h"

namespace {

// Built against a user's upstream FatFs instead of our module, the tests that check what is our
// module's own choice (its write ordering, its handling of long-name entries) step back.
#ifdef HXC3_FATFS_UPSTREAM
constexpr bool our_module = false;
#else
constexpr bool our_module = true;
#endif

constexpr uint32_t rtc_start = 1767275100; // 2026-01-01 13:45:00 UTC

void start_board(void) {
    test_board::start_clocks();
}

// Runs a shell command; its exit status and its output (stdout and stderr).
int shell(const std::string& cmd, std::string* output = nullptr) {
    std::string full = "MTOOLS_SKIP_CHECK=1 " + cmd + " 2>&1";
    FILE* p = popen(full.c_str(), "r");
    if (p == nullptr) {
        return -1;
    }
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) {
        out.append(buf, n);
    }
    int status = pclose(p);
    if (output != nullptr) {
        *output = out;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string pattern(uint32_t seed, size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++) {
        s[i] = static_cast<char>(seed * 131 + i * 7 + (i >> 9));
    }
    return s;
}

// A data line as the logger writes it; `pad` bytes of filler make it longer.
int format_line(char* buf, size_t size, int i, int pad = 0) {
    return snprintf(buf, size, "2026-01-01T13:%02d:00,%05d,7.8123,-0.912345,12.3456,35.012%.*s\r\n", i % 60,
                    i, pad,
                    "..............................................................................."
                    ".........................................................................");
}
std::string log_line(int i, int pad = 0) {
    char line[256];
    format_line(line, sizeof line, i, pad);
    return line;
}

// ------------------------------------------------------------ the firmware's side, through ff.h

FRESULT write_file(const std::string& name, const std::string& data,
                   BYTE mode = FA_WRITE | FA_CREATE_ALWAYS) {
    FIL f;
    FRESULT r = f_open(&f, name.c_str(), mode);
    if (r != FR_OK) {
        return r;
    }
    UINT bw = 0;
    r = f_write(&f, data.data(), static_cast<UINT>(data.size()), &bw);
    FRESULT rc = f_close(&f);
    if (r == FR_OK && bw != data.size()) {
        return FR_DENIED;
    }
    return r != FR_OK ? r : rc;
}

// Reads a whole file in chunks of `chunk` bytes (odd sizes mix partial and whole-sector reads).
FRESULT read_file(const std::string& name, std::string* out, UINT chunk = 1000) {
    FIL f;
    out->clear();
    FRESULT r = f_open(&f, name.c_str(), FA_READ);
    if (r != FR_OK) {
        return r;
    }
    std::vector<char> buf(chunk);
    for (;;) {
        UINT br = 0;
        r = f_read(&f, buf.data(), chunk, &br);
        if (r != FR_OK) {
            f_close(&f);
            return r;
        }
        out->append(buf.data(), br);
        if (br < chunk) {
            break;
        }
    }
    EXPECT_TRUE(f_eof(&f));
    return f_close(&f);
}

// The data logger's append: open read/write/open-always, seek to the end, write, close. (No heap
// objects: a power cut in the simulator leaves the call without unwinding it.)
FRESULT append(const char* name, const char* text, size_t len) {
    FIL f;
    FRESULT r = f_open(&f, name, FA_READ | FA_WRITE | FA_OPEN_ALWAYS);
    if (r != FR_OK) {
        return r;
    }
    UINT bw = 0;
    if ((r = f_lseek(&f, f_size(&f))) == FR_OK) {
        r = f_write(&f, text, static_cast<UINT>(len), &bw);
    }
    FRESULT rc = f_close(&f);
    return r != FR_OK ? r : rc;
}
FRESULT append(const std::string& name, const std::string& text) {
    return append(name.c_str(), text.data(), text.size());
}

// Names and sizes in a directory, as f_readdir lists them.
std::map<std::string, FILINFO> list(const std::string& path, FRESULT* result = nullptr) {
    std::map<std::string, FILINFO> names;
    DIR d;
    FRESULT r = f_opendir(&d, path.c_str());
    for (int guard = 0; r == FR_OK && guard < 70000; guard++) {
        FILINFO fi;
        r = f_readdir(&d, &fi);
        if (r != FR_OK || fi.fname[0] == '\0') {
            break;
        }
        names[fi.fname] = fi;
    }
    if (r == FR_OK) {
        r = f_closedir(&d);
    }
    if (result != nullptr) {
        *result = r;
    }
    return names;
}

DWORD free_clusters() {
    DWORD n = 0;
    FATFS* fs = nullptr;
    EXPECT_EQ(f_getfree("", &n, &fs), FR_OK);
    return n;
}

// ------------------------------------------------------------ the card and the PC tools

class FfCard : public ::testing::Test {
  protected:
    std::string dir;
    std::string image;
    FATFS fs;

    void SetUp() override {
        sim::test::reset_board(rtc_start);
        ASSERT_TRUE(sim::test::run(start_board).returned);
        char name[] = "/tmp/hxc3-fatfs-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        image = dir + "/card.img";
    }
    void TearDown() override {
        f_mount(nullptr, "", 0);
        sim::sd_set_image("");
        shell("rm -rf " + dir);
    }

    // Puts the image in the slot and registers the volume (mounted at the first access).
    void insert() {
        sim::sd_set_image(image);
        ASSERT_EQ(f_mount(&fs, "", 0), FR_OK);
    }
    void mkfs_fat(const std::string& args, unsigned kib) {
        unlink(image.c_str());
        ASSERT_EQ(shell("mkfs.fat -C " + args + " " + image + " " + std::to_string(kib)), 0);
        insert();
    }
    void blank_card(uint64_t bytes) {
        unlink(image.c_str());
        ASSERT_EQ(truncate_to(bytes), 0);
        insert();
    }
    int truncate_to(uint64_t bytes) {
        std::ofstream(image, std::ios::app).close();
        return truncate(image.c_str(), static_cast<off_t>(bytes));
    }

    std::string fsck(const std::string& img) {
        std::string out;
        int rc = shell("fsck.fat -n " + img, &out);
        return rc == 0 ? std::string() : out;
    }
    // Empty when fsck.fat -n finds nothing to fix, else its report.
    std::string fsck() { return fsck(image); }
    std::string mtype(const std::string& name) {
        std::string out;
        EXPECT_EQ(shell("mtype -i " + image + " ::/" + name, &out), 0) << out;
        return out;
    }
    void mcopy(const std::string& data, const std::string& name) {
        std::string host = dir + "/host.bin";
        std::ofstream(host, std::ios::binary) << data;
        std::string out;
        ASSERT_EQ(shell("mcopy -o -i " + image + " " + host + " ::/" + name, &out), 0) << out;
    }
    uint32_t peek16(uint64_t offset) {
        uint8_t b[2] = {};
        FILE* f = fopen(image.c_str(), "rb");
        EXPECT_NE(f, nullptr);
        fseek(f, static_cast<long>(offset), SEEK_SET);
        EXPECT_EQ(fread(b, 1, 2, f), 2u);
        fclose(f);
        return b[0] | (b[1] << 8);
    }
    // Patches bytes of the image (corruption tests).
    void poke(uint64_t offset, const std::vector<uint8_t>& bytes) {
        FILE* f = fopen(image.c_str(), "r+b");
        ASSERT_NE(f, nullptr);
        fseek(f, static_cast<long>(offset), SEEK_SET);
        fwrite(bytes.data(), 1, bytes.size(), f);
        fclose(f);
    }
    uint32_t cluster_bytes() const { return fs.csize * 512u; }
};

// ------------------------------------------------------------ FAT12, FAT16 and FAT32 from mkfs.fat

struct Kind {
    const char* name;
    const char* args;
    unsigned kib;
    BYTE fs_type;
};

void PrintTo(const Kind& k, std::ostream* os) {
    *os << k.name;
}

class FfToolImages : public FfCard, public ::testing::WithParamInterface<Kind> {
  protected:
    void SetUp() override {
        FfCard::SetUp();
        mkfs_fat(GetParam().args, GetParam().kib);
        ASSERT_EQ(f_mount(&fs, "", 1), FR_OK);
        ASSERT_EQ(fs.fs_type, GetParam().fs_type);
    }
};

TEST_P(FfToolImages, FirmwareWritesPassFsckAndReadBackWithMtype) {
    DWORD free0 = free_clusters();
    std::string big = pattern(1, 3 * cluster_bytes() + 700);
    ASSERT_EQ(write_file("HELLO.TXT", "hello, card\r\n"), FR_OK);
    ASSERT_EQ(f_mkdir("LOGS"), FR_OK);
    ASSERT_EQ(write_file("LOGS/DATA.BIN", big), FR_OK);
    ASSERT_EQ(write_file("Mixed.Txt", "case"), FR_OK); // stored upper case, found in any case
    ASSERT_EQ(write_file("EMPTY.TXT", ""), FR_OK);

    EXPECT_EQ(fsck(), "");
    EXPECT_EQ(mtype("HELLO.TXT"), "hello, card\r\n");
    EXPECT_EQ(mtype("LOGS/DATA.BIN"), big);
    EXPECT_EQ(mtype("MIXED.TXT"), "case");
    EXPECT_EQ(mtype("EMPTY.TXT"), "");

    // Free space: the files' clusters and the directory's one.
    DWORD used = 1 + 1 + (big.size() + cluster_bytes() - 1) / cluster_bytes() + 1;
    EXPECT_EQ(free_clusters(), free0 - used);
    std::string report;
    shell("fsck.fat -n -v " + image, &report);
    EXPECT_NE(report.find(", " + std::to_string(used + (GetParam().fs_type == FS_FAT32 ? 1 : 0)) + "/"),
              std::string::npos)
        << report;

    // And the firmware reads back what it wrote, after a fresh mount.
    insert();
    std::string back;
    ASSERT_EQ(read_file("logs/data.bin", &back, 777), FR_OK);
    EXPECT_EQ(back, big);
    auto root = list("/");
    ASSERT_EQ(root.size(), 4u);
    EXPECT_EQ(root["LOGS"].fattrib & AM_DIR, AM_DIR);
    EXPECT_EQ(root["HELLO.TXT"].fsize, 13u);
    EXPECT_EQ(root["MIXED.TXT"].fsize, 4u);
}

TEST_P(FfToolImages, FilesCopiedByMcopyReadBackExactly) {
    const size_t sizes[] = {0, 1, 511, 512, 513, 4103, 3 * 4096 + 1, 70001};
    ASSERT_EQ(shell("mmd -i " + image + " ::/SUB"), 0);
    for (size_t i = 0; i < std::size(sizes); i++) {
        mcopy(pattern(i, sizes[i]), "F" + std::to_string(i) + ".BIN");
        mcopy(pattern(i + 50, sizes[i]), "SUB/G" + std::to_string(i) + ".DAT");
    }
    insert();
    auto root = list("");
    auto sub = list("/SUB/");
    EXPECT_EQ(root.size(), std::size(sizes) + 1);
    EXPECT_EQ(sub.size(), std::size(sizes)); // no "." or ".."
    for (size_t i = 0; i < std::size(sizes); i++) {
        std::string f = "F" + std::to_string(i) + ".BIN";
        std::string g = "SUB/G" + std::to_string(i) + ".DAT";
        std::string back;
        ASSERT_EQ(read_file(f, &back, 1500), FR_OK) << f;
        EXPECT_EQ(back, pattern(i, sizes[i])) << f;
        ASSERT_EQ(read_file(g, &back, 333), FR_OK) << g;
        EXPECT_EQ(back, pattern(i + 50, sizes[i])) << g;
        EXPECT_EQ(root[f].fsize, sizes[i]);
    }
}

TEST_P(FfToolImages, LoggerAppendsGrowAFileOverManyClusters) {
    ASSERT_EQ(write_file("DATA.CSV", "header\r\n"), FR_OK);
    std::string expected = "header\r\n";
    for (int i = 0; i < 700; i++) {
        ASSERT_EQ(append("DATA.CSV", log_line(i)), FR_OK) << i;
        expected += log_line(i);
    }
    ASSERT_GT(expected.size(), 8 * cluster_bytes());
    EXPECT_EQ(fsck(), "");
    EXPECT_EQ(mtype("DATA.CSV"), expected);
    std::string back;
    ASSERT_EQ(read_file("DATA.CSV", &back, 4096), FR_OK);
    EXPECT_EQ(back, expected);

    // Appends after the card went through a PC.
    mcopy("pc\r\n", "PC.TXT");
    insert();
    ASSERT_EQ(append("DATA.CSV", "after\r\n"), FR_OK);
    ASSERT_EQ(append("PC.TXT", "more\r\n"), FR_OK);
    EXPECT_EQ(fsck(), "");
    EXPECT_EQ(mtype("DATA.CSV"), expected + "after\r\n");
    EXPECT_EQ(mtype("PC.TXT"), "pc\r\nmore\r\n");
}

TEST_P(FfToolImages, ManyFilesInASubdirectory) {
    // The clusters after the directory's first one held data: grown into, they must not show it as
    // entries.
    ASSERT_EQ(f_mkdir("MANY"), FR_OK);
    ASSERT_EQ(write_file("OLD.BIN", pattern(77, 16 * 1024)), FR_OK);
    ASSERT_EQ(f_unlink("OLD.BIN"), FR_OK);
    for (int i = 0; i < 200; i++) {
        std::string name = "MANY/F" + std::to_string(1000 + i) + ".TXT";
        ASSERT_EQ(write_file(name, name, FA_WRITE | FA_CREATE_NEW), FR_OK) << name;
    }
    auto many = list("MANY");
    ASSERT_EQ(many.size(), 200u);
    EXPECT_EQ(many.begin()->first, "F1000.TXT");
    EXPECT_EQ(many.rbegin()->first, "F1199.TXT");
    std::string out;
    ASSERT_EQ(shell("mdir -b -i " + image + " ::/MANY | grep -c TXT", &out), 0);
    EXPECT_EQ(out, "200\n");
    EXPECT_EQ(fsck(), "");
    std::string back;
    ASSERT_EQ(read_file("many/f1199.txt", &back), FR_OK);
    EXPECT_EQ(back, "MANY/F1199.TXT");

    // Freed entries are used again; the directory stays consistent.
    for (int i = 0; i < 200; i += 2) {
        ASSERT_EQ(f_unlink(("MANY/F" + std::to_string(1000 + i) + ".TXT").c_str()), FR_OK);
    }
    for (int i = 0; i < 50; i++) {
        ASSERT_EQ(write_file("MANY/N" + std::to_string(i) + ".TXT", "n"), FR_OK);
    }
    EXPECT_EQ(list("MANY").size(), 150u);
    EXPECT_EQ(fsck(), "");
    EXPECT_EQ(mtype("MANY/N49.TXT"), "n");
}

INSTANTIATE_TEST_SUITE_P(MkfsFat, FfToolImages,
                         ::testing::Values(Kind{"Fat12", "-F 12", 2048, FS_FAT12},
                                           Kind{"Fat16", "-F 16", 16384, FS_FAT16},
                                           Kind{"Fat32", "-F 32", 34 * 1024, FS_FAT32}),
                         [](const ::testing::TestParamInfo<Kind>& info) {
                             return std::string(info.param.name);
                         });

// ------------------------------------------------------------ the calls' own rules

class FfCalls : public FfCard {
  protected:
    void SetUp() override {
        FfCard::SetUp();
        mkfs_fat("-F 16", 16384);
    }
};

TEST_F(FfCalls, OpenModesAndNames) {
    FIL f;
    EXPECT_EQ(f_open(&f, "NONE.TXT", FA_READ), FR_NO_FILE);
    EXPECT_EQ(f_open(&f, "NODIR/A.TXT", FA_WRITE | FA_OPEN_ALWAYS), FR_NO_PATH);
    EXPECT_EQ(f_open(&f, "TOOLONGNAME.TXT", FA_WRITE | FA_CREATE_ALWAYS), FR_INVALID_NAME);
    EXPECT_EQ(f_open(&f, "A.LONG", FA_WRITE | FA_CREATE_ALWAYS), FR_INVALID_NAME);
    EXPECT_EQ(f_open(&f, "BAD*.TXT", FA_WRITE | FA_CREATE_ALWAYS), FR_INVALID_NAME);
    EXPECT_EQ(f_open(&f, "1:A.TXT", FA_READ), FR_INVALID_DRIVE);

    ASSERT_EQ(write_file("log.txt", "abc"), FR_OK);
    EXPECT_EQ(list("/").count("LOG.TXT"), 1u);
    EXPECT_EQ(f_open(&f, "LOG.TXT", FA_WRITE | FA_CREATE_NEW), FR_EXIST);
    ASSERT_EQ(write_file("0:/Log.Txt", "def", FA_WRITE | FA_OPEN_APPEND), FR_OK);
    std::string back;
    ASSERT_EQ(read_file("LOG.TXT", &back), FR_OK);
    EXPECT_EQ(back, "abcdef");

    // Access follows the mode.
    ASSERT_EQ(f_open(&f, "LOG.TXT", FA_WRITE), FR_OK);
    char c;
    UINT n;
    EXPECT_EQ(f_read(&f, &c, 1, &n), FR_DENIED);
    EXPECT_EQ(f_write(&f, "X", 1, &n), FR_OK); // overwrites from the start
    EXPECT_EQ(f_tell(&f), 1u);
    EXPECT_EQ(f_size(&f), 6u);
    EXPECT_FALSE(f_eof(&f));
    EXPECT_EQ(f_close(&f), FR_OK);
    EXPECT_EQ(f_close(&f), FR_INVALID_OBJECT);
    ASSERT_EQ(f_open(&f, "LOG.TXT", FA_READ), FR_OK);
    EXPECT_EQ(f_write(&f, "X", 1, &n), FR_DENIED);
    EXPECT_EQ(f_close(&f), FR_OK);
    ASSERT_EQ(read_file("LOG.TXT", &back), FR_OK);
    EXPECT_EQ(back, "Xbcdef");

    // A directory is no file, a file no directory.
    ASSERT_EQ(f_mkdir("D"), FR_OK);
    EXPECT_EQ(f_open(&f, "D", FA_READ), FR_NO_FILE);
    EXPECT_EQ(f_open(&f, "", FA_READ), FR_INVALID_NAME);
    DIR d;
    EXPECT_EQ(f_opendir(&d, "LOG.TXT"), FR_NO_PATH);
    EXPECT_EQ(f_opendir(&d, "NODIR"), FR_NO_PATH);

    // Creating afresh truncates and frees the old chain.
    DWORD free0 = free_clusters();
    ASSERT_EQ(write_file("BIG.BIN", pattern(3, 20000)), FR_OK);
    EXPECT_LT(free_clusters(), free0);
    ASSERT_EQ(write_file("BIG.BIN", "small"), FR_OK);
    EXPECT_EQ(free_clusters(), free0 - 1);
    EXPECT_EQ(fsck(), "");
    EXPECT_EQ(mtype("BIG.BIN"), "small");
}

TEST_F(FfCalls, SeekPastTheEndExtendsInWriteModeOnly) {
    ASSERT_EQ(write_file("EXT.BIN", "0123456789"), FR_OK);
    FIL f;
    ASSERT_EQ(f_open(&f, "EXT.BIN", FA_READ), FR_OK);
    ASSERT_EQ(f_lseek(&f, 5000), FR_OK);
    EXPECT_EQ(f_tell(&f), 10u); // reading: the end of the file
    ASSERT_EQ(f_close(&f), FR_OK);

    DWORD target = 3 * cluster_bytes() + 5;
    ASSERT_EQ(f_open(&f, "EXT.BIN", FA_READ | FA_WRITE), FR_OK);
    ASSERT_EQ(f_lseek(&f, target), FR_OK);
    EXPECT_EQ(f_tell(&f), target);
    EXPECT_EQ(f_size(&f), target);
    UINT n;
    ASSERT_EQ(f_write(&f, "END", 3, &n), FR_OK);
    ASSERT_EQ(f_lseek(&f, 2), FR_OK); // back to the start, then read through the grown chain
    char buf[4] = {};
    ASSERT_EQ(f_read(&f, buf, 3, &n), FR_OK);
    EXPECT_STREQ(buf, "234");
    ASSERT_EQ(f_lseek(&f, target), FR_OK);
    ASSERT_EQ(f_read(&f, buf, 3, &n), FR_OK);
    EXPECT_STREQ(buf, "END");
    EXPECT_TRUE(f_eof(&f));
    ASSERT_EQ(f_close(&f), FR_OK);

    EXPECT_EQ(fsck(), "");
    std::string back = mtype("EXT.BIN");
    ASSERT_EQ(back.size(), target + 3);
    EXPECT_EQ(back.substr(0, 10), "0123456789");
    EXPECT_EQ(back.substr(target), "END");
}

TEST_F(FfCalls, MkdirUnlinkAndRename) {
    DWORD free0 = free_clusters();
    ASSERT_EQ(f_mkdir("A"), FR_OK);
    ASSERT_EQ(f_mkdir("A/B"), FR_OK);
    EXPECT_EQ(f_mkdir("A/B"), FR_EXIST);
    EXPECT_EQ(f_mkdir("X/Y"), FR_NO_PATH);
    ASSERT_EQ(write_file("A/B/F.TXT", "moving"), FR_OK);
    ASSERT_EQ(write_file("OTHER.TXT", "other"), FR_OK);

    EXPECT_EQ(f_unlink("A"), FR_DENIED); // not empty
    EXPECT_EQ(f_unlink("A/NONE"), FR_NO_FILE);
    EXPECT_EQ(f_rename("A/NONE", "A/X"), FR_NO_FILE);
    EXPECT_EQ(f_rename("A/B/F.TXT", "OTHER.TXT"), FR_EXIST);

    ASSERT_EQ(f_rename("A/B/F.TXT", "A/G.TXT"), FR_OK); // up a level
    ASSERT_EQ(f_rename("A/G.TXT", "A/H.TXT"), FR_OK);   // in place
    ASSERT_EQ(f_rename("A/B", "C"), FR_OK);             // a directory moves to the root
    ASSERT_EQ(f_rename("OTHER.TXT", "C/OTHER.TXT"), FR_OK);
    EXPECT_EQ(list("A").size(), 1u);
    EXPECT_EQ(list("/").size(), 2u);
    EXPECT_EQ(list("C").count("OTHER.TXT"), 1u);
    EXPECT_EQ(fsck(), ""); // fsck checks every ".." entry too
    EXPECT_EQ(mtype("A/H.TXT"), "moving");
    EXPECT_EQ(mtype("C/OTHER.TXT"), "other");

    ASSERT_EQ(f_unlink("A/H.TXT"), FR_OK);
    ASSERT_EQ(f_unlink("C/OTHER.TXT"), FR_OK);
    ASSERT_EQ(f_unlink("C"), FR_OK);
    ASSERT_EQ(f_unlink("A"), FR_OK);
    EXPECT_TRUE(list("/").empty());
    EXPECT_EQ(free_clusters(), free0);
    EXPECT_EQ(fsck(), "");
}

TEST_F(FfCalls, TimesComeFromTheClock) {
    ASSERT_EQ(write_file("T.TXT", "t"), FR_OK);
    ASSERT_EQ(f_mkdir("TD"), FR_OK);
    auto root = list("");
    const WORD date = ((2026 - 1980) << 9) | (1 << 5) | 1;
    for (const char* n : {"T.TXT", "TD"}) {
        EXPECT_EQ(root[n].fdate, date) << n;
        EXPECT_EQ(root[n].ftime >> 5, (13 << 6) | 45) << n; // 13:45
    }
}

TEST_F(FfCalls, LongNamesFromAPcGoByTheirShortNames) {
    std::string host = dir + "/longfilename.txt";
    std::ofstream(host) << "long\n";
    ASSERT_EQ(shell("mcopy -i " + image + " " + host + " ::/"), 0);
    insert();
    auto root = list("");
    ASSERT_EQ(root.size(), 1u);
    EXPECT_TRUE(root.count("LONGFI~1.TXT") == 1 || root.count("longfilename.txt") == 1);
    ASSERT_EQ(append("longfi~1.txt", "more\n"), FR_OK);
    EXPECT_EQ(fsck(), "");
    EXPECT_EQ(mtype("longfilename.txt"), "long\nmore\n");
    ASSERT_EQ(f_unlink("LONGFI~1.TXT"), FR_OK);
    EXPECT_TRUE(list("").empty());
    if (our_module) {
        EXPECT_EQ(fsck(), ""); // its long-name entries went with it
    }
}

TEST_F(FfCalls, AFullVolumeGivesShortWrites) {
    mkfs_fat("-F 12", 1024);
    std::string chunk = pattern(9, 100 * 1024);
    FIL f;
    ASSERT_EQ(f_open(&f, "FILL.BIN", FA_WRITE | FA_CREATE_ALWAYS), FR_OK);
    UINT total = 0;
    for (int i = 0; i < 12; i++) {
        UINT bw = 0;
        ASSERT_EQ(f_write(&f, chunk.data(), static_cast<UINT>(chunk.size()), &bw), FR_OK);
        total += bw;
        if (bw < chunk.size()) {
            break;
        }
    }
    ASSERT_EQ(f_close(&f), FR_OK);
    EXPECT_LT(total, 1024u * 1024);
    EXPECT_EQ(free_clusters(), 0u);
    EXPECT_EQ(f_mkdir("NOROOM"), FR_DENIED);
    EXPECT_EQ(fsck(), "");
    EXPECT_EQ(mtype("FILL.BIN").size(), total);
    ASSERT_EQ(f_unlink("FILL.BIN"), FR_OK);
    EXPECT_GT(free_clusters(), 100u);
}

// ------------------------------------------------------------ cards made by f_mkfs

class FfMkfs : public FfCard {
  protected:
    FRESULT format(BYTE fmt, DWORD au = 0, UINT work_len = 4096) {
        MKFS_PARM opt = {fmt, 0, 0, 0, au};
        std::vector<uint8_t> work(work_len);
        return f_mkfs("", &opt, work.data(), work_len);
    }
};

TEST_F(FfMkfs, EachFatTypePassesFsckAndServesBothSides) {
    struct Case {
        uint64_t bytes;
        BYTE fmt;
        DWORD au;
        BYTE type;
    };
    // The simulator's new card (256 MiB, FAT32, default clusters), then types set by cluster count.
    for (Case c : {Case{256ull << 20, FM_FAT32 | FM_SFD, 0, FS_FAT32},
                   Case{16ull << 20, FM_FAT | FM_SFD, 2048, FS_FAT16},
                   Case{1ull << 20, FM_ANY | FM_SFD, 512, FS_FAT12}}) {
        SCOPED_TRACE(c.bytes);
        blank_card(c.bytes);
        ASSERT_EQ(format(c.fmt, c.au, 512), FR_OK); // one sector of work area is enough
        EXPECT_EQ(fsck(), "");
        ASSERT_EQ(f_mount(&fs, "", 1), FR_OK);
        EXPECT_EQ(fs.fs_type, c.type);
        std::string data = pattern(7, 10000);
        ASSERT_EQ(f_mkdir("DIR"), FR_OK);
        ASSERT_EQ(write_file("DIR/FW.BIN", data), FR_OK);
        mcopy("from the pc", "PC.TXT");
        insert();
        std::string back;
        ASSERT_EQ(read_file("PC.TXT", &back), FR_OK);
        EXPECT_EQ(back, "from the pc");
        EXPECT_EQ(mtype("DIR/FW.BIN"), data);
        EXPECT_EQ(fsck(), "");
    }
}

TEST_F(FfMkfs, PartitionedCardMountsFromItsPartition) {
    blank_card(64ull << 20);
    ASSERT_EQ(format(FM_ANY), FR_OK);
    ASSERT_EQ(write_file("IN.TXT", "partition"), FR_OK);
    // The volume lies behind the partition table: cut it out for the tools.
    ASSERT_EQ(f_mount(&fs, "", 1), FR_OK);
    ASSERT_GT(fs.volbase, 0u);
    std::string part = dir + "/part.img";
    ASSERT_EQ(shell("dd if=" + image + " of=" + part + " bs=512 skip=" + std::to_string(fs.volbase)), 0);
    EXPECT_EQ(fsck(part), "");
    std::string out;
    ASSERT_EQ(shell("mtype -i " + part + " ::/IN.TXT", &out), 0);
    EXPECT_EQ(out, "partition");
}

TEST_F(FfMkfs, ImpossibleRequestsAreRefused) {
    blank_card(16ull << 20);
    EXPECT_EQ(format(FM_FAT32 | FM_SFD, 4096), FR_MKFS_ABORTED); // too few clusters for FAT32
    EXPECT_EQ(format(FM_FAT | FM_SFD, 0, 100), FR_NOT_ENOUGH_CORE);
}

// ------------------------------------------------------------ bad cards

class FfBadCards : public FfCard {
  protected:
    void SetUp() override {
        FfCard::SetUp();
        mkfs_fat("-F 16", 16384);
        ASSERT_EQ(write_file("GOOD.BIN", pattern(5, 9000)), FR_OK);
        ASSERT_EQ(f_mkdir("SUB"), FR_OK);
        ASSERT_EQ(write_file("SUB/IN.TXT", "inside"), FR_OK);
        ASSERT_EQ(f_mount(&fs, "", 1), FR_OK);
        fat_offset = static_cast<uint64_t>(fs.fatbase) * 512;
        root_offset = static_cast<uint64_t>(fs.dirbase) * 512;
    }
    uint64_t fat_offset = 0;
    uint64_t root_offset = 0;
};

TEST_F(FfBadCards, NoFileSystemIsReportedAsSuch) {
    struct Patch {
        uint64_t offset;
        std::vector<uint8_t> bytes;
    };
    for (Patch p : {Patch{0, std::vector<uint8_t>(512, 0)}, Patch{11, {0x00, 0x10}}, // 4096-byte sectors
                    Patch{13, {3}},                                                  // 3 sectors per cluster
                    Patch{16, {0}}}) {                                               // no FAT
        mkfs_fat("-F 16", 16384);
        poke(p.offset, p.bytes);
        insert();
        FIL f;
        EXPECT_EQ(f_open(&f, "A.TXT", FA_WRITE | FA_CREATE_ALWAYS), FR_NO_FILESYSTEM) << p.offset;
        EXPECT_EQ(f_mount(&fs, "", 1), FR_NO_FILESYSTEM) << p.offset;
    }
}

TEST_F(FfBadCards, BrokenChainsAreInternalErrors) {
    // GOOD.BIN (the first root entry) links past the volume.
    uint32_t first = peek16(root_offset + 26);
    poke(fat_offset + first * 2, {0xF0, 0xFF});
    insert();
    std::string back;
    EXPECT_EQ(read_file("GOOD.BIN", &back), FR_INT_ERR);
    // An entry whose first cluster lies beyond the volume.
    poke(root_offset + 26, {0xF0, 0xFF});
    insert();
    EXPECT_EQ(read_file("GOOD.BIN", &back), FR_INT_ERR);
}

TEST_F(FfBadCards, ALoopingDirectoryChainEndsTheListing) {
    // SUB's cluster links to itself.
    auto root = list("");
    ASSERT_EQ(root.count("SUB"), 1u);
    DIR d;
    ASSERT_EQ(f_opendir(&d, "SUB"), FR_OK);
    DWORD c = d.obj.sclust;
    poke(fat_offset + c * 2, {static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8)});
    insert();
    FRESULT r;
    auto sub = list("SUB", &r);
    EXPECT_TRUE(r == FR_OK || r == FR_INT_ERR);
    EXPECT_LE(sub.size(), 1u);
}

TEST_F(FfBadCards, RandomDamageNeverCrashes) {
    std::string pristine = dir + "/pristine.img";
    ASSERT_EQ(shell("cp " + image + " " + pristine), 0);
    uint64_t span = static_cast<uint64_t>(fs.database + 8 * fs.csize) * 512;
    srand(1234);
    for (int round = 0; round < 40; round++) {
        ASSERT_EQ(shell("cp " + pristine + " " + image), 0);
        for (int i = 0; i < 24; i++) {
            poke(static_cast<uint64_t>(rand()) % span, {static_cast<uint8_t>(rand())});
        }
        insert();
        std::string back;
        list("");
        list("SUB");
        read_file("GOOD.BIN", &back);
        read_file("SUB/IN.TXT", &back);
        append("SUB/IN.TXT", "more");
        append("NEW.TXT", pattern(round, 3000));
        f_mkdir("NEWDIR");
        f_rename("GOOD.BIN", "SUB/MOVED.BIN");
        f_unlink("SUB/MOVED.BIN");
        DWORD n;
        FATFS* p;
        f_getfree("", &n, &p);
    }
}

TEST_F(FfCard, MountIsDelayedUntilTheFirstAccess) {
    sim::sd_set_image("");
    EXPECT_EQ(f_mount(&fs, "", 0), FR_OK);
    FIL f;
    EXPECT_EQ(f_open(&f, "A.TXT", FA_READ), FR_NOT_READY);
    EXPECT_EQ(f_mount(&fs, "", 1), FR_NOT_READY);
    ASSERT_EQ(shell("mkfs.fat -C -F 12 " + image + " 1024"), 0);
    mcopy("late", "LATE.TXT");
    sim::sd_set_image(image); // the card arrives
    std::string back;
    ASSERT_EQ(read_file("LATE.TXT", &back), FR_OK);
    EXPECT_EQ(back, "late");
    EXPECT_EQ(f_mount(nullptr, "", 0), FR_OK);
    EXPECT_EQ(f_open(&f, "LATE.TXT", FA_READ), FR_NOT_ENABLED);
}

// ------------------------------------------------------------ power cuts during appends

constexpr int cut_lines = 12;
constexpr int cut_pad = 150; // lines of about 210 bytes: a new 512-byte cluster every few lines
int g_appended;
void append_then_tidy(void) {
    char line[256];
    for (int i = 0; i < cut_lines; i++) {
        int n = format_line(line, sizeof line, i, cut_pad);
        if (append("DATA.CSV", line, static_cast<size_t>(n)) != FR_OK) {
            return;
        }
        g_appended = i + 1;
    }
    if (f_rename("KEEP.BIN", "SUB/KEEP.BIN") == FR_OK) {
        f_unlink("OLD.BIN");
    }
}

TEST_F(FfCard, APowerCutAtAnyWriteLosesAtMostTheLineInFlight) {
    if (!our_module) {
        GTEST_SKIP() << "upstream FatFs orders its writes its own way";
    }
    // A firmware-made card (one FAT, FSInfo) with 512-byte clusters: appends cross clusters often.
    blank_card(40ull << 20);
    MKFS_PARM opt = {FM_FAT32 | FM_SFD, 1, 0, 0, 512};
    uint8_t work[2048];
    ASSERT_EQ(f_mkfs("", &opt, work, sizeof work), FR_OK);
    ASSERT_EQ(write_file("DATA.CSV", "header\r\n"), FR_OK);
    ASSERT_EQ(f_mkdir("SUB"), FR_OK);
    ASSERT_EQ(write_file("KEEP.BIN", pattern(1, 2000)), FR_OK);
    ASSERT_EQ(write_file("OLD.BIN", pattern(2, 3000)), FR_OK);
    std::string base = dir + "/base.img";
    ASSERT_EQ(shell("cp " + image + " " + base), 0);
    std::string full = "header\r\n";
    for (int i = 0; i < cut_lines; i++) {
        full += log_line(i, cut_pad);
    }

    int cuts = 0;
    for (uint64_t k = 1;; k++) {
        ASSERT_EQ(shell("cp " + base + " " + image), 0);
        insert();
        g_appended = 0;
        sim::sd_cut_power_after_writes(k);
        sim::test::Outcome o = sim::test::run(append_then_tidy);
        sim::sd_cut_power_after_writes(0);
        if (o.returned) {
            break; // the whole sequence fits in k - 1 writes
        }
        cuts++;
        std::string report = fsck();
        EXPECT_TRUE(only_benign(report)) << "cut after write " << k << ":\n" << report;
        sim::test::reset_board(rtc_start);
        ASSERT_TRUE(sim::test::run(start_board).returned);
        insert();
        std::string back;
        ASSERT_EQ(read_file("DATA.CSV", &back), FR_OK) << k;
        // Every line whose append returned, and the one in flight whole or not at all.
        size_t done = 8;
        for (int i = 0; i < g_appended; i++) {
            done += log_line(i, cut_pad).size();
        }
        EXPECT_EQ(full.compare(0, back.size(), back), 0) << k;
        EXPECT_TRUE(back.size() == done || back.size() == done + log_line(g_appended, cut_pad).size())
            << k << ": " << back.size() << " bytes after " << g_appended << " lines";
        // The moved file is in one place or the other, whole; in neither only while its clusters
        // are lost clusters.
        std::string kept;
        FRESULT r = read_file("KEEP.BIN", &kept);
        if (r == FR_NO_FILE) {
            r = read_file("SUB/KEEP.BIN", &kept);
        }
        if (r == FR_NO_FILE) {
            EXPECT_NE(report.find("Reclaimed"), std::string::npos) << k;
            continue;
        }
        ASSERT_EQ(r, FR_OK) << k;
        EXPECT_EQ(kept, pattern(1, 2000)) << k;
        ASSERT_LT(k, 2000u);
    }
    EXPECT_GT(cuts, 30);
}

} // namespace
