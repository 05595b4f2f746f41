// BME280 housing temperature, pressure and humidity sensor on I2C0 (address 0x76, SDO low).
//
// For the sample cycle:
//   float    bme280_get_fTemperature(void)  housing temperature, degrees C (BME280_NO_TEMP on failure)
//   uint32_t bme280_get_uiHumidity(void)    relative humidity, whole percent, rounded
//                                           (BME280_NO_HUMIDITY on failure)
//   int32_t  bme280_read(float* tempC, float* humidity, float* pressure)
//            one forced measurement of what is asked for: degrees C, percent relative humidity,
//            hPa; a null pointer skips that quantity (temperature is always measured, the other
//            two are compensated with it). 0 on success, negative when the sensor did not answer
//            or did not finish; the outputs are then left as they were.
// Each call is one measurement in forced mode with single oversampling and no filter, so the
// sensor sleeps between samples: about 4 ms for temperature alone, 7 ms with humidity, 10 ms for all
// three. The compensation is the sensor maker's integer arithmetic (32-bit for temperature and
// humidity, 64-bit for pressure), exact to 0.01 degrees C, 1/1024 % and 1/256 Pa.
#pragma once

#include <cstdint>

constexpr uint8_t BME280_I2C_ADDR = 0x76;
constexpr uint8_t BME280_CHIP_ID = 0x60;
constexpr float BME280_NO_TEMP = -999.0f;
constexpr uint32_t BME280_NO_HUMIDITY = 999;

// Checks the chip id, resets the sensor, reads its calibration and leaves it asleep. 0 on success;
// 1 when nothing answers at the address, 2 for another chip id (each with a message on the console).
int32_t bme280_init(void);
int32_t bme280_read(float* tempC, float* humidity, float* pressure);
float bme280_get_fTemperature(void);
uint32_t bme280_get_uiHumidity(void);
