// Unit-test harness of the simulated board: runs firmware functions on a fresh in-memory board and
// catches the end of a power-on period (hibernation, reset) where the chip would lose power.
#pragma once

#include "sim.h"

#include <string>

namespace sim::test {

// A new board: zeroed EEPROM and FRAM in memory, peripherals in their reset state, virtual time 0,
// the RTC at `rtc_seconds`, the hibernation module inactive, console output cleared, no scenario.
void reset_board(uint32_t rtc_seconds = 1767225600); // 2026-01-01 00:00:00 UTC

// How a call into the firmware ended.
struct Outcome {
    bool returned;     // the function returned normally
    PowerEvent event;  // otherwise: how the power-on period ended
};
// Runs fn; a power_off() inside it returns here instead of ending the process.
Outcome run(void (*fn)());

// Console (UART0) as a terminal would see it: every byte that left the transmitter since the last clear.
const std::string& console_output();
void clear_console_output();
// Types text into UART0 at its baud rate, starting now; the bytes arrive as virtual time passes.
void type(const std::string& text);
// Lets virtual time pass with no firmware running (interrupt handlers still run).
void advance_s(double seconds);
// Lets virtual time pass until UART0 has sent everything queued in its FIFO.
void drain_console();

} // namespace sim::test
