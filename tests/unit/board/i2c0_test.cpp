// The I2C0 transfers every chip on the bus goes through, seen from a chip that writes down each frame:
// the chip's addressing bytes before the data, the repeated start of a read and its unacknowledged
// last byte, one stop per frame, a refusal at any byte ending the frame with the bus free, and the
// interrupt mask masked during the frame and given back as it was found.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "board/i2c0.h"
#include "board/i2c0_reg.h"
#include "devices.h"
#include "driverlib/i2c.h"
#include "driverlib/interrupt.h"
#include "inc/hw_memmap.h"
#include "sim_test.h"
#include "storage/i2c_fram.h"

namespace {

constexpr uint8_t chip_addr = 0x2A; // no chip of the board answers here

// Writes down what it sees as words: "start/w" or "restart/r" (a start without a stop before it),
// each byte written in hex, "ack"/"nack" for each byte read as the master answered it, "stop". A
// refused address or byte is marked with "!". Bytes read are 0xA0, 0xA1, ... from each start.
class RecordingChip : public sim::dev::I2cDevice {
  public:
    bool present = false;
    bool refuse_read = false;
    uint32_t ack_bytes = 1000; // bytes of a frame acknowledged before the chip refuses
    bool saw_unmasked = false; // interrupts were enabled during some part of a frame
    std::string log;

    void clear() {
        present = true;
        refuse_read = false;
        ack_bytes = 1000;
        saw_unmasked = false;
        log.clear();
        in_frame_ = false;
        selected_ = false;
    }

    bool start(uint8_t address, bool read) override {
        selected_ = false;
        if (address != chip_addr) {
            return false;
        }
        note_mask();
        const bool acked = present && !(read && refuse_read);
        add(std::string(in_frame_ ? "restart/" : "start/") + (read ? "r" : "w") + (acked ? "" : "!"));
        in_frame_ = true;
        selected_ = acked;
        written_ = 0;
        next_read_ = 0xA0;
        return acked;
    }

    bool write(uint8_t byte) override {
        if (!selected_) {
            return false;
        }
        note_mask();
        const bool acked = written_ < ack_bytes;
        char hex[4];
        snprintf(hex, sizeof hex, "%02x", byte);
        add(std::string(hex) + (acked ? "" : "!"));
        written_++;
        return acked;
    }

    uint8_t read(bool ack) override {
        note_mask();
        add(ack ? "ack" : "nack");
        return next_read_++;
    }

    void stop() override {
        if (in_frame_) {
            note_mask();
            add("stop");
        }
        in_frame_ = false;
        selected_ = false;
    }

  private:
    void add(const std::string& word) { log += log.empty() ? word : " " + word; }
    void note_mask() { saw_unmasked = saw_unmasked || !sim::int_masked(); }

    bool in_frame_ = false;
    bool selected_ = false;
    uint32_t written_ = 0;
    uint8_t next_read_ = 0xA0;
};

RecordingChip chip;

class I2c0 : public ::testing::Test {
  protected:
    void SetUp() override {
        static bool attached = false;
        if (!attached) {
            sim::dev::i2c_attach(&chip);
            attached = true;
        }
        sim::test::reset_board();
        i2c0_init(0);
        chip.clear();
    }
    void TearDown() override { chip.present = false; }

