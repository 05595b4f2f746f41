// The emulated processor: the Cortex-M4F core (Unicorn), the cycles it spends turned into virtual
// time, the interrupts it takes, the faults it meets, and the stack it uses.
//
// Time: every translated block costs its instructions plus one cycle for the branch that ends it
// (the loop of SysCtlDelay, a subtract and a taken branch, costs three cycles an iteration, as on the
// chip), at the clock the system control registers select. When virtual time reaches the board's
// next event (a UART frame, an ADC conversion, a SysTick wrap, a typed byte) the runtime serves it.
// The delay loop is fast-forwarded to that event; so is a loop polling a register (memory_map.cpp).
//
// Interrupts: an enabled, pending interrupt whose priority beats the running one is taken between
// blocks unless PRIMASK masks it. The processor's whole register and FPU context is saved, an
// exception frame is pushed on the stack (so stack use is as on the chip), and the handler runs
// until it returns to a trap address; then the context is restored exactly. Unicorn ends a
// translated block at every 1 KiB page boundary, also inside an IT block: as on the chip, the
// handler starts with the IT state cleared, and the return gives the interrupted code the rest of
// its IT block.
//
// Faults: an unmapped or protected access, an undefined instruction, an unaligned access that
// faults, a bus fault from a register access (no peripheral there, or its clock is off) and a stack
// pointer below the stack reserve set the fault status registers and run the image's hard-fault
// handler; the simulator reports each on stderr with the PC and the faulting address.
#include "chip.h"
#include "chip_internal.h"
#include "registers.h"
#include "runtime.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace sim::chip {

