// The board's I2C0 bus (PB2 clock, PB3 data) as polled master: the FRAM and the housing sensors
// hang on it.
#pragma once

#include <cstdint>

// fast: 0 for 100 kHz, non-zero for 400 kHz.
void i2c0_init(uint32_t fast);
// Waits until the master has finished the current byte or command.
void i2c0_wait_master(void);
// Waits until no transfer holds the bus.
void i2c0_wait_bus(void);
