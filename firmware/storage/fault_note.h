// Faults that last from sample to sample (a low supply, an instrument that stopped answering): each
// is said on the console every time, but written to the error log only when it is first seen, then
// once a day while it lasts, and again at once after it cleared, so a months-long fault leaves a
// trace without filling the card.
#pragma once

#include <cstdint>

// One slot per fault; each keeps when it was last logged in the hibernation module's battery-backed
// memory (one word each, from word 0), which survives hibernation and resets.
constexpr uint32_t FAULT_LOW_SUPPLY = 0;
constexpr uint32_t FAULT_PORT3 = 1;
constexpr uint32_t FAULT_PORT4 = 2;
constexpr uint32_t FAULT_SLOTS = 3;

// How long a lasting fault waits before it is logged again.
constexpr uint32_t FAULT_REPEAT_S = 24 * 3600;

// The fault is present: `text` goes to the console, and to the error log when it is due.
void fault_note(uint32_t slot, const char* text);
// The fault is over: its next occurrence is logged at once. Costs nothing when it was not logged.
void fault_clear(uint32_t slot);
