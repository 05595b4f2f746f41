// Nitrate from a UV absorbance spectrum: absorbance per pixel, the seawater term at the water's
// temperature, and a small least-squares fit (at most four unknowns) solved in double precision.
#include "spectrometer/nitrate.h"

#include <cmath>

namespace {

constexpr uint32_t MAX_UNKNOWNS = 4;
// Wavelength the temperature factor is referred to, nm.
constexpr double TCOMP_LAMBDA = 210.0;

struct Design {
    uint32_t unknowns;
    int salinity_col; // -1 without the seawater term among the unknowns
    int slope_col;    // -1 for a constant baseline
    double centre;    // nm, the baseline's origin
};

// Seawater extinction per unit salinity at the water's temperature.
double esw_at(const NitratePixel& px, const NitrateSetup& s) {
    if (!s.tcomp_on) {
        return px.esw;
    }
    double ratio = tcomp_factor(s.tcomp, px.lambda, s.temp) / tcomp_factor(s.tcomp, px.lambda, s.cal_temp);
    return px.esw * ratio;
}

Design design_of(const NitrateSpectrum& sp, const NitrateSetup& s) {
    Design d{};
    d.unknowns = 2; // nitrate and the baseline's offset
    d.salinity_col = -1;
    d.slope_col = -1;
    if (s.fit_salinity) {
        d.salinity_col = static_cast<int>(d.unknowns++);
    }
    if (s.baseline >= 1) {
        d.slope_col = static_cast<int>(d.unknowns++);
    }
    d.centre = sp.n > 0 ? 0.5 * (sp.lambda[0] + sp.lambda[sp.n - 1]) : 0.0;
    return d;
}

// One row of the design matrix and its target: y = eno3 N + [esw S] + a + [b (lambda - centre)].
void row_of(const NitratePixel& px, double absorbance, const NitrateSetup& s, const Design& d, double* x,
            double* y) {
    double esw = esw_at(px, s);
    x[0] = px.eno3;
    x[1] = 1.0;
    *y = absorbance;
    if (d.salinity_col >= 0) {
        x[d.salinity_col] = esw;
    } else {
        *y -= esw * s.salinity;
    }
    if (d.slope_col >= 0) {
        x[d.slope_col] = px.lambda - d.centre;
    }
}

// The row of a pixel that let light through; false for one that did not.
bool usable_row(const NitratePixel& px, const NitrateSetup& s, const Design& d, double* x, double* y) {
    float absorbance = 0.0f;
    if (!pixel_absorbance(px, s.light_scale, &absorbance)) {
        return false;
    }
    row_of(px, absorbance, s, d, x, y);
    return true;
}

// Gaussian elimination with partial pivoting on the normal equations m (k x k) and v.
bool solve(double (&m)[MAX_UNKNOWNS][MAX_UNKNOWNS], double (&v)[MAX_UNKNOWNS], uint32_t k,
           double (&out)[MAX_UNKNOWNS]) {
    for (uint32_t col = 0; col < k; col++) {
        uint32_t pivot = col;
        for (uint32_t r = col + 1; r < k; r++) {
            if (std::fabs(m[r][col]) > std::fabs(m[pivot][col])) {
                pivot = r;
            }
        }
        if (!(std::fabs(m[pivot][col]) > 1e-12)) {
            return false;
        }
        for (uint32_t c = 0; c < k; c++) {
            double t = m[col][c];
            m[col][c] = m[pivot][c];
            m[pivot][c] = t;
        }
        double t = v[col];
        v[col] = v[pivot];
        v[pivot] = t;
        for (uint32_t r = col + 1; r < k; r++) {
            double f = m[r][col] / m[col][col];
            for (uint32_t c = col; c < k; c++) {
                m[r][c] -= f * m[col][c];
            }
            v[r] -= f * v[col];
        }
    }
    for (uint32_t i = k; i-- > 0;) {
        double sum = v[i];
        for (uint32_t c = i + 1; c < k; c++) {
            sum -= m[i][c] * out[c];
        }
        out[i] = sum / m[i][i];
    }
    return true;
}

} // namespace

