// Bench tests of the sensor front end: a bounded series of live readings of one quantity on the
// console, taken the way the sample cycle takes it (same multiplexer position, converter inputs and
// data rate), so an operator can watch a sensor settle or see its noise. Any key ends a series early.
#include "measure/live_readings.h"

#include "board/bme280.h"
#include "board/ina260.h"
#include "board/board_util.h"
#include "records/system.h"
#include "board/timebase.h"
#include "measure/ads1248_iso.h"
#include "measure/apf_math.h"
#include "ports/uartstdio.h"

#include "driverlib/sysctl.h"

#include <cmath>

namespace {

constexpr uint32_t lines_per_arg = 10;
constexpr uint32_t max_lines = 1000;
constexpr uint32_t max_stat_readings = 1000;
constexpr uint32_t bias_lines = 10;
constexpr uint32_t bias_pause_ms = 500;
// Counter-electrode current in nA from the voltage across its 15 kOhm sense resistor.
constexpr double ik_nanoamps_per_volt = 66666.667;
// What the board sensors need from power-on before a reading.
constexpr uint32_t sensor_settle_ms = 151;

// Where a quantity is read. The thermistor is wired to the converter directly; the bias batteries sit
// behind the converter's GPIO3 selector and a divide-by-two; the cells behind the multiplexer.
enum class Route { mux, thermistor, bias_pos, bias_neg };

struct Channel {
    const char* label; // name and unit, as in the header line
    int decimals;
    Route route;
    uint32_t mux_position;
    int ain_neg;
    uint32_t sps;
    double (*convert)(float volts);
};

double volts(float v) {
    return v;
}

double temperature(float v) {
    return DuraFET_temp(v, sys_data.TCOffset);
}

// As the sample cycle does it: the offset is a whole count subtracted from volts (0 by default).
double counter_current(float v) {
    return (v - static_cast<float>(sys_data.offset_Ik)) * ik_nanoamps_per_volt;
}

double bias_volts(float v) {
    return 2.0 * v;
}

void wait_ms(uint32_t ms) {
    SysCtlDelay(ADS1248_DELAY_PER_MS * ms);
}

uint32_t line_count(uint32_t arg) {
    if (arg == 0) {
        return lines_per_arg;
    }
    if (arg > max_lines / lines_per_arg) {
        return max_lines;
    }
    return arg * lines_per_arg;
}

// Pauses, watching the console; true as soon as a key waits.
bool pause_until_key(uint32_t ms) {
    for (uint32_t i = 0; i < ms; i++) {
        if (UARTrdy()) {
            return true;
        }
        delay_msec(1);
    }
    return UARTrdy() != 0;
}

void power_up(const Channel& ch) {
    openADS1248_iso();
    wait_ms(100);
    ADS1248_gpio_init();
    switch (ch.route) {
    case Route::mux:
        ADS1248_gpio_ADG1609_mux(ch.mux_position);
        wait_ms(10);
        break;
    case Route::thermistor:
        break;
    case Route::bias_pos:
    case Route::bias_neg:
        // The divider needs the first conversion after switching the selector to settle.
        ADS1248_gpio3(ch.route == Route::bias_pos ? 1 : 0);
        wait_ms(10);
        pollADS1248_iso(7, 6, 1, 1, static_cast<int>(ch.sps));
        wait_ms(100);
        break;
    }
}

// One conversion, in the channel's unit.
double read_once(const Channel& ch) {
    int sps = static_cast<int>(ch.sps);
    float v = 0.0f;
    switch (ch.route) {
    case Route::mux:
        v = pollADS1248_iso(1, ch.ain_neg, 1, 1, sps);
        break;
    case Route::thermistor:
        v = pollADS1248_iso(0, 6, 1, 1, sps);
        break;
    case Route::bias_pos:
    case Route::bias_neg:
        v = pollADS1248_iso(7, 6, 1, 1, sps);
        break;
    }
    return ch.convert(v);
}

// Mean and population standard deviation of `count` conversions (running form, so a quiet input
// gives exactly 0). False when a key arrived before all were taken.
bool read_statistics(const Channel& ch, uint32_t count, double* mean, double* std) {
    double m = 0.0;
    double sq = 0.0;
    for (uint32_t k = 1; k <= count; k++) {
        if (UARTrdy()) {
            return false;
        }
        double x = read_once(ch);
        double d = x - m;
        m += d / k;
        sq += d * (x - m);
    }
    *mean = m;
    *std = std::sqrt(sq / count);
    return true;
}

// The series: a header line, then numbered lines. statFlg 0: one conversion a line, `n` ms apart;
// statFlg 1: mean and deviation of `n` conversions a line. The isolated side is on only meanwhile.
void run_series(const Channel& ch, uint32_t lines, uint32_t statFlg, uint32_t n) {
    uint32_t per_line = n == 0 ? 1 : (n > max_stat_readings ? max_stat_readings : n);
    if (statFlg == 1) {
        uprintf("\r\n%s: %u lines of mean and standard deviation of %u readings, any key stops\r\n", ch.label,
                (unsigned)lines, (unsigned)per_line);
    } else {
        uprintf("\r\n%s: %u readings %u ms apart, any key stops\r\n", ch.label, (unsigned)lines, (unsigned)n);
    }
    power_up(ch);
    bool stopped = false;
    for (uint32_t i = 1; i <= lines && !stopped; i++) {
        if (UARTrdy()) {
            stopped = true;
        } else if (statFlg == 1) {
            double mean = 0.0, std = 0.0;
            stopped = !read_statistics(ch, per_line, &mean, &std);
            if (stopped) {
                break;
            }
            uprintf("%4u\t%12.*f\t%12.*f\r\n", (unsigned)i, ch.decimals, mean, ch.decimals, std);
        } else {
            uprintf("%4u\t%12.*f\r\n", (unsigned)i, ch.decimals, read_once(ch));
            if (i < lines) {
                stopped = pause_until_key(n);
            }
        }
        wdog_pet();
    }
    closeADS1248_iso();
    if (stopped) {
        getChar();
    }
}

void run_test(const Channel& ch, uint32_t arg, uint32_t statFlg, uint32_t n) {
    run_series(ch, line_count(arg), statFlg, n);
}

} // namespace

