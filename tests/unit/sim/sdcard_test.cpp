// The simulated microSD card spoken to frame by frame: what the driver never shows (SD mode before
// CMD0, CRC checks, illegal and misaligned commands, busy after a write, the error token past the
// end, write protection, removal), the power cut after the k-th write, and new card images.
#include "sim_test.h"
#include "test_board.h"

#include "board/pinmux.h"
#include "driverlib/gpio.h"
#include "driverlib/interrupt.h"
#include "driverlib/ssi.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "inc/hw_memmap.h"
#include "storage/fatfs/diskio.h"
#include "storage/fatfs/ff.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint64_t mib = 1024 * 1024;

uint8_t crc7(const uint8_t* data, size_t n) {
    uint8_t crc = 0;
    for (size_t i = 0; i < n; i++) {
        for (int bit = 7; bit >= 0; bit--) {
            bool feedback = (((data[i] >> bit) ^ (crc >> 6)) & 1) != 0;
            crc = static_cast<uint8_t>((crc << 1) & 0x7F);
            if (feedback) {
                crc ^= 0x09;
            }
        }
    }
    return crc;
}

void start_board(void) {
    test_board::start_clocks();
}

uint8_t xchg(uint8_t out) {
    uint32_t in = 0;
    SSIDataPut(SSI0_BASE, out);
    SSIDataGet(SSI0_BASE, &in);
    return static_cast<uint8_t>(in);
}

void select_card(bool on) {
    GPIOPinWrite(GPIO_PORTA_BASE, GPIO_PIN_3, on ? 0 : GPIO_PIN_3);
}

// A command frame with its correct CRC (or `crc`), then up to eight bytes for the answer. Returns
// the first byte with its top bit clear, 0xFF when none came; `delay` tells after how many bytes.
uint8_t command(uint8_t index, uint32_t arg, int crc = -1, int* delay = nullptr) {
    uint8_t frame[6] = {static_cast<uint8_t>(0x40 | index), static_cast<uint8_t>(arg >> 24),
                        static_cast<uint8_t>(arg >> 16),    static_cast<uint8_t>(arg >> 8),
                        static_cast<uint8_t>(arg),          0};
    frame[5] = crc >= 0 ? static_cast<uint8_t>(crc) : static_cast<uint8_t>((crc7(frame, 5) << 1) | 1);
    for (uint8_t b : frame) {
        xchg(b);
    }
    for (int n = 1; n <= 8; n++) {
        uint8_t r = xchg(0xFF);
        if (!(r & 0x80)) {
            if (delay) {
                *delay = n;
            }
            return r;
        }
    }
    return 0xFF;
}

std::vector<uint8_t> bytes(int n) {
    std::vector<uint8_t> v;
    for (int i = 0; i < n; i++) {
        v.push_back(xchg(0xFF));
    }
    return v;
}

class CardModel : public ::testing::Test {
  protected:
    std::string image;

    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(start_board).returned);
        image = test_board::make_blank_card("sdcard", 16 * mib);
        ASSERT_FALSE(image.empty());
        sim::sd_set_image(image);
    }
    void TearDown() override {
        sim::sd_set_image("");
        unlink(image.c_str());
    }

    // The port as the driver sets it up, without a word to the card.
    static void open_port() {
        uint8_t power[2] = {1, 0};
        ASSERT_EQ(disk_ioctl(0, CTRL_POWER, power), RES_OK);
    }
    // A card initialised by the driver, selected, at full speed.
    static void ready_card(const char* type, const char* slot = "present") {
        sim::test::set_scenario("card.type", type);
        sim::test::set_scenario("card", slot);
        ASSERT_EQ(disk_initialize(0) & STA_NOINIT, 0);
        select_card(true);
        bytes(2);
    }
    // Writes one block after a write command's R1 and returns the data response.
    static uint8_t send_block(uint8_t token, uint8_t fill) {
        xchg(0xFF);
        xchg(token);
        for (int i = 0; i < 512; i++) {
            xchg(fill);
        }
        xchg(0xFF);
        xchg(0xFF);
        return xchg(0xFF);
    }
    std::vector<uint8_t> sector_of_image(uint32_t sector) const {
        std::vector<uint8_t> v(512);
        int fd = open(image.c_str(), O_RDONLY);
        EXPECT_EQ(pread(fd, v.data(), 512, static_cast<off_t>(sector) * 512), 512);
        close(fd);
        return v;
    }
};

