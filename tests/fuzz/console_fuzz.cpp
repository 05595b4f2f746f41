// Bytes arriving on the console (UART0) as a person or a float controller would type them, into a
// board that has just started: the receive machine, the command parser and its handlers, the
// operator menus, the configuration and test menus. A 0xFF byte is a pause (the menus discard
// what was typed before they were shown). Every input starts from a new factory board, and the
// board runs for a bounded stretch of virtual time after the last byte.
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "records/system.h"
#include "fuzz_board.h"
#include "runtime.h"
#include "storage/microsd.h"

int hxc3_main(void);

namespace {

constexpr uint8_t PAUSE = 0xFF;
constexpr double START_S = 0.5;  // the firmware's start-up, before the console listens
constexpr double PAUSE_S = 0.4;  // a pause between typed chunks
constexpr double SETTLE_S = 2.0; // what the last line may take to be acted on
constexpr size_t MAX_INPUT = 1024;
constexpr size_t MAX_CHUNKS = 8; // the simulated terminal keeps eight pauses

// Types the chunks between pauses; returns the virtual seconds until the last byte has arrived.
double type_input(const uint8_t* data, size_t size) {
    double char_s = static_cast<double>(sim::console_char_ns()) / sim::ns_per_s;
    double at = START_S;
    size_t chunks = 0;
    size_t start = 0;
    for (size_t i = 0; i <= size; ++i) {
        if (i < size && (data[i] != PAUSE || chunks == MAX_CHUNKS - 1)) {
            continue;
        }
        std::string chunk(reinterpret_cast<const char*>(data + start), i - start);
        sim::test::type_after(at, chunk);
        at += static_cast<double>(chunk.size()) * char_s + PAUSE_S;
        ++chunks;
        start = i + 1;
    }
    return at;
}

// What the settings' commands and menu entries accept; the factory settings hold it too, so no typed
// input may leave a setting outside it.
void check_settings(void) {
    char name[sizeof sys_data.fileName + 1] = {};
    memcpy(name, sys_data.fileName, sizeof sys_data.fileName);
    fuzz::check(valid_8_3_name(name), "the data file name is not an 8.3 name");
    fuzz::check(sys_data.sampling_period <= 3600, "the sampling period is over an hour");
    fuzz::check(sys_data.app_cfg[APPCFG_MICROSD_ENABLE] <= 1, "the card logging switch is neither 0 nor 1");
    fuzz::check(sys_data.app_cfg[APPCFG_EXEC_SWITCHERONI] <= 2, "the deployed wake mode is outside 0..2");
    for (uint32_t i = 0; i <= CFG_BRD_HUMIDITY; ++i) {
        uint8_t most = i == CFG_TIMESTAMP ? 2 : 1;
        fuzz::check(sys_data.data_cfg[i] <= most, "a data column switch is outside its values");
    }
    for (float k : sys_data.K2_Cal) {
        fuzz::check(std::isfinite(k), "a k2 coefficient is not finite");
    }
    for (float f : sys_data.fP_Cal) {
        fuzz::check(std::isfinite(f), "an fP coefficient is not finite");
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::factory_eeprom();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > MAX_INPUT) {
        return -1;
    }
    fuzz::factory_board();
    double typed_s = type_input(data, size);
    sim::test::Outcome o = fuzz::run_watched([] { hxc3_main(); }, typed_s + SETTLE_S);
    fuzz::check(!o.returned, "main returned");
    fuzz::check(o.event != sim::PowerEvent::watchdog, "the watchdog reset the board");
    fuzz::check(sim::test::console_output().find("Crash!!!") == std::string::npos, "the firmware faulted");
    check_settings();
    return 0;
}
