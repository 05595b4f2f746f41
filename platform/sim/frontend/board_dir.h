// The board directory as hxc3-sim finds it: what a new board lacks is created, and memory files
// that cannot be a board's memory are refused.
#pragma once

#include "options.h"

#include <string>

namespace sim::frontend {

// A file of the board directory.
std::string path_in_board(const std::string& board, const char* name);
// Creates whatever the board directory lacks; false (with a message) when it cannot.
bool prepare_board(const Options& opt);
// Whether eeprom.bin and fram.bin have the size of the memories they hold.
bool memories_whole(const Options& opt);

} // namespace sim::frontend
