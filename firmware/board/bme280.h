// BME280 housing temperature, pressure and humidity sensor on I2C0.
#pragma once

#include <cstdint>

// Probes and configures the sensor; 0 on success.
int32_t bme280_init(void);
