#include <gtest/gtest.h>

#include <cmath>
#include <utility>

#include "tone/tone.h"
#include "tone/tone_testing.h"

namespace {

using krf::Sample;
using krf::test::Image;
using krf::test::Params;
using krf::test::filtered;
using krf::test::kMarker;

// The catalogue's order: the six thresholds, then up, down, left, right.
Params ece_params(double low_th, double high_th, double din_low, double din_high, double mu = 0.5,
                  double sigma = 0.3) {
    Params p;
    p.add_double(low_th).add_double(high_th).add_double(din_low).add_double(din_high).add_double(mu).add_double(sigma);
    p.add_int(0).add_int(0).add_int(0).add_int(0);
    return p;
}

// Thresholds that make the stretching stage the identity (lo = 0, hi = W).
Params identity_stretch(double din_low, double din_high) { return ece_params(-1.0, 2.0, din_low, din_high); }

// W × (i/W)^g, the gamma stage's curve, for a level i.
double gamma_of(int level, double g) { return 4095 * std::pow(level / 4095.0, g); }

TEST(Ece, DefaultBandIsLevels1024To3072) {
    // With one level t in the band the exponent is -1 / ln(t) whatever the
    // weights, so that level becomes W × t^(-1/ln t) = W / e; with none the
    // exponent is 0/0 and every level becomes 0.
    Params p = identity_stretch(0.25, 0.75);
    for (int level : {1023, 1024, 3072, 3073}) {
        const Image out = filtered("ECE", Image(2, 3, static_cast<Sample>(level)), 4095, &p);
        const bool in_band = level >= 1024 && level <= 3072;
        EXPECT_NEAR(out.at(1, 2), in_band ? 4095 / std::exp(1.0) : 0.0, 1) << level;
    }
}

TEST(Ece, ExponentIsCappedAtFourWithNoLowerLimit) {
    Params p = identity_stretch(0.5, 1.0);  // din_high_th 1 puts the band's end at white
    Image bright(2, 2, 100);
    bright.at(0, 0) = 3700;  // -1 / ln(3700 / 4095) = 9.9
    const Image capped = filtered("ECE2", bright, 4095, &p);
    EXPECT_NEAR(capped.at(0, 0), gamma_of(3700, 4.0), 1);
    EXPECT_NEAR(capped.at(1, 1), gamma_of(100, 4.0), 1);
    Params low = identity_stretch(0.0002, 0.05);  // levels 1 ... 205
    Image dark(2, 2, 3000);
    dark.at(0, 0) = 146;
    const double g = -1 / std::log(146 / 4095.0);  // 0.3
    const Image steep = filtered("ECE", dark, 4095, &low);
    EXPECT_NEAR(steep.at(0, 0), 4095 / std::exp(1.0), 1);
    EXPECT_NEAR(steep.at(1, 1), gamma_of(3000, g), 1);
}

// The exponent the rounds settle on: the g in [0.3, 1] where
// g × Σ n w t^(g-1) (-ln t) = Σ n w t^(g-1), found by bisection, for the
// levels 500 (three samples) and 3500 (one), weights exp(sign × ((t - 0.5) / 0.3)^2).
double settled_exponent(double sign) {
    auto excess = [&](double g) {
        double lhs = 0, rhs = 0;
        for (auto [level, count] : {std::pair{500, 3}, std::pair{3500, 1}}) {
            const double t = level / 4095.0, d = (t - 0.5) / 0.3;
            const double share = count * std::exp(sign * d * d) * std::pow(t, g - 1);
            lhs += g * share * -std::log(t);
            rhs += share;
        }
        return lhs - rhs;
    };
    double lo = 0.3, hi = 1.0;
    for (int i = 0; i < 100; ++i) (excess((lo + hi) / 2) < 0 ? lo : hi) = (lo + hi) / 2;
    return lo;
}

TEST(Ece, EceAndEce2SettleOnTheirOwnExponents) {
    Image in(2, 2, 500);
    in.at(1, 1) = 3500;
    Params p = identity_stretch(0.1, 0.9);
    for (auto [name, sign] : {std::pair{"ECE", 1.0}, std::pair{"ECE2", -1.0}}) {
        const double g = settled_exponent(sign);
        const Image out = filtered(name, in, 4095, &p);
        EXPECT_NEAR(out.at(0, 0), gamma_of(500, g), 1) << name << " " << g;
        EXPECT_NEAR(out.at(1, 1), gamma_of(3500, g), 1) << name << " " << g;
    }
    // Band thresholds beyond the range are cut to the histogram.
    Params wide = ece_params(0.005, 0.99, -3.0, 7.0);
    int code = -1;
    filtered("ECE", krf::test::phantom(8, 9, 4095), 4095, &wide, &code);
    EXPECT_EQ(code, 0);
}

TEST(Ece, InvertedStretchingWindowStillRunsTheGammaStage) {
    Params p = ece_params(1.5, 0.5, 0.25, 0.75);  // stage one returns -3, the scratch stays black
    int code = -1;
    EXPECT_TRUE(filtered("ECE", krf::test::phantom(5, 5, 4095), 4095, &p, &code) == Image(5, 5, 0));
    EXPECT_EQ(code, 0);
}

TEST(Ece, AllocationFailuresLeaveTheOutputUntouched) {
    const Image in = krf::test::phantom(5, 4, 4095);
    Params p = ece_params(0.005, 0.99, 0.25, 0.75);
    for (const char* name : {"ECE", "ECE2"}) {
        krf::test::expect_clean_allocation_failures(
            [&](Image& out) {
                Image copy = in;
                return krf::test::run_filter(name, copy, out, 4095, p.data());
            },
            5, 4, {krf::kNoBuffer, krf::kNoRowArray});
    }
}

}  // namespace
