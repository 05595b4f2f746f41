// The emulated TM4C123GH6PM: the target image (build/target/hxc3.elf) executed instruction by
// instruction on a Cortex-M4F core (Unicorn), with the microcontroller's peripherals as
// memory-mapped registers over the same models the host build drives through the TivaWare API.
//
// Each power-on period starts the chip from reset: flash loaded from the image, RAM cleared (and the
// stack region painted, to measure its high-water mark), SP and PC from the vector table. Virtual
// time advances with the executed cycles at the clock the image selects; pending interrupts are
// taken between instructions; a fault runs the image's hard-fault handler and is reported.
#pragma once

#include "elf_image.h"

#include <cstdint>
#include <initializer_list>
#include <string>

namespace sim::chip {

// Loads the image once (hxc3-sim's supervisor, before any power-on period). False with a reason.
bool load_image(const std::string& path, std::string& error);
const ElfImage& image();

// Runs the image from its reset vector for one power-on period; ends through power_off.
[[noreturn]] void run();

// The chip out of reset without running anything: for tests that call the image's functions.
// The runtime's period must have begun (begin_period) and the devices powered on.
bool power_on_reset();
// Calls a function of the image (by symbol) with up to four word arguments, letting virtual time
// pass as it runs; interrupts are taken as usual. False when the symbol is missing, the call
// faults, or it does not return within `max_ns` of virtual time.
bool call(const std::string& function, std::initializer_list<uint32_t> args, uint32_t* result,
          uint64_t max_ns = 10 * 1000000000ull);
bool call_at(uint32_t address, std::initializer_list<uint32_t> args, uint32_t* result,
             uint64_t max_ns = 10 * 1000000000ull);
// The processor's registers by Unicorn register id (UC_ARM_REG_*), for tests.
uint32_t get_register(int id);
void set_register(int id, uint32_t value);
// Word access to the emulated address space (RAM, flash or a peripheral register).
uint32_t read_word(uint32_t address);
void write_word(uint32_t address, uint32_t value);

// The deepest the stack has reached this period, in bytes below its top (from the painted region).
uint32_t stack_high_water();
// Faults reported this period (for tests): the last one's description.
uint32_t faults();
// Exceptions taken this period (interrupts and faults).
uint64_t exceptions_taken();
const std::string& last_fault();

} // namespace sim::chip
