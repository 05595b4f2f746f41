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
//
// Through the registers the device is 32 blocks of 16 words, addressed by block and word offset;
// the overflow area lies beyond the last block and is out of their reach.
#include "devices.h"
#include "registers.h"
#include "sim.h"

#include "driverlib/eeprom.h"
#include "driverlib/sysctl.h"
#include "inc/hw_eeprom.h"
#include "inc/hw_memmap.h"

#include <cstring>

namespace sim::dev {

namespace {

constexpr uint64_t word_program_ns = 110 * 1000;
constexpr uint64_t mass_erase_ns = 8 * ns_per_ms;
constexpr uint32_t overflow_size = eeprom_size;
constexpr uint32_t access_cycles = 8;
constexpr uint32_t word_read_cycles = 4;

constexpr uint32_t words_per_block = 16;
constexpr uint32_t block_bytes = 4 * words_per_block;
constexpr uint32_t blocks = eeprom_size / block_bytes;

Backing backing;
uint8_t overflow[overflow_size];
uint64_t busy_until_ns;
// The register door's current block and word offset.
uint32_t g_block;
uint32_t g_offset;

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

// Every API call reaches the controller's registers first.
void enter() {
    access(access_cycles);
    require_clock(SYSCTL_PERIPH_EEPROM0, "EEPROM", EEPROM_BASE);
}

} // namespace

void eeprom_map() {
    backing_attach(backing, "eeprom.bin", eeprom_size, 0xFF);
}

void eeprom_power_on() {
    std::memset(overflow, 0, sizeof overflow);
    busy_until_ns = 0;
    g_block = 0;
    g_offset = 0;
}

void eeprom_flush() {
    backing_flush(backing);
}

uint64_t eeprom_next_event_ns() {
    return busy_until_ns;
}

// ---------------------------------------------------------------- register door

namespace {

constexpr uint32_t reg(uint32_t address) {
    return address - EEPROM_BASE;
}
constexpr uint32_t block_mask = 0xFFFF;
constexpr uint32_t mass_erase_key_mask = 0xFFFF0000;

uint64_t current_address() {
    return static_cast<uint64_t>(g_block) * block_bytes + 4ull * g_offset;
}

// The offset wraps within the block; the next block has to be selected by hand.
void step_offset() {
    g_offset = (g_offset + 1) % words_per_block;
}

void program_current(uint32_t value) {
    write_word(current_address(), value);
    busy_until_ns = now_ns() + word_program_ns;
}

void select_block(uint32_t value) {
    uint32_t block = value & block_mask;
    // A block the device does not have is not selected.
    if (block < blocks) {
        g_block = block;
    }
}

// The debug mass erase runs only when its key comes with the request.
void debug_mass_erase(uint32_t value) {
    if ((value & mass_erase_key_mask) != EEPROM_EEDBGME_KEY || (value & EEPROM_EEDBGME_ME) == 0) {
        return;
    }
    std::memset(eeprom_bytes(), 0xFF, eeprom_size);
    busy_until_ns = now_ns() + mass_erase_ns;
}

} // namespace

// EESUPP and the error bits of EEDONE read 0: no program or erase ever fails or needs a retry.
uint32_t eeprom_reg_read(uint32_t offset) {
    switch (offset) {
    case reg(EEPROM_EESIZE):
        return (blocks << EEPROM_EESIZE_BLKCNT_S) | (eeprom_size / 4);
    case reg(EEPROM_EEBLOCK):
        return g_block;
    case reg(EEPROM_EEOFFSET):
        return g_offset;
    case reg(EEPROM_EERDWR):
        return read_word(current_address());
    case reg(EEPROM_EERDWRINC): {
        uint32_t word = read_word(current_address());
        step_offset();
        return word;
    }
    case reg(EEPROM_EEDONE):
        return now_ns() < busy_until_ns ? EEPROM_EEDONE_WORKING : 0;
    default:
        return 0;
    }
}

void eeprom_reg_write(uint32_t offset, uint32_t value) {
    switch (offset) {
    case reg(EEPROM_EEBLOCK):
        select_block(value);
        break;
    case reg(EEPROM_EEOFFSET):
        g_offset = value & EEPROM_EEOFFSET_OFFSET_M;
        break;
    case reg(EEPROM_EERDWR):
        program_current(value);
        break;
    case reg(EEPROM_EERDWRINC):
        program_current(value);
        step_offset();
        break;
    case reg(EEPROM_EEDBGME):
        debug_mass_erase(value);
        break;
    default:
        break;
    }
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
    enter();
    return EEPROM_INIT_OK;
}

uint32_t EEPROMSizeGet(void) {
    enter();
    return sim::eeprom_size;
}

uint32_t EEPROMBlockCountGet(void) {
    enter();
    return sim::eeprom_size / 64;
}

// The address is a byte address of a word (the low two bits are ignored, as by the hardware's word
// offset register); the count is in bytes and whole words are transferred.
void EEPROMRead(uint32_t* pui32Data, uint32_t ui32Address, uint32_t ui32Count) {
    enter();
    uint64_t address = ui32Address & ~3u;
    uint32_t words = ui32Count / 4;
    for (uint32_t i = 0; i < words; ++i) {
        pui32Data[i] = read_word(address + 4ull * i);
    }
    sim::spend_cycles(words * word_read_cycles);
}

uint32_t EEPROMProgram(uint32_t* pui32Data, uint32_t ui32Address, uint32_t ui32Count) {
    enter();
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
    enter();
    write_word(ui32Address & ~3u, ui32Data);
    busy_until_ns = sim::now_ns() + word_program_ns;
    return EEPROM_RC_WORKING;
}

uint32_t EEPROMStatusGet(void) {
    enter();
    return sim::now_ns() < busy_until_ns ? EEPROM_RC_WORKING : 0;
}

uint32_t EEPROMMassErase(void) {
    enter();
    std::memset(sim::eeprom_bytes(), 0xFF, sim::eeprom_size);
    sim::advance_ns(mass_erase_ns);
    return 0;
}

} // extern "C"
