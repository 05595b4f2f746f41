// Register transfers on I2C0: the register pointer is the one byte of the chip's own addressing
// that opens each frame.
#include "board/i2c0_reg.h"

#include "board/i2c0.h"

int32_t i2c0_reg_write(uint8_t addr, uint8_t reg, const uint8_t* data, uint32_t len) {
    return i2c0_write(addr, &reg, 1, data, len);
}

int32_t i2c0_reg_read(uint8_t addr, uint8_t reg, uint8_t* data, uint32_t len) {
    return i2c0_read(addr, &reg, 1, data, len);
}
