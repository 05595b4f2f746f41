// The Cortex-M4's system control space (0xE000E000): SysTick, the NVIC's enable, pending and
// priority registers, the system control block (vector table offset, reset request, system handler
// priorities, fault status, coprocessor access) and the FPU's context control. SysTick and the
// interrupt enables and pending bits are the runtime's, shared with the host build's API door.
#include "chip_internal.h"
#include "runtime.h"

namespace sim::chip {

namespace {

constexpr uint32_t stctrl_enable = 0x1;
constexpr uint32_t stctrl_inten = 0x2;
constexpr uint32_t stctrl_clk_src = 0x4;
constexpr uint32_t stctrl_count = 0x10000;
constexpr uint32_t aircr_vectkey = 0x05FA0000;
constexpr uint32_t aircr_sysresetreq = 0x4;
constexpr uint32_t icsr_pendstset = 1u << 26;
constexpr uint32_t icsr_pendstclr = 1u << 25;

uint64_t systick_period_ns() {
    return static_cast<uint64_t>(core().systick_period) * ns_per_s / system_clock_hz();
}

uint64_t systick_read_ns = 0; // when STCTRL was last read: COUNT reports a wrap since then

uint32_t systick_current() {
    const Core& c = core();
    uint64_t now = now_ns();
    if (!c.systick_enabled || c.systick_period == 0 || c.systick_next_ns <= now) {
        return 0;
    }
    uint64_t cycles = (c.systick_next_ns - now) * system_clock_hz() / ns_per_s;
    return static_cast<uint32_t>(cycles % c.systick_period);
}

uint32_t systick_ctrl() {
    const Core& c = core();
    uint32_t v = stctrl_clk_src;
    v |= c.systick_enabled ? stctrl_enable : 0;
    v |= c.systick_int ? stctrl_inten : 0;
    if (c.systick_enabled) {
        uint64_t last_wrap = c.systick_next_ns - systick_period_ns();
        if (last_wrap > systick_read_ns) {
            v |= stctrl_count;
        }
    }
    systick_read_ns = now_ns();
    return v;
}

void systick_ctrl_write(uint32_t value) {
    Core& c = core();
    bool enable = (value & stctrl_enable) != 0;
    c.systick_int = (value & stctrl_inten) != 0;
    if (!c.systick_int) {
        set_pending(15, false);
    }
    if (enable && !c.systick_enabled && c.systick_period > 0) {
        c.systick_next_ns = now_ns() + systick_period_ns();
    }
    c.systick_enabled = enable && c.systick_period > 0;
}

// One 32-bit NVIC bank word: interrupts 32*k .. 32*k+31 (vectors 16 and up).
uint32_t nvic_bits(const std::bitset<num_vectors>& bits, uint32_t word) {
    uint32_t v = 0;
    for (uint32_t bit = 0; bit < 32; ++bit) {
        uint32_t vector = 16 + word * 32 + bit;
        if (vector < static_cast<uint32_t>(num_vectors) && bits.test(vector)) {
            v |= 1u << bit;
        }
    }
    return v;
}

void nvic_apply(uint32_t word, uint32_t value, void (*op)(int)) {
    for (uint32_t bit = 0; bit < 32; ++bit) {
        uint32_t vector = 16 + word * 32 + bit;
        if ((value & (1u << bit)) && vector < static_cast<uint32_t>(num_vectors)) {
            op(static_cast<int>(vector));
        }
    }
}

uint32_t icsr() {
    Chip& ch = chip();
    uint32_t v = static_cast<uint32_t>(ch.active_vector) & 0x1FF;
    if (core().pending.test(15)) {
        v |= icsr_pendstset;
    }
    return v;
}

void icsr_write(uint32_t value) {
    if (value & icsr_pendstset) {
        set_pending(15, true);
    }
    if (value & icsr_pendstclr) {
        set_pending(15, false);
    }
}

void aircr_write(uint32_t value) {
    if ((value & 0xFFFF0000) != aircr_vectkey) {
        return; // without the key the write is ignored
    }
    chip().scs.aircr = value & 0x700;
    if (value & aircr_sysresetreq) {
        power_off(PowerEvent::reset);
    }
}

uint32_t read_priority_bytes(uint32_t first) {
    const Scs& s = chip().scs;
    uint32_t v = 0;
    for (uint32_t i = 0; i < 4 && first + i < sizeof s.nvic_priority; ++i) {
        v |= static_cast<uint32_t>(s.nvic_priority[first + i]) << (8 * i);
    }
    return v;
}

// Only the top three bits of a priority exist on this part.
void write_priority_bytes(uint32_t first, uint32_t value, unsigned size) {
    Scs& s = chip().scs;
    for (uint32_t i = 0; i < size && first + i < sizeof s.nvic_priority; ++i) {
        s.nvic_priority[first + i] = static_cast<uint8_t>((value >> (8 * i)) & 0xE0);
    }
}

} // namespace

void scs_reset() {
    Scs& s = chip().scs;
    s = Scs{};
    s.ccr = 0x200;
    s.fpccr = 0xC0000000; // automatic and lazy state preservation
    systick_read_ns = 0;
}

int exception_priority(int vector) {
    const Scs& s = chip().scs;
    if (vector >= 16) {
        return s.nvic_priority[vector - 16];
    }
    if (vector >= 4) {
        uint32_t reg = s.shpr[(vector - 4) / 4];
        return static_cast<int>((reg >> (8 * ((vector - 4) % 4))) & 0xE0);
    }
    return -1; // reset, NMI and hard fault have fixed priorities above every other
}

uint32_t scs_read(uint32_t offset) {
    Scs& s = chip().scs;
    if (offset >= 0x100 && offset < 0x120) {
        return nvic_bits(core().enabled, (offset - 0x100) / 4);
    }
    if (offset >= 0x180 && offset < 0x1A0) {
        return nvic_bits(core().enabled, (offset - 0x180) / 4);
    }
    if (offset >= 0x200 && offset < 0x220) {
        return nvic_bits(core().pending, (offset - 0x200) / 4);
    }
    if (offset >= 0x280 && offset < 0x2A0) {
        return nvic_bits(core().pending, (offset - 0x280) / 4);
    }
    if (offset >= 0x400 && offset < 0x4F0) {
        return read_priority_bytes(offset - 0x400);
    }
    switch (offset) {
    case 0x010:
        return systick_ctrl();
    case 0x014:
        return core().systick_period ? core().systick_period - 1 : 0;
    case 0x018:
        return systick_current();
    case 0xD00:
        return 0x410FC241; // CPUID: Cortex-M4 r0p1
    case 0xD04:
        return icsr();
    case 0xD08:
        return s.vtor;
    case 0xD0C:
        return 0xFA050000 | s.aircr;
    case 0xD10:
        return s.scr;
    case 0xD14:
        return s.ccr;
    case 0xD18:
    case 0xD1C:
    case 0xD20:
        return s.shpr[(offset - 0xD18) / 4];
    case 0xD24:
        return s.shcsr;
    case 0xD28:
        return s.cfsr;
    case 0xD2C:
        return s.hfsr;
    case 0xD34:
        return s.mmfar;
    case 0xD38:
        return s.bfar;
    case 0xD88:
        return s.cpacr;
    case 0xF34:
        return s.fpccr;
    case 0xF38:
        return s.fpcar;
    case 0xF3C:
        return s.fpdscr;
    default:
        return 0;
    }
}

void scs_write(uint32_t offset, uint32_t value, unsigned size) {
    Scs& s = chip().scs;
    if (offset >= 0x100 && offset < 0x120) {
        nvic_apply((offset - 0x100) / 4, value, [](int v) { nvic_enable(v, true); });
        return;
    }
    if (offset >= 0x180 && offset < 0x1A0) {
        nvic_apply((offset - 0x180) / 4, value, [](int v) { nvic_enable(v, false); });
        return;
    }
    if (offset >= 0x200 && offset < 0x220) {
        nvic_apply((offset - 0x200) / 4, value, [](int v) { set_pending(v, true); });
        return;
    }
    if (offset >= 0x280 && offset < 0x2A0) {
        nvic_apply((offset - 0x280) / 4, value, [](int v) { set_pending(v, false); });
        return;
    }
    if (offset >= 0x400 && offset < 0x4F0) {
        write_priority_bytes(offset - 0x400, value, size);
        return;
    }
    switch (offset) {
    case 0x010:
        systick_ctrl_write(value);
        break;
    case 0x014: // a new reload value takes effect at the next wrap
        core().systick_period = (value & 0xFFFFFF) + 1;
        break;
    case 0x018: // any write clears the counter: the count restarts from the reload value
        if (core().systick_enabled) {
            core().systick_next_ns = now_ns() + systick_period_ns();
        }
        break;
    case 0xD04:
        icsr_write(value);
        break;
    case 0xD08:
        s.vtor = value & 0xFFFFFC00;
        break;
    case 0xD0C:
        aircr_write(value);
        break;
    case 0xD10:
        s.scr = value;
        break;
    case 0xD14:
        s.ccr = value;
        break;
    case 0xD18:
    case 0xD1C:
    case 0xD20:
        s.shpr[(offset - 0xD18) / 4] = value & 0xE0E0E0E0;
        break;
    case 0xD24:
        s.shcsr = value;
        break;
    case 0xD28:
        s.cfsr &= ~value; // write 1 to clear
        break;
    case 0xD2C:
        s.hfsr &= ~value;
        break;
    case 0xD34:
        s.mmfar = value;
        break;
    case 0xD38:
        s.bfar = value;
        break;
    case 0xD88:
        s.cpacr = value;
        break;
    case 0xF34:
        s.fpccr = value;
        break;
    case 0xF38:
        s.fpcar = value;
        break;
    case 0xF3C:
        s.fpdscr = value;
        break;
    default:
        break;
    }
}

} // namespace sim::chip
