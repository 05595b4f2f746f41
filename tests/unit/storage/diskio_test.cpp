// The card driver against the simulated card: initialisation of every kind of card, the addresses
// each kind is sent, block transfers, the control codes, bad requests, and the FAT time stamps.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "board/pinmux.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "sim_test.h"
#include "test_board.h"
#include "storage/fatfs/diskio.h"
#include "storage/microsd.h"

namespace {

constexpr uint64_t mib = 1024 * 1024;

void start_board(void) {
    test_board::start_clocks();
}

std::vector<uint8_t> pattern(uint32_t seed, size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; i++) {
        v[i] = static_cast<uint8_t>(seed * 31 + i * 7 + (i >> 8));
    }
    return v;
}

class DiskTest : public ::testing::Test {
  protected:
    std::string image;

    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(start_board).returned);
        char name[] = "/tmp/hxc3-diskio-XXXXXX";
        int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        image = name;
        resize(64 * mib);
    }
    void TearDown() override {
        sim::sd_set_image("");
        unlink(image.c_str());
    }

    // A new card of this size and kind in the slot.
    void insert(const char* type, uint64_t bytes = 64 * mib) {
        resize(bytes);
        sim::test::set_scenario("card.type", type);
        sim::test::set_scenario("card", "present");
    }
    void resize(uint64_t bytes) {
        ASSERT_EQ(truncate(image.c_str(), static_cast<off_t>(bytes)), 0);
        sim::sd_set_image(image);
    }
    std::vector<uint8_t> image_bytes(uint64_t offset, size_t n) {
        std::vector<uint8_t> v(n);
        int fd = open(image.c_str(), O_RDONLY);
        EXPECT_EQ(pread(fd, v.data(), n, static_cast<off_t>(offset)), static_cast<ssize_t>(n));
        close(fd);
        return v;
    }
    // The arguments of every `index` command the card took since the last clear.
    static std::vector<uint32_t> args_of(uint8_t index, bool app = false) {
        std::vector<uint32_t> args;
        for (const sim::SdCommand& c : sim::sd_commands()) {
            if (c.index == index && c.app == app) {
                args.push_back(c.arg);
            }
        }
        return args;
    }
};

