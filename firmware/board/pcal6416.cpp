// PCAL6416 I/O expander: input, output and configuration registers in port-0/port-1 pairs. An output
// is changed by reading its port's output register and writing it back with the one bit changed, so
// the expander itself holds the state of the switches.
#include "board/pcal6416.h"

#include "board/i2c0_reg.h"
#include "ports/uartstdio.h"

namespace {

constexpr uint8_t REG_INPUT0 = 0x00;
constexpr uint8_t REG_OUTPUT0 = 0x02;
constexpr uint8_t REG_CONFIG0 = 0x06; // a set bit makes the pin an input

constexpr uint8_t PORT0_DIRECTIONS = 0x00; // all outputs
constexpr uint8_t PORT1_DIRECTIONS = 0xFF; // all inputs

uint8_t bit_of(uint32_t pin) {
    return static_cast<uint8_t>(1u << (pin % 8));
}

} // namespace

int32_t pcal6416_init(void) {
    const uint8_t outputs[2] = {0x00, 0x00};
    const uint8_t directions[2] = {PORT0_DIRECTIONS, PORT1_DIRECTIONS};
    if (i2c0_reg_write(PCAL6416_I2C_ADDR, REG_OUTPUT0, outputs, sizeof outputs) != 0 ||
        i2c0_reg_write(PCAL6416_I2C_ADDR, REG_CONFIG0, directions, sizeof directions) != 0) {
        uprintf("\r\nERROR: PCAL6416 does not answer at I2C address 0x%02x\r\n", PCAL6416_I2C_ADDR);
        return 1;
    }
    return 0;
}

int32_t pcal6416_write_pin(uint32_t pin, uint32_t level) {
    if (pin >= PCAL6416_OUTPUT_PINS) {
        return -1;
    }
    uint8_t port = 0;
    if (i2c0_reg_read(PCAL6416_I2C_ADDR, REG_OUTPUT0, &port, 1) != 0) {
        return -1;
    }
    port = level ? static_cast<uint8_t>(port | bit_of(pin)) : static_cast<uint8_t>(port & ~bit_of(pin));
    return i2c0_reg_write(PCAL6416_I2C_ADDR, REG_OUTPUT0, &port, 1);
}

int32_t pcal6416_read_pin(uint32_t pin) {
    if (pin >= PCAL6416_PINS) {
        return -1;
    }
    uint8_t port = 0;
    if (i2c0_reg_read(PCAL6416_I2C_ADDR, static_cast<uint8_t>(REG_INPUT0 + pin / 8), &port, 1) != 0) {
        return -1;
    }
    return (port & bit_of(pin)) ? 1 : 0;
}
