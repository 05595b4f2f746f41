// The nitrate arithmetic: seawater density against the equation of state's published check values,
// and fits of spectra built from a known water (nitrate, salinity, temperature, baseline) that must
// give that water back in every fit mode.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "spectrometer/nitrate.h"

namespace {

constexpr TcompCoefs tcss = {1.1500276f, 0.02840f, -0.3101349f, 0.001222f};
constexpr float cal_temp = 20.0f;

struct Water {
    float no3_umol_l;
    float salinity;
    float temp;
    float base_a;
    float base_b;
};

// A window of 60 pixels from 215 nm, with extinction shapes like nitrate's and bromide's, and the
// counts a detector would give for `w` (no noise).
struct Window {
    std::vector<float> lambda, eno3, esw, reference, dark, light;

    explicit Window(const Water& w, float light_scale = 1.0f) {
        for (int i = 0; i < 60; i++) {
            float l = 215.0f + 0.4f * static_cast<float>(i);
            lambda.push_back(l);
            eno3.push_back(0.0096f * std::exp(-std::pow((l - 201.0f) / 14.0f, 2.0f)));
            esw.push_back(0.028f * std::exp(-(l - 215.0f) / 3.2f));
            reference.push_back(20000.0f + 40.0f * static_cast<float>(i));
            dark.push_back(1000.0f);
        }
        double centre = 0.5 * (lambda.front() + lambda.back());
        for (size_t i = 0; i < lambda.size(); i++) {
            double ratio = tcomp_factor(tcss, lambda[i], w.temp) / tcomp_factor(tcss, lambda[i], cal_temp);
            double a = eno3[i] * w.no3_umol_l + esw[i] * ratio * w.salinity + w.base_a +
                       w.base_b * (lambda[i] - centre);
            light.push_back(static_cast<float>(dark[i] + reference[i] * light_scale * std::pow(10.0, -a)));
        }
    }

    NitrateSpectrum spectrum() const {
        return NitrateSpectrum{lambda.data(),
                               eno3.data(),
                               esw.data(),
                               reference.data(),
                               dark.data(),
                               light.data(),
                               static_cast<uint32_t>(lambda.size())};
    }
};

NitrateSetup setup_for(const Water& w) {
    NitrateSetup s{};
    s.temp = w.temp;
    s.salinity = w.salinity;
    s.cal_temp = cal_temp;
    s.tcomp = tcss;
    s.tcomp_on = true;
    s.fit_salinity = false;
    s.baseline = 1;
    s.light_scale = 1.0f;
    return s;
}

} // namespace

TEST(Nitrate, SeawaterDensityMatchesTheEquationOfStateCheckValues) {
    EXPECT_NEAR(seawater_density(0.0f, 5.0f), 999.96675, 1e-3);
    EXPECT_NEAR(seawater_density(35.0f, 5.0f), 1027.67547, 1e-3);
    EXPECT_NEAR(seawater_density(35.0f, 25.0f), 1023.34306, 1e-3);
}

// Warm and cold water, fresh and salty, with a lamp that dimmed (an offset) and a tilted window
// (a slope): the fit gives the nitrate back, and per kilogram through the water's density.
TEST(Nitrate, FitGivesBackTheWaterItWasBuiltFrom) {
    const Water waters[] = {{0.0f, 35.0f, 15.0f, 0.0f, 0.0f},
                            {5.0f, 34.0f, 2.0f, 0.05f, -0.001f},
                            {30.0f, 36.5f, 28.0f, -0.02f, 0.0005f},
                            {42.0f, 0.0f, 20.0f, 0.1f, 0.0f}};
    for (const Water& w : waters) {
        Window win(w);
        NitrateFit fit{};
        ASSERT_TRUE(nitrate_fit(win.spectrum(), setup_for(w), &fit));
        EXPECT_NEAR(fit.no3_umol_l, w.no3_umol_l, 0.01) << "S " << w.salinity << " T " << w.temp;
        EXPECT_NEAR(fit.no3_umol_kg, w.no3_umol_l * 1000.0f / seawater_density(w.salinity, w.temp), 0.01);
        EXPECT_NEAR(fit.base_a, w.base_a, 1e-4);
        EXPECT_NEAR(fit.base_b, w.base_b, 1e-5);
        EXPECT_LT(fit.rms, 1e-4);
        EXPECT_EQ(fit.pixels, 60u);
    }
}

// Ignoring the water's temperature misreads warm water; fitting the seawater term finds the
// salinity; a constant baseline fits a spectrum without a slope; a longer integration is scaled.
TEST(Nitrate, FitModes) {
    Water warm{10.0f, 35.0f, 28.0f, 0.0f, 0.0f};
    Window win(warm);
    NitrateSetup s = setup_for(warm);
    NitrateFit fit{};
    s.tcomp_on = false;
    ASSERT_TRUE(nitrate_fit(win.spectrum(), s, &fit));
    EXPECT_GT(std::fabs(fit.no3_umol_l - warm.no3_umol_l), 0.5f);

    s = setup_for(warm);
    s.fit_salinity = true;
    s.salinity = 0.0f; // not used when fitted
    ASSERT_TRUE(nitrate_fit(win.spectrum(), s, &fit));
    EXPECT_NEAR(fit.salinity, 35.0f, 0.01f);
    EXPECT_NEAR(fit.no3_umol_l, 10.0f, 0.01f);
    EXPECT_NEAR(fit.no3_umol_kg, 10000.0f / seawater_density(35.0f, 28.0f), 0.01f);

    s = setup_for(warm);
    s.baseline = 0;
    ASSERT_TRUE(nitrate_fit(win.spectrum(), s, &fit));
    EXPECT_NEAR(fit.no3_umol_l, 10.0f, 0.01f);
    EXPECT_EQ(fit.base_b, 0.0f);

    Window longer(warm, 2.0f);
    s = setup_for(warm);
    s.light_scale = 2.0f;
    ASSERT_TRUE(nitrate_fit(longer.spectrum(), s, &fit));
    EXPECT_NEAR(fit.no3_umol_l, 10.0f, 0.01f);
    EXPECT_NEAR(fit.base_a, 0.0f, 1e-4);
}

// Pixels the lamp did not reach are left out; with too few left there is no fit.
TEST(Nitrate, DarkPixelsAreLeftOutAndTooFewFail) {
    Water w{20.0f, 35.0f, 15.0f, 0.0f, 0.0f};
    Window win(w);
    for (size_t i = 0; i < 10; i++) {
        win.light[i] = win.dark[i] - 3.0f; // below dark: noise on no light at all
    }
    NitrateFit fit{};
    ASSERT_TRUE(nitrate_fit(win.spectrum(), setup_for(w), &fit));
    EXPECT_EQ(fit.pixels, 50u);
    EXPECT_NEAR(fit.no3_umol_l, 20.0f, 0.01f);

    for (size_t i = 0; i < win.light.size() - 4; i++) {
        win.light[i] = win.dark[i];
    }
    EXPECT_FALSE(nitrate_fit(win.spectrum(), setup_for(w), &fit)); // four pixels, three unknowns
}