namespace {

Chip g_chip;

constexpr uint32_t flash_size = 0x40000;
constexpr uint32_t sram_base = 0x20000000;
constexpr uint32_t sram_size = 0x8000;
// Handlers and test calls return here: a page of its own, outside everything the image uses.
constexpr uint32_t return_trap = 0x1FFF0000;
constexpr uint32_t paint_word = 0xC5C5C5C5;
constexpr uint32_t sp_check_blocks = 4096;
constexpr int hard_fault = 3;
constexpr uint32_t epsr_thumb = 1u << 24;
// A stop costs about as much as a few thousand emulated loop iterations: shorter delays just run.
constexpr uint32_t delay_skip_min = 8;

struct BlockCost {
    uint32_t size;
    uint32_t cycles;
};
std::vector<BlockCost> g_block_cost; // by halfword address in flash

uint32_t g_cached_hz = 0;
uint64_t g_ps_per_cycle = 0;
// The interrupted code's registers, saved around a handler: the core registers, the status and
// special registers, and the FPU's single-precision registers and status.
struct Context {
    uint32_t core[16];
    uint32_t xpsr, primask, basepri, faultmask, control, fpscr;
    uint32_t s[32];
};

const int core_regs[16] = {UC_ARM_REG_R0,  UC_ARM_REG_R1, UC_ARM_REG_R2,  UC_ARM_REG_R3,
                           UC_ARM_REG_R4,  UC_ARM_REG_R5, UC_ARM_REG_R6,  UC_ARM_REG_R7,
                           UC_ARM_REG_R8,  UC_ARM_REG_R9, UC_ARM_REG_R10, UC_ARM_REG_R11,
                           UC_ARM_REG_R12, UC_ARM_REG_SP, UC_ARM_REG_LR,  UC_ARM_REG_PC};

uint32_t reg(int r) {
    uint32_t v = 0;
    uc_reg_read(g_chip.uc, r, &v);
    return v;
}

void set_reg(int r, uint32_t v) {
    uc_reg_write(g_chip.uc, r, &v);
}

// Thumb-2: a halfword whose top five bits are 11101, 11110 or 11111 starts a 32-bit instruction.
uint32_t count_instructions(uint32_t address, uint32_t size) {
    uint8_t code[1024];
    size = std::min<uint32_t>(size, sizeof code);
    if (size < 2 || uc_mem_read(g_chip.uc, address, code, size) != UC_ERR_OK) {
        return 1;
    }
    uint32_t n = 0;
    for (uint32_t at = 0; at + 1 < size;) {
        uint16_t half = static_cast<uint16_t>(code[at] | (code[at + 1] << 8));
        at += ((half >> 11) >= 0x1D) ? 4 : 2;
        ++n;
    }
    return n ? n : 1;
}

uint32_t block_cycles(uint64_t address, uint32_t size) {
    if (address >= flash_size) {
        return count_instructions(static_cast<uint32_t>(address), size) + 1;
    }
    BlockCost& b = g_block_cost[address / 2];
    if (b.size != size) {
        b.size = size;
        b.cycles = count_instructions(static_cast<uint32_t>(address), size) + 1;
    }
    return b.cycles;
}

uint64_t ps_per_cycle() {
    uint32_t hz = system_clock_hz();
    if (hz != g_cached_hz) {
        g_cached_hz = hz;
        g_ps_per_cycle = 1000000000000ull / (hz ? hz : piosc_hz);
    }
    return g_ps_per_cycle;
}

void check_stack() {
    Chip& c = g_chip;
    c.blocks_since_sp_check = 0;
    uint32_t sp = reg(UC_ARM_REG_SP);
    if (c.stack_limit && sp < c.stack_limit && sp >= sram_base && !c.fault_pending) {
        raise_fault(cfsr_stkerr, sp, "stack overflow: SP below the stack reserve");
    }
}

// SysCtlDelay's loop counts down in r0: at the head of its block (before any instruction of it has
// read r0) the count is lowered to what is left just before the next event, and the cycles of the
// skipped iterations are charged.
uint64_t delay_loops_to_skip() {
    uint32_t r0 = reg(UC_ARM_REG_R0);
    if (r0 <= delay_skip_min) {
        return 0;
    }
    uint64_t now = now_ns();
    uint64_t next = sim::next_event_ns();
    if (next <= now) {
        return 0;
    }
    uint64_t cycles = (next - now) * 1000 / ps_per_cycle();
    return std::min<uint64_t>(cycles / 3, r0 - 2);
}

void skip_delay_loops() {
    uint64_t loops = delay_loops_to_skip();
    if (loops == 0) {
        return;
    }
    set_reg(UC_ARM_REG_R0, reg(UC_ARM_REG_R0) - static_cast<uint32_t>(loops));
    charge_cycles(loops * 3);
}

void on_block(uc_engine* uc, uint64_t address, uint32_t size, void*) {
    Chip& c = g_chip;
    if (address == c.delay_loop) {
        skip_delay_loops();
    }
    charge_cycles(block_cycles(address, size));
    if (++c.blocks_since_sp_check >= sp_check_blocks) {
        check_stack();
    }
    if (c.check_irq && irq_ready()) {
        uc_emu_stop(uc);
    }
    if (now_ns() > c.call_deadline) {
        c.call_expired = true;
        uc_emu_stop(uc);
    }
}

bool on_invalid(uc_engine*, uc_mem_type type, uint64_t address, int size, int64_t value, void*) {
    g_chip.invalid_address = address;
    return false;
}

// What an emulator error is on the chip: its description and the fault status bits it sets.
struct FaultKind {
    const char* text;
    uint32_t cfsr;
};

FaultKind fault_kind(uc_err e) {
    switch (e) {
    case UC_ERR_READ_UNMAPPED:
        return {"read of unmapped address", cfsr_preciserr | cfsr_bfarvalid};
    case UC_ERR_WRITE_UNMAPPED:
        return {"write to unmapped address", cfsr_preciserr | cfsr_bfarvalid};
    case UC_ERR_WRITE_PROT:
        return {"write to read-only memory", cfsr_preciserr | cfsr_bfarvalid};
    case UC_ERR_READ_PROT:
        return {"read of protected memory", cfsr_preciserr | cfsr_bfarvalid};
    case UC_ERR_FETCH_UNMAPPED:
        return {"instruction fetch from unmapped address", cfsr_ibuserr};
    case UC_ERR_FETCH_PROT:
        return {"instruction fetch from non-executable memory", cfsr_ibuserr};
    case UC_ERR_READ_UNALIGNED:
    case UC_ERR_WRITE_UNALIGNED:
    case UC_ERR_FETCH_UNALIGNED:
        return {"unaligned access", cfsr_unaligned};
    case UC_ERR_INSN_INVALID:
        return {"undefined instruction", cfsr_undefinstr};
    default:
        return {"processor exception", cfsr_undefinstr};
    }
}

bool run_until(uint32_t stop);

// Lets time pass with the processor stopped (locked up, or without a clock) until the period ends
// (watchdog, script, run time) or a test's call runs out of time.
bool stand_still() {
    Chip& c = g_chip;
    for (;;) {
        if (now_ns() > c.call_deadline) {
            c.call_expired = true;
            return false;
        }
        advance_ns(ns_per_ms);
    }
}

void push_frame(uint32_t frame_sp, uint32_t return_pc) {
    uint32_t frame[8] = {reg(UC_ARM_REG_R0),  reg(UC_ARM_REG_R1), reg(UC_ARM_REG_R2), reg(UC_ARM_REG_R3),
                         reg(UC_ARM_REG_R12), reg(UC_ARM_REG_LR), return_pc,          reg(UC_ARM_REG_XPSR)};
    uc_mem_write(g_chip.uc, frame_sp, frame, sizeof frame);
}

void save_context(Context& ctx) {
    for (int i = 0; i < 16; ++i) {
        ctx.core[i] = reg(core_regs[i]);
    }
    ctx.xpsr = reg(UC_ARM_REG_XPSR);
    ctx.primask = reg(UC_ARM_REG_PRIMASK);
    ctx.basepri = reg(UC_ARM_REG_BASEPRI);
    ctx.faultmask = reg(UC_ARM_REG_FAULTMASK);
    ctx.control = reg(UC_ARM_REG_CONTROL);
    ctx.fpscr = reg(UC_ARM_REG_FPSCR);
    for (int i = 0; i < 32; ++i) {
        ctx.s[i] = reg(UC_ARM_REG_S0 + i);
    }
}

// Code entered from outside (a handler, a test's call) starts in Thumb state and outside any IT
// block, whatever the code it interrupted or replaced was doing.
void clear_it_state() {
    set_reg(UC_ARM_REG_EPSR, epsr_thumb);
}

void restore_context(const Context& ctx) {
    for (int i = 0; i < 32; ++i) {
        set_reg(UC_ARM_REG_S0 + i, ctx.s[i]);
    }
    set_reg(UC_ARM_REG_FPSCR, ctx.fpscr);
    set_reg(UC_ARM_REG_CONTROL, ctx.control);
    set_reg(UC_ARM_REG_FAULTMASK, ctx.faultmask);
    set_reg(UC_ARM_REG_BASEPRI, ctx.basepri);
    set_reg(UC_ARM_REG_PRIMASK, ctx.primask);
    set_reg(UC_ARM_REG_XPSR_NZCVQG, ctx.xpsr); // UC_ARM_REG_XPSR would leave out the GE bits
    for (int i = 0; i < 16; ++i) {
        set_reg(core_regs[i], ctx.core[i]);
    }
}

// Exception entry and return around one handler run.
bool take_exception(int vector) {
    Chip& c = g_chip;
    if (vector != hard_fault) {
        set_pending(vector, false);
    }
    ++c.exceptions;
    Context saved{};
    save_context(saved);

    uint32_t sp = reg(UC_ARM_REG_SP);
    bool fp_frame = (reg(UC_ARM_REG_CONTROL) & 0x4) != 0;
    uint32_t frame_sp = (sp - (fp_frame ? 104u : 32u)) & ~7u;
    push_frame(frame_sp, reg(UC_ARM_REG_PC));
    uint32_t handler = read_word(c.scs.vtor + 4u * static_cast<uint32_t>(vector));
    if (c.stack_limit && frame_sp < c.stack_limit && vector != hard_fault) {
        // Reported at the interrupted instruction; the handler runs into the fault at once.
        raise_fault(cfsr_stkerr, frame_sp, "stack overflow: an exception frame below the stack reserve");
    }

    set_reg(UC_ARM_REG_SP, frame_sp);
    set_reg(UC_ARM_REG_LR, return_trap | 1);
    set_reg(UC_ARM_REG_PC, handler & ~1u);
    clear_it_state();

    int previous_vector = c.active_vector;
    int previous_priority = c.active_priority;
    c.active_vector = vector;
    c.active_priority = vector == hard_fault ? -1 : exception_priority(vector);
    bool ok = run_until(return_trap);
    c.active_vector = previous_vector;
    c.active_priority = previous_priority;
    if (!ok) {
        return false;
    }
    restore_context(saved);
    c.check_irq = true;
    return true;
}

bool take_fault() {
    Chip& c = g_chip;
    c.fault_pending = false;
    ++c.fault_count;
    char line[256];
    std::snprintf(line, sizeof line, "fault: %s at PC 0x%08X, address 0x%08X", c.fault_text.c_str(),
                  c.fault_pc, c.fault_address);
    c.last_fault = line;
    message("%s", line);
    c.scs.cfsr |= c.fault_cfsr;
    c.scs.hfsr |= hfsr_forced;
    if (c.fault_cfsr & cfsr_bfarvalid) {
        c.scs.bfar = c.fault_address;
    }
    if (c.active_vector == hard_fault) {
        message("a fault inside the hard-fault handler: the processor locks up");
        c.halted = true;
        return stand_still();
    }
    return take_exception(hard_fault);
}

// An instruction that cannot execute faults at its own address; an access at the one it touched.
void fault_from_emulator(uc_err e) {
    Chip& c = g_chip;
    FaultKind k = fault_kind(e);
    bool at_pc = e == UC_ERR_INSN_INVALID || e == UC_ERR_EXCEPTION;
    uint32_t address = at_pc ? reg(UC_ARM_REG_PC) : static_cast<uint32_t>(c.invalid_address);
    raise_fault(k.cfsr, address, k.text);
}

bool run_until(uint32_t stop) {
    Chip& c = g_chip;
    for (;;) {
        if (c.halted) {
            return stand_still();
        }
        if (c.call_expired) {
            return false;
        }
        uint32_t pc = reg(UC_ARM_REG_PC);
        if (stop != 0 && pc == stop) {
            return true;
        }
        c.invalid_address = 0;
        // One stop address for every run: Unicorn retranslates its code when the address changes.
        uc_err e = uc_emu_start(c.uc, pc | 1, return_trap, 0, 0);
        if (e != UC_ERR_OK) {
            fault_from_emulator(e);
        }
        if (c.call_expired) {
            return false;
        }
        if (c.fault_pending) {
            if (!take_fault()) {
                return false;
            }
            continue;
        }
        if (c.check_irq && irq_ready() && !take_exception(c.next_vector)) {
            return false;
        }
    }
}

void find_addresses() {
    Chip& c = g_chip;
    const ElfImage& im = c.image;
    uint32_t v = 0;
    c.delay_loop = find_symbol(im, "SysCtlDelay", v) ? (v & ~1u) : 0;
    c.stack_top = find_symbol(im, "__stack_top", v) ? v : sram_base + sram_size;
    c.stack_limit = find_symbol(im, "__stack_limit", v) ? v : 0;
    c.heap_start = find_symbol(im, "end", v) ? v : (find_symbol(im, "__bss_end", v) ? v : 0);
    c.heap_end_var = find_symbol_containing(im, "heap_end", v) ? v : 0;
}

bool open_core(std::string& error) {
    Chip& c = g_chip;
    if (c.uc) {
        uc_close(c.uc);
        c.uc = nullptr;
    }
    uc_err e = uc_open(UC_ARCH_ARM, static_cast<uc_mode>(UC_MODE_THUMB | UC_MODE_MCLASS), &c.uc);
    if (e != UC_ERR_OK) {
        error = std::string("cannot start the processor emulator: ") + uc_strerror(e);
        return false;
    }
    uc_ctl_set_cpu_model(c.uc, UC_CPU_ARM_CORTEX_M4);
    if (!map_memory(error)) {
        return false;
    }
    uint16_t branch_to_self = 0xE7FE;
    uc_mem_map(c.uc, return_trap, 0x1000, UC_PROT_READ | UC_PROT_EXEC);
    uc_mem_write(c.uc, return_trap, &branch_to_self, sizeof branch_to_self);
    uc_hook h{};
    uc_hook_add(c.uc, &h, UC_HOOK_BLOCK, reinterpret_cast<void*>(on_block), nullptr, 1, 0);
    uc_hook_add(c.uc, &h, UC_HOOK_MEM_INVALID, reinterpret_cast<void*>(on_invalid), nullptr, 1, 0);
    return true;
}

void paint_stack() {
    Chip& c = g_chip;
    if (c.heap_start < sram_base || c.stack_top <= c.heap_start) {
        return;
    }
    std::vector<uint32_t> paint((c.stack_top - c.heap_start) / 4, paint_word);
    uc_mem_write(c.uc, c.heap_start, paint.data(), paint.size() * 4);
}

uint32_t stack_probe() {
    return stack_high_water();
}

} // namespace

