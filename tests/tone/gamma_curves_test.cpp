#include <gtest/gtest.h>

#include <cmath>

#include "tone/tone.h"
#include "tone/tone_testing.h"

namespace {

using krf::test::Image;
using krf::test::Params;
using krf::test::filtered;
using krf::test::ramp_row;

Image run_gamma(int white, double gamma, int extra = 0) {
    Params p;
    p.add_double(gamma);
    return filtered("gamma", ramp_row(white, extra), white, &p);
}

TEST(Gamma, IdentityWorkedExampleAndSamplesAboveWhite) {
    EXPECT_TRUE(run_gamma(4095, 1.0) == ramp_row(4095));
    const Image half = run_gamma(4095, 0.5, 10);
    EXPECT_EQ(half.at(0, 1024), 2048);  // trunc(sqrt(1024) × sqrt(4095) + 0.5)
    EXPECT_EQ(half.at(0, 0), 0);
    EXPECT_EQ(half.at(0, 4095), 4095);
    EXPECT_EQ(half.at(0, 4105), 4095);  // above white: the entry of white
    // Against W × (i / W)^γ rounded, which may differ by the last rounding only.
    for (int i = 0; i <= 4095; i += 7) EXPECT_NEAR(half.at(0, i), std::floor(4095 * std::sqrt(i / 4095.0) + 0.5), 1);
}

TEST(Gamma, DegenerateExponentsStayDeterministic) {
    EXPECT_TRUE(run_gamma(4095, 0.0) == Image(1, 4096, 4095));  // pow(0, 0) = 1
    const Image negative = run_gamma(255, -1.0);
    EXPECT_EQ(negative.at(0, 0), 0);             // pow(0, -1) is infinite: stored as 0
    EXPECT_EQ(negative.at(0, 1), 65025 % 65536);  // 255 × (1/255)^-1 = 65025
    EXPECT_EQ(negative.at(0, 255), 255);
    EXPECT_TRUE(run_gamma(4095, std::nan("")) == Image(1, 4096, 0));
}

TEST(Sigma, CentreSteepnessAndShift) {
    Params p;
    p.add_double(0.1).add_double(0.0);
    const Image s = filtered("sigma", ramp_row(4094), 4094, &p);
    EXPECT_EQ(s.at(0, 2047), 2047);  // trunc(W/2 + 0.5) at W/2
    EXPECT_EQ(s.at(0, 0), std::trunc(4094 / (std::exp(0.5 / 0.1) + 1) + 0.5));
    EXPECT_LT(s.at(0, 1500), 2047);
    EXPECT_GT(s.at(0, 2600), 2047);
    Params shifted;
    shifted.add_double(0.1).add_double(0.25);  // the centre moves to 3/4 of the range
    EXPECT_EQ(filtered("sigma", ramp_row(4096), 4096, &shifted).at(0, 3072), 2048);
    // A steepness of 0 is a hard step; the centre itself is 0/0, stored as 0.
    Params step;
    step.add_double(0.0).add_double(0.0);
    const Image hard = filtered("sigma", ramp_row(4094), 4094, &step);
    EXPECT_EQ(hard.at(0, 2046), 0);
    EXPECT_EQ(hard.at(0, 2047), 0);
    EXPECT_EQ(hard.at(0, 2048), 4094);
}

TEST(Gammalog, ExponentScaleFollowsTheBitDepth) {
    Params p;
    p.add_double(1000.0);
    // Shoulder levels: pow(i/W, i/G) × W with G = g for 12-bit, 16 g for 16-bit.
    EXPECT_EQ(filtered("gammalog", ramp_row(4095), 4095, &p).at(0, 3000),
              std::trunc(std::pow(3000 / 4095.0, 3000 / 1000.0) * 4095));
    EXPECT_EQ(filtered("gammalog", ramp_row(65535), 65535, &p).at(0, 50000),
              std::trunc(std::pow(50000 / 65535.0, 50000 / 16000.0) * 65535));
    // The toe meets the shoulder at the knee (0.47 × 4096 = 1925.12).
    const Image curve = filtered("gammalog", ramp_row(4095), 4095, &p);
    EXPECT_EQ(curve.at(0, 0), 0);
    EXPECT_NEAR(curve.at(0, 1925), std::pow(1925 / 4095.0, 1925 / 1000.0) * 4095, 2);
    EXPECT_NEAR(curve.at(0, 1926), curve.at(0, 1925), 2);
}

TEST(Gammalog, WhiteLevelsOfAHundredOrLessDoNotFault) {
    Params p;
    p.add_double(1.0);
    for (int white : {0, 1, 100}) {
        const Image curve = filtered("gammalog", ramp_row(white, 3), white, &p);
        EXPECT_TRUE(curve == filtered("gammalog", ramp_row(white, 3), white, &p));
        EXPECT_EQ(curve.at(0, white + 3), curve.at(0, white));
    }
}

TEST(GammaCurves, AllocationFailuresLeaveTheOutputUntouched) {
    const Image in = krf::test::phantom(5, 6, 4095);
    for (const char* name : {"gamma", "sigma", "gammalog"}) {
        Params p;
        p.add_double(0.7).add_double(0.2);
        const int allocations = krf::test::expect_clean_allocation_failures(
            [&](Image& out) {
                Image copy = in;
                return krf::test::run_filter(name, copy, out, 4095, p.data());
            },
            5, 6, {krf::kNoBuffer});
        EXPECT_EQ(allocations, 1) << name;
    }
}

}  // namespace
