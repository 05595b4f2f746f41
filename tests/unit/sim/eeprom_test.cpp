// The simulated on-chip EEPROM: word round trips, the cost of programming, and what becomes of
// words written past the end of the 2 KiB device; through the TivaWare calls and through the
// controller's block, offset and data registers.
#include "registers.h"
#include "runtime.h"
#include "sim_test.h"

#include "driverlib/eeprom.h"
#include "driverlib/sysctl.h"
#include "inc/hw_eeprom.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"
#include "storage/settings.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace {

// A new power-on period with the controller's clock on, as retrieveSysDataVariables starts it.
void power_on() {
    sim::test::power_on(sim::WakeSource::power);
    SysCtlPeripheralEnable(SYSCTL_PERIPH_EEPROM0);
}

class EepromTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        SysCtlPeripheralEnable(SYSCTL_PERIPH_EEPROM0);
    }
};

TEST_F(EepromTest, ProgramThenReadReturnsTheWordsAndTheBytesSitInTheImage) {
    ASSERT_EQ(EEPROMInit(), static_cast<uint32_t>(EEPROM_INIT_OK));
    EXPECT_EQ(EEPROMSizeGet(), 2048u);

    std::array<uint32_t, 4> out = {0x11223344, 0xdeadbeef, 0, 0xffffffff};
    EXPECT_EQ(EEPROMProgram(out.data(), 1024, sizeof out), 0u);
    std::array<uint32_t, 4> in{};
    EEPROMRead(in.data(), 1024, sizeof in);
    EXPECT_EQ(in, out);

    uint32_t first = 0;
    std::memcpy(&first, sim::eeprom_bytes() + 1024, 4);
    EXPECT_EQ(first, 0x11223344u);
}

TEST_F(EepromTest, ProgrammingTakesTheWordWriteTimeAndSurvivesPowerCycles) {
    std::array<uint32_t, 10> out{};
    for (size_t i = 0; i < out.size(); ++i) {
        out[i] = static_cast<uint32_t>(i * 0x01010101u);
    }
    uint64_t t0 = sim::now_ns();
    EEPROMProgram(out.data(), 0, sizeof out);
    uint64_t spent = sim::now_ns() - t0;
    EXPECT_GE(spent, 10 * 110000u);
    EXPECT_LT(spent, 10 * 120000u);

    power_on();
    std::array<uint32_t, 10> in{};
    EEPROMRead(in.data(), 0, sizeof in);
    EXPECT_EQ(in, out);
}

// A record that runs past the end: the part inside the device persists; the tail reads back while
// the power stays on and is gone after the next power-on.
TEST_F(EepromTest, WordsPastTheEndLastOnlyUntilThePowerGoes) {
    constexpr uint32_t address = 1024;
    constexpr uint32_t length = 1352; // ends 328 bytes past the device
    std::array<uint8_t, length> out{};
    for (uint32_t i = 0; i < length; ++i) {
        out[i] = static_cast<uint8_t>(i * 7 + 1);
    }
    std::array<uint32_t, length / 4> words{};
    std::memcpy(words.data(), out.data(), length);
    EEPROMProgram(words.data(), address, length);

    std::array<uint32_t, length / 4> back{};
    EEPROMRead(back.data(), address, length);
    EXPECT_EQ(std::memcmp(back.data(), out.data(), length), 0);

    power_on();
    back.fill(0xa5a5a5a5);
    EEPROMRead(back.data(), address, length);
    const uint8_t* got = reinterpret_cast<const uint8_t*>(back.data());
    EXPECT_EQ(std::memcmp(got, out.data(), 2048 - address), 0);
    for (uint32_t i = 2048 - address; i < length; ++i) {
        ASSERT_EQ(got[i], 0) << "byte " << i;
    }
}

TEST_F(EepromTest, AddressesFarBeyondTheDeviceNeitherCrashNorStoreAnything) {
    uint32_t w = 0x12345678;
    EXPECT_EQ(EEPROMProgram(&w, 0xfffffffc, 4), 0u);
    EEPROMProgram(&w, 8192, 4);
    uint32_t r = 1;
    EEPROMRead(&r, 0xfffffffc, 4);
    EXPECT_EQ(r, 0u);
    EEPROMRead(&r, 8192, 4);
    EXPECT_EQ(r, 0u);
    for (uint32_t i = 0; i < sim::eeprom_size; ++i) {
        ASSERT_EQ(sim::eeprom_bytes()[i], 0) << "byte " << i;
    }
}

