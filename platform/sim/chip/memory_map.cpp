// The TM4C123GH6PM's address space on the emulated core: 256 KiB flash at 0, 32 KiB SRAM at
// 0x20000000 and its bit-band alias, the peripherals at 0x40000000 (decoded onto the models'
// register doors, each behind its clock gate) and their bit-band alias at 0x42000000, and the
// private peripheral bus at 0xE0000000. An address with nothing behind it is a bus fault.
//
// A loop that polls one register and sees the same value again learns nothing new before the next
// event of the board (a frame shifted, a conversion done, an I2C command finished, an EEPROM word
// programmed, SysTick); such a repeated read lets virtual time run ahead to that event, at most a
// millisecond at a time. Writes in between do not spoil this: a write that changes a device also
// schedules its next event. The system control and hibernation registers are left out: the waits
// on them are bounded by a count (oscillator start-up, PLL lock, write-complete), so running ahead
// would stretch a wait for something that never comes.
#include "chip_internal.h"
#include "devices.h"
#include "registers.h"
#include "runtime.h"

#include "driverlib/sysctl.h"

#include <algorithm>
#include <cstring>

namespace sim::chip {

namespace {

constexpr uint32_t flash_size = 0x40000;
constexpr uint32_t sram_base = 0x20000000;
constexpr uint32_t sram_size = 0x8000;
constexpr uint32_t sram_alias = 0x22000000;
constexpr uint32_t periph_base = 0x40000000;
constexpr uint32_t periph_size = 0x100000;
constexpr uint32_t periph_alias = 0x42000000;
constexpr uint32_t ppb_base = 0xE0000000;
constexpr uint32_t ppb_size = 0x100000;
constexpr uint64_t poll_max_skip_ns = 1000 * 1000;

// One peripheral block: its register door and the clock gate in front of it.
enum class Kind { none, gpio, ssi, uart, i2c, eeprom, hib, sysctl, quiet };

struct Block {
    Kind kind;
    int index;
    uint32_t periph; // SYSCTL_PERIPH_*; 0: always clocked
    const char* name;
};

const char* const gpio_names[] = {"GPIOA", "GPIOB", "GPIOC", "GPIOD", "GPIOE", "GPIOF"};
const char* const ssi_names[] = {"SSI0", "SSI1", "SSI2", "SSI3"};
const char* const uart_names[] = {"UART0", "UART1", "UART2", "UART3", "UART4", "UART5", "UART6", "UART7"};
const char* const i2c_names[] = {"I2C0", "I2C1", "I2C2", "I2C3"};

Block decode(uint32_t address) {
    uint32_t page = address & ~0xFFFu;
    if (page >= 0x40004000 && page <= 0x40007000) {
        int i = static_cast<int>((page - 0x40004000) >> 12);
        return Block{Kind::gpio, i, SYSCTL_PERIPH_GPIOA + static_cast<uint32_t>(i), gpio_names[i]};
    }
    if (page == 0x40024000 || page == 0x40025000) {
        int i = 4 + static_cast<int>((page - 0x40024000) >> 12);
        return Block{Kind::gpio, i, SYSCTL_PERIPH_GPIOA + static_cast<uint32_t>(i), gpio_names[i]};
    }
    if (page >= 0x40058000 && page <= 0x4005D000) {
        int i = static_cast<int>((page - 0x40058000) >> 12);
        return Block{Kind::gpio, i, SYSCTL_PERIPH_GPIOA + static_cast<uint32_t>(i), gpio_names[i]};
    }
    if (page >= 0x40008000 && page <= 0x4000B000) {
        int i = static_cast<int>((page - 0x40008000) >> 12);
        return Block{Kind::ssi, i, SYSCTL_PERIPH_SSI0 + static_cast<uint32_t>(i), ssi_names[i]};
    }
    if (page >= 0x4000C000 && page <= 0x40013000) {
        int i = static_cast<int>((page - 0x4000C000) >> 12);
        return Block{Kind::uart, i, SYSCTL_PERIPH_UART0 + static_cast<uint32_t>(i), uart_names[i]};
    }
    if (page >= 0x40020000 && page <= 0x40023000) {
        int i = static_cast<int>((page - 0x40020000) >> 12);
        return Block{Kind::i2c, i, SYSCTL_PERIPH_I2C0 + static_cast<uint32_t>(i), i2c_names[i]};
    }
    switch (page) {
    case 0x400AF000:
        return Block{Kind::eeprom, 0, SYSCTL_PERIPH_EEPROM0, "EEPROM"};
    case 0x400FC000:
        return Block{Kind::hib, 0, SYSCTL_PERIPH_HIBERNATE, "hibernation module"};
    case 0x400FE000:
        return Block{Kind::sysctl, 0, 0, "system control"};
    case 0x400FD000: // flash controller: read as idle, writes ignored (the image never programs flash)
        return Block{Kind::quiet, 0, 0, "flash controller"};
    default:
        return Block{Kind::none, 0, 0, "nothing"};
    }
}

// Before the access: the clock gate. An unclocked module answers with a bus fault.
bool gate_open(const Block& b, uint32_t address) {
    if (b.kind == Kind::none) {
        raise_fault(cfsr_preciserr | cfsr_bfarvalid, address, "bus fault: no peripheral at this address");
        return false;
    }
    if (b.periph != 0 && !peripheral_enabled(b.periph)) {
        raise_fault(cfsr_preciserr | cfsr_bfarvalid, address,
                    std::string("bus fault: ") + b.name + " accessed while its clock is off");
        return false;
    }
    return true;
}

uint32_t door_read(const Block& b, uint32_t offset) {
    switch (b.kind) {
    case Kind::gpio:
        return dev::gpio_reg_read(b.index, offset);
    case Kind::ssi:
        return dev::ssi_reg_read(b.index, offset);
    case Kind::uart:
        return dev::uart_reg_read(b.index, offset);
    case Kind::i2c:
        return dev::i2c_reg_read(b.index, offset);
    case Kind::eeprom:
        return dev::eeprom_reg_read(offset);
    case Kind::hib:
        return dev::hib_reg_read(offset);
    case Kind::sysctl:
        return dev::sysctl_reg_read(offset);
    default:
        return 0;
    }
}

void door_write(const Block& b, uint32_t offset, uint32_t value) {
    switch (b.kind) {
    case Kind::gpio:
        dev::gpio_reg_write(b.index, offset, value);
        break;
    case Kind::ssi:
        dev::ssi_reg_write(b.index, offset, value);
        break;
    case Kind::uart:
        dev::uart_reg_write(b.index, offset, value);
        break;
    case Kind::i2c:
        dev::i2c_reg_write(b.index, offset, value);
        break;
    case Kind::eeprom:
        dev::eeprom_reg_write(offset, value);
        break;
    case Kind::hib:
        dev::hib_reg_write(offset, value);
        break;
    case Kind::sysctl:
        dev::sysctl_reg_write(offset, value);
        break;
    default:
        break;
    }
}

// Something the processor did may have raised an interrupt or moved a device's next event.
void after_access() {
    Chip& c = chip();
    c.deadline = 0;
    c.check_irq = true;
}

// A poll is the same instruction reading the same register and finding the same value, three times
// in a row: straight-line code that reads a register twice is not taken for a loop.
void fast_forward_poll(uint32_t address, uint32_t value) {
    Chip& c = chip();
    uint32_t pc = 0;
    uc_reg_read(c.uc, UC_ARM_REG_PC, &pc);
    bool repeat = c.poll_address == address && c.poll_value == value && c.poll_pc == pc;
    c.poll_repeats = repeat ? c.poll_repeats + 1 : 0;
    c.poll_address = address;
    c.poll_value = value;
    c.poll_pc = pc;
    if (c.poll_repeats < 2) {
        return;
    }
    uint64_t now = now_ns();
    uint64_t target = std::min(sim::next_event_ns(), now + poll_max_skip_ns);
    if (target > now) {
        advance_ns(target - now);
        c.check_irq = true; // an interrupt this raised is taken when the current block ends
    }
}

bool may_run_ahead(Kind k) {
    return k != Kind::sysctl && k != Kind::hib && k != Kind::quiet;
}

uint32_t peripheral_read(uint32_t address) {
    uint32_t word = address & ~3u;
    Block b = decode(word);
    if (!gate_open(b, word)) {
        return 0;
    }
    uint32_t value = door_read(b, word & 0xFFF);
    after_access();
    if (may_run_ahead(b.kind)) {
        fast_forward_poll(word, value);
    }
    return value;
}

void peripheral_write(uint32_t address, uint32_t value) {
    uint32_t word = address & ~3u;
    Block b = decode(word);
    if (!gate_open(b, word)) {
        return;
    }
    door_write(b, word & 0xFFF, value);
    after_access();
}

// Sub-word accesses read or merge into the register's word.
uint32_t lane_shift(uint64_t offset) {
    return static_cast<uint32_t>(offset & 3) * 8;
}

uint32_t lane_mask(unsigned size) {
    return size >= 4 ? 0xFFFFFFFFu : ((1u << (8 * size)) - 1);
}

uint64_t on_periph_read(uc_engine*, uint64_t offset, unsigned size, void*) {
    uint32_t v = peripheral_read(periph_base + static_cast<uint32_t>(offset));
    return (v >> lane_shift(offset)) & lane_mask(size);
}

void on_periph_write(uc_engine*, uint64_t offset, unsigned size, uint64_t value, void*) {
    uint32_t address = periph_base + static_cast<uint32_t>(offset);
    uint32_t v = static_cast<uint32_t>(value);
    if (size < 4) {
        // A narrow store puts its bytes in their lanes of the word and zeros in the others; no
        // read happens (it would pop a FIFO).
        v = (v & lane_mask(size)) << lane_shift(offset);
    }
    peripheral_write(address, v);
}

// Bit-band alias: one word per bit of the region it mirrors.
void alias_target(uint32_t alias_offset, uint32_t region, uint32_t& word, uint32_t& bit) {
    uint32_t byte = alias_offset / 32;
    bit = ((byte & 3) * 8) + ((alias_offset % 32) / 4);
    word = region + (byte & ~3u);
}

uint64_t on_periph_alias_read(uc_engine*, uint64_t offset, unsigned, void*) {
    uint32_t word = 0;
    uint32_t bit = 0;
    alias_target(static_cast<uint32_t>(offset), periph_base, word, bit);
    return (peripheral_read(word) >> bit) & 1;
}

void on_periph_alias_write(uc_engine*, uint64_t offset, unsigned, uint64_t value, void*) {
    uint32_t word = 0;
    uint32_t bit = 0;
    alias_target(static_cast<uint32_t>(offset), periph_base, word, bit);
    uint32_t v = peripheral_read(word);
    v = (value & 1) ? (v | (1u << bit)) : (v & ~(1u << bit));
    peripheral_write(word, v);
}

uint64_t on_sram_alias_read(uc_engine* uc, uint64_t offset, unsigned, void*) {
    uint32_t word = 0;
    uint32_t bit = 0;
    alias_target(static_cast<uint32_t>(offset), sram_base, word, bit);
    uint32_t v = 0;
    uc_mem_read(uc, word, &v, 4);
    return (v >> bit) & 1;
}

void on_sram_alias_write(uc_engine* uc, uint64_t offset, unsigned, uint64_t value, void*) {
    uint32_t word = 0;
    uint32_t bit = 0;
    alias_target(static_cast<uint32_t>(offset), sram_base, word, bit);
    uint32_t v = 0;
    uc_mem_read(uc, word, &v, 4);
    v = (value & 1) ? (v | (1u << bit)) : (v & ~(1u << bit));
    uc_mem_write(uc, word, &v, 4);
}

// The private peripheral bus: the system control space; the debug blocks read as zero.
uint64_t on_ppb_read(uc_engine*, uint64_t offset, unsigned size, void*) {
    uint32_t address = ppb_base + static_cast<uint32_t>(offset);
    if ((address & ~0xFFFu) != 0xE000E000) {
        return 0;
    }
    uint32_t v = scs_read((address & 0xFFF) & ~3u);
    return (v >> lane_shift(offset)) & lane_mask(size);
}

void on_ppb_write(uc_engine*, uint64_t offset, unsigned size, uint64_t value, void*) {
    uint32_t address = ppb_base + static_cast<uint32_t>(offset);
    if ((address & ~0xFFFu) != 0xE000E000) {
        return;
    }
    uint32_t reg = address & 0xFFF;
    uint32_t v = static_cast<uint32_t>(value);
    if (size < 4 && reg >= 0x400 && reg < 0x4F0) {
        scs_write(reg, v, size); // the byte-wide interrupt priorities take the bytes written
    } else if (size < 4) {
        uint32_t shift = lane_shift(offset);
        uint32_t old = scs_read(reg & ~3u);
        scs_write(reg & ~3u, (old & ~(lane_mask(size) << shift)) | ((v & lane_mask(size)) << shift), 4);
    } else {
        scs_write(reg, v, 4);
    }
    after_access();
}

bool check(uc_err e, const char* what, std::string& error) {
    if (e == UC_ERR_OK) {
        return true;
    }
    error = std::string(what) + ": " + uc_strerror(e);
    return false;
}

} // namespace

bool map_memory(std::string& error) {
    uc_engine* uc = chip().uc;
    return check(uc_mem_map(uc, 0, flash_size, UC_PROT_READ | UC_PROT_EXEC), "flash", error) &&
           check(uc_mem_map(uc, sram_base, sram_size, UC_PROT_ALL), "SRAM", error) &&
           check(uc_mmio_map(uc, sram_alias, sram_size * 32, on_sram_alias_read, nullptr, on_sram_alias_write,
                             nullptr),
                 "SRAM bit-band alias", error) &&
           check(uc_mmio_map(uc, periph_base, periph_size, on_periph_read, nullptr, on_periph_write, nullptr),
                 "peripherals", error) &&
           check(uc_mmio_map(uc, periph_alias, periph_size * 32, on_periph_alias_read, nullptr,
                             on_periph_alias_write, nullptr),
                 "peripheral bit-band alias", error) &&
           check(uc_mmio_map(uc, ppb_base, ppb_size, on_ppb_read, nullptr, on_ppb_write, nullptr),
                 "private peripheral bus", error);
}

} // namespace sim::chip
