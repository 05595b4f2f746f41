// Unit-test harness of the simulated board: runs firmware functions on a fresh in-memory board and
// catches the end of a power-on period (hibernation, reset) where the chip would lose power.
#pragma once

#include "sim.h"

#include <string>

namespace sim::test {

// A new board: zeroed EEPROM and FRAM in memory, peripherals in their reset state, virtual time 0,
// the RTC at `rtc_seconds`, the hibernation module inactive, console output cleared, no scenario.
// The board is on: a power-on period from `power` has begun.
void reset_board(uint32_t rtc_seconds = 1767225600); // 2026-01-01 00:00:00 UTC

// How a call into the firmware ended.
struct Outcome {
    bool returned;    // the function returned normally
    PowerEvent event; // otherwise: how the power-on period ended
};
// Runs fn; a power_off() inside it returns here instead of ending the process. The board is then
// off; a later run() powers it on first, as hxc3-sim would (after hibernation by the WAKE pin).
Outcome run(void (*fn)());

// Starts a new power-on period on the same board (memories and RTC kept, peripherals and core in
// their reset state, firmware globals as they are): `rtc` first lets time pass to the RTC match
// when it is armed, then the hibernation status reads as after that wake; `pin` likewise; `power`
// leaves the module inactive; `reset` and `watchdog` leave it as it stands.
void power_on(WakeSource src);
bool board_on();

// Console (UART0) as a terminal would see it: every byte that left the transmitter since the last clear.
const std::string& console_output();
void clear_console_output();
// Types text into UART0 at its baud rate, starting now; the bytes arrive as virtual time passes.
void type(const std::string& text);
// Types text after what is already queued, its first byte arriving no earlier than delay_s from now.
void type_after(double delay_s, const std::string& text);
// Lets virtual time pass with no firmware running (interrupt handlers still run). On a board that
// is off only the RTC runs. A power-on period that ends meanwhile (the watchdog) ends the wait.
Outcome advance_s(double seconds);
// Lets virtual time pass until UART0 has sent everything queued in its FIFO and the firmware's
// transmit buffer (a few character times of silence).
Outcome drain_console();

// Calls poll every interval_ns of virtual time while the board runs (null: never), as the world
// around the board would act: a peer on a serial port, a check on the firmware's progress.
void set_poll(void (*poll)(uint64_t now_ns), uint64_t interval_ns);

// Sets a scenario value as scenario.ini or the script's `set` would; false (said why) when refused.
bool set_scenario(const std::string& key, const std::string& value);

} // namespace sim::test
