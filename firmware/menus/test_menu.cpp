// The test menu and the developer menu: each entry runs one bench test or tool and comes back to
// the page. Tests that repeat stop on a key and have a bounded length, so that none keeps a board
// awake for good.
#include "menus/test_menu.h"

#include <cstdio>

#include "board/board_util.h"
#include "menus/menu.h"
#include "menus/menu_edit.h"
#include "measure/sleep.h"
#include "records/system.h"
#include "instruments/ctd_sbe37.h"
#include "measure/live_readings.h"
#include "measure/sample.h"
#include "ports/uartstdio.h"
#include "menus/board_qa.h"
#include "storage/spi_flash.h"

namespace {

// Readings per line and lines of the channel tests.
constexpr uint32_t CHANNEL_TEST_READINGS = 10;
constexpr uint32_t CHANNEL_TEST_ARG = 1; // ten lines

void run_board_qa(void) {
    board_qa();
}

void test_vtherm_stats(void) {
    test_vtherm(CHANNEL_TEST_ARG, 1, CHANNEL_TEST_READINGS);
}
void test_tempc_stats(void) {
    test_tempc(CHANNEL_TEST_ARG, 1, CHANNEL_TEST_READINGS);
}
void test_vrsi_stats(void) {
    test_vrsi(CHANNEL_TEST_ARG, 1, CHANNEL_TEST_READINGS);
}
void test_vrse_stats(void) {
    test_vrse(CHANNEL_TEST_ARG, 1, CHANNEL_TEST_READINGS);
}
void test_vk_stats(void) {
    test_vk(CHANNEL_TEST_ARG, 1, CHANNEL_TEST_READINGS);
}
void test_ik_stats(void) {
    test_ik(CHANNEL_TEST_ARG, 1, CHANNEL_TEST_READINGS);
}
void test_ib_stats(void) {
    test_ib(CHANNEL_TEST_ARG, 1, CHANNEL_TEST_READINGS);
}
void test_bias_pos(void) {
    test_bias_bat(BIAS_BAT_POS);
}
void test_bias_neg(void) {
    test_bias_bat(BIAS_BAT_NEG);
}

void channel_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A', .label = "Vtherm", .kind = ItemKind::action, .action = test_vtherm_stats},
        {.key = 'B', .label = "Temperature", .kind = ItemKind::action, .action = test_tempc_stats},
        {.key = 'C', .label = "Vrsi", .kind = ItemKind::action, .action = test_vrsi_stats},
        {.key = 'D', .label = "Vrse", .kind = ItemKind::action, .action = test_vrse_stats},
        {.key = 'E', .label = "Vk", .kind = ItemKind::action, .action = test_vk_stats},
        {.key = 'F', .label = "Ik", .kind = ItemKind::action, .action = test_ik_stats},
        {.key = 'G', .label = "Ib", .kind = ItemKind::action, .action = test_ib_stats},
        {.key = 'H', .label = "Bias battery +", .kind = ItemKind::action, .action = test_bias_pos},
        {.key = 'I', .label = "Bias battery -", .kind = ItemKind::action, .action = test_bias_neg},
        {.key = 'J',
         .label = "Main battery and housing",
         .kind = ItemKind::action,
         .action = display_battery_boardSensors},
    };
    run_menu_page("Channel tests (ten lines of mean and deviation, any key stops)", items,
                  sizeof items / sizeof items[0]);
}

void sbe37_qa(void) {
    uprintf("\r\nSBE37 QA: %s\r\n", ctd_sbe37_qa_test() == 1 ? "PASS" : "FAIL");
}

void sbe37_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A', .label = "Poll once", .kind = ItemKind::action, .action = ctd_sbe37_poll},
        {.key = 'B', .label = "Communication test", .kind = ItemKind::action, .action = ctd_sbe37_comm_test},
        {.key = 'C',
         .label = "Serial analyser (CTRL-X ends)",
         .kind = ItemKind::action,
         .action = ctd_sbe37_serial_analyzer},
        {.key = 'D', .label = "QA test", .kind = ItemKind::action, .action = sbe37_qa},
    };
    run_menu_page("SBE37 CTD on port 4", items, sizeof items / sizeof items[0]);
}

void sample_soak(void) {
    uint32_t n = 100;
    bool kept = false;
    if (!menu_read_u32("Samples", n, 1, 100000, &n, &kept) && !kept) {
        return;
    }
    sample_soak_test(n);
}

void soak_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A', .label = "Sample soak", .kind = ItemKind::action, .action = sample_soak},
        {.key = 'B', .label = "FRAM soak", .kind = ItemKind::action, .action = fram_soak_report},
    };
    run_menu_page("Soak tests", items, sizeof items / sizeof items[0]);
}

void show_bias(void) {
    read_bias_bat();
    uprintf("\r\nBias batteries: %+.4f V  %+.4f V\r\n", static_cast<double>(fBiasPos),
            static_cast<double>(fBiasNeg));
}

void flash_probe(void) {
    spi_flash_test();
}

// Asks first: the crash halts the board until the watchdog or a reset.
void crash(void) {
    if (yesOrNoMenuChoice("Crash the board on purpose (fault handler test)? (Y/N) [N]? ", 0) == 1) {
        crash_quillon();
    }
}

void show_sleep_status(void) {
    sleep_debug();
    uprintf("\r\nsys_samp.state = %ld\r\n", static_cast<long>(sys_samp.state));
}

} // namespace

void test_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A', .label = "Board QA", .kind = ItemKind::action, .action = run_board_qa},
        {.key = 'B', .label = "Channel tests", .kind = ItemKind::action, .action = channel_menu},
        {.key = 'C', .label = "SBE37 tools", .kind = ItemKind::action, .action = sbe37_menu},
        {.key = 'D', .label = "Soak tests", .kind = ItemKind::action, .action = soak_menu},
        {.key = 'E', .label = "ADC multiplexer test", .kind = ItemKind::action, .action = adc_mux_test},
        {.key = 'F', .label = "Ground-fault reading", .kind = ItemKind::action, .action = ground_fault_test},
        {.key = 'G', .label = "Bias batteries", .kind = ItemKind::action, .action = show_bias},
    };
    run_menu_page("Test Menu", items, sizeof items / sizeof items[0]);
}

void vesk_zone_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A', .label = "Serial flash probe", .kind = ItemKind::action, .action = flash_probe},
        {.key = 'B', .label = "crash_quillon", .kind = ItemKind::action, .action = crash},
        {.key = 'C', .label = "sleep_debug", .kind = ItemKind::action, .action = show_sleep_status},
        {.key = 'D', .label = "state_dump", .kind = ItemKind::action, .action = state_dump},
    };
    run_menu_page("VeskZone Menu", items, sizeof items / sizeof items[0]);
}
