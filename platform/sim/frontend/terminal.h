// The console as the outside sees it: the terminal (in raw mode), a pipe, a pseudo-terminal or
// nothing, the keys read from it and the board's console output written to it; and the signals
// that end the run.
#pragma once

#include "options.h"

#include <cstdint>
#include <string>

namespace sim::frontend {

// SIGINT, SIGTERM and SIGHUP ask the run to end (shared().stop_signal); SIGPIPE is ignored.
void set_signals();
// The console on a new pseudo-terminal (--pty, its name on stderr) or on stdin and stdout; a terminal
// on stdin goes into raw mode until the process exits. False when no pseudo-terminal could be had.
bool open_console(const Options& opt);
// The terminal as it was before open_console.
void restore_terminal();

// Whether keys can still come: a terminal, a pipe not yet at its end, or the pseudo-terminal.
bool keyboard_attached();
// Reads what the keyboard (or pty) has, waiting up to timeout_ms. Returns the bytes; `quit` tells
// that Ctrl-] came. End of input closes it for good.
std::string read_keys(int timeout_ms, bool& quit);

// A byte of the board's console output, held until flush_output (dropped under --quiet).
void console_byte(uint8_t b);
void flush_output();

} // namespace sim::frontend
