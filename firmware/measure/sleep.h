// Sleep: the only way the firmware goes to sleep. Arms the wake conditions, persists what the next
// pass through main needs, and enters the hibernation module (a wake is a full reset).
#pragma once

#include <cstdint>

// Stores state into sys_samp.state, arms the wake, persists and hibernates. wake_time is in RTC
// seconds (0 = none). Returns only when hibernation failed and the reset did not happen either.
void sleep(uint32_t state, uint32_t wake_time);
// The terse sleep mark of normal output.
void print_sleep(void);
// Diagnostic: reads and clears the hibernation status; unless the pin woke the chip, keeps the
// RTC-match bit as the sampling state.
void sleep_debug(void);
