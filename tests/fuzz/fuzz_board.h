// What the harnesses share: a simulated board brought up the way the firmware's start-up brings it
// up, firmware calls bounded in virtual time, and the factory records a new board gets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "sim_test.h"

namespace fuzz {

constexpr uint32_t T0 = 1767225600; // 2026-01-01 00:00:00 UTC

// A new board (sim::test::reset_board) whose EEPROM and FRAM hold the images the factory set-up
// leaves: the settings of initSysDataVariables and the sampling state of a first start. The images
// are made once per process and copied in afterwards.
void factory_board(void);
// The factory EEPROM and FRAM images (eeprom_size and fram_size bytes).
const uint8_t* factory_eeprom(void);
const uint8_t* factory_fram(void);

// A small FAT16 card in the slot (made once per process by the firmware's own f_mkfs, holding
// DATA.TXT with DATA_TEXT), restored to that state: call after factory_board().
void insert_card(void);
inline constexpr char DATA_NAME[] = "DATA.TXT";
inline constexpr char DATA_TEXT[] = "first line\r\nsecond line\r\n";
// A file of the mounted card read whole through the firmware's FAT module (inside a run); false
// when it cannot be opened.
bool read_card_file(const char* name, std::string& text);

// A factory board started by init(), as main() starts it.
void start_board(void);

// For harnesses that keep one board across inputs: starts it again (init) when the previous input
// ended its power-on period, and feeds the watchdog, whose minute would otherwise run out over many
// inputs that each take a little virtual time.
void keep_board_on(void);

// Runs fn on the board; a run still going after `seconds` of virtual time ends the power-on period
// (PowerEvent::end) and comes back here.
sim::test::Outcome run_for(void (*fn)(), double seconds);

// Like run_for, but a board that has not fed its watchdog for a second when the time is up runs on
// until it does (then the period ends), or until the watchdog resets it: a hang is seen whole, while
// a board that keeps feeding costs only the time given.
sim::test::Outcome run_watched(void (*fn)(), double seconds);

// Aborts with the message (and the tail of the console output) when ok is false: how a harness
// reports a broken invariant, so libFuzzer keeps the input.
void check(bool ok, const char* what);

// An instrument's text for the sample line: NUL-terminated within `size`, printable ASCII and tabs
// only, and exactly `fields` tab-separated columns.
bool instrument_columns(const char* text, size_t size, uint32_t fields);

// The input as text that a line of firmware may hold: NULs become spaces.
std::string text_of(const uint8_t* data, size_t size);

} // namespace fuzz