float seawater_density(float salinity, float temp) {
    double t = temp;
    double s = salinity;
    double water =
        999.842594 +
        t * (6.793952e-2 + t * (-9.095290e-3 + t * (1.001685e-4 + t * (-1.120083e-6 + t * 6.536332e-9))));
    double b = 0.824493 + t * (-4.0899e-3 + t * (7.6438e-5 + t * (-8.2467e-7 + t * 5.3875e-9)));
    double c = -5.72466e-3 + t * (1.0227e-4 - t * 1.6546e-6);
    return static_cast<float>(water + b * s + c * s * std::sqrt(s) + 4.8314e-4 * s * s);
}

bool pixel_absorbance(const NitratePixel& px, float light_scale, float* absorbance) {
    double over_dark = static_cast<double>(px.light) - px.dark;
    double reference = static_cast<double>(px.reference) * light_scale;
    if (!(over_dark > 0.0) || !(reference > 0.0)) {
        return false;
    }
    *absorbance = static_cast<float>(-std::log10(over_dark / reference));
    return true;
}

double tcomp_factor(const TcompCoefs& c, double lambda, double temp) {
    return (c.a + c.b * temp) * std::exp((c.c + c.d * temp) * (lambda - TCOMP_LAMBDA));
}

NitratePixel nitrate_pixel(const NitrateSpectrum& sp, uint32_t i) {
    return NitratePixel{sp.lambda[i], sp.eno3[i], sp.esw[i], sp.reference[i], sp.dark[i], sp.light[i]};
}

bool nitrate_fit(const NitrateSpectrum& sp, const NitrateSetup& setup, NitrateFit* out) {
    Design d = design_of(sp, setup);
    // Columns are scaled to unit size before the normal equations are formed: the extinction
    // coefficients are a thousandth of the baseline's terms.
    double scale[MAX_UNKNOWNS] = {};
    uint32_t used = 0;
    for (uint32_t i = 0; i < sp.n; i++) {
        double x[MAX_UNKNOWNS] = {};
        double y = 0.0;
        if (!usable_row(nitrate_pixel(sp, i), setup, d, x, &y)) {
            continue;
        }
        for (uint32_t c = 0; c < d.unknowns; c++) {
            scale[c] += x[c] * x[c];
        }
        used++;
    }
    if (used < d.unknowns + 2) {
        return false;
    }
    for (uint32_t c = 0; c < d.unknowns; c++) {
        if (!(scale[c] > 0.0)) {
            return false;
        }
        scale[c] = 1.0 / std::sqrt(scale[c]);
    }

    double m[MAX_UNKNOWNS][MAX_UNKNOWNS] = {};
    double v[MAX_UNKNOWNS] = {};
    for (uint32_t i = 0; i < sp.n; i++) {
        double x[MAX_UNKNOWNS] = {};
        double y = 0.0;
        if (!usable_row(nitrate_pixel(sp, i), setup, d, x, &y)) {
            continue;
        }
        for (uint32_t r = 0; r < d.unknowns; r++) {
            for (uint32_t c = 0; c < d.unknowns; c++) {
                m[r][c] += x[r] * scale[r] * x[c] * scale[c];
            }
            v[r] += x[r] * scale[r] * y;
        }
    }
    double sol[MAX_UNKNOWNS] = {};
    if (!solve(m, v, d.unknowns, sol)) {
        return false;
    }
    for (uint32_t c = 0; c < d.unknowns; c++) {
        sol[c] *= scale[c];
    }

    double sum_sq = 0.0;
    for (uint32_t i = 0; i < sp.n; i++) {
        double x[MAX_UNKNOWNS] = {};
        double y = 0.0;
        if (!usable_row(nitrate_pixel(sp, i), setup, d, x, &y)) {
            continue;
        }
        double model = 0.0;
        for (uint32_t c = 0; c < d.unknowns; c++) {
            model += x[c] * sol[c];
        }
        sum_sq += (y - model) * (y - model);
    }

    out->no3_umol_l = static_cast<float>(sol[0]);
    out->salinity = d.salinity_col >= 0 ? static_cast<float>(sol[d.salinity_col]) : setup.salinity;
    out->no3_umol_kg = out->no3_umol_l * 1000.0f / seawater_density(out->salinity, setup.temp);
    out->base_a = static_cast<float>(sol[1]);
    out->base_b = d.slope_col >= 0 ? static_cast<float>(sol[d.slope_col]) : 0.0f;
    out->rms = static_cast<float>(std::sqrt(sum_sq / used));
    out->pixels = used;
    return true;
}