TEST_F(CardModel, TheCardWaitsInSdModeForCmd0WithItsCrc) {
    open_port();
    select_card(true);
    EXPECT_EQ(command(8, 0x1AA), 0xFF);   // in SD mode the card answers on another line
    EXPECT_EQ(command(0, 0, 0xFF), 0xFF); // a CMD0 with a wrong CRC is not taken
    int delay = 0;
    EXPECT_EQ(command(0, 0, 0x95, &delay), 0x01); // the driver's fixed CRC is the right one
    EXPECT_EQ(delay, 2);                          // one filler byte, then R1
    EXPECT_EQ(command(8, 0x1AA, 0xFF), 0x09);     // CMD8's CRC is checked in SPI mode too
    EXPECT_EQ(command(8, 0x1AA, 0x87), 0x01);
    EXPECT_EQ(bytes(4), (std::vector<uint8_t>{0x00, 0x00, 0x01, 0xAA}));
    EXPECT_EQ(command(17, 0), 0x05); // idle: data commands are illegal
    EXPECT_EQ(command(9, 0), 0x05);
}

TEST_F(CardModel, AHighCapacityCardNeedsCmd8AndHcsToGetReady) {
    open_port();
    select_card(true);
    ASSERT_EQ(command(0, 0), 0x01);
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(command(55, 0), 0x01);
        ASSERT_EQ(command(41, 0x40000000), 0x01); // no CMD8 yet: the host would not understand it
    }
    ASSERT_EQ(command(8, 0x1AA), 0x01);
    bytes(4);
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(command(55, 0), 0x01);
        ASSERT_EQ(command(41, 0), 0x01); // no HCS
    }
    int tries = 0;
    uint8_t r = 0x01;
    while (r == 0x01 && tries < 20) {
        command(55, 0);
        r = command(41, 0x40000000);
        tries++;
    }
    EXPECT_EQ(r, 0x00);
    EXPECT_GT(tries, 1);
    EXPECT_EQ(command(58, 0), 0x00);
    EXPECT_EQ(bytes(4), (std::vector<uint8_t>{0xC0, 0xFF, 0x80, 0x00}));
}

TEST_F(CardModel, TheBadCardEchoesAWrongPatternAndV1CardsDoNotKnowCmd8) {
    sim::test::set_scenario("card.type", "badv2");
    open_port();
    select_card(true);
    ASSERT_EQ(command(0, 0), 0x01);
    ASSERT_EQ(command(8, 0x1AA), 0x01);
    EXPECT_EQ(bytes(4), (std::vector<uint8_t>{0x00, 0x00, 0x01, 0x55}));
    select_card(false);
    for (const char* type : {"sdv1", "mmc"}) {
        sim::test::set_scenario("card.type", type);
        sim::test::set_scenario("card", "present");
        select_card(true);
        ASSERT_EQ(command(0, 0), 0x01);
        EXPECT_EQ(command(8, 0x1AA), 0x05) << type;
        select_card(false);
    }
    select_card(true); // an MMC card does not know application commands either
    EXPECT_EQ(command(55, 0), 0x05);
}

TEST_F(CardModel, AddressesMustBeAlignedAndOnTheCard) {
    ready_card("sdsc");
    EXPECT_EQ(command(17, 100), 0x20); // address error
    EXPECT_EQ(command(24, 513), 0x20);
    EXPECT_EQ(command(17, 16 * mib), 0x40); // parameter error: past the end
    EXPECT_EQ(command(17, 16 * mib - 512), 0x00);
    select_card(false);

    ready_card("sdhc"); // 16 MiB: 32768 sectors, addressed by number
    EXPECT_EQ(command(18, 32768), 0x40);
    EXPECT_EQ(command(24, 32768), 0x40);
}

TEST_F(CardModel, AWrittenBlockIsAcknowledgedThenTheCardIsBusy) {
    ready_card("sdhc");
    ASSERT_EQ(command(24, 3), 0x00);
    EXPECT_EQ(send_block(0xFE, 0xA5), 0x05);
    EXPECT_EQ(sector_of_image(3), std::vector<uint8_t>(512, 0xA5));
    EXPECT_EQ(sim::stats().sd_writes, 1u);
    uint64_t t0 = sim::now_ns();
    EXPECT_EQ(xchg(0xFF), 0x00);
    EXPECT_EQ(command(13, 0), 0x00); // still busy: the command is not taken, the line stays low
    int busy = 0;
    while (xchg(0xFF) == 0x00 && busy < 100000) {
        busy++;
    }
    EXPECT_GE(sim::now_ns() - t0, 200000u); // programming takes a while
    EXPECT_EQ(command(13, 0), 0x00);
    EXPECT_EQ(xchg(0xFF), 0x00); // no error to report
}

