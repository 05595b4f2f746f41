// INA260 supply monitor on I2C0 (address 0x40): main battery bus voltage and the board's load
// current through its integrated shunt.
//
// For the sample cycle:
//   int32_t ina260_system_voltageCurrent(float* volts, float* amps)
//           the latest bus voltage (V, 1.25 mV steps) and load current (A, 1.25 mA steps, negative
//           when current flows back). 0 on success; -1 when the monitor does not answer, with both
//           outputs set to 0.
// The monitor converts continuously from power-up with its default configuration, so no set-up is
// needed before a reading; ina260_init only checks the part and sets the averaging.
#pragma once

#include <cstdint>

constexpr uint8_t INA260_I2C_ADDR = 0x40;
constexpr uint16_t INA260_MANUFACTURER_ID = 0x5449; // "TI"

// Checks the manufacturer id and configures continuous bus and current conversions (1.1 ms each,
// averaged over 4). 0 on success; 1 when the monitor does not answer or is another part (with a
// message on the console).
int32_t ina260_init(void);
int32_t ina260_system_voltageCurrent(float* volts, float* amps);
