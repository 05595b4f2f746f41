// The card routines of the data logger: detection, the delayed mount, appending to the data file
// with and without a card, printf to a file, and the result names in messages.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "board/pinmux.h"
#include "records/system.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"
#include "storage/microsd.h"

namespace {

using test_board::run_shell;

void start_board(void) {
    test_board::start_clocks();
}

class MicroSdTest : public ::testing::Test {
  protected:
    std::string image;

    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(start_board).returned);
        set_file_name("DATA.TXT");
        sim::test::clear_console_output();
    }
    void TearDown() override {
        sim::sd_set_image("");
        if (!image.empty()) {
            unlink(image.c_str());
        }
    }
    // A 32 MiB FAT16 card made on a PC.
    void insert_pc_card() {
        char name[] = "/tmp/hxc3-microsd-XXXXXX";
        int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        image = name;
        unlink(name);
        std::string make = "mkfs.fat -C -F 16 " + image + " 32768 >/dev/null";
        ASSERT_EQ(std::system(make.c_str()), 0);
        sim::sd_set_image(image);
    }
    static void set_file_name(const char* name) {
        std::memset(sys_data.fileName, 0, sizeof sys_data.fileName);
        std::memcpy(sys_data.fileName, name, std::strlen(name));
    }
    static std::string out() {
        wait_consoleTx();
        sim::test::drain_console();
        return sim::test::console_output();
    }
    std::string card_file(const char* name) const {
        return run_shell("MTOOLS_SKIP_CHECK=1 mtype -i " + image + " ::" + name + " 2>&1");
    }
};

TEST_F(MicroSdTest, WithoutACardEveryStepOfAnAppendIsReportedAndAttempted) {
    EXPECT_EQ(uSD_present(), 0u);
    EXPECT_EQ(init_uSDCard(), 0u); // the mount waits for the first file access
    appendBufferToSDCard("12.5\t8.01\r\n");
    EXPECT_EQ(out(), "f_open error: FR_NOT_READY\r\n"
                     "f_lseek error: FR_INVALID_OBJECT\r\n"
                     "f_write error: FR_INVALID_OBJECT\r\n"
                     "f_close error: FR_INVALID_OBJECT\r\n");
}

TEST_F(MicroSdTest, AppendsGoToTheEndOfTheDataFile) {
    insert_pc_card();
    EXPECT_EQ(uSD_present(), 1u);
    ASSERT_EQ(init_uSDCard(), 0u);
    appendBufferToSDCard("first line\r\n");
    appendBufferToSDCard("second line\r\n");
    set_file_name("OTHER.TXT");
    appendBufferToSDCard("elsewhere\r\n");
    EXPECT_EQ(out(), "");
    EXPECT_EQ(card_file("DATA.TXT"), "first line\r\nsecond line\r\n");
    EXPECT_EQ(card_file("OTHER.TXT"), "elsewhere\r\n");
    std::string fsck = "fsck.fat -n " + image + " >/dev/null 2>&1";
    EXPECT_EQ(std::system(fsck.c_str()), 0);
}

// A file name that fills the field without a terminating zero is still a bounded name.
TEST_F(MicroSdTest, AFileNameWithoutItsZeroIsCutAtTheField) {
    insert_pc_card();
    ASSERT_EQ(init_uSDCard(), 0u);
    std::memset(sys_data.fileName, 'A', sizeof sys_data.fileName);
    appendBufferToSDCard("x\r\n");
    EXPECT_EQ(out(), "f_open error: FR_INVALID_NAME\r\n"
                     "f_lseek error: FR_INVALID_OBJECT\r\n"
                     "f_write error: FR_INVALID_OBJECT\r\n"
                     "f_close error: FR_INVALID_OBJECT\r\n");
}

TEST_F(MicroSdTest, PrintfToAFileIsBoundedAndReportsFailures) {
    insert_pc_card();
    ASSERT_EQ(init_uSDCard(), 0u);
    FIL fil{};
    ASSERT_EQ(f_open(&fil, "LOG.TXT", FA_WRITE | FA_OPEN_ALWAYS), FR_OK);
    EXPECT_EQ(sd_fprintf(&fil, "// %s:\t%u\r\n", "Samples", 42u), FR_OK);
    std::string wide(2000, 'w');
    EXPECT_EQ(sd_fprintf(&fil, "%s", wide.c_str()), FR_OK);
    ASSERT_EQ(f_close(&fil), FR_OK);
    EXPECT_EQ(card_file("LOG.TXT"), "// Samples:\t42\r\n" + std::string(sd_fprintf_max - 1, 'w'));
    EXPECT_EQ(sd_fprintf(&fil, "closed\r\n"), FR_INVALID_OBJECT);
    EXPECT_EQ(out(), "f_write error: FR_INVALID_OBJECT\r\n");
}

TEST_F(MicroSdTest, ResultNamesForMessages) {
    EXPECT_STREQ(StringFromFresult(FR_OK), "FR_OK");
    EXPECT_STREQ(StringFromFresult(FR_NO_FILESYSTEM), "FR_NO_FILESYSTEM");
    EXPECT_STREQ(StringFromFresult(FR_INVALID_PARAMETER), "FR_INVALID_PARAMETER");
    EXPECT_STREQ(StringFromFresult(static_cast<FRESULT>(20)), "UNKNOWN ERROR CODE");
}

} // namespace
