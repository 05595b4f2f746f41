// The sampling schedule of a deployment.
#pragma once

#include <cstdint>

// Samples (unless skip_sample), schedules the next wake and hibernates.
void deploy(uint32_t state, uint32_t skip_sample);
// Computes, stores in sys_samp.nextWakeUp and returns the next wake in RTC seconds.
uint32_t compute_nextWakeUp(void);
