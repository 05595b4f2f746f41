// The UV spectrometer's calibration file on the card (UVSCAL.CSV) and the wavelength of each pixel.
//
// The file is text, one record a line, '#' lines and blank lines skipped:
//   H,serial,<text>                       the spectrometer it belongs to
//   H,pixels,<n>                          pixels of the detector (at most 256)
//   H,lambda,<c0>,<c1>,<c2>,<c3>          wavelength of pixel p: c0 + c1 p + c2 p^2 + c3 p^3, nm
//   H,cal_temp,<degC>                     water temperature of the calibration
//   H,cal_integration,<ms>                integration time of the reference intensities
//   H,tcomp,<A>,<B>,<C>,<D>               seawater temperature compensation (see nitrate.h)
//   C,<pixel>,<ENO3>,<ESW>,<reference>    one row per pixel, consecutive pixels in rising order
// Other H keys are ignored, so a newer file still loads.
#pragma once

#include <cstdint>

#include "spectrometer/nitrate.h"

constexpr const char UVS_CAL_FILENAME[] = "UVSCAL.CSV";
constexpr uint32_t UVS_PIXELS_MAX = 256;
// Coefficient rows kept: enough for any fit window on the UV end of the detector.
constexpr uint32_t UVS_COEFS_MAX = 128;
// Fewer rows than this cannot carry a fit.
constexpr uint32_t UVS_COEFS_MIN = 8;
// Longest line of the file.
constexpr uint32_t UVS_CAL_LINE_MAX = 120;

struct UvsCal {
    char serial[16];
    uint32_t pixels;
    float lambda_coefs[4];
    float cal_temp;
    uint32_t cal_integration;
    TcompCoefs tcomp;
    uint32_t first_pixel; // pixel of row 0
    uint32_t rows;
    float eno3[UVS_COEFS_MAX];
    float esw[UVS_COEFS_MAX];
    float reference[UVS_COEFS_MAX];
};

enum class UvsCalState : uint8_t { not_loaded, loaded, no_card, missing, malformed };

// Number of coefficient rows loaded by LoadIsusZCoefs (0 when none).
extern int Zcoefs;
extern UvsCal uvs_cal;
// Wavelength of each calibrated pixel (row r is pixel first_pixel + r), nm, from InitLambdaArray.
extern float uvs_lambda[UVS_COEFS_MAX];
extern UvsCalState uvs_cal_state;
// The file's line that was refused (malformed).
extern uint32_t uvs_cal_bad_line;

// Reads UVSCAL.CSV from the card, all or nothing; returns the rows loaded, 0 when the file is
// missing, unreadable or refused (uvs_cal_state says which).
int LoadIsusZCoefs(void);
// Fills uvs_lambda from the loaded wavelength polynomial.
void InitLambdaArray(void);
// Parses a calibration text in memory (len bytes) into cal: 0 when it is whole, else the number of
// the first line refused (the line count + 1 when a required record is missing).
uint32_t uvs_cal_parse(const char* text, uint32_t len, UvsCal* cal);
// Why there is no calibration, as the float's NAK says it: "NoCard", "NoCalFile", "CalFileErr line
// <n>"; "" when loaded.
void uvs_cal_problem(char* out, uint32_t room);