TEST_F(EepromTest, MassEraseLeavesEveryByteErased) {
    uint32_t w = 0;
    EEPROMProgram(&w, 100, 4);
    EXPECT_EQ(EEPROMMassErase(), 0u);
    uint32_t r = 0;
    EEPROMRead(&r, 100, 4);
    EXPECT_EQ(r, 0xffffffffu);
    EXPECT_EQ(sim::eeprom_bytes()[2047], 0xff);
}

// ---------------------------------------------------------------- register door

constexpr uint64_t word_program_ns = 110000;

uint32_t reg(uint32_t address) {
    return sim::dev::eeprom_reg_read(address - EEPROM_BASE);
}

void set_reg(uint32_t address, uint32_t value) {
    sim::dev::eeprom_reg_write(address - EEPROM_BASE, value);
}

uint32_t word_at(uint32_t address) {
    uint32_t w = 0;
    std::memcpy(&w, sim::eeprom_bytes() + address, 4);
    return w;
}

// Programs one word through the auto-incrementing register and checks the busy flag for exactly
// the word's program time.
void program_next(uint32_t value) {
    uint64_t t0 = sim::now_ns();
    set_reg(EEPROM_EERDWRINC, value);
    EXPECT_EQ(sim::now_ns(), t0) << "no time passes in the register door";
    EXPECT_EQ(reg(EEPROM_EEDONE), static_cast<uint32_t>(EEPROM_EEDONE_WORKING));
    sim::advance_ns(word_program_ns - 1);
    EXPECT_EQ(reg(EEPROM_EEDONE), static_cast<uint32_t>(EEPROM_EEDONE_WORKING));
    sim::advance_ns(1);
    EXPECT_EQ(reg(EEPROM_EEDONE), 0u);
}

TEST_F(EepromTest, RegisterProgramAndReadBackWrapWithinTheBlock) {
    EXPECT_EQ(reg(EEPROM_EESIZE), (32u << 16) | 512u) << "512 words in 32 blocks";
    set_reg(EEPROM_EEBLOCK, 3);
    set_reg(EEPROM_EEOFFSET, 14);
    program_next(0x11111111);
    program_next(0x22222222);
    program_next(0x33333333); // the offset wrapped to the block's first word
    EXPECT_EQ(reg(EEPROM_EEBLOCK), 3u);
    EXPECT_EQ(reg(EEPROM_EEOFFSET), 1u);

    constexpr uint32_t block3 = 3 * 64;
    EXPECT_EQ(word_at(block3 + 56), 0x11111111u);
    EXPECT_EQ(word_at(block3 + 60), 0x22222222u);
    EXPECT_EQ(word_at(block3), 0x33333333u);
    EXPECT_EQ(word_at(block3 + 64), 0u) << "the next block is never reached by the increment";

    set_reg(EEPROM_EEOFFSET, 15);
    EXPECT_EQ(reg(EEPROM_EERDWRINC), 0x22222222u);
    EXPECT_EQ(reg(EEPROM_EERDWRINC), 0x33333333u);
    EXPECT_EQ(reg(EEPROM_EERDWR), 0u) << "word 1, not incremented by a plain read";
    EXPECT_EQ(reg(EEPROM_EEOFFSET), 1u);

    uint32_t back[2] = {};
    EEPROMRead(back, block3 + 56, sizeof back);
    EXPECT_EQ(back[0], 0x11111111u);
    EXPECT_EQ(back[1], 0x22222222u);
}

TEST_F(EepromTest, RegisterDebugMassEraseNeedsItsKey) {
    sim::eeprom_bytes()[100] = 0x5A;
    set_reg(EEPROM_EEDBGME, EEPROM_EEDBGME_ME);
    EXPECT_EQ(sim::eeprom_bytes()[100], 0x5A);
    EXPECT_EQ(reg(EEPROM_EEDONE), 0u);

    set_reg(EEPROM_EEDBGME, EEPROM_EEDBGME_KEY | EEPROM_EEDBGME_ME);
    EXPECT_EQ(reg(EEPROM_EEDONE), static_cast<uint32_t>(EEPROM_EEDONE_WORKING));
    for (uint32_t i = 0; i < sim::eeprom_size; ++i) {
        ASSERT_EQ(sim::eeprom_bytes()[i], 0xFF) << "byte " << i;
    }
}

void read_size() {
    EEPROMSizeGet();
}

TEST(EepromClockTest, ACallWhileTheControllerIsNotClockedIsABusFault) {
    sim::test::reset_board();
    sim::register_vector(FAULT_HARD, nullptr);
    sim::test::Outcome o = sim::test::run(read_size);
    EXPECT_FALSE(o.returned);
    EXPECT_EQ(o.event, sim::PowerEvent::reset);
}

} // namespace
