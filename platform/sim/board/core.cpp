// The processor core of a power-on period: the interrupt mask, the NVIC's pending and enabled
// lines and the dispatch of their handlers, SysTick's period, and the state a reset leaves.
#include "runtime_internal.h"

namespace sim {

namespace {

Core g_core;

} // namespace

Core& core() {
    return g_core;
}

bool int_master_disable() {
    bool was = g_core.masked;
    g_core.masked = true;
    return was;
}

bool int_master_enable() {
    bool was = g_core.masked;
    g_core.masked = false;
    dispatch_interrupts();
    return was;
}

bool int_masked() {
    return g_core.masked;
}

void set_pending(int vector, bool pending) {
    if (vector < 0 || vector >= num_vectors) {
        return;
    }
    g_core.pending.set(static_cast<size_t>(vector), pending);
    g_core.maybe_ready |= pending;
}

void register_vector(int vector, Handler h) {
    if (vector >= 0 && vector < num_vectors) {
        g_core.handlers[vector] = h;
    }
}

void nvic_enable(int vector, bool on) {
    if (vector < 16 || vector >= num_vectors) {
        return; // system exceptions are always enabled
    }
    g_core.enabled.set(static_cast<size_t>(vector), on);
    g_core.maybe_ready |= on;
    if (on) {
        dispatch_interrupts();
    }
}

void dispatch_interrupts() {
    Core& c = g_core;
    if (c.emulated) {
        return; // the emulated processor takes them between its instructions
    }
    while (c.maybe_ready && !c.masked && !c.in_handler) {
        std::bitset<num_vectors> ready = c.pending & c.enabled;
        if (ready.none()) {
            c.maybe_ready = false;
            return;
        }
        size_t v = ready._Find_first();
        c.pending.reset(v);
        Handler h = c.handlers[v];
        if (!h) {
            continue; // nothing in the vector table for it
        }
        c.in_handler = true;
        ++c.handlers_run;
        h();
        c.in_handler = false;
    }
}

void wait_for_interrupt() {
    Core& c = g_core;
    if (c.in_handler) {
        return;
    }
    uint64_t before = c.handlers_run;
    while ((c.pending & c.enabled).none() && c.handlers_run == before) {
        uint64_t now = shared().now_ns;
        uint64_t t = next_event_ns();
        advance_ns(t > now && t != never ? t - now : ns_per_ms);
    }
}

// The emulated processor runs at the clock its registers select; the host build's processor always
// runs at ns_per_cycle, whatever clock the firmware set (it only reads the setting back).
uint64_t systick_period_ns() {
    if (!g_core.emulated) {
        return static_cast<uint64_t>(g_core.systick_period) * ns_per_cycle;
    }
    uint32_t hz = g_core.clock_hz ? g_core.clock_hz : 16000000;
    return static_cast<uint64_t>(g_core.systick_period) * ns_per_s / hz;
}

void core_reset() {
    Core& c = g_core;
    c = Core{};
    for (int v = 0; v < 16; ++v) {
        c.enabled.set(static_cast<size_t>(v));
    }
    c.clock_hz = 16000000; // the precision internal oscillator until SysCtlClockSet
    // The hibernation module's run-mode clock gate is the one that comes out of reset open.
    c.periph_enabled[c.periph_count++] = 0xF0001400; // SYSCTL_PERIPH_HIBERNATE
    install_vectors();
}

} // namespace sim