TEST_F(DiskTest, EachKindOfCardInitialisesToItsType) {
    struct Case {
        const char* type;
        uint8_t card_type;
        uint32_t acmd41_arg; // 1: none sent
        bool cmd1;
        bool cmd16;
    };
    const Case cases[] = {
        {"sdhc", 6, 0x40000000, false, false}, {"sdsc", 2, 0x40000000, false, false},
        {"sdv1", 2, 0, false, true},           {"mmc", 1, 1, true, true},
        {"badv2", 0, 1, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        insert(c.type);
        sim::sd_clear_commands();
        DSTATUS st = disk_initialize(0);
        EXPECT_EQ(CardType, c.card_type);
        EXPECT_EQ(st & STA_NOINIT, c.card_type == 0 ? STA_NOINIT : 0);
        EXPECT_EQ(disk_status(0), st);
        ASSERT_FALSE(sim::sd_commands().empty());
        EXPECT_EQ(sim::sd_commands()[0].index, 0);
        EXPECT_EQ(args_of(8), std::vector<uint32_t>{0x1AA});
        std::vector<uint32_t> acmd41 = args_of(41, true);
        if (c.acmd41_arg == 1) {
            EXPECT_TRUE(acmd41.empty());
        } else {
            ASSERT_GE(acmd41.size(), 2u); // the card answers "still idle" a few times first
            EXPECT_EQ(acmd41.back(), c.acmd41_arg);
        }
        EXPECT_EQ(!args_of(1).empty(), c.cmd1);
        EXPECT_EQ(args_of(16), c.cmd16 ? std::vector<uint32_t>{512} : std::vector<uint32_t>{});
        uint8_t power[2] = {2, 0xEE};
        EXPECT_EQ(disk_ioctl(0, CTRL_POWER, power), RES_OK);
        EXPECT_EQ(power[1], c.card_type == 0 ? 0 : 1);
    }
}

TEST_F(DiskTest, AnEmptySlotLeavesTheDriveNotReady) {
    insert("sdhc");
    ASSERT_EQ(disk_initialize(0), 0);
    sim::test::set_scenario("card", "absent");
    EXPECT_EQ(disk_initialize(0), STA_NOINIT); // a card that worked before is gone
    EXPECT_EQ(CardType, 0);
    uint8_t buf[512];
    DWORD n = 0;
    EXPECT_EQ(disk_read(0, buf, 0, 1), RES_NOTRDY);
    EXPECT_EQ(disk_write(0, buf, 0, 1), RES_NOTRDY);
    EXPECT_EQ(disk_ioctl(0, CTRL_SYNC, nullptr), RES_NOTRDY);
    EXPECT_EQ(disk_ioctl(0, GET_SECTOR_COUNT, &n), RES_NOTRDY);
    uint8_t power[2] = {2, 0xEE}; // the power codes work regardless
    EXPECT_EQ(disk_ioctl(0, CTRL_POWER, power), RES_OK);
    EXPECT_EQ(power[1], 0);
    power[0] = 1;
    EXPECT_EQ(disk_ioctl(0, CTRL_POWER, power), RES_OK);
    power[0] = 2;
    EXPECT_EQ(disk_ioctl(0, CTRL_POWER, power), RES_OK);
    EXPECT_EQ(power[1], 1);
    power[0] = 0;
    EXPECT_EQ(disk_ioctl(0, CTRL_POWER, power), RES_OK);
    power[0] = 3;
    EXPECT_EQ(disk_ioctl(0, CTRL_POWER, power), RES_PARERR);
}

TEST_F(DiskTest, BadRequestsAreRefusedWithoutTouchingTheCard) {
    insert("sdhc");
    ASSERT_EQ(disk_initialize(0), 0);
    sim::sd_clear_commands();
    uint8_t buf[1024] = {};
    DWORD n = 0;
    EXPECT_EQ(disk_read(0, buf, 0, 0), RES_PARERR);
    EXPECT_EQ(disk_read(1, buf, 0, 1), RES_PARERR);
    EXPECT_EQ(disk_write(0, buf, 0, 0), RES_PARERR);
    EXPECT_EQ(disk_write(1, buf, 0, 1), RES_PARERR);
    EXPECT_EQ(disk_ioctl(1, GET_SECTOR_COUNT, &n), RES_PARERR);
    EXPECT_EQ(disk_ioctl(0, GET_BLOCK_SIZE, &n), RES_PARERR);
    EXPECT_EQ(disk_ioctl(0, CTRL_TRIM, &n), RES_PARERR);
    EXPECT_EQ(disk_status(1), STA_NOINIT);
    EXPECT_EQ(disk_initialize(1), STA_NOINIT);
    EXPECT_TRUE(sim::sd_commands().empty());
    EXPECT_EQ(disk_status(0), 0); // drive 0 is unaffected
}

// Both kinds land the same data at the same place; only the command arguments differ.
TEST_F(DiskTest, BlockAndByteAddressedCardsGetTheirOwnAddresses) {
    for (const char* type : {"sdhc", "sdsc", "sdv1", "mmc"}) {
        SCOPED_TRACE(type);
        bool block = std::strcmp(type, "sdhc") == 0;
        uint32_t unit = block ? 1 : 512;
        insert(type);
        resize(0);
        resize(64 * mib);
        ASSERT_EQ(disk_initialize(0), 0);
        sim::sd_clear_commands();

        std::vector<uint8_t> one = pattern(1, 512);
        std::vector<uint8_t> three = pattern(2, 3 * 512);
        ASSERT_EQ(disk_write(0, one.data(), 5, 1), RES_OK);
        ASSERT_EQ(disk_write(0, three.data(), 100, 3), RES_OK);
        EXPECT_EQ(args_of(24), std::vector<uint32_t>{5 * unit});
        EXPECT_EQ(args_of(25), std::vector<uint32_t>{100 * unit});
        // SD cards are told how many blocks follow; MMC cards do not know the command.
        bool mmc = std::strcmp(type, "mmc") == 0;
        EXPECT_EQ(args_of(23, true), mmc ? std::vector<uint32_t>{} : std::vector<uint32_t>{3});
        EXPECT_EQ(image_bytes(5 * 512, 512), one);
        EXPECT_EQ(image_bytes(100 * 512, 3 * 512), three);

        std::vector<uint8_t> back(4 * 512, 0);
        ASSERT_EQ(disk_read(0, back.data(), 5, 1), RES_OK);
        EXPECT_TRUE(std::equal(one.begin(), one.end(), back.begin()));
        ASSERT_EQ(disk_read(0, back.data(), 99, 4), RES_OK); // one unwritten sector, then the three
        EXPECT_TRUE(std::all_of(back.begin(), back.begin() + 512, [](uint8_t b) { return b == 0; }));
        EXPECT_TRUE(std::equal(three.begin(), three.end(), back.begin() + 512));
        EXPECT_EQ(args_of(17), std::vector<uint32_t>{5 * unit});
        EXPECT_EQ(args_of(18), std::vector<uint32_t>{99 * unit});
        EXPECT_EQ(args_of(12).size(), 1u);
        EXPECT_EQ(sim::stats().sd_reads, 5u);
        EXPECT_EQ(sim::stats().sd_writes, 4u);
        sim::stats() = sim::PeriodStats{};
    }
}

TEST_F(DiskTest, TransfersPastTheEndOfTheCardFail) {
    insert("sdhc", 8 * mib);
    ASSERT_EQ(disk_initialize(0), 0);
    std::vector<uint8_t> buf(2 * 512, 0x5A);
    EXPECT_EQ(disk_read(0, buf.data(), 16384, 1), RES_ERROR);
    EXPECT_EQ(disk_write(0, buf.data(), 16384, 1), RES_ERROR);
    EXPECT_EQ(disk_read(0, buf.data(), 16383, 2), RES_ERROR); // the second block does not exist
    EXPECT_EQ(disk_write(0, buf.data(), 16383, 2), RES_ERROR);
    EXPECT_EQ(disk_ioctl(0, CTRL_SYNC, nullptr), RES_OK); // and the card still works
    EXPECT_EQ(disk_read(0, buf.data(), 16383, 1), RES_OK);
}

TEST_F(DiskTest, SectorCountComesFromTheCsd) {
    struct Case {
        const char* type;
        uint64_t bytes;
        DWORD sectors;
        uint8_t csd_structure;
    };
    const Case cases[] = {
        {"sdhc", 256 * mib, 524288, 1},         // version 2: (C_SIZE + 1) << 10
        {"sdhc", 3 * mib + 4096, 6144, 1},      // rounded down to 512 KiB
        {"sdsc", 256 * mib, 524288, 0},         // version 1: C_SIZE 4095, C_SIZE_MULT 5
        {"sdv1", 2048 * mib, 4194304, 0},       // READ_BL_LEN 10
        {"sdv1", 4096 * mib - 512, 8386560, 0}, // READ_BL_LEN 11, rounded down
        {"mmc", 1 * mib + 2048, 2052, 2},       // C_SIZE_MULT 0, C_SIZE 512
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + std::to_string(c.bytes));
        insert(c.type, c.bytes);
        ASSERT_EQ(disk_initialize(0), 0);
        DWORD n = 0;
        WORD size = 0;
        uint8_t csd[16] = {};
        ASSERT_EQ(disk_ioctl(0, GET_SECTOR_COUNT, &n), RES_OK);
        EXPECT_EQ(n, c.sectors);
        ASSERT_EQ(disk_ioctl(0, GET_SECTOR_SIZE, &size), RES_OK);
        EXPECT_EQ(size, 512);
        ASSERT_EQ(disk_ioctl(0, MMC_GET_CSD, csd), RES_OK);
        EXPECT_EQ(csd[0] >> 6, c.csd_structure);
        EXPECT_EQ(csd[15] & 1, 1);
    }
}

