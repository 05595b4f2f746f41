// UV nitrate spectrometer: power and handshake lines, calibration coefficients, wavelength array.
#pragma once

#include <cstdint>

// Number of calibration coefficients loaded by LoadIsusZCoefs (0 when none).
extern int Zcoefs;
// 1 prints the spectrometer's start-up banner.
extern uint32_t uvsDbgFlg;

// Asserts (on != 0) or releases the spectrometer's RTS line.
void uvs_set_rts(uint32_t on);
// Loads the calibration coefficients; returns how many were loaded.
int LoadIsusZCoefs(void);
// Builds the wavelength array from the loaded coefficients.
void InitLambdaArray(void);
// Spectrometer bench test from the console ("z").
void uvs_dev_test(uint32_t arg);
