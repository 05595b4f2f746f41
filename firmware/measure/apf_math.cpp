// Temperature and pH of a sample, the pH calibration dialogue, and vector statistics.
//
// The pH results are compared to the fourth decimal, so the precision of every step matters: the
// arithmetic runs in double, but each named intermediate is narrowed to float where it is assigned
// and several quotients are formed in float. The casts below mark each of those places; the double
// casts make sure the math functions are the double ones, never the float overloads.
#include "measure/apf_math.h"

#include <cmath>
#include <cstdio>

#include "core/board_util.h"
#include "core/menu.h"
#include "core/system.h"
#include "instruments/ctd_base.h"
#include "measure/sample.h"
#include "ports/uartstdio.h"
#include "spectrometer/uvs.h"

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

// ---------------------------------------------------------------- calibration dialogue
namespace {

// How long a calibration prompt waits for the operator before it gives up on the read.
constexpr uint32_t CALIB_INPUT_TIMEOUT_S = 600;
// Reading cycles the automatic calibration averages over.
constexpr uint32_t CALIB_AVG_CYCLES = 20;

float cal_point_ph = 8.0f; // the last calibration pH entered, offered again as the default

// Prompts until a number in [lo, hi] is typed, an empty answer keeps value, or the read fails.
void prompt_number(const char* prompt, float* value, float lo, float hi, const char* range_msg) {
    for (;;) {
        uprintf(prompt, (double)*value);
        char line[32];
        if (getUserInputTimeLimit(line, sizeof(line), CALIB_INPUT_TIMEOUT_S) < 0) {
            uprintf("DEBUG: getUserInput fails to return 1\r\n");
            return;
        }
        if (line[0] == '\0') {
            return;
        }
        float v = 0.0f;
        if (sscanf(line, "%f", &v) != 1) {
            uprintf("DEBUG: sscanf fails to return 1\r\n");
            return;
        }
        if (v >= lo && v <= hi) {
            *value = v;
            return;
        }
        uprintf("%s", range_msg);
    }
}

struct CalibInputs {
    float ph;
    float vrsi;
    float vrse;
    float vtherm;
    float tempC;
    float salinity;
};

// One cycle of the automatic calibration: the cell voltages and the thermistor from the sample,
// the bath's temperature and salinity from the CTD (its driver runs within the sample).
struct CalibReading {
    float vrsi, vrsi_sd;
    float vrse, vrse_sd;
    float vtherm, vtherm_sd;
    float tempC;
    float salinity;
};

// Returns false when the operator does not accept the averaged values.
bool auto_calibration(CalibInputs* in) {
    uprintf("\r\nPlace DuraFET and MicroCAT in calibration bath.");
    uprintf("\r\nHit any key when values have stabilized...\r\n");
    uprintf("    Vrsi\t Vrsi-SD\t    Vrse\t Vrse-SD\t  Vtherm\tVthermSD\t   "
            "TempC\tTempC-SD\tSalinity\tSal-SD\r\n");
    CalibReading ring[CALIB_AVG_CYCLES];
    float temps[CALIB_AVG_CYCLES];
    float sals[CALIB_AVG_CYCLES];
    uint32_t cycles = 0;
    do {
        get_sample(0, 0);
        wdog_pet();
        CalibReading r{sampl.fVrsi,   sampl.fVrsi_std,   sampl.fVrse, sampl.fVrse_std,
                       sampl.fVtherm, sampl.fVtherm_std, ctd.tempC,   ctd.salt};
        ring[cycles % CALIB_AVG_CYCLES] = r;
        cycles++;
        uint32_t kept = cycles < CALIB_AVG_CYCLES ? cycles : CALIB_AVG_CYCLES;
        // The CTD gives one value a cycle: its deviation is taken over the cycles kept so far.
        for (uint32_t i = 0; i < kept; i++) {
            temps[i] = ring[i].tempC;
            sals[i] = ring[i].salinity;
        }
        float mean = 0.0f;
        float temp_sd = 0.0f;
        float sal_sd = 0.0f;
        if (kept > 1) {
            FloatVectorMeanStdDev(kept, temps, &mean, &temp_sd);
            FloatVectorMeanStdDev(kept, sals, &mean, &sal_sd);
        }
        uprintf("%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\r\n", (double)r.vrsi,
                (double)r.vrsi_sd, (double)r.vrse, (double)r.vrse_sd, (double)r.vtherm, (double)r.vtherm_sd,
                (double)r.tempC, (double)temp_sd, (double)r.salinity, (double)sal_sd);
    } while (!UARTrdy());
    getChar();

    uint32_t kept = cycles < CALIB_AVG_CYCLES ? cycles : CALIB_AVG_CYCLES;
    float vrsi[CALIB_AVG_CYCLES], vrse[CALIB_AVG_CYCLES], vtherm[CALIB_AVG_CYCLES];
    for (uint32_t i = 0; i < kept; i++) {
        vrsi[i] = ring[i].vrsi;
        vrse[i] = ring[i].vrse;
        vtherm[i] = ring[i].vtherm;
        temps[i] = ring[i].tempC;
        sals[i] = ring[i].salinity;
    }
    float sd[5] = {};
    FloatVectorMeanStdDev(kept, vrsi, &in->vrsi, &sd[0]);
    FloatVectorMeanStdDev(kept, vrse, &in->vrse, &sd[1]);
    FloatVectorMeanStdDev(kept, vtherm, &in->vtherm, &sd[2]);
    FloatVectorMeanStdDev(kept, temps, &in->tempC, &sd[3]);
    FloatVectorMeanStdDev(kept, sals, &in->salinity, &sd[4]);
    uprintf("\r\nAverage of last %d values\r\n", (int)kept);
    uprintf("Vint = %f V  SD = %f", (double)in->vrsi, (double)sd[0]);
    uprintf("\r\nVext = %f V  SD = %f", (double)in->vrse, (double)sd[1]);
    uprintf("\r\nVtherm = %f C  SD = %f", (double)in->vtherm, (double)sd[2]);
    uprintf("\r\nMicroCAT Temperature = %f C  SD = %f", (double)in->tempC, (double)sd[3]);
    uprintf("\r\nMicroCAT Salinity = %f  SD = %f\r\n", (double)in->salinity, (double)sd[4]);
    return yesOrNoMenuChoice("Values acceptable (Y/N) [N]? ", 0) == 1;
}

void manual_calibration(CalibInputs* in) {
    prompt_number("\r\n\r\nEnter Vrsi [%f]: ", &in->vrsi, -2.0f, 2.0f,
                  "Enter number between -2 and 2\r\n\r\n");
    prompt_number("\r\n\r\nEnter Vrse [%f]: ", &in->vrse, -2.0f, 2.0f,
                  "Enter number between -2 and 2\r\n\r\n");
    prompt_number("\r\nEnter bath temperature [%f]: ", &in->tempC, 0.0f, 100.0f,
                  "\r\nEnter between 0 and 100");
    prompt_number("\r\nEnter bath salinity [%f]: ", &in->salinity, 0.0f, 100.0f,
                  "\r\nEnter between 0 and 100");
}

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

void ph_calib(void) {
    uprintf("\r\nph_calib() not supported in this version\r\n");
    prompt_number("\r\n\r\nEnter pH calibration point [%.3f]: ", &cal_point_ph, 0.0f, 14.0f,
                  "\r\nEnter between 0 and 14");
    uprintf("pH cal pt = %.3f\r\n", (double)cal_point_ph);

    CalibInputs in{cal_point_ph, sampl.fVrsi, sampl.fVrse, sampl.fVtherm, sampl.fTempC, sys_data.default_sal};
    if (yesOrNoMenuChoice("Perform automatic DuraFET calibration (Y/N) [N]? ", 0) == 1) {
        if (!auto_calibration(&in)) {
            return;
        }
    } else {
        manual_calibration(&in);
    }

    float S_T = nernst_slope(kelvin(in.tempC), std::log(10.0));
    float k0int = internal_k0(in.vrsi, in.ph, in.tempC, S_T);
    float k0ext = external_k0(in.vrse, in.ph, in.tempC, in.salinity, S_T);
    float TCOffset = in.tempC - DuraFET_temp(in.vtherm, 0.0f);
    uprintf("\r\n\r\nEo Int @ 25C = %f", (double)k0int);
    uprintf("\r\nEo Ext @ 25C = %f", (double)k0ext);
    uprintf("\r\nTCOffset = %f", (double)TCOffset);
    uprintf("\r\n\r\n");
    if (yesOrNoMenuChoice("Accept and store calibration values(Y/N) [N]? ", 0) != 1) {
        return;
    }
    sys_data.k0int = k0int;
    sys_data.k0ext = k0ext;
    sys_data.TCOffset = TCOffset;
    uprintf("\r\nCalibration values stored");
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