Chip& chip() {
    return g_chip;
}

void charge_cycles(uint64_t cycles) {
    Chip& c = g_chip;
    c.ps += cycles * ps_per_cycle();
    uint64_t ns = c.ps / 1000;
    c.ps -= ns * 1000;
    Shared& s = shared();
    uint64_t t = s.now_ns + ns;
    if (c.deadline == 0) {
        c.deadline = sim::next_event_ns(); // a register access may have moved the next event
    }
    if (t < c.deadline) {
        s.now_ns = t;
        return;
    }
    advance_ns(ns);
    c.deadline = sim::next_event_ns();
    c.check_irq = true;
}

bool irq_ready() {
    Chip& c = g_chip;
    const Core& k = core();
    std::bitset<num_vectors> ready = k.pending & k.enabled;
    if (ready.none()) {
        c.check_irq = false;
        return false;
    }
    if (reg(UC_ARM_REG_PRIMASK) & 1) {
        return false; // looked at again after every block until the mask lifts
    }
    int best = -1;
    int best_priority = 1 << 16;
    for (size_t v = ready._Find_first(); v < ready.size(); v = ready._Find_next(v)) {
        int p = exception_priority(static_cast<int>(v));
        if (p < best_priority) {
            best_priority = p;
            best = static_cast<int>(v);
        }
    }
    if (best < 0 || best_priority >= c.active_priority) {
        c.check_irq = false; // looked at again when the running handler returns
        return false;
    }
    c.next_vector = best;
    return true;
}

