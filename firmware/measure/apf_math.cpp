// Temperature and pH of a sample, the calibration potentials that make a bath read its pH, and
// vector statistics.
//
// The pH results are compared to the fourth decimal, so the precision of every step matters: the
// arithmetic runs in double, but each named intermediate is narrowed to float where it is assigned
// and several quotients are formed in float. The casts below mark each of those places; the double
// casts make sure the math functions are the double ones, never the float overloads.
#include "measure/apf_math.h"

#include <cmath>
#include <cstdio>

#include "records/system.h"
#include "ports/uartstdio.h"

uint32_t uvsDbgFlg = 0;

namespace {

// The thermistor sits in a divider from 3.3 V with a 20 kOhm series resistor.
constexpr double THERM_SUPPLY_V = 3.3;
constexpr double THERM_SERIES_OHM = 20000.0;

constexpr double KELVIN_OFFSET = 273.15;
constexpr double GAS_CONSTANT = 8.31451;
constexpr double FARADAY = 96487.0;
constexpr double LN10 = 2.302585; // seven digits, as the slope has always been computed

// Temperature coefficients of the two cell potentials, V/degC. Fixed: the k2 fields of sys_data are
// kept in the record but not used.
constexpr double K2_INTERNAL = -0.0011012;
constexpr double K2_EXTERNAL = -0.0010482;

// Kelvin temperature in float, and the Nernst slope in V per pH unit with the given ln 10.
float kelvin(float TC) {
    return (float)((double)TC + KELVIN_OFFSET);
}
float nernst_slope(float T, double ln10) {
    return (float)((double)T * GAS_CONSTANT / FARADAY * ln10);
}

// The seawater terms of the external reference at salinity salt and temperature TC (T in kelvin).
struct SeawaterTerms {
    float Z;              // ionic strength
    float SO4_tot;        // total sulfate
    float mCl;            // chloride molality
    float K_HSO4;         // bisulfate dissociation constant
    float log10gamma_HCl; // log10 of the squared mean activity coefficient of HCl
};

float ionic_strength(float salt) {
    return (float)(19.924 * (double)salt / (1000.0 - 1.005 * (double)salt));
}
float total_sulfate(float salt) {
    return (float)(((double)salt / 1.80655) * 0.001457392100934813);
}
float chloride_molality(float salt) {
    return (float)(((double)salt * 0.028175048655967053) / 1.80655);
}

float activity_term(float TC, float Z) {
    double tc = TC;
    double sz = std::sqrt((double)Z);
    float DHconst = (float)(3.43e-06 * tc * tc + 0.00067524 * tc + 0.49172143);
    return (float)(2.0 *
                   (-(double)DHconst * sz / (1.0 + 1.394 * sz) + (0.08885 - 0.000111 * tc) * (double)Z));
}

// Four of the quotients by T are formed in float (T is float), -4276.1 / T in double.
float bisulfate_constant(float T, float Z, float salt) {
    double t = T;
    double lnT = std::log(t);
    double z = Z;
    double sz = std::sqrt(z);
    double e = -4276.1 / t + 141.328 - 23.093 * lnT;
    e += ((double)(-13856.0f / T) + 324.57 - 47.986 * lnT) * sz;
    e += ((double)(35474.0f / T) - 771.54 + 114.723 * lnT) * z;
    e -= (double)(2698.0f / T) * std::pow(sz, 3.0);
    e += (double)(1776.0f / T) * std::pow(z, 2.0);
    e += std::log(1.0 - 0.001005 * (double)salt);
    return (float)std::exp(e);
}

SeawaterTerms seawater_terms(float TC, float salt) {
    SeawaterTerms w{};
    w.Z = ionic_strength(salt);
    w.SO4_tot = total_sulfate(salt);
    w.mCl = chloride_molality(salt);
    w.K_HSO4 = bisulfate_constant(kelvin(TC), w.Z, salt);
    w.log10gamma_HCl = activity_term(TC, w.Z);
    return w;
}

} // namespace

float DuraFET_temp(float V_therm, float TCOffset) {
    double Rtherm = THERM_SERIES_OHM / (THERM_SUPPLY_V / (double)V_therm - 1.0);
    double lg = std::log10(Rtherm);
    double TC4 = sys_data.quadTherm_c0 + sys_data.quadTherm_c1 * Rtherm + sys_data.quadTherm_c2 * lg +
                 sys_data.quadTherm_c3 * std::pow(lg, 3.0);
    // The Steinhart-Hart form takes its coefficients from the polynomial's fields and returns what
    // it computes, without a kelvin conversion: coefficients for it are fitted that way.
    double ln = std::log(Rtherm);
    double TC3 = 1.0 / (sys_data.quadTherm_c0 + sys_data.quadTherm_c2 * ln +
                        sys_data.quadTherm_c3 * std::pow(ln, 3.0));
    float chosen = 0.0f;
    if (sys_data.app_cfg[APPCFG_TEMPC_SH_ALG] == 0) {
        chosen = (float)TC4;
    } else if (sys_data.app_cfg[APPCFG_TEMPC_SH_ALG] == 1) {
        chosen = (float)TC3;
    }
    return TCOffset + chosen;
}