    // The frame the chip saw since the last call.
    static std::string frame() {
        std::string f = chip.log;
        chip.log.clear();
        return f;
    }
};

TEST_F(I2c0, WritesSendTheChipsAddressingThenTheDataInOneFrame) {
    const uint8_t data[3] = {0x01, 0x02, 0x03};
    EXPECT_EQ(i2c0_reg_write(chip_addr, 0x10, data, 3), 0);
    EXPECT_EQ(frame(), "start/w 10 01 02 03 stop");
    EXPECT_EQ(i2c0_reg_write(chip_addr, 0x11, nullptr, 0), 0);
    EXPECT_EQ(frame(), "start/w 11 stop");

    const uint8_t at[2] = {0x12, 0x34};
    EXPECT_EQ(i2c0_write(chip_addr, at, 2, data, 1), 0);
    EXPECT_EQ(frame(), "start/w 12 34 01 stop");
    EXPECT_EQ(i2c0_write(chip_addr, nullptr, 0, data, 2), 0);
    EXPECT_EQ(frame(), "start/w 01 02 stop");
    EXPECT_EQ(i2c0_write(chip_addr, at, 0, data, 0), 0);
    EXPECT_EQ(frame(), "");
    EXPECT_FALSE(chip.saw_unmasked);
}

TEST_F(I2c0, ReadsRestartAfterTheirAddressingAndLeaveTheLastByteUnacknowledged) {
    struct Case {
        std::vector<uint8_t> head;
        uint32_t len;
        const char* frame;
    };
    const Case cases[] = {
        {{0x20}, 3, "start/w 20 restart/r ack ack nack stop"},
        {{0x20}, 1, "start/w 20 restart/r nack stop"},
        {{0x01, 0x02}, 2, "start/w 01 02 restart/r ack nack stop"},
        {{}, 2, "start/r ack nack stop"},
        {{0x20}, 0, ""},
    };
    for (const Case& c : cases) {
        uint8_t buf[4] = {0xEE, 0xEE, 0xEE, 0xEE};
        EXPECT_EQ(i2c0_read(chip_addr, c.head.data(), static_cast<uint32_t>(c.head.size()), buf, c.len), 0);
        EXPECT_EQ(frame(), c.frame);
        for (uint32_t i = 0; i < 4; i++) {
            EXPECT_EQ(buf[i], i < c.len ? 0xA0 + i : 0xEE) << c.frame << " byte " << i;
        }
    }
    uint8_t b = 0;
    EXPECT_EQ(i2c0_reg_read(chip_addr, 0x33, &b, 1), 0);
    EXPECT_EQ(frame(), "start/w 33 restart/r nack stop");
    EXPECT_EQ(b, 0xA0);
    EXPECT_FALSE(chip.saw_unmasked);
}

// Wherever the chip refuses, nothing more goes to it, the frame ends with one stop, the read buffer
// keeps its bytes, and the bus is free for the next chip.
TEST_F(I2c0, ARefusalEndsTheFrameThereAndFreesTheBus) {
    struct Case {
        const char* what;
        bool present;
        bool refuse_read;
        uint32_t ack_bytes;
        bool read;
        uint32_t len;
        const char* frame;
    };
    const Case cases[] = {
        {"absent, write", false, false, 1000, false, 3, "start/w! stop"},
        {"absent, pointer only", false, false, 1000, false, 0, "start/w! stop"},
        {"absent, read", false, false, 1000, true, 2, "start/w! stop"},
        {"pointer refused", true, false, 0, false, 2, "start/w 10! stop"},
        {"middle byte refused", true, false, 2, false, 3, "start/w 10 01 02! stop"},
        {"last byte refused", true, false, 3, false, 3, "start/w 10 01 02 03! stop"},
        {"pointer refused, read", true, false, 0, true, 2, "start/w 10! stop"},
        {"read address refused", true, true, 1000, true, 2, "start/w 10 restart/r! stop"},
        {"read address refused, one byte", true, true, 1000, true, 1, "start/w 10 restart/r! stop"},
    };
    const uint8_t data[3] = {0x01, 0x02, 0x03};
    for (const Case& c : cases) {
        chip.present = c.present;
        chip.refuse_read = c.refuse_read;
        chip.ack_bytes = c.ack_bytes;
        uint8_t buf[3] = {0xEE, 0xEE, 0xEE};
        const int32_t r = c.read ? i2c0_reg_read(chip_addr, 0x10, buf, c.len)
                                 : i2c0_reg_write(chip_addr, 0x10, data, c.len);
        EXPECT_EQ(r, -1) << c.what;
        EXPECT_EQ(frame(), c.frame) << c.what;
        EXPECT_EQ(buf[0], 0xEE) << c.what;
        EXPECT_FALSE(I2CMasterBusBusy(I2C0_BASE)) << c.what;
        EXPECT_EQ(fram_probe(), FRAM_PROBE_OK) << c.what;
    }
    EXPECT_FALSE(chip.saw_unmasked);

    // A chip that refused once answers the next frame.
    chip.clear();
    EXPECT_EQ(i2c0_reg_write(chip_addr, 0x10, data, 1), 0);
    EXPECT_EQ(frame(), "start/w 10 01 stop");
}

TEST_F(I2c0, TheInterruptMaskIsGivenBackAsItWasFound) {
    const uint8_t data[2] = {0x01, 0x02};
    uint8_t buf[2];
    for (bool masked : {false, true}) {
        for (bool present : {true, false}) {
            chip.present = present;
            const char* what = present ? "answered" : "refused";
            if (masked) {
                IntMasterDisable();
            } else {
                IntMasterEnable();
            }
            i2c0_reg_write(chip_addr, 0x10, data, sizeof data);
            EXPECT_EQ(sim::int_masked(), masked) << "write, " << what;
            i2c0_reg_read(chip_addr, 0x10, buf, sizeof buf);
            EXPECT_EQ(sim::int_masked(), masked) << "read, " << what;
        }
    }
    EXPECT_FALSE(chip.saw_unmasked);
}

} // namespace