void raise_fault(uint32_t cfsr, uint32_t address, const std::string& text) {
    Chip& c = g_chip;
    if (c.fault_pending) {
        return;
    }
    c.fault_pending = true;
    c.fault_cfsr = cfsr;
    c.fault_address = address;
    c.fault_text = text;
    c.fault_pc = c.uc ? reg(UC_ARM_REG_PC) : 0;
    if (c.uc) {
        uc_emu_stop(c.uc);
    }
}

bool load_image(const std::string& path, std::string& error) {
    Chip& c = g_chip;
    if (!load_elf(path, c.image, error)) {
        return false;
    }
    for (const Segment& s : c.image.segments) {
        bool in_flash = s.address < flash_size && s.bytes.size() <= flash_size - s.address;
        if (!in_flash) {
            error = "a loadable segment lies outside the 256 KiB flash";
            return false;
        }
    }
    find_addresses();
    return true;
}

const ElfImage& image() {
    return g_chip.image;
}

bool power_on_reset() {
    Chip& c = g_chip;
    if (c.image.segments.empty()) {
        message("no image loaded");
        return false;
    }
    std::string error;
    if (!open_core(error)) {
        message("%s", error.c_str());
        return false;
    }
    for (const Segment& s : c.image.segments) {
        uc_mem_write(c.uc, s.address, s.bytes.data(), s.bytes.size());
    }
    paint_stack();
    g_block_cost.assign(flash_size / 2, BlockCost{0, 0});
    c.ps = 0;
    c.deadline = 0;
    c.check_irq = true;
    c.blocks_since_sp_check = 0;
    c.active_vector = 0;
    c.active_priority = 256;
    c.halted = false;
    c.fault_pending = false;
    c.fault_count = 0;
    c.exceptions = 0;
    c.last_fault.clear();
    c.poll_repeats = 0;
    c.call_deadline = UINT64_MAX;
    c.call_expired = false;
    scs_reset();
    dev::sysctl_reg_reset();
    core().emulated = true;
    set_stack_probe(stack_probe);

    uint32_t initial_sp = read_word(0);
    uint32_t reset = read_word(4);
    set_reg(UC_ARM_REG_SP, initial_sp);
    set_reg(UC_ARM_REG_PC, reset & ~1u);
    return true;
}