float calc_pHint(float Eint, float TC) {
    float S_T = nernst_slope(kelvin(TC), LN10);
    float Eo = (float)((double)sys_data.k0int + K2_INTERNAL * (double)(TC - 25.0f));
    return (Eint - Eo) / S_T;
}

float calc_pHext(float Eext, float TC, float salt) {
    float S_T = nernst_slope(kelvin(TC), LN10);
    float Eoext = (float)((double)sys_data.k0ext + K2_EXTERNAL * (double)(TC - 25.0f));
    SeawaterTerms w = seawater_terms(TC, salt);
    double s = S_T;
    float pHext_free =
        (float)(-((double)(Eoext - Eext) - s * (std::log10((double)w.mCl) + (double)w.log10gamma_HCl)) / s);
    float sulfate = 1 + w.SO4_tot / w.K_HSO4;
    return (float)((double)pHext_free - std::log10((double)sulfate));
}

// ---------------------------------------------------------------- calibration
// The inverses of calc_pHint and calc_pHext, used by the calibration dialogue. Their Nernst slope
// takes ln 10 at full precision, unlike the forward formulas.
namespace {

// The 25 degC potential of the internal cell that makes calc_pHint return ph for vrsi at t.
float internal_k0(float vrsi, float ph, float t, float S_T) {
    return (float)(((double)vrsi - (double)ph * (double)S_T) + K2_INTERNAL * (25.0 - (double)t));
}

// The 25 degC potential of the external cell that makes calc_pHext return ph for vrse at t and
// salinity salt: the free-scale pH from the total-scale one, then the cell equation solved for Eo.
float external_k0(float vrse, float ph, float t, float salt, float S_T) {
    float Z = ionic_strength(salt);
    float SO4_tot = total_sulfate(salt);
    float mCl = chloride_molality(salt);
    float T = kelvin(t);
    double td = T;
    double lnT = std::log(td);
    double z = Z;
    double sz = std::sqrt(z);
    double K_HSO4 =
        std::exp(-4276.1 / td + 141.328 - 23.093 * lnT + (-13856.0 / td + 324.57 - 47.986 * lnT) * sz +
                 (35474.0 / td - 771.54 + 114.723 * lnT) * z - 2698.0 / td * std::pow(z, 1.5) +
                 1776.0 / td * z * z + std::log(1.0 - 0.001005 * (double)salt));
    double ph_free = (double)ph + std::log10(1.0 + (double)SO4_tot / K_HSO4);
    double Eoext =
        (double)vrse - (double)S_T * (ph_free - std::log10((double)mCl) - (double)activity_term(t, Z));
    return (float)(Eoext + K2_EXTERNAL * (25.0 - (double)t));
}

} // namespace

float calib_k0int(float vrsi, float ph, float t) {
    return internal_k0(vrsi, ph, t, nernst_slope(kelvin(t), std::log(10.0)));
}

float calib_k0ext(float vrse, float ph, float t, float salt) {
    return external_k0(vrse, ph, t, salt, nernst_slope(kelvin(t), std::log(10.0)));
}

// ---------------------------------------------------------------- vector statistics

void FloatVectorMinMax(int n, const float* v, float* min, float* max) {
    *min = v[0];
    *max = v[0];
    for (int i = 0; i < n; i++) {
        if (v[i] > *max) {
            *max = v[i];
        } else if (v[i] < *min) {
            *min = v[i];
        }
    }
}

void ShortVectorMinMax(int n, const uint16_t* v, uint16_t* min, uint16_t* max) {
    *min = v[0];
    *max = v[0];
    for (int i = 0; i < n; i++) {
        if (v[i] > *max) {
            *max = v[i];
        } else if (v[i] < *min) {
            *min = v[i];
        }
    }
}

// n = 0 gives a NaN mean and a -0 deviation (0 / -1); n = 1 a NaN deviation (0 / 0).
void FloatVectorMeanStdDev(uint32_t n, const float* v, float* mean, float* sd) {
    *mean = 0.0f;
    *sd = 0.0f;
    float sum = 0.0f;
    for (uint32_t i = 0; i < n; i++) {
        sum += v[i];
    }
    float m = sum / (float)n;
    *mean = m;
    float acc = 0.0f;
    for (uint32_t i = 0; i < n; i++) {
        acc = (float)((double)acc + std::pow((double)(v[i] - m), 2.0));
    }
    *sd = (float)std::sqrt((double)(acc / (float)(int32_t)(n - 1)));
}

void ShortVectorMeanStdDev(uint32_t n, const uint16_t* v, float* mean, float* sd) {
    *mean = 0.0f;
    *sd = 0.0f;
    float sum = 0.0f;
    for (uint32_t i = 0; i < n; i++) {
        sum += (float)v[i];
    }
    float m = sum / (float)n;
    *mean = m;
    float acc = 0.0f;
    for (uint32_t i = 0; i < n; i++) {
        acc = (float)((double)acc + std::pow((double)((float)v[i] - m), 2.0));
    }
    *sd = (float)std::sqrt((double)(acc / (float)(int32_t)(n - 1)));
}

float CtoF(float c) {
    return (float)((double)c * 1.8 + 32.0);
}

uint16_t fCrc16Bit(const uint8_t* data) {
    (void)data;
    if (uvsDbgFlg == 1) {
        uprintf("fCrc16Bit needs imp, apf_util\r\n");
    }
    return 65535;
}
