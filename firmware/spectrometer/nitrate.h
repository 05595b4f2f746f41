// Nitrate from a UV absorbance spectrum. The seawater (mostly bromide) absorbance, scaled to the
// water's temperature, is taken off the measured absorbance, and what is left is fitted by least
// squares as the nitrate extinction spectrum times a concentration plus a baseline in wavelength.
// Everything here is arithmetic on arrays: the scans and the calibration come from the caller.
#pragma once

#include <cstdint>

// Temperature compensation of the seawater extinction: f(lambda, T) = (A + B T) exp((C + D T)
// (lambda - 210 nm)), and the seawater extinction at T is the calibration's times f(T) / f(Tcal).
struct TcompCoefs {
    float a;
    float b;
    float c;
    float d;
};

// One pixel of the fit window: its wavelength, the calibration's extinction coefficients and
// reference intensity, and what the sample's scans saw.
struct NitratePixel {
    float lambda;    // nm
    float eno3;      // absorbance per umol/L
    float esw;       // absorbance per unit of practical salinity, at the calibration temperature
    float reference; // counts over dark of pure water at the calibration's integration time
    float dark;      // mean dark counts of the sample
    float light;     // mean light counts of the sample
};

struct NitrateSetup {
    float temp;     // water temperature, degC
    float salinity; // practical salinity
    float cal_temp; // temperature of the calibration, degC
    TcompCoefs tcomp;
    bool tcomp_on;     // scale the seawater extinction to the water's temperature
    bool fit_salinity; // fit the seawater term too, instead of taking it from the salinity
    uint32_t baseline; // 0: constant baseline, 1: linear in wavelength
    float light_scale; // sample integration time / calibration integration time
};

struct NitrateFit {
    float no3_umol_l;
    float no3_umol_kg;
    float salinity; // the fitted one with fit_salinity, else the one given
    float base_a;   // absorbance at the window's centre wavelength
    float base_b;   // absorbance per nm
    float rms;      // of the fit's residual absorbance
    uint32_t pixels;
};

// Seawater density at one atmosphere, kg/m3 (the 1980 equation of state).
float seawater_density(float salinity, float temp);
// Absorbance of a pixel (base 10), or false when the sample let no light through it.
bool pixel_absorbance(const NitratePixel& px, float light_scale, float* absorbance);
// The temperature factor f(lambda, T) above.
double tcomp_factor(const TcompCoefs& c, double lambda, double temp);
// The fit window as arrays over its n pixels (the calibration's and the scans' own, not copies).
struct NitrateSpectrum {
    const float* lambda;
    const float* eno3;
    const float* esw;
    const float* reference;
    const float* dark;
    const float* light;
    uint32_t n;
};
NitratePixel nitrate_pixel(const NitrateSpectrum& sp, uint32_t i);

// Fits the window; false when fewer usable pixels than unknowns + 2, or the fit is singular.
bool nitrate_fit(const NitrateSpectrum& sp, const NitrateSetup& setup, NitrateFit* out);
