// INA260 supply monitor: 16-bit registers, most significant byte first.
#include "board/ina260.h"

#include "board/i2c0_reg.h"
#include "ports/uartstdio.h"

namespace {

constexpr uint8_t REG_CONFIG = 0x00;
constexpr uint8_t REG_CURRENT = 0x01;
constexpr uint8_t REG_BUS_VOLTAGE = 0x02;
constexpr uint8_t REG_MANUFACTURER = 0xFE;

// Averages of 4 (AVG = 001), bus and current conversion times 1.1 ms (100 each), continuous bus and
// current (MODE = 111); bits 14..13 read as set.
constexpr uint16_t CONFIG_AVG4_CONTINUOUS = 0x6327;

constexpr float VOLTS_PER_LSB = 0.00125f;
constexpr float AMPS_PER_LSB = 0.00125f;

int32_t read_word(uint8_t reg, uint16_t* value) {
    uint8_t b[2];
    if (i2c0_reg_read(INA260_I2C_ADDR, reg, b, sizeof b) != 0) {
        return -1;
    }
    *value = static_cast<uint16_t>(b[0] << 8 | b[1]);
    return 0;
}

int32_t write_word(uint8_t reg, uint16_t value) {
    const uint8_t b[2] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    return i2c0_reg_write(INA260_I2C_ADDR, reg, b, sizeof b);
}

} // namespace

int32_t ina260_init(void) {
    uint16_t id = 0;
    if (read_word(REG_MANUFACTURER, &id) != 0 || id != INA260_MANUFACTURER_ID ||
        write_word(REG_CONFIG, CONFIG_AVG4_CONTINUOUS) != 0) {
        uprintf("\r\nERROR: INA260 not found at I2C address 0x%02x\r\n", INA260_I2C_ADDR);
        return 1;
    }
    return 0;
}

int32_t ina260_system_voltageCurrent(float* volts, float* amps) {
    uint16_t bus = 0;
    uint16_t current = 0;
    if (read_word(REG_BUS_VOLTAGE, &bus) != 0 || read_word(REG_CURRENT, &current) != 0) {
        *volts = 0.0f;
        *amps = 0.0f;
        return -1;
    }
    *volts = static_cast<float>(bus) * VOLTS_PER_LSB;
    *amps = static_cast<float>(static_cast<int16_t>(current)) * AMPS_PER_LSB;
    return 0;
}
