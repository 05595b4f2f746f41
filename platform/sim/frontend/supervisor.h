// The supervisor of hxc3-sim: the power-on periods of the board, each in a child process, and the
// hibernation between them.
#pragma once

#include "options.h"

namespace sim::frontend {

// Runs the board from the state in shared() until the run ends and returns the exit status. The
// console must be open (open_console).
// `script` is the script the world plays, null when none.
int supervise(const Options& opt, const script::Script* script);

} // namespace sim::frontend
