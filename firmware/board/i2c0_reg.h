// Register access to the chips on I2C0 that use an 8-bit register pointer (the housing sensor, the
// supply monitor and the I/O expander): the pointer byte, then data bytes, most chips auto-incrementing.
#pragma once

#include <cstdint>

// Writes `len` bytes starting at register `reg` of the chip at 7-bit address `addr`, in one
// transfer. 0 on success, -1 when the chip does not acknowledge its address or a byte.
int32_t i2c0_reg_write(uint8_t addr, uint8_t reg, const uint8_t* data, uint32_t len);
// Reads `len` (at least 1) bytes starting at register `reg`: the pointer is written, then a
// repeated start reads. 0 on success, -1 when the chip does not acknowledge.
int32_t i2c0_reg_read(uint8_t addr, uint8_t reg, uint8_t* data, uint32_t len);