TEST_F(DiskTest, RegistersReadThroughTheControlCodes) {
    insert("sdhc");
    ASSERT_EQ(disk_initialize(0), 0);
    uint8_t ocr[4] = {};
    uint8_t cid[16] = {};
    ASSERT_EQ(disk_ioctl(0, MMC_GET_OCR, ocr), RES_OK);
    EXPECT_EQ(ocr[0] & 0xC0, 0xC0); // powered up, high capacity
    ASSERT_EQ(disk_ioctl(0, MMC_GET_CID, cid), RES_OK);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(cid + 3), 5), "SIMSD");
    EXPECT_EQ(disk_ioctl(0, CTRL_SYNC, nullptr), RES_OK);

    insert("sdsc");
    ASSERT_EQ(disk_initialize(0), 0);
    ASSERT_EQ(disk_ioctl(0, MMC_GET_OCR, ocr), RES_OK);
    EXPECT_EQ(ocr[0] & 0xC0, 0x80); // byte addressed
}

// The socket has no write-protect switch: the driver learns it from the card's CSD when it starts
// the card, so nothing is sent to a card that would refuse it, and a card swapped for a writable one
// is writable again.
TEST_F(DiskTest, AProtectedCardIsKnownFromItsCsd) {
    insert("sdhc");
    sim::test::set_scenario("card", "protected");
    ASSERT_EQ(disk_initialize(0), STA_PROTECT);
    std::vector<uint8_t> buf = pattern(3, 2 * 512);
    EXPECT_EQ(disk_write(0, buf.data(), 10, 1), RES_WRPRT);
    EXPECT_EQ(disk_write(0, buf.data(), 10, 2), RES_WRPRT);
    EXPECT_EQ(image_bytes(10 * 512, 1024), std::vector<uint8_t>(1024, 0));
    EXPECT_EQ(disk_read(0, buf.data(), 10, 2), RES_OK);
    EXPECT_EQ(sim::stats().sd_writes, 0u);

    sim::test::set_scenario("card", "present");
    ASSERT_EQ(disk_initialize(0), 0);
    EXPECT_EQ(disk_write(0, buf.data(), 10, 1), RES_OK);
}

TEST_F(DiskTest, TimeStampsPackTheRtcAsUtc) {
    // 2026-03-15 13:45:59 UTC
    sim::test::reset_board(1773582359);
    DWORD t = get_fattime();
    EXPECT_EQ(t >> 25, 2026u - 1980u);
    EXPECT_EQ((t >> 21) & 0x0F, 3u);
    EXPECT_EQ((t >> 16) & 0x1F, 15u);
    EXPECT_EQ((t >> 11) & 0x1F, 13u);
    EXPECT_EQ((t >> 5) & 0x3F, 45u);
    EXPECT_EQ(t & 0x1F, 29u);          // two-second steps
    sim::test::reset_board(951825600); // 2000-02-29 12:00:00, a leap day
    EXPECT_EQ(get_fattime(), (20u << 25) | (2u << 21) | (29u << 16) | (12u << 11));
    sim::test::reset_board(4102444799u); // 2099-12-31 23:59:59
    EXPECT_EQ(get_fattime(), (119u << 25) | (12u << 21) | (31u << 16) | (23u << 11) | (59u << 5) | 29u);
    sim::test::reset_board(0); // a clock never set: the earliest FAT time
    EXPECT_EQ(get_fattime(), (1u << 21) | (1u << 16));
}

} // namespace
