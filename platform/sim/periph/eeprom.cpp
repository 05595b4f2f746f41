// The microcontroller's 2 KiB EEPROM behind the TivaWare EEPROM calls. Its bytes live in
// board/eeprom.bin through a shared mapping, so every programmed word reaches the file at once (the
// supervisor sees it, and it survives a crash of the simulator) - or in memory in the unit tests.
//
// Words written past the end of the device: they land in a volatile overflow area. A read in the
// same power-on period returns what was written there, but the area is cleared at every power-on,
// so such bytes never survive a power cycle - as with writes past the end of the device, which go
// nowhere durable. Reads past the end return that area (zeros after power-on). Addresses beyond the
// overflow area read as zero and take no writes. Nothing of this is an error: the calls return
// success, as they do on the chip, which does not check the range.
//
// Timing: every programmed word costs the datasheet's typical word program time, during which the
// processor polls the busy flag (interrupts still run); a mass erase costs a few milliseconds and
// leaves the overflow area alone.
#include "devices.h"
#include "sim.h"

#include "driverlib/eeprom.h"

#include <cstring>

namespace sim::dev {

namespace {

constexpr uint64_t word_program_ns = 110 * 1000;
constexpr uint64_t mass_erase_ns = 8 * ns_per_ms;
constexpr uint32_t overflow_size = eeprom_size;
constexpr uint32_t access_cycles = 8;
constexpr uint32_t word_read_cycles = 4;

Backing backing;
uint8_t overflow[overflow_size];
uint64_t busy_until_ns;

uint8_t* byte_at(uint64_t address) {
    if (address < eeprom_size) {
        return eeprom_bytes() + address;
    }
    if (address - eeprom_size < overflow_size) {
        return overflow + (address - eeprom_size);
    }
    return nullptr;
}

uint32_t read_word(uint64_t address) {
    uint8_t b[4] = {0, 0, 0, 0};
    for (int i = 0; i < 4; ++i) {
        if (const uint8_t* p = byte_at(address + i)) {
            b[i] = *p;
        }
    }
    uint32_t w = 0;
    std::memcpy(&w, b, 4);
    return w;
}

void write_word(uint64_t address, uint32_t w) {
    uint8_t b[4];
    std::memcpy(b, &w, 4);
    for (int i = 0; i < 4; ++i) {
        if (uint8_t* p = byte_at(address + i)) {
            *p = b[i];
        }
    }
}

} // namespace

void eeprom_map() {
    backing_attach(backing, "eeprom.bin", eeprom_size, 0xFF);
}

void eeprom_power_on() {
    std::memset(overflow, 0, sizeof overflow);
    busy_until_ns = 0;
}

void eeprom_flush() {
    backing_flush(backing);
}

} // namespace sim::dev

namespace sim {

uint8_t* eeprom_bytes() {
    return dev::backing_attach(dev::backing, "eeprom.bin", eeprom_size, 0xFF);
}

} // namespace sim

using namespace sim::dev;

extern "C" {

uint32_t EEPROMInit(void) {
    access(access_cycles);
    return EEPROM_INIT_OK;
}

uint32_t EEPROMSizeGet(void) {
    access(access_cycles);
    return sim::eeprom_size;
}

uint32_t EEPROMBlockCountGet(void) {
    access(access_cycles);
    return sim::eeprom_size / 64;
}

// The address is a byte address of a word (the low two bits are ignored, as by the hardware's word
// offset register); the count is in bytes and whole words are transferred.
void EEPROMRead(uint32_t* pui32Data, uint32_t ui32Address, uint32_t ui32Count) {
    access(access_cycles);
    uint64_t address = ui32Address & ~3u;
    uint32_t words = ui32Count / 4;
    for (uint32_t i = 0; i < words; ++i) {
        pui32Data[i] = read_word(address + 4ull * i);
    }
    sim::spend_cycles(words * word_read_cycles);
}

uint32_t EEPROMProgram(uint32_t* pui32Data, uint32_t ui32Address, uint32_t ui32Count) {
    access(access_cycles);
    uint64_t address = ui32Address & ~3u;
    uint32_t words = ui32Count / 4;
    for (uint32_t i = 0; i < words; ++i) {
        write_word(address + 4ull * i, pui32Data[i]);
        sim::advance_ns(word_program_ns);
    }
    return 0;
}

// Starts programming one word; EEPROMStatusGet reports EEPROM_RC_WORKING until it is done.
uint32_t EEPROMProgramNonBlocking(uint32_t ui32Data, uint32_t ui32Address) {
    access(access_cycles);
    write_word(ui32Address & ~3u, ui32Data);
    busy_until_ns = sim::now_ns() + word_program_ns;
    return EEPROM_RC_WORKING;
}

uint32_t EEPROMStatusGet(void) {
    access(access_cycles);
    return sim::now_ns() < busy_until_ns ? EEPROM_RC_WORKING : 0;
}

uint32_t EEPROMMassErase(void) {
    access(access_cycles);
    std::memset(sim::eeprom_bytes(), 0xFF, sim::eeprom_size);
    sim::advance_ns(mass_erase_ns);
    return 0;
}

} // extern "C"
