// Console file shell: path handling, command words and their checks, the shell loop on typed input,
// and the commands against a card image checked with mtools.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "board/pinmux.h"
#include "board/board_util.h"
#include "driverlib/hibernate.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"
#include "storage/fatfs/ff.h"
#include "storage/file_shell.h"
#include "storage/microsd.h"

namespace {

// Runs one typed line through the shell and returns its result.
int shell(const std::string& line) {
    std::vector<char> buf(line.begin(), line.end());
    buf.push_back('\0');
    return file_shell_command(buf.data());
}

std::string path_of(const std::string& arg, uint32_t size = FILE_SHELL_PATH_SIZE) {
    char out[FILE_SHELL_PATH_SIZE + 8];
    if (!file_shell_path(arg.c_str(), out, size)) {
        return "<too long>";
    }
    return out;
}

class FileShell : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        init_TM4C123GH6PM_64pin();
        UARTStdioConfig(0, 115200, 16000000);
        // Without echo the console shows only what the shell prints, in order.
        UARTEchoSet(false);
        f_unmount("");
        ASSERT_EQ(shell("cd /"), 0);
        sim::test::clear_console_output();
    }
    void TearDown() override {
        UARTFlushTx(true);
        UARTFlushRx();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
    static void clear_out() {
        wait_consoleTx();
        sim::test::clear_console_output();
    }
};

// ---------------------------------------------------------------- paths

TEST_F(FileShell, PathsFromTheTopDirectory) {
    EXPECT_EQ(path_of("data.txt"), "/DATA.TXT");
    EXPECT_EQ(path_of("/Logs/2026/"), "/LOGS/2026");
    EXPECT_EQ(path_of("./a//b/./c"), "/A/B/C");
    EXPECT_EQ(path_of("\\a\\b"), "/A/B");
    EXPECT_EQ(path_of("a/b/../../c"), "/C");
    EXPECT_EQ(path_of(".."), "/");
    EXPECT_EQ(path_of("../../x/.."), "/");
    EXPECT_EQ(path_of(""), "/");
}

TEST_F(FileShell, PathsLongerThanTheBufferAreRefused) {
    std::string longest = "/" + std::string(FILE_SHELL_PATH_SIZE - 2, 'A');
    EXPECT_EQ(path_of(longest), longest);
    EXPECT_EQ(path_of(longest + "B"), "<too long>");
    EXPECT_EQ(path_of("a/b/c", 6), "<too long>");
    EXPECT_EQ(path_of("a/b/c", 7), "/A/B/C");
    // Going up again does not make an overlong middle acceptable.
    EXPECT_EQ(path_of(longest + "B/.."), "<too long>");

    EXPECT_EQ(shell("cat " + longest + "B"), SHELL_INVALID_ARG);
    EXPECT_EQ(out(), "path too long\r\n");
}

// ---------------------------------------------------------------- command words

TEST_F(FileShell, WordsAreCheckedBeforeAnythingRuns) {
    EXPECT_EQ(shell(""), 0);
    EXPECT_EQ(shell("   \t "), 0);
    EXPECT_EQ(out(), "");

    EXPECT_EQ(shell("format"), SHELL_BAD_CMD);
    EXPECT_EQ(out(), "format: unknown command, help lists them\r\n");
    clear_out();

    EXPECT_EQ(shell("cat"), SHELL_TOO_FEW_ARGS);
    EXPECT_EQ(shell("mv a.txt"), SHELL_TOO_FEW_ARGS);
    EXPECT_EQ(shell("pwd now"), SHELL_TOO_MANY_ARGS);
    EXPECT_EQ(shell("rm a b"), SHELL_TOO_MANY_ARGS);
    EXPECT_EQ(out(), "usage: cat file\r\nusage: mv old new\r\nusage: pwd\r\nusage: rm name\r\n");
    clear_out();

    EXPECT_EQ(shell("ls a b c d e f g h i"), SHELL_TOO_MANY_ARGS);
    EXPECT_EQ(out(), "too many words\r\n");
    clear_out();

    EXPECT_EQ(shell("  PWD  "), 0);
    EXPECT_EQ(shell("Exit"), SHELL_EXIT);
    EXPECT_EQ(out(), "/\r\n");
}

// ---------------------------------------------------------------- the shell loop

