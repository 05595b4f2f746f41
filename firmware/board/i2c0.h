// The board's I2C0 bus (PB2 clock, PB3 data) as polled master: the FRAM and the housing sensors
// hang on it, and every transfer to any of them goes through the two calls below.
#pragma once

#include <cstdint>

// fast: 0 for 100 kHz, non-zero for 400 kHz.
void i2c0_init(uint32_t fast);

// One write frame to the chip at 7-bit address `addr`: the `head_len` bytes of `head` (the chip's own
// addressing: a register pointer, a memory address), then `len` bytes of `data`, then the stop.
// 0 on success (also when there is nothing to send), -1 when the chip does not acknowledge its
// address or a byte, or the bus fails; the chip may then hold the bytes before the refused one.
int32_t i2c0_write(uint8_t addr, const uint8_t* head, uint32_t head_len, const uint8_t* data, uint32_t len);
// One read frame: `head` is written as above (nothing when head_len is 0), then a repeated start
// reads `len` bytes into `data`, acknowledging all but the last, and the stop ends the frame.
// 0 on success or when len is 0, -1 as for i2c0_write; a refusal leaves `data` untouched.
int32_t i2c0_read(uint8_t addr, const uint8_t* head, uint32_t head_len, uint8_t* data, uint32_t len);
