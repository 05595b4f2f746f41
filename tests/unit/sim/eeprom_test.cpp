// The simulated on-chip EEPROM: word round trips, the cost of programming, and what becomes of
// words written past the end of the 2 KiB device.
#include "sim_test.h"

#include "driverlib/eeprom.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace {

class EepromTest : public ::testing::Test {
  protected:
    void SetUp() override { sim::test::reset_board(); }
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

    sim::test::power_on(sim::WakeSource::power);
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

    sim::test::power_on(sim::WakeSource::power);
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

} // namespace
