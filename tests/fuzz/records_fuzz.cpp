// The records the firmware reads back at start-up, as any bytes may leave them: the settings in the
// EEPROM and the sampling state, last sample, float-controller record and append memory in the
// FRAM. The input is laid over the factory images (XOR, so an empty input is a factory board), and
// the board then starts from a power-up, a key or its clock and runs for a while: it must come up,
// never fault, never be reset by its watchdog, and start again from whatever it stored.
#include <cstring>

#include "records/system.h"
#include "fuzz_board.h"
#include "runtime.h"
#include "storage/i2c_fram.h"

int hxc3_main(void);

namespace {

constexpr uint32_t EEPROM_FROM = SYS_DATA_EEPROM_ADDR;
constexpr uint32_t EEPROM_LEN = sim::eeprom_size - SYS_DATA_EEPROM_ADDR;
constexpr uint32_t FRAM_FROM = FRAM_SYS_SAMP_ADDR;
constexpr uint32_t FRAM_LEN = FRAM_APPEND_ADDR + FRAM_APPEND_SIZE - FRAM_SYS_SAMP_ADDR;
constexpr double RUN_S = 1.5; // start-up, a wake's work or the main loop's first second

void lay_over(uint8_t* bytes, const uint8_t* data, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        bytes[i] ^= data[i];
    }
}

void start(sim::WakeSource src) {
    if (src != sim::WakeSource::power) {
        sim::test::power_on(src);
    }
    sim::test::Outcome o = fuzz::run_watched([] { hxc3_main(); }, RUN_S);
    fuzz::check(!o.returned, "main returned");
    fuzz::check(o.event != sim::PowerEvent::watchdog, "the watchdog reset the board");
    fuzz::check(sim::test::console_output().find("Crash!!!") == std::string::npos, "the firmware faulted");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::factory_eeprom();
    return 0;
}

// The first byte: bits 0-1 what starts the board (power, key, clock), bit 2 a card in the slot.
// Then the bytes laid over the EEPROM's settings record, then over the FRAM's records.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 1 + EEPROM_LEN + FRAM_LEN) {
        return -1;
    }
    fuzz::factory_board();
    if ((data[0] & 4) != 0) {
        fuzz::insert_card();
    }
    size_t eeprom_part = std::min<size_t>(size - 1, EEPROM_LEN);
    lay_over(sim::eeprom_bytes() + EEPROM_FROM, data + 1, eeprom_part);
    lay_over(sim::fram_bytes() + FRAM_FROM, data + 1 + eeprom_part, size - 1 - eeprom_part);
    const sim::WakeSource wakes[] = {sim::WakeSource::power, sim::WakeSource::pin, sim::WakeSource::rtc,
                                     sim::WakeSource::power};
    start(wakes[data[0] & 3]);
    start(sim::WakeSource::rtc);
    return 0;
}