TEST_F(FileShell, ShellRunsTypedLinesUntilExit) {
    sim::test::type("pwd\rnonsense\r\rexit\rpwd\r");
    ASSERT_TRUE(sim::test::run(viewFiles).returned);
    std::string text = out();
    EXPECT_NE(text.find("microSD card files: help lists the commands"), std::string::npos);
    EXPECT_EQ(text.substr(text.find("/> ")),
              "/> /\r\n/> nonsense: unknown command, help lists them\r\n/> /> ")
        << "nothing after exit runs";
}

TEST_F(FileShell, OverlongLinesAreDroppedWhole) {
    // Longer than a command line, and longer than the whole receive buffer.
    sim::test::type(std::string(FILE_SHELL_LINE_MAX + 1, 'x') + "\r" + "rm " +
                    std::string(UART_RX_BUFFER_SIZE + 40, 'y') + "\rpwd\rexit\r");
    ASSERT_TRUE(sim::test::run(viewFiles).returned);
    std::string text = out();
    // Neither the "rm" nor any tail of the long lines runs; the next line does.
    EXPECT_EQ(text.substr(text.find("/> ")), "/> line too long\r\n/> \r\nline too long\r\n/> /\r\n/> ");
}

TEST_F(FileShell, ShellLeavesWhenNobodyTypesAndKeepsTheWatchdogFed) {
    HibernateEnableExpClk(50000000);
    HibernateRTCEnable();
    wdog_init();
    uint32_t start = HibernateRTCGet();
    sim::test::Outcome o = sim::test::run(viewFiles);
    ASSERT_TRUE(o.returned) << "the watchdog bit";
    uint32_t waited = HibernateRTCGet() - start;
    EXPECT_GE(waited, FILE_SHELL_IDLE_S);
    EXPECT_LE(waited, FILE_SHELL_IDLE_S + 2);
    EXPECT_NE(out().find("no input, leaving the file shell"), std::string::npos);
}

// ---------------------------------------------------------------- on a card

void start_board(void) {
    test_board::start_clocks();
}

std::string run_tool(const std::string& command) {
    std::string text;
    FILE* p = popen(("TZ=UTC MTOOLS_SKIP_CHECK=1 " + command + " 2>&1").c_str(), "r");
    if (p == nullptr) {
        return text;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) {
        text.append(buf, n);
    }
    pclose(p);
    return text;
}

// A FAT32 card made on a PC, with files put there by mtools and the shell's work checked by them.
// Files are put on the card before the firmware first reads it: the mounted volume keeps sectors.
class ShellCard : public FileShell {
  protected:
    std::string dir;
    std::string image;

