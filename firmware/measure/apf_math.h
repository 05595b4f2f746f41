// Engineering values of a sample: the sensor temperature from the thermistor voltage, the pH from
// the internal- and external-reference cell voltages, and the calibration potentials that make a
// bath read its pH. Also whole-vector statistics for the spectrometer's arrays.
#pragma once

#include <cstdint>

// Sensor temperature, degC, from the thermistor divider voltage, plus the temperature offset.
float DuraFET_temp(float V_therm, float TCOffset);
// pH from the internal-reference cell voltage Eint (V) at temperature TC (degC).
float calc_pHint(float Eint, float TC);
// Total-scale pH from the external-reference cell voltage Eext (V) at temperature TC (degC) and
// practical salinity salt.
float calc_pHext(float Eext, float TC, float salt);
// The 25 degC standard potentials that make calc_pHint and calc_pHext return ph for the cell
// voltages vrsi and vrse in a bath at t degC and salinity salt.
float calib_k0int(float vrsi, float ph, float t);
float calib_k0ext(float vrse, float ph, float t, float salt);

// Minimum and maximum of n values; both start at the first element, which is read even for n = 0.
void FloatVectorMinMax(int n, const float* v, float* min, float* max);
void ShortVectorMinMax(int n, const uint16_t* v, uint16_t* min, uint16_t* max);
// Mean and sample (n - 1) standard deviation, two passes in single precision.
void FloatVectorMeanStdDev(uint32_t n, const float* v, float* mean, float* sd);
void ShortVectorMeanStdDev(uint32_t n, const uint16_t* v, float* mean, float* sd);

float CtoF(float c);
// Not implemented: always 65535, which callers accept.
uint16_t fCrc16Bit(const uint8_t* data);

// The spectrometer's debug flag: 1 prints its start-up banner and debug lines, and the checksum's
// note.
extern uint32_t uvsDbgFlg;
