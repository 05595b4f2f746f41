// Inside the emulated chip: the state the processor loop (chip.cpp), the memory map (memory_map.cpp)
// and the system control space (scs.cpp) share.
#pragma once

#include "chip.h"

#include <cstdint>
#include <string>
#include <unicorn/unicorn.h>

namespace sim::chip {

// The Cortex-M4's fault status bits the simulator sets before it runs the hard-fault handler.
constexpr uint32_t cfsr_iaccviol = 1u << 0;
constexpr uint32_t cfsr_ibuserr = 1u << 8;
constexpr uint32_t cfsr_preciserr = 1u << 9;
constexpr uint32_t cfsr_stkerr = 1u << 12;
constexpr uint32_t cfsr_bfarvalid = 1u << 15;
constexpr uint32_t cfsr_undefinstr = 1u << 16;
constexpr uint32_t cfsr_unaligned = 1u << 24;
constexpr uint32_t hfsr_forced = 1u << 30;

// System control space registers kept by the chip (SysTick and the NVIC enables live in the
// runtime's Core, shared with the host build).
struct Scs {
    uint32_t vtor;
    uint32_t aircr; // priority grouping only
    uint32_t scr, ccr;
    uint32_t shpr[3];
    uint32_t shcsr;
    uint32_t cfsr, hfsr, mmfar, bfar;
    uint32_t cpacr;
    uint32_t fpccr, fpcar, fpdscr;
    uint8_t nvic_priority[240];
};

struct Chip {
    uc_engine* uc = nullptr;
    ElfImage image;

    // Time: picoseconds not yet added to virtual time, and the next moment something is due.
    uint64_t ps = 0;
    uint64_t deadline = 0; // 0: recompute at the next block
    bool check_irq = true;
    uint32_t blocks_since_sp_check = 0;

    // Exceptions.
    Scs scs{};
    int active_vector = 0; // the exception running now (0: thread mode)
    int active_priority = 256;
    int next_vector = 0; // chosen by irq_ready
    bool halted = false; // lockup or a stopped clock: the processor executes nothing more

    // A fault found where Unicorn cannot raise it (a bus fault from a register access, a stack
    // overflow): taken when the current block ends.
    bool fault_pending = false;
    uint32_t fault_cfsr = 0;
    uint32_t fault_address = 0;
    uint32_t fault_pc = 0;
    std::string fault_text;
    uint32_t fault_count = 0;
    uint64_t exceptions = 0;
    std::string last_fault;
    uint64_t invalid_address = 0; // of the last unmapped or protected access Unicorn reported

    // Poll detection: the same instruction reading the same register and value again.
    uint32_t poll_address = 0;
    uint32_t poll_value = 0;
    uint32_t poll_pc = 0;
    uint32_t poll_repeats = 0;

    // Image addresses.
    uint32_t delay_loop = 0;
    uint32_t stack_top = 0, stack_limit = 0, heap_start = 0, heap_end_var = 0;

    // A call from a test: the virtual time it must end by.
    uint64_t call_deadline = UINT64_MAX;
    bool call_expired = false;
};

Chip& chip();

// chip.cpp
void charge_cycles(uint64_t cycles);
bool irq_ready();
void raise_fault(uint32_t cfsr, uint32_t address, const std::string& text);

// memory_map.cpp
bool map_memory(std::string& error);

// scs.cpp
void scs_reset();
uint32_t scs_read(uint32_t offset);
void scs_write(uint32_t offset, uint32_t value, unsigned size);
int exception_priority(int vector);

} // namespace sim::chip
