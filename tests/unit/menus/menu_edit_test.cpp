// The menus' field editors and pages: what an answer does to a setting and to the stored record, and
// that an unanswered menu gives the board back to its schedule. Also the repair of a record left by
// a blank EEPROM or another firmware.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "menus/config_menu.h"
#include "core/main.h"
#include "storage/microsd.h"
#include "menus/menu.h"
#include "menus/menu_edit.h"
#include "records/system.h"
#include "storage/settings.h"
#include "sim_test.h"

namespace {

constexpr uint32_t T0 = 1767225600; // 2026-01-01 00:00:00 UTC

const MenuItem* g_item;
bool g_changed;

class MenuEditTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board(T0);
        ASSERT_TRUE(sim::test::run([] {
                        init();
                        wakeSource = wake_handler();
                        sys_data.debug_flag = 0;
                        sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
                        microSD_flg = 0;
                        storeSysDataVariables();
                    }).returned);
        menu_abandoned = false;
        sim::test::drain_console();
        sim::test::clear_console_output();
    }

    // Answers one item's question with typed and returns whether it changed.
    bool answer(const MenuItem& item, const std::string& typed) {
        g_item = &item;
        sim::test::type(typed);
        EXPECT_TRUE(sim::test::run([] { g_changed = edit_item(*g_item); }).returned);
        sim::test::drain_console();
        return g_changed;
    }
    static const std::string& out() { return sim::test::console_output(); }
    static uint32_t stored_u32(size_t offset) {
        uint32_t v;
        memcpy(&v, sim::eeprom_bytes() + SYS_DATA_EEPROM_ADDR + offset, sizeof v);
        return v;
    }
};

