// BME280 housing sensor: probe, calibration words, forced measurements and the compensation of the
// raw readings. Nothing is measured unless asked, so the sensor sleeps between samples.
#include "board/bme280.h"

#include "board/i2c0_reg.h"
#include "board/timebase.h"
#include "ports/uartstdio.h"

namespace {

// Registers.
constexpr uint8_t REG_CALIB_TP = 0x88; // dig_T1 .. dig_P9, then a spare byte and dig_H1 at 0xA1
constexpr uint8_t REG_CHIP_ID = 0xD0;
constexpr uint8_t REG_RESET = 0xE0;
constexpr uint8_t REG_CALIB_H = 0xE1; // dig_H2 .. dig_H6
constexpr uint8_t REG_CTRL_HUM = 0xF2;
constexpr uint8_t REG_STATUS = 0xF3;
constexpr uint8_t REG_CTRL_MEAS = 0xF4;
constexpr uint8_t REG_CONFIG = 0xF5;
constexpr uint8_t REG_DATA = 0xF7; // press[3], temp[3], hum[2]

constexpr uint8_t RESET_WORD = 0xB6;
constexpr uint8_t STATUS_MEASURING = 0x08;
constexpr uint8_t STATUS_IM_UPDATE = 0x01;
constexpr uint8_t OSRS_X1 = 1;
constexpr uint8_t MODE_FORCED = 1;

// A finished measurement that still reports busy after this many extra milliseconds is given up.
constexpr uint32_t MEASURE_GRACE_MS = 10;
// After a reset the sensor copies its calibration from NVM in about 2 ms.
constexpr uint32_t NVM_COPY_MS = 20;

struct Calibration {
    uint16_t T1;
    int16_t T2, T3;
    uint16_t P1;
    int16_t P2, P3, P4, P5, P6, P7, P8, P9;
    uint8_t H1;
    int16_t H2;
    uint8_t H3;
    int16_t H4, H5;
    int8_t H6;
};

Calibration cal;
bool ready = false;

uint16_t le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

int16_t le16s(const uint8_t* p) {
    return static_cast<int16_t>(le16(p));
}

int32_t write_reg(uint8_t reg, uint8_t value) {
    return i2c0_reg_write(BME280_I2C_ADDR, reg, &value, 1);
}

int32_t read_calibration(void) {
    uint8_t tp[26];
    uint8_t h[7];
    if (i2c0_reg_read(BME280_I2C_ADDR, REG_CALIB_TP, tp, sizeof tp) != 0 ||
        i2c0_reg_read(BME280_I2C_ADDR, REG_CALIB_H, h, sizeof h) != 0) {
        return -1;
    }
    cal.T1 = le16(&tp[0]);
    cal.T2 = le16s(&tp[2]);
    cal.T3 = le16s(&tp[4]);
    cal.P1 = le16(&tp[6]);
    cal.P2 = le16s(&tp[8]);
    cal.P3 = le16s(&tp[10]);
    cal.P4 = le16s(&tp[12]);
    cal.P5 = le16s(&tp[14]);
    cal.P6 = le16s(&tp[16]);
    cal.P7 = le16s(&tp[18]);
    cal.P8 = le16s(&tp[20]);
    cal.P9 = le16s(&tp[22]);
    cal.H1 = tp[25];
    cal.H2 = le16s(&h[0]);
    cal.H3 = h[2];
    // dig_H4 and dig_H5 are signed 12-bit words sharing the nibbles of 0xE5: H4 is 0xE4 then the low
    // nibble, H5 is 0xE6 then the high nibble; the whole bytes carry the sign.
    cal.H4 = static_cast<int16_t>(static_cast<int8_t>(h[3]) * 16 | (h[4] & 0x0F));
    cal.H5 = static_cast<int16_t>(static_cast<int8_t>(h[5]) * 16 | (h[4] >> 4));
    cal.H6 = static_cast<int8_t>(h[6]);
    return 0;
}

// Waits until the status bits of `mask` clear, one millisecond at a time; false on time-out.
bool wait_status_clear(uint8_t mask, uint32_t limit_ms) {
    for (uint32_t ms = 0; ms <= limit_ms; ms++) {
        uint8_t status = 0;
        if (i2c0_reg_read(BME280_I2C_ADDR, REG_STATUS, &status, 1) != 0) {
            return false;
        }
        if ((status & mask) == 0) {
            return true;
        }
        delay_msec(1);
    }
    return false;
}

// Fine temperature, shared by the pressure and humidity compensation.
int32_t t_fine_of(int32_t adc_T) {
    const int32_t var1 = ((((adc_T >> 3) - (static_cast<int32_t>(cal.T1) << 1))) * cal.T2) >> 11;
    const int32_t d = (adc_T >> 4) - static_cast<int32_t>(cal.T1);
    const int32_t var2 = (((d * d) >> 12) * cal.T3) >> 14;
    return var1 + var2;
}

// Hundredths of a degree C.
int32_t centi_celsius(int32_t t_fine) {
    return (t_fine * 5 + 128) >> 8;
}

// Pascal in 24.8 fixed point; 0 when the calibration would divide by zero.
uint32_t pressure_q8(int32_t adc_P, int32_t t_fine) {
    int64_t var1 = static_cast<int64_t>(t_fine) - 128000;
    int64_t var2 = var1 * var1 * cal.P6;
    var2 = var2 + ((var1 * cal.P5) << 17);
    var2 = var2 + (static_cast<int64_t>(cal.P4) << 35);
    var1 = ((var1 * var1 * cal.P3) >> 8) + ((var1 * cal.P2) << 12);
    var1 = ((static_cast<int64_t>(1) << 47) + var1) * cal.P1 >> 33;
    if (var1 == 0) {
        return 0;
    }
    int64_t p = 1048576 - adc_P;
    p = (((p << 31) - var2) * 3125) / var1;
    var1 = (static_cast<int64_t>(cal.P9) * (p >> 13) * (p >> 13)) >> 25;
    var2 = (static_cast<int64_t>(cal.P8) * p) >> 19;
    p = ((p + var1 + var2) >> 8) + (static_cast<int64_t>(cal.P7) << 4);
    return static_cast<uint32_t>(p);
}

// Relative humidity in 22.10 fixed point, clamped to 0..100 %.
uint32_t humidity_q10(int32_t adc_H, int32_t t_fine) {
    int32_t v = t_fine - 76800;
    const int32_t x = ((adc_H << 14) - (static_cast<int32_t>(cal.H4) << 20) - (cal.H5 * v) + 16384) >> 15;
    const int32_t y =
        (((((v * cal.H6) >> 10) * (((v * cal.H3) >> 11) + 32768)) >> 10) + 2097152) * cal.H2 + 8192;
    v = x * (y >> 14);
    v = v - (((((v >> 15) * (v >> 15)) >> 7) * cal.H1) >> 4);
    v = v < 0 ? 0 : v;
    v = v > 419430400 ? 419430400 : v;
    return static_cast<uint32_t>(v >> 12);
}

int32_t adc20(const uint8_t* p) {
    return (p[0] << 12) | (p[1] << 4) | (p[2] >> 4);
}

} // namespace