[[noreturn]] void run() {
    if (power_on_reset()) {
        run_until(0);
    }
    message("the processor stopped");
    g_chip.halted = true;
    stand_still();
    power_off(PowerEvent::end);
}

bool call(const std::string& function, std::initializer_list<uint32_t> args, uint32_t* result,
          uint64_t max_ns) {
    uint32_t address = 0;
    if (!g_chip.uc || !find_symbol(g_chip.image, function, address)) {
        return false;
    }
    return call_at(address, args, result, max_ns);
}

bool call_at(uint32_t address, std::initializer_list<uint32_t> args, uint32_t* result, uint64_t max_ns) {
    Chip& c = g_chip;
    if (!c.uc) {
        return false;
    }
    // The first four arguments in r0-r3, the rest on the stack (8-byte aligned), as the ABI has it.
    static const int arg_regs[] = {UC_ARM_REG_R0, UC_ARM_REG_R1, UC_ARM_REG_R2, UC_ARM_REG_R3};
    uint32_t stacked = args.size() > 4 ? static_cast<uint32_t>(args.size() - 4) : 0;
    uint32_t sp = (reg(UC_ARM_REG_SP) - 4 * stacked) & ~7u;
    size_t i = 0;
    for (uint32_t a : args) {
        if (i < 4) {
            set_reg(arg_regs[i], a);
        } else {
            write_word(sp + 4 * static_cast<uint32_t>(i - 4), a);
        }
        ++i;
    }
    set_reg(UC_ARM_REG_SP, sp);
    set_reg(UC_ARM_REG_LR, return_trap | 1);
    set_reg(UC_ARM_REG_PC, address & ~1u);
    clear_it_state();
    c.call_deadline = now_ns() + max_ns;
    c.call_expired = false;
    uint32_t faults_before = c.fault_count;
    bool ok = run_until(return_trap);
    c.call_deadline = UINT64_MAX;
    if (result) {
        *result = reg(UC_ARM_REG_R0);
    }
    if (ok) {
        set_reg(UC_ARM_REG_SP, reg(UC_ARM_REG_SP) + 4 * stacked);
    }
    if (!ok) {
        // Leave the processor where a new call can start: out of any handler.
        c.call_expired = false;
        c.halted = false;
        c.active_vector = 0;
        c.active_priority = 256;
        set_reg(UC_ARM_REG_SP, read_word(0));
    }
    return ok && c.fault_count == faults_before;
}