// An empty answer keeps; malformed, negative, fractional and out-of-range answers are refused with
// the range and change nothing, in RAM or in the EEPROM; an accepted one is stored at once.
TEST_F(MenuEditTest, NumbersAreCheckedBeforeAnythingIsStored) {
    ASSERT_TRUE(sim::test::run([] {
                    sys_data.averaging_interval = 60;
                    storeSysDataVariables();
                }).returned);
    const MenuItem item{.key = 'C',
                        .label = "Averaging interval (s)",
                        .kind = ItemKind::u32,
                        .u32 = &sys_data.averaging_interval,
                        .hi = 86400};
    for (const char* bad : {"\r", "abc\r", "-1\r", "12.5\r", "86401\r", "4294967296\r", "12 13\r"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(answer(item, bad));
        EXPECT_EQ(sys_data.averaging_interval, 60u);
        EXPECT_EQ(stored_u32(offsetof(systemData, averaging_interval)), 60u);
    }
    EXPECT_NE(out().find("Averaging interval (s) [60]: "), std::string::npos);
    EXPECT_NE(out().find("Enter a whole number from 0 to 86400; Averaging interval (s) unchanged\r\n"),
              std::string::npos);
    EXPECT_TRUE(answer(item, " 3600 \r"));
    EXPECT_EQ(stored_u32(offsetof(systemData, averaging_interval)), 3600u);
    EXPECT_NE(out().find("Averaging interval (s) = 3600, stored\r\n"), std::string::npos);

    // A value must also be one of the allowed ones when the item lists them.
    static constexpr uint32_t rates[] = {5, 10, 20};
    sys_data.Vk_sps = 20;
    const MenuItem rate{.key = 'I',
                        .label = "Vk sps",
                        .kind = ItemKind::u32,
                        .u32 = &sys_data.Vk_sps,
                        .lo = 5,
                        .hi = 20,
                        .allowed = rates,
                        .allowed_count = 3};
    EXPECT_FALSE(answer(rate, "15\r"));
    EXPECT_NE(out().find("15 is not one of 5 10 20; Vk sps unchanged"), std::string::npos);
    EXPECT_TRUE(answer(rate, "10\r"));
    EXPECT_EQ(sys_data.Vk_sps, 10u);
}

TEST_F(MenuEditTest, FloatsMustBeFiniteAndInRange) {
    sys_data.k0int = -0.4f;
    const MenuItem item{
        .key = 'L', .label = "k0int (V)", .kind = ItemKind::f32, .f32 = &sys_data.k0int, .lo = -5, .hi = 5};
    for (const char* bad : {"nan\r", "inf\r", "-6\r", "1e3\r", "0.1V\r"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(answer(item, bad));
        EXPECT_EQ(sys_data.k0int, -0.4f);
    }
    EXPECT_TRUE(answer(item, "-4.1234e-1\r"));
    EXPECT_FLOAT_EQ(sys_data.k0int, -0.41234f);
    float stored;
    memcpy(&stored, sim::eeprom_bytes() + SYS_DATA_EEPROM_ADDR + offsetof(systemData, k0int), sizeof stored);
    EXPECT_EQ(stored, sys_data.k0int);
}

// A text must fit its field with its NUL and be printable; the field is zero-filled behind it.
TEST_F(MenuEditTest, TextsFitTheirFieldOrAreRefused) {
    const MenuItem item{.key = 'C',
                        .label = "Sensor SN",
                        .kind = ItemKind::text,
                        .bytes = sys_data.sensor_SN,
                        .size = sizeof sys_data.sensor_SN};
    memcpy(sys_data.sensor_SN, "OLD\0\0\0\0", 8);
    EXPECT_FALSE(answer(item, "12345678\r"));
    EXPECT_FALSE(answer(item, "AB\x01\r"));
    EXPECT_STREQ(reinterpret_cast<const char*>(sys_data.sensor_SN), "OLD");
    EXPECT_NE(out().find("At most 7 printable characters; Sensor SN unchanged"), std::string::npos);
    memset(sys_data.sensor_SN, 'x', sizeof sys_data.sensor_SN);
    EXPECT_TRUE(answer(item, "DF12\r"));
    EXPECT_EQ(0, memcmp(sys_data.sensor_SN, "DF12\0\0\0\0", 8));
}

// A question left unanswered abandons every page at once and the main menu then ends as on its
// deadline: an idle board sleeps. The board is never awake much past the question's minute.
TEST_F(MenuEditTest, AnUnansweredQuestionGivesTheBoardBack) {
    sys_samp.state = IDLE;
    sim::test::type_after(0.5, "1\r");
    sim::test::type_after(1.0, "c\r");
    sim::test::type_after(1.5, "a\r");
    uint64_t start = sim::now_ns();
    sim::test::Outcome o = sim::test::run(exec_main_menu);
    sim::test::drain_console();
    EXPECT_EQ(o.event, sim::PowerEvent::hibernate);
    double awake = double(sim::now_ns() - start) / double(sim::ns_per_s);
    EXPECT_GE(awake, 60.0);
    EXPECT_LT(awake, 65.0);
    EXPECT_NE(out().find("No answer, leaving the menus"), std::string::npos);
}

// The console rate: only the rates the start-up can switch to; a change is announced at the old rate,
// stored, and the console then runs at the new one.
TEST_F(MenuEditTest, BaudRateChangeIsAnnouncedStoredAndApplied) {
    sim::test::type_after(0.2, "g\r");
    sim::test::type_after(0.4, "a\r");
    sim::test::type_after(0.6, "12345\r");
    sim::test::type_after(0.8, "a\r");
    sim::test::type_after(1.0, "19200\r");
    ASSERT_TRUE(sim::test::run(configuration_menu).returned);
    sim::test::drain_console();
    EXPECT_NE(out().find("Baud rates: 4800, 9600, 19200, 38400, 57600, 115200; unchanged"),
              std::string::npos);
    EXPECT_NE(out().find("Baud rate is changed to 19200, set the terminal to the new rate\r\n"),
              std::string::npos);
    EXPECT_EQ(sys_data.baud_rate, 19200u);
    EXPECT_EQ(stored_u32(offsetof(systemData, baud_rate)), 19200u);
    EXPECT_NEAR(sim::uart_baud(0), 19200.0, 192.0) << "the divider's nearest rate";
}

// A controller's "U" shows a page again but does not give it more time.
TEST_F(MenuEditTest, ControllerKeysDoNotHoldAPageOpen) {
    sys_samp.state = IDLE;
    sim::test::type_after(0.5, "1\r");
    for (int i = 1; i <= 7; i++) {
        sim::test::type_after(12.0 * i, "U");
    }
    uint64_t start = sim::now_ns();
    sim::test::Outcome o = sim::test::run(exec_main_menu);
    sim::test::drain_console();
    EXPECT_EQ(o.event, sim::PowerEvent::hibernate);
    double awake = double(sim::now_ns() - start) / double(sim::ns_per_s);
    EXPECT_LT(awake, 65.0) << "the page's minute holds";
    size_t pages = 0;
    for (size_t at = out().find("Configuration Menu"); at != std::string::npos;
         at = out().find("Configuration Menu", at + 1)) {
        pages++;
    }
    EXPECT_EQ(pages, 5u) << "shown at first and again after each of the four U within the minute";
}

// A blank EEPROM (all 0xFF) is brought to valid settings by Edit/Copy; a valid record from another
// version keeps every setting and only gets the new version text.
TEST_F(MenuEditTest, CopyKeepsValidSettingsAndResetsTheRest) {
    memset(&sys_data, 0xFF, sizeof sys_data);
    uint32_t reset = copy_sys_data_to_this_firmware();
    EXPECT_GT(reset, 50u);
    EXPECT_STREQ(reinterpret_cast<const char*>(sys_data.firmware_version), FIRMWARE_VERSION);
    EXPECT_EQ(sys_data.baud_rate, 115200u);
    EXPECT_EQ(sys_data.Vrsi_sps, 20u);
    EXPECT_EQ(sys_data.data_cfg[CFG_UART4_INST], 5);
    EXPECT_STREQ(reinterpret_cast<const char*>(sys_data.fileName), "noname.txt");
    EXPECT_TRUE(std::isfinite(sys_data.k0int));

    initSysDataVariables();
    sys_data.sampling_period = 900;
    sys_data.sample_aligned = 1;
    sys_data.k0int = -0.4137f;
    memcpy(sys_data.board_SN, "B-7", 4);
    memcpy(sys_data.firmware_version, "v4.9.1 HXC3 revA", 17);
    systemData before = sys_data;
    EXPECT_EQ(copy_sys_data_to_this_firmware(), 0u);
    memcpy(before.firmware_version, FIRMWARE_VERSION, sizeof FIRMWARE_VERSION);
    EXPECT_EQ(0, memcmp(&before, &sys_data, sizeof before));

    // An alignment the period cannot keep is switched off rather than left to stall the schedule.
    sys_data.sampling_period = 7;
    EXPECT_EQ(copy_sys_data_to_this_firmware(), 1u);
    EXPECT_EQ(sys_data.sample_aligned, 0);
}

} // namespace
