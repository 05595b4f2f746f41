// PCAL6416 16-bit I/O expander of the HXC3 baseboard on I2C0 (address 0x20): the pump, valve,
// monitor, UV spectrometer and lamp power switches on port 0 (pins 0..7, outputs), spare inputs on port 1
// (pins 8..15).
//
// For the sample cycle and the pumps:
//   int32_t pcal6416_write_pin(uint32_t pin, uint32_t level)  drives an output pin (0..7) low (0)
//           or high (non-zero); 0 on success, -1 for a pin that is not an output or when the
//           expander does not answer.
//   int32_t pcal6416_read_pin(uint32_t pin)  the level on any pin (0..15) as the expander's input
//           register sees it: 0 or 1, -1 when the expander does not answer or pin > 15.
#pragma once

#include <cstdint>

constexpr uint8_t PCAL6416_I2C_ADDR = 0x20;

// Port 0: the switched lines, all off after pcal6416_init.
constexpr uint32_t PCAL6416_PUMP1 = 0;
constexpr uint32_t PCAL6416_PUMP2 = 1;
constexpr uint32_t PCAL6416_VALVE1 = 2;
constexpr uint32_t PCAL6416_VALVE2 = 3;
constexpr uint32_t PCAL6416_PWR_ENV_MON = 4;  // housing sensor supply
constexpr uint32_t PCAL6416_PWR_VBAT_MON = 5; // battery monitor supply
constexpr uint32_t PCAL6416_PWR_SPEC = 6;     // UV spectrometer supply
constexpr uint32_t PCAL6416_PWR_LAMP = 7;     // its lamp supply
constexpr uint32_t PCAL6416_OUTPUT_PINS = 8;
constexpr uint32_t PCAL6416_PINS = 16;

// Drives every port-0 line low, then makes port 0 outputs and port 1 inputs (in that order, so no
// switch glitches on). 0 on success; 1 when the expander does not answer (with a message on the
// console).
int32_t pcal6416_init(void);
int32_t pcal6416_write_pin(uint32_t pin, uint32_t level);
int32_t pcal6416_read_pin(uint32_t pin);