int32_t bme280_init(void) {
    ready = false;
    uint8_t id = 0;
    if (i2c0_reg_read(BME280_I2C_ADDR, REG_CHIP_ID, &id, 1) != 0) {
        uprintf("\r\nERROR: BME280 does not answer at I2C address 0x%02x\r\n", BME280_I2C_ADDR);
        return 1;
    }
    if (id != BME280_CHIP_ID) {
        uprintf("\r\nERROR: BME280 chip id 0x%02x, expected 0x%02x\r\n", id, BME280_CHIP_ID);
        return 2;
    }
    if (write_reg(REG_RESET, RESET_WORD) != 0 || !wait_status_clear(STATUS_IM_UPDATE, NVM_COPY_MS) ||
        read_calibration() != 0 || write_reg(REG_CONFIG, 0) != 0) {
        uprintf("\r\nERROR: BME280 does not answer at I2C address 0x%02x\r\n", BME280_I2C_ADDR);
        return 1;
    }
    ready = true;
    return 0;
}

int32_t bme280_read(float* tempC, float* humidity, float* pressure) {
    if (!ready) {
        return -1;
    }
    const uint8_t osrs_h = humidity ? OSRS_X1 : 0;
    const uint8_t osrs_p = pressure ? OSRS_X1 : 0;
    // The humidity setting takes effect with the following write of the measurement control.
    if (write_reg(REG_CTRL_HUM, osrs_h) != 0 ||
        write_reg(REG_CTRL_MEAS, static_cast<uint8_t>(OSRS_X1 << 5 | osrs_p << 2 | MODE_FORCED)) != 0) {
        return -1;
    }
    // The longest conversion time of the data sheet: 1.25 ms, 2.3 ms per oversampled quantity and
    // 0.575 ms more for each of pressure and humidity.
    const uint32_t measure_us = 1250 + 2300 + (osrs_p ? 2875 : 0) + (osrs_h ? 2875 : 0);
    delay_usec(measure_us);
    if (!wait_status_clear(STATUS_MEASURING, MEASURE_GRACE_MS)) {
        return -2;
    }
    uint8_t raw[8];
    if (i2c0_reg_read(BME280_I2C_ADDR, REG_DATA, raw, sizeof raw) != 0) {
        return -1;
    }
    const int32_t t_fine = t_fine_of(adc20(&raw[3]));
    if (tempC) {
        *tempC = static_cast<float>(centi_celsius(t_fine)) / 100.0f;
    }
    if (pressure) {
        *pressure = static_cast<float>(pressure_q8(adc20(&raw[0]), t_fine)) / 25600.0f;
    }
    if (humidity) {
        *humidity = static_cast<float>(humidity_q10((raw[6] << 8) | raw[7], t_fine)) / 1024.0f;
    }
    return 0;
}

float bme280_get_fTemperature(void) {
    float t = 0.0f;
    return bme280_read(&t, nullptr, nullptr) == 0 ? t : BME280_NO_TEMP;
}

uint32_t bme280_get_uiHumidity(void) {
    float rh = 0.0f;
    if (bme280_read(nullptr, &rh, nullptr) != 0) {
        return BME280_NO_HUMIDITY;
    }
    return static_cast<uint32_t>(rh + 0.5f);
}
