// UV nitrate spectrometer: its serial port (UART2, 115200 8N1) and RTS line (PF4, the port's line
// driver), the spectrometer and lamp supplies (I/O expander pins 6 and 7), the commands it answers,
// dark and light scans, the lamp check, the lamp bake and the nitrate sample.
//
// The spectrometer answers ASCII commands ended by CR: "V" (serial, pixels, firmware), "I,<ms>"
// (integration time), "T" (detector temperature) and "S" (one scan, sent as a binary frame: 0xA5
// 0x5A, the pixel count and the counts as little-endian 16-bit words, then their 16-bit sum).
//
// Every function that powers the spectrometer or its lamp switches both off again before it
// returns, whatever happened.
#pragma once

#include <cstdint>

#include "spectrometer/nitrate.h"
#include "spectrometer/uvs_cal.h"

constexpr uint32_t UVS_PORT = 2;
constexpr uint32_t UVS_BAUD = 115200;
// Longest lamp warm-up or bake: ten minutes is more than any lamp needs, and a word garbled in FRAM
// cannot keep the lamp burning for days.
constexpr uint32_t UVS_LAMP_SECONDS_MAX = 600;

enum class UvsResult : uint8_t {
    ok,
    no_cal,          // no calibration loaded (uvs_cal_problem says why)
    no_spectrometer, // no answer to "V"
    bad_setting,     // the integration time was refused
    scan_failed,     // a scan frame did not come, or came damaged
    lamp_failed,     // too little light with the lamp on
    fit_failed,      // too few pixels with light, or no solution
    bad_window,      // the fit window holds too few calibrated pixels
};

// What the float's settings say about a sample.
struct UvsSettings {
    uint32_t integration_ms;
    uint32_t dark_scans;  // averaged, lamp off
    uint32_t pre_scans;   // light scans thrown away while the lamp settles
    uint32_t light_scans; // averaged
    uint32_t pixel_beg;   // fit window, detector pixels
    uint32_t pixel_end;
    uint32_t warm_lamp_s;
    uint32_t ref_limit; // least mean counts over dark in the window with the lamp on
    bool tcomp;
    bool fit_salinity;
    uint32_t baseline;
};

// The water the float's CTD saw. Without it (valid false) the detector's temperature stands in for the
// water's and `salinity` is the board's default.
struct UvsWater {
    bool valid;
    float temp;
    float salinity;
};

struct UvsSample {
    NitrateFit fit;
    float temp_used;
    float salinity_used;
    float dark_mean; // over the fit window
    float dark_sd;   // of the first dark scan over the whole detector
    float light_mean;
    float spec_temp;    // detector, degC
    uint32_t saturated; // light pixels at full scale in the window
    bool water_from_ctd;
};

// Which line is on, as the switches were last set.
extern bool uvs_spec_on;
extern bool uvs_lamp_on;

// A warm-up or bake time as the lamp gets it: at most UVS_LAMP_SECONDS_MAX.
uint32_t uvs_lamp_seconds(uint32_t seconds);
void uvs_set_rts(uint32_t on);
void uvs_spec_power(uint32_t on);
void uvs_lamp_power(uint32_t on);
// Lamp off, then the spectrometer.
void uvs_power_down(void);

// Loads the calibration when none is (a mode change since start-up, a card put in); true when one is.
bool uvs_cal_ready(void);
// One scan at the present integration time into counts (UVS_PIXELS_MAX words); pixels gets the
// frame's count.
UvsResult uvs_scanSpectra(uint16_t* counts, uint32_t* pixels);
// Switches the lamp on, lets it warm and checks with a scan that it gives at least ref_limit counts
// over dark (dark_mean) in the fit window; window_mean gets what it gave.
UvsResult uvs_lampPwrOnUsingSpec(const UvsSettings& s, float dark_mean, float* window_mean);
// A whole nitrate sample: power, dark scans, lamp, light scans, power down, fit.
UvsResult uvs_takeIsusSample(const UvsSettings& s, const UvsWater& water, UvsSample* out);
// Runs the lamp for `seconds` (cleaning its window), checking its light at the end.
UvsResult uvs_bake(const UvsSettings& s, uint32_t seconds, float* window_mean);
// The word for a result in a NAK ("NoSpectrometer", "LampFail", ...; the calibration's own reason).
void uvs_result_text(UvsResult r, char* out, uint32_t room);
// Spectrometer bench test from the console ("z"): each step and its figures, then "ACK,Z" or
// "NAK,Z,<reason>".
void uvs_dev_test(uint32_t arg);