void test_vtherm(uint32_t arg, uint32_t statFlg, uint32_t n) {
    run_test({"Vtherm (V)", 6, Route::thermistor, 0, 6, sys_data.Vtherm_sps, volts}, arg, statFlg, n);
}

void test_tempc(uint32_t arg, uint32_t statFlg, uint32_t n) {
    run_test({"TempC (degC)", 3, Route::thermistor, 0, 6, sys_data.Vtherm_sps, temperature}, arg, statFlg, n);
}

void test_vrsi(uint32_t arg, uint32_t statFlg, uint32_t n) {
    run_test({"Vrsi (V)", 6, Route::mux, 3, 6, sys_data.Vrsi_sps, volts}, arg, statFlg, n);
}

void test_vrse(uint32_t arg, uint32_t statFlg, uint32_t n) {
    run_test({"Vrse (V)", 6, Route::mux, 0, 6, sys_data.Vrse_sps, volts}, arg, statFlg, n);
}

void test_vk(uint32_t arg, uint32_t statFlg, uint32_t n) {
    run_test({"Vk (V)", 6, Route::mux, 1, 6, sys_data.Vk_sps, volts}, arg, statFlg, n);
}

void test_ik(uint32_t arg, uint32_t statFlg, uint32_t n) {
    run_test({"Ik (nA)", 2, Route::mux, 1, 5, sys_data.Ik_sps, counter_current}, arg, statFlg, n);
}

// The substrate reading stays a voltage, as in the sample.
void test_ib(uint32_t arg, uint32_t statFlg, uint32_t n) {
    run_test({"Ib (V)", 6, Route::mux, 2, 6, sys_data.Ib_sps, volts}, arg, statFlg, n);
}

void test_bias_bat(uint32_t which) {
    if (which == BIAS_BAT_POS) {
        run_series({"Bias battery + (V)", 4, Route::bias_pos, 0, 6, sys_data.Vbias_sps, bias_volts},
                   bias_lines, 0, bias_pause_ms);
    } else if (which == BIAS_BAT_NEG) {
        run_series({"Bias battery - (V)", 4, Route::bias_neg, 0, 6, sys_data.Vbias_sps, bias_volts},
                   bias_lines, 0, bias_pause_ms);
    }
}

void display_battery_boardSensors(void) {
    pwr_vbat_mon_on();
    pwr_env_mon_on();
    delay_msec(sensor_settle_ms);
    float bat_volts = 0.0f, bat_amps = 0.0f;
    if (ina260_system_voltageCurrent(&bat_volts, &bat_amps) == 0) {
        uprintf("\r\nMain battery: %6.2f V  %6.3f A\r\n", (double)bat_volts, (double)bat_amps);
    } else {
        uprintf("\r\nMain battery: INA260 not answering\r\n");
    }
    float temp_c = 0.0f, humidity = 0.0f, pressure = 0.0f;
    if (bme280_read(&temp_c, &humidity, &pressure) == 0) {
        uprintf("Housing: %6.2f degC  %5.1f %%RH  %7.1f hPa\r\n", (double)temp_c, (double)humidity,
                (double)pressure);
    } else {
        uprintf("Housing: BME280 not answering\r\n");
    }
    pwr_vbat_mon_off();
    pwr_env_mon_off();
}
