// The water around the simulated sensor: the voltages the ISFET sensor presents to the ADC inputs
// for the bath the scenario describes (bath.ph, bath.temp, bath.sal), the sensor's own constants
// (sensor.*) and the bias batteries (bias.*). The electrode voltages are the inverse of the
// firmware's temperature and pH equations, evaluated in double precision, so that a sample of a
// known bath reports that bath.
#pragma once

namespace sim {

struct BathVolts {
    double vtherm;    // thermistor divider voltage, V
    double vrsi;      // internal-reference cell voltage, V
    double vrse;      // external-reference cell voltage, V
    double vk;        // counter-electrode voltage, V
    double ik;        // counter-electrode current-sense voltage, V
    double ib;        // substrate current-sense voltage, V
    double vbias_pos; // positive bias battery as the ADC sees it (after the divide-by-two), V
    double vbias_neg; // negative bias battery as the ADC sees it (after the divide-by-two), V
};

// The voltages for the scenario as it stands now.
BathVolts bath_volts();

} // namespace sim
