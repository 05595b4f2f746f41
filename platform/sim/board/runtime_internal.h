// Inside the runtime: what its files share with one another and nothing outside them uses. The
// event loop (virtual_time.cpp) meets the world around the board through world.cpp, which hands the
// typed console input to console_input.cpp.
#pragma once

#include "runtime.h"

namespace sim {

// ---------------------------------------------------------------- the world (world.cpp)
// The next virtual time at which the world needs the event loop: the run's end, a typed byte, the
// script, the host's poll, or now when a signal asked the run to stop.
uint64_t world_next();
// Does what the world has due at `now`; may end the power-on period.
void world_step(uint64_t now);
// The script steps at the next chance and the host is polled from `now` on (a cleared board, a new
// power-on period).
void world_restart(uint64_t now);

// ---------------------------------------------------------------- typed input (console_input.cpp)
// When the next typed byte reaches UART0; never when none is on its way.
uint64_t typed_due_ns();
// Hands UART0 the typed bytes that are due by `now`.
void deliver_typed(uint64_t now);

} // namespace sim