uint32_t read_word(uint32_t address) {
    uint32_t v = 0;
    uc_mem_read(g_chip.uc, address, &v, 4);
    return v;
}

void write_word(uint32_t address, uint32_t value) {
    uc_mem_write(g_chip.uc, address, &value, 4);
}

uint32_t stack_high_water() {
    Chip& c = g_chip;
    if (!c.uc || c.heap_start < sram_base || c.stack_top <= c.heap_start) {
        return 0;
    }
    uint32_t from = c.heap_start;
    if (c.heap_end_var) {
        uint32_t heap_end = read_word(c.heap_end_var);
        if (heap_end > from && heap_end < c.stack_top) {
            from = (heap_end + 3) & ~3u;
        }
    }
    std::vector<uint32_t> ram((c.stack_top - from) / 4);
    uc_mem_read(c.uc, from, ram.data(), ram.size() * 4);
    for (size_t i = 0; i < ram.size(); ++i) {
        if (ram[i] != paint_word) {
            return c.stack_top - (from + static_cast<uint32_t>(i) * 4);
        }
    }
    return 0;
}

uint32_t faults() {
    return g_chip.fault_count;
}

uint64_t exceptions_taken() {
    return g_chip.exceptions;
}

uint32_t get_register(int id) {
    return reg(id);
}

void set_register(int id, uint32_t value) {
    set_reg(id, value);
}

const std::string& last_fault() {
    return g_chip.last_fault;
}

} // namespace sim::chip
