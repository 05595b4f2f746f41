// The electrode voltages of the simulated bath. Each follows from the bath by inverting, in double
// precision, the relation the firmware uses to turn that voltage back into a temperature or a pH:
// the sensor's true thermistor curve is the factory polynomial of the thermistor record, its true
// standard potentials are the scenario's sensor.k0int and sensor.k0ext at 25 degC, and their
// temperature coefficients are the firmware's fixed ones. The board constants (3.3 V divider supply,
// 20 kOhm series resistor) are those the firmware assumes.
#include "bath.h"

#include "sim.h"

#include <cmath>

namespace sim {
namespace {

// Factory thermistor curve: T = c0 + c1 R + c2 log10 R + c3 (log10 R)^3, degC from ohms.
constexpr double therm_c0 = 340.9819863;
constexpr double therm_c1 = -9.10257e-05;
constexpr double therm_c2 = -95.08806667;
constexpr double therm_c3 = 0.965370274;

constexpr double divider_supply = 3.3;     // V
constexpr double divider_series = 20000.0; // ohm

constexpr double kelvin_offset = 273.15;
constexpr double gas_constant = 8.31451;
constexpr double faraday = 96487.0;
constexpr double ln10 = 2.302585;
constexpr double k2_internal = -0.0011012; // V/degC
constexpr double k2_external = -0.0010482; // V/degC

double thermistor_temp(double r) {
    double l = std::log10(r);
    return therm_c0 + therm_c1 * r + therm_c2 * l + therm_c3 * l * l * l;
}

// The curve falls steadily with resistance over 10 ohm .. 10 Mohm, which spans far more than the
// sensor's working range; bisection on log R finds the resistance of any temperature it covers, and
// ends at the nearer bound for one it does not.
double thermistor_resistance(double temp_c) {
    double lo = 1.0; // log10 ohm
    double hi = 7.0;
    for (int i = 0; i < 200; i++) {
        double mid = 0.5 * (lo + hi);
        if (thermistor_temp(std::pow(10.0, mid)) > temp_c) {
            lo = mid;
        } else {
            hi = mid;
        }
    }
    return std::pow(10.0, 0.5 * (lo + hi));
}

double divider_volts(double r) {
    return divider_supply * r / (r + divider_series);
}

// Volts per pH unit at temperature t (degC).
double nernst_slope(double t) {
    return (t + kelvin_offset) * gas_constant / faraday * ln10;
}

double internal_cell_volts(double ph, double t, double k0) {
    double eo = k0 + k2_internal * (t - 25.0);
    return eo + ph * nernst_slope(t);
}

// The external reference senses chloride: its voltage follows the free-scale pH, the chloride
// molality and the HCl activity coefficient of seawater at salinity s; the bath's pH is on the total
// scale, which differs from the free scale by the bisulfate equilibrium.
double external_cell_volts(double ph_total, double t, double s, double k0) {
    double tk = t + kelvin_offset;
    double lnt = std::log(tk);
    double z = 19.924 * s / (1000.0 - 1.005 * s); // ionic strength
    double sz = std::sqrt(z);
    double so4_total = 0.14 / 96.062 * s / 1.80655;
    double m_cl = 0.99889 / 35.453 * s / 1.80655;
    double k_hso4 =
        std::exp(-4276.1 / tk + 141.328 - 23.093 * lnt + (-13856.0 / tk + 324.57 - 47.986 * lnt) * sz +
                 (35474.0 / tk - 771.54 + 114.723 * lnt) * z - 2698.0 / tk * sz * sz * sz +
                 1776.0 / tk * z * z + std::log(1.0 - 0.001005 * s));
    double dh = 3.43e-06 * t * t + 0.00067524 * t + 0.49172143;
    double log10_gamma2 = 2.0 * (-dh * sz / (1.0 + 1.394 * sz) + (0.08885 - 0.000111 * t) * z);
    double ph_free = ph_total + std::log10(1.0 + so4_total / k_hso4);
    double eo = k0 + k2_external * (t - 25.0);
    return eo + nernst_slope(t) * (ph_free - std::log10(m_cl) - log10_gamma2);
}

} // namespace

// Every conversion of the ADC asks; the answer changes only with the scenario.
BathVolts bath_volts() {
    static bool known = false;
    static uint32_t known_changes = 0;
    static BathVolts known_volts{};
    if (known && known_changes == scenario_changes()) {
        return known_volts;
    }
    double ph = scenario_num("bath.ph", 8.000);
    double t = scenario_num("bath.temp", 15.0);
    double s = scenario_num("bath.sal", 35.0);
    BathVolts v{};
    v.vtherm = divider_volts(thermistor_resistance(t));
    v.vrsi = internal_cell_volts(ph, t, scenario_num("sensor.k0int", -0.4));
    v.vrse = external_cell_volts(ph, t, s, scenario_num("sensor.k0ext", -1.3));
    v.vk = scenario_num("sensor.vk", -0.9);
    v.ik = scenario_num("sensor.ik", 1.5e-5);
    v.ib = scenario_num("sensor.ib", 1.0e-6);
    v.vbias_pos = scenario_num("bias.pos", 3.6) / 2.0;
    v.vbias_neg = scenario_num("bias.neg", -3.6) / 2.0;
    known = true;
    known_changes = scenario_changes();
    known_volts = v;
    return v;
}

} // namespace sim
