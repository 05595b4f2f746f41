// PCAL6416 I/O expander of the HXC3 baseboard on I2C0 (pump, solenoid and power switches).
#pragma once

#include <cstdint>

// Probes and configures the expander; 0 on success.
int32_t pcal6416_init(void);
