// Bench tests of the sensor front end for the console: each powers the isolated side, selects its
// channel on the ADC and prints repeated readings of one quantity, with mean and standard deviation
// when statistics are asked for; the board battery and housing sensors have their own display.
//
// Output of a series (every line ends with "\r\n"):
//   a header "\r\n<label>: <lines> readings <n> ms apart, any key stops" (statFlg 0), or
//   "\r\n<label>: <lines> lines of mean and standard deviation of <n> readings, any key stops"
//   (statFlg 1), then one line per reading, "%4u\t%12.*f" (line number, value), or per group,
//   "%4u\t%12.*f\t%12.*f" (line number, mean, population standard deviation).
// Labels, units and decimals: "Vtherm (V)" 6, "TempC (degC)" 3 (the thermistor voltage through
// DuraFET_temp with sys_data.TCOffset), "Vrsi (V)" 6, "Vrse (V)" 6, "Vk (V)" 6, "Ik (nA)" 2 (the
// sense voltage less offset_Ik, times 66666.667, as in the sample), "Ib (V)" 6 (kept a voltage, as in
// the sample), "Bias battery + (V)" / "Bias battery - (V)" 4 (the reading doubled).
// A reading is one conversion at the channel's data rate from sys_data (Vtherm_sps ...).
// A series has 10 lines per unit of arg (arg 0 counts as 1), at most 1000. A key typed on the
// console ends it after the current line; that key is consumed. The isolated side is powered down
// afterwards in every case.
#pragma once

#include <cstdint>

// arg: the test argument of the command line; statFlg 0: print each reading, n is the pause in ms
// between readings; statFlg 1: each printed line is the mean and standard deviation of n readings
// (n 0 counts as 1, at most 1000).
void test_vtherm(uint32_t arg, uint32_t statFlg, uint32_t n);
void test_tempc(uint32_t arg, uint32_t statFlg, uint32_t n);
void test_vrsi(uint32_t arg, uint32_t statFlg, uint32_t n);
void test_vrse(uint32_t arg, uint32_t statFlg, uint32_t n);
void test_vk(uint32_t arg, uint32_t statFlg, uint32_t n);
void test_ik(uint32_t arg, uint32_t statFlg, uint32_t n);
void test_ib(uint32_t arg, uint32_t statFlg, uint32_t n);

inline constexpr uint32_t BIAS_BAT_POS = 0;
inline constexpr uint32_t BIAS_BAT_NEG = 1;
// Ten readings of one bias battery (BIAS_BAT_POS or BIAS_BAT_NEG), 500 ms apart, in the series form
// above; the first conversion after switching the selector is discarded. Other values do nothing.
void test_bias_bat(uint32_t which);
// Main battery and housing sensors, once:
//   "\r\nMain battery: %6.2f V  %6.3f A\r\n" (INA260), or "\r\nMain battery: INA260 not answering\r\n"
//   "Housing: %6.2f degC  %5.1f %%RH  %7.1f hPa\r\n" (BME280), or "Housing: BME280 not answering\r\n"
void display_battery_boardSensors(void);