TEST_F(CardModel, AMultipleBlockReadPastTheEndEndsInTheErrorToken) {
    ready_card("sdhc");
    ASSERT_EQ(command(18, 32767), 0x00);
    uint8_t token = 0xFF;
    for (int i = 0; i < 1000 && token == 0xFF; i++) {
        token = xchg(0xFF);
    }
    ASSERT_EQ(token, 0xFE);
    bytes(512 + 2);
    token = 0xFF;
    for (int i = 0; i < 1000 && token == 0xFF; i++) {
        token = xchg(0xFF);
    }
    EXPECT_EQ(token, 0x08); // out of range
    EXPECT_EQ(sim::stats().sd_reads, 1u);
    EXPECT_EQ(command(13, 0), 0x00);
    EXPECT_EQ(xchg(0xFF), 0x80); // out of range, reported once
    EXPECT_EQ(command(13, 0), 0x00);
    EXPECT_EQ(xchg(0xFF), 0x00);
}

TEST_F(CardModel, AProtectedCardRefusesEveryBlockAndSaysWhy) {
    ready_card("sdhc", "protected");
    ASSERT_EQ(command(24, 1), 0x00);
    EXPECT_EQ(send_block(0xFE, 0x11), 0x0D); // write error
    EXPECT_EQ(command(13, 0), 0x00);
    EXPECT_EQ(xchg(0xFF), 0x20); // write-protect violation
    ASSERT_EQ(command(25, 1), 0x00);
    EXPECT_EQ(send_block(0xFC, 0x11), 0x0D);
    EXPECT_EQ(send_block(0xFC, 0x11), 0x0D);
    xchg(0xFD);
    EXPECT_EQ(sector_of_image(1), std::vector<uint8_t>(512, 0));
    EXPECT_EQ(sector_of_image(2), std::vector<uint8_t>(512, 0));
    EXPECT_EQ(sim::stats().sd_writes, 0u);
}

TEST_F(CardModel, ARemovedCardFloatsHighAndComesBackInSdMode) {
    ready_card("sdhc");
    ASSERT_EQ(command(13, 0), 0x00);
    bytes(1);
    select_card(false);
    sim::test::set_scenario("card", "absent");
    select_card(true);
    EXPECT_EQ(bytes(4), std::vector<uint8_t>(4, 0xFF));
    EXPECT_EQ(command(0, 0), 0xFF);
    select_card(false);
    sim::test::set_scenario("card", "present");
    select_card(true);
    EXPECT_EQ(command(13, 0), 0xFF); // a fresh card in SD mode
    EXPECT_EQ(command(0, 0), 0x01);
}

TEST_F(CardModel, ThePowerGoesRightAfterTheKthWrite) {
    sim::sd_cut_power_after_writes(3);
    sim::test::Outcome o = sim::test::run([] {
        ASSERT_EQ(disk_initialize(0), 0);
        static uint8_t block[512];
        for (uint8_t s = 0; s < 5; s++) {
            std::fill(block, block + 512, static_cast<uint8_t>(s + 1));
            disk_write(0, block, s, 1);
        }
    });
    EXPECT_FALSE(o.returned);
    EXPECT_EQ(o.event, sim::PowerEvent::power_cycle);
    for (uint32_t s = 0; s < 5; s++) {
        EXPECT_EQ(sector_of_image(s), std::vector<uint8_t>(512, s < 3 ? s + 1 : 0)) << s;
    }
}

TEST_F(CardModel, NewImagesAreSparseAndFormattedByTheFirmware) {
    std::string path = image + ".new";
    ASSERT_TRUE(sim::sd_make_image(path, 64 * mib, FM_FAT32));
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, static_cast<off_t>(64 * mib));
    EXPECT_LT(st.st_blocks * 512, static_cast<off_t>(8 * mib));
    char type[8] = {};
    int fd = open(path.c_str(), O_RDONLY);
    EXPECT_EQ(pread(fd, type, sizeof type, 82), 8); // the FAT32 boot sector's file system type
    close(fd);
    EXPECT_EQ(std::string(type, 8), "FAT32   ");
    std::string check = "fsck.fat -n " + path + " >/dev/null 2>&1";
    EXPECT_EQ(std::system(check.c_str()), 0);
    unlink(path.c_str());
    EXPECT_FALSE(sim::sd_make_image("/nonexistent/dir/card.img", mib, FM_FAT32));
}

} // namespace
