// The runtime's state that outlives a power-on period: one plain block, which hxc3-sim maps into
// memory shared between its supervisor and the firmware's processes and the unit tests keep here,
// and the board directory the front end names.
#include "runtime_internal.h"

#include <cstring>

namespace sim {

namespace {

Shared g_local_state;
Shared* g_state = &g_local_state;
std::string g_board_dir;

} // namespace

Shared& shared() {
    return *g_state;
}

void use_shared(Shared* s) {
    g_state = s ? s : &g_local_state;
}

void clear_shared(uint32_t rtc_seconds) {
    Shared& s = shared();
    // The scenario's change count only grows, also across a cleared board: what was computed from an
    // earlier scenario must never look current again.
    uint32_t changes = s.scenario.changes;
    std::memset(&s, 0, sizeof s);
    s.scenario.changes = changes + 1;
    s.run_for_ns = never;
    s.hib.rtc_seconds = rtc_seconds;
    s.hib.trim = 0x7FFF;
    script::reset(s.script);
    std::strcpy(s.card_kind, "present");
    world_restart(s.now_ns);
}

HibState& hib() {
    rtc_sync();
    return shared().hib;
}

const std::string& board_dir() {
    return g_board_dir;
}
void set_board_dir(const std::string& dir) {
    g_board_dir = dir;
}

} // namespace sim