    void SetUp() override {
        FileShell::SetUp();
        ASSERT_TRUE(sim::test::run(start_board).returned);
        UARTEchoSet(false);
        char name[] = "/tmp/hxc3-shell-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        image = dir + "/card.img";
        ASSERT_EQ(system(("mkfs.fat -C -F 32 " + image + " 65536 >/dev/null").c_str()), 0);
        sim::sd_set_image(image);
        ASSERT_EQ(init_uSDCard(), 0u);
        sim::test::clear_console_output();
    }
    void TearDown() override {
        FileShell::TearDown();
        f_unmount("");
        sim::sd_set_image("");
        if (!dir.empty()) {
            EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
        }
    }
    // Copies text onto the card as card_name ("DIR/NAME.EXT"), dated `date` (UTC).
    void put_file(const std::string& card_name, const std::string& text,
                  const char* date = "2025-06-01 12:34:56") {
        std::string host = dir + "/upload";
        FILE* f = fopen(host.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        fwrite(text.data(), 1, text.size(), f);
        fclose(f);
        ASSERT_EQ(run_tool("touch -d '" + std::string(date) + "' " + host), "");
        ASSERT_EQ(run_tool("mcopy -m -o -i " + image + " " + host + " ::/" + card_name), "");
        remount();
    }
    void make_dir(const std::string& card_name) {
        ASSERT_EQ(run_tool("mmd -i " + image + " ::/" + card_name), "");
        remount();
    }
    // The mounted volume keeps sectors: after a change behind its back it is mounted afresh.
    static void remount() {
        f_unmount("");
        ASSERT_EQ(init_uSDCard(), 0u);
    }
    // Every path on the card, one a line, directories ending in "/".
    std::string card_tree() const { return run_tool("mdir -/ -b -i " + image + " ::/"); }
    std::string card_file(const std::string& card_name) const {
        return run_tool("mtype -i " + image + " ::/" + card_name);
    }
    bool card_is_clean() const { return system(("fsck.fat -n " + image + " >/dev/null 2>&1").c_str()) == 0; }
};

TEST_F(ShellCard, ListingShowsNamesSizesDatesAndFreeSpace) {
    put_file("DATA.TXT", std::string(1234, 'd'));
    put_file("DF384.CAL", "cal\r\n", "2024-12-31 23:59:58");
    make_dir("LOGS");
    put_file("LOGS/A.TXT", "a");

    EXPECT_EQ(shell("ls"), 0);
    std::string text = out();
    EXPECT_NE(text.find("2025/06/01 12:34       1234  DATA.TXT\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("2024/12/31 23:59          5  DF384.CAL\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("     <DIR>  LOGS\r\n"), std::string::npos) << text;
    // The free space agrees with what a PC reads from the card.
    std::string mdir = run_tool("mdir -i " + image + " ::/");
    std::string digits;
    for (char c :
         mdir.substr(0, mdir.find(" bytes free")).substr(mdir.rfind('\n', mdir.find(" bytes free")))) {
        if (c >= '0' && c <= '9') {
            digits += c;
        }
    }
    unsigned long free_kb = std::stoul(digits) / 1024;
    EXPECT_NE(
        text.find("   2 file(s), 1239 bytes\r\n   1 dir(s), " + std::to_string(free_kb) + " KB free\r\n"),
        std::string::npos)
        << text << mdir;

    clear_out();
    EXPECT_EQ(shell("ls logs"), 0);
    text = out();
    EXPECT_NE(text.find("          1  A.TXT\r\n   1 file(s), 1 bytes\r\n   0 dir(s), "), std::string::npos)
        << text;
    EXPECT_EQ(text.find(" .\r\n"), std::string::npos) << "no dot entries";

    clear_out();
    EXPECT_EQ(shell("ls nothere"), FR_NO_PATH);
    EXPECT_EQ(out(), "f_opendir error: FR_NO_PATH\r\n");
}

TEST_F(ShellCard, CatSendsTheFileAsStored) {
    std::string mixed;
    for (int i = 0; i < 20; i++) {
        mixed += "line " + std::to_string(i) + (i % 2 ? "\r\n" : "\n");
    }
    put_file("MIXED.TXT", mixed);
    put_file("TAIL.TXT", mixed + "no line end");
    put_file("BIG.TXT", std::string(20000, 'b'));

    EXPECT_EQ(shell("cat mixed.txt"), 0);
    EXPECT_EQ(out(), mixed);
    clear_out();
    EXPECT_EQ(shell("cat TAIL.TXT"), 0);
    EXPECT_EQ(out(), mixed + "no line end\r\n") << "the prompt still starts a line";
    clear_out();
    EXPECT_EQ(shell("cat none.txt"), FR_NO_FILE);
    EXPECT_EQ(out(), "f_open error: FR_NO_FILE\r\n");

    clear_out();
    sim::test::type("\x03");
    EXPECT_EQ(shell("cat big.txt"), 0);
    std::string text = out();
    EXPECT_LT(text.size(), 4000u) << "Ctrl-C stops the output";
    EXPECT_EQ(text.substr(text.size() - 4), "^C\r\n");
}

TEST_F(ShellCard, MakeRemoveAndRenameActAndReportRefusalsByName) {
    put_file("DATA.TXT", "data\r\n");
    put_file("OLD.TXT", "old\r\n");

    EXPECT_EQ(shell("mkdir logs"), 0);
    EXPECT_EQ(shell("mv data.txt logs"), 0) << "into an existing directory";
    EXPECT_EQ(shell("mv logs/data.txt /logs/day1.txt"), 0);
    EXPECT_EQ(shell("mv old.txt logs/2025.txt"), 0);
    EXPECT_EQ(out(), "");
    EXPECT_EQ(card_tree(), "::/LOGS/\n::/LOGS/DAY1.TXT\n::/LOGS/2025.TXT\n");
    EXPECT_EQ(card_file("LOGS/DAY1.TXT"), "data\r\n");

    EXPECT_EQ(shell("mkdir LOGS"), FR_EXIST);
    EXPECT_EQ(shell("mv logs/day1.txt logs/2025.txt"), FR_EXIST);
    EXPECT_EQ(shell("rm logs"), FR_DENIED);
    EXPECT_EQ(shell("rm gone.txt"), FR_NO_FILE);
    EXPECT_EQ(shell("mv gone.txt new.txt"), FR_NO_FILE);
    EXPECT_EQ(shell("mkdir nodir/sub"), FR_NO_PATH);
    EXPECT_EQ(out(), "f_mkdir error: FR_EXIST\r\n"
                     "f_rename error: FR_EXIST\r\n"
                     "f_unlink error: FR_DENIED\r\n"
                     "f_unlink error: FR_NO_FILE\r\n"
                     "f_rename error: FR_NO_FILE\r\n"
                     "f_mkdir error: FR_NO_PATH\r\n");
    clear_out();

    EXPECT_EQ(shell("mkdir logs/sub"), 0);
    EXPECT_EQ(shell("mv logs logs/sub"), SHELL_INVALID_ARG);
    EXPECT_EQ(out(), "mv: /LOGS cannot go into itself\r\n");

    EXPECT_EQ(shell("rm logs/sub"), 0);
    EXPECT_EQ(shell("rm logs/day1.txt"), 0);
    EXPECT_EQ(shell("rm logs/2025.txt"), 0);
    EXPECT_EQ(shell("rm logs"), 0);
    EXPECT_EQ(card_tree().find("LOGS"), std::string::npos);
    EXPECT_TRUE(card_is_clean());
}

TEST_F(ShellCard, CurrentDirectoryFollowsCdAndRelativePaths) {
    make_dir("A");
    make_dir("A/B");
    put_file("TOP.TXT", "top\r\n");
    put_file("A/B/LOW.TXT", "low\r\n");

    EXPECT_EQ(shell("cd a"), 0);
    EXPECT_EQ(shell("cd B"), 0);
    EXPECT_EQ(shell("pwd"), 0);
    EXPECT_EQ(shell("cat low.txt"), 0);
    EXPECT_EQ(shell("cat ../../top.txt"), 0);
    EXPECT_EQ(shell("cd .."), 0);
    EXPECT_EQ(shell("pwd"), 0);
    EXPECT_EQ(out(), "/A/B\r\nlow\r\ntop\r\n/A\r\n");
    clear_out();

    // The current directory and those above it stay; others can go.
    EXPECT_EQ(shell("rm /a"), SHELL_INVALID_ARG);
    EXPECT_EQ(shell("rm /"), SHELL_INVALID_ARG);
    EXPECT_EQ(shell("mv . /c"), SHELL_INVALID_ARG);
    EXPECT_EQ(shell("mv b/low.txt ../top2.txt"), 0);
    EXPECT_EQ(shell("rm b"), 0);
    EXPECT_EQ(out(), "rm: /A holds the current directory\r\nrm: / holds the current directory\r\n"
                     "mv: /A holds the current directory\r\n");
    EXPECT_EQ(card_file("TOP2.TXT"), "low\r\n");
    clear_out();

    // A file or a missing name is no directory to go to.
    EXPECT_EQ(shell("cd /top.txt"), FR_NO_PATH);
    EXPECT_EQ(shell("cd /x"), FR_NO_PATH);
    EXPECT_STREQ(file_shell_cwd(), "/A");
    EXPECT_EQ(shell("cd"), 0);
    EXPECT_STREQ(file_shell_cwd(), "/");
    EXPECT_EQ(out(), "f_opendir error: FR_NO_PATH\r\nf_opendir error: FR_NO_PATH\r\n");
    EXPECT_TRUE(card_is_clean());
}

TEST_F(ShellCard, TypedSessionWorksOnTheCard) {
    put_file("DATA.TXT", "x");
    sim::test::type("mkdir new\rmv data.txt new\rcd new\rls\rcd ..\rexit\r");
    ASSERT_TRUE(sim::test::run(viewFiles).returned);
    std::string text = out();
    EXPECT_NE(text.find("/> /> /> /NEW> 2025/06/01 12:34          1  DATA.TXT\r\n"), std::string::npos)
        << text;
    EXPECT_EQ(text.substr(text.size() - 9), "/NEW> /> ") << text;
    EXPECT_EQ(card_tree(), "::/NEW/\n::/NEW/DATA.TXT\n");
}

} // namespace
