// The data lines' way onto the card.
#pragma once

#include <cstdint>

// Appends len bytes of text to the data file sys_data.fileName: open, seek to the end, write, close.
// Failures are reported and logged; a card too full for the text keeps none of it.
void append_to_data_file(const char* text, uint32_t len);
