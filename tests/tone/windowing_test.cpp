#include <gtest/gtest.h>

#include <cmath>

#include "tone/tone.h"
#include "tone/tone_testing.h"

namespace {

using krf::test::Image;
using krf::test::Params;
using krf::test::filtered;
using krf::test::kMarker;
using krf::test::ramp_row;

Image run_window(const char* name, int white, std::initializer_list<double> values, int* code = nullptr) {
    Params p;
    for (double v : values) p.add_double(v);
    return filtered(name, ramp_row(white, 5), white, &p, code);
}

TEST(LlUl, IdentityAndWorkedExample) {
    const Image identity = run_window("LL-UL", 4095, {0.0, 1.0});
    for (int i = 0; i <= 4100; ++i) ASSERT_EQ(identity.at(0, i), std::min(i, 4095));
    const Image w = run_window("LL-UL", 1000, {0.1, 0.9});
    EXPECT_EQ(w.at(0, 99), 0);
    EXPECT_EQ(w.at(0, 100), 0);
    EXPECT_EQ(w.at(0, 500), 500);  // trunc(400 × 1.25)
    EXPECT_EQ(w.at(0, 102), 2);    // trunc(2.5): no rounding
    EXPECT_EQ(w.at(0, 899), 998);
    EXPECT_EQ(w.at(0, 900), 1000);
    EXPECT_EQ(w.at(0, 1005), 1000);
}

TEST(LlUl, InvertedAndDegenerateWindows) {
    int code = 0;
    EXPECT_TRUE(run_window("LL-UL", 4095, {0.6, 0.4}, &code) == Image(1, 4101, kMarker));
    EXPECT_EQ(code, -3);
    EXPECT_TRUE(run_window("gammalin", 4095, {1.0, 0.6, 0.4}, &code) == Image(1, 4101, kMarker));
    EXPECT_EQ(code, -3);
    // lo = hi is a step; a window above white is all black, below 0 all white.
    const Image step = run_window("LL-UL", 1000, {0.5, 0.5}, &code);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(step.at(0, 499), 0);
    EXPECT_EQ(step.at(0, 500), 1000);
    EXPECT_TRUE(run_window("LL-UL", 1000, {1.5, 2.0}) == Image(1, 1006, 0));
    EXPECT_TRUE(run_window("LL-UL", 1000, {-2.0, -1.0}) == Image(1, 1006, 1000));
    EXPECT_TRUE(run_window("LL-UL", 1000, {std::nan(""), std::nan("")}) == Image(1, 1006, 1000));
    // A bound far below 0 stretches without wrapping: (i + 2^31) × 1000 / (2^31 + 1000).
    const Image wide = run_window("LL-UL", 1000, {-1e12, 1.0});
    EXPECT_EQ(wide.at(0, 0), 999);
    EXPECT_EQ(wide.at(0, 1000), 1000);
}

TEST(Gammalin, RoundsAndFollowsThePowerLaw) {
    // γ = 1 is "LL-UL" with half-up rounding: (i - 100) × 1.25 + 0.5.
    const Image linear = run_window("gammalin", 1000, {1.0, 0.1, 0.9});
    EXPECT_EQ(linear.at(0, 102), 3);
    EXPECT_EQ(linear.at(0, 500), 500);
    EXPECT_EQ(linear.at(0, 50), 0);
    EXPECT_EQ(linear.at(0, 900), 1000);
    const Image square = run_window("gammalin", 1000, {2.0, 0.1, 0.9});
    for (int i = 100; i < 900; ++i) {
        const double x = (i - 100) / 800.0;
        ASSERT_NEAR(square.at(0, i), std::floor(1000 * x * x + 0.5), 1) << i;
    }
}

TEST(Linear, BrightnessAndContrast) {
    const Image identity = run_window("linear", 4095, {0.0, 0.0});
    for (int i = 0; i <= 4100; ++i) ASSERT_EQ(identity.at(0, i), std::min(i, 4095));
    // Contrast 2 is clamped to 1: a single threshold level, trunc(W / 2).
    const Image hard = run_window("linear", 4095, {0.0, 2.0});
    EXPECT_TRUE(hard == run_window("linear", 4095, {0.0, 1.0}));
    EXPECT_EQ(hard.at(0, 2046), 0);
    EXPECT_EQ(hard.at(0, 2047), 4095);
    // Reduced contrast, no brightness: output range centred, [1024, 3071].
    const Image soft = run_window("linear", 4095, {0.0, -0.5});
    EXPECT_EQ(soft.at(0, 0), 1024);
    EXPECT_EQ(soft.at(0, 2000), 1024 + 2000 * 2047 / 4095);
    EXPECT_EQ(soft.at(0, 4095), 3071);
    // Positive brightness moves the input window up by W × b / 2 = 1023.
    const Image bright = run_window("linear", 4095, {0.5, 0.0});
    EXPECT_EQ(bright.at(0, 1000), 0);
    EXPECT_EQ(bright.at(0, 2000), 977);
    // W = 1001, b = 1, c = 0.5: the brightness term 500.5 and the contrast
    // term -250.5 are truncated apart, so the window starts at 750, not at
    // trunc(751.0) = 751.
    const Image both = run_window("linear", 1001, {1.0, 0.5});
    EXPECT_EQ(both.at(0, 749), 0);
    EXPECT_EQ(both.at(0, 750), 0);
    EXPECT_EQ(both.at(0, 751), 2);  // trunc(1 × 1001 / 500)
}

TEST(Windowing, AllocationFailuresLeaveTheOutputUntouched) {
    const Image in = krf::test::phantom(4, 7, 4095);
    for (const char* name : {"LL-UL", "gammalin", "linear"}) {
        Params p;
        if (std::string(name) == "gammalin") p.add_double(0.8);
        p.add_double(0.2).add_double(0.7);
        krf::test::expect_clean_allocation_failures(
            [&](Image& out) {
                Image copy = in;
                return krf::test::run_filter(name, copy, out, 4095, p.data());
            },
            4, 7, {krf::kNoBuffer});
    }
}

}  // namespace
