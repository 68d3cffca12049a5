#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tone/tone_testing.h"

namespace {

using namespace krf::test;

TEST(LlUl, IdentityWorkedExampleAndDegenerateWindows) {
    const Levels identity = curve("LL-UL", 4095, doubles({0.0, 1.0}), 3);
    for (int i = 0; i <= 4098; ++i) ASSERT_EQ(identity[i], std::min(i, 4095));
    // 100 ... 900 over 0 ... 1000: slope 1.25, truncated (2.5 gives 2).
    EXPECT_EQ(at(curve("LL-UL", 1000, doubles({0.1, 0.9}), 3), {99, 100, 102, 500, 899, 900, 1003}),
              (Levels{0, 0, 2, 500, 998, 1000, 1000}));
    EXPECT_EQ(at(curve("LL-UL", 1000, doubles({0.5, 0.5})), {499, 500}), (Levels{0, 1000}));  // lo = hi
    EXPECT_EQ(curve("LL-UL", 1000, doubles({1.5, 2.0})), Levels(1001, 0));
    EXPECT_EQ(curve("LL-UL", 1000, doubles({NAN, NAN})), Levels(1001, 1000));
    EXPECT_EQ(curve("LL-UL", 1000, doubles({-1e12, 1.0}))[0], 999);  // no wrap: 2^31 × 1000 / (2^31 + 1000)
    EXPECT_EQ(curve("LL-UL", 99, doubles({0.6, 0.4}), 0, -3), Levels(100, kMarker));
    EXPECT_EQ(curve("gammalin", 99, doubles({1, 0.6, 0.4}), 0, -3), Levels(100, kMarker));
}

TEST(Gammalin, RoundsHalfUpAndFollowsThePowerLaw) {
    EXPECT_EQ(at(curve("gammalin", 1000, doubles({1.0, 0.1, 0.9})), {50, 102, 500, 900}), (Levels{0, 3, 500, 1000}));
    Levels clamped(1001, 1000);  // γ < 0 overshoots white (and is infinite at lo): clamped to W
    std::fill(clamped.begin(), clamped.begin() + 100, 0);
    EXPECT_EQ(curve("gammalin", 1000, doubles({-1.0, 0.1, 0.9})), clamped);
    const Levels square = curve("gammalin", 1000, doubles({2.0, 0.1, 0.9}));
    for (int i = 100; i < 900; ++i) ASSERT_NEAR(square[i], std::floor(1000 * std::pow((i - 100) / 800.0, 2) + 0.5), 1);
}

TEST(Linear, BrightnessAndContrast) {
    EXPECT_EQ(curve("linear", 4095, doubles({0.0, 0.0})), curve("LL-UL", 4095, doubles({0.0, 1.0})));  // identity
    // Contrast 2 acts as 1: one threshold level, trunc(W / 2).
    EXPECT_EQ(curve("linear", 4095, doubles({0.0, 2.0})), curve("linear", 4095, doubles({0.0, 1.0})));
    EXPECT_EQ(at(curve("linear", 4095, doubles({0.0, 2.0})), {2046, 2047}), (Levels{0, 4095}));
    // Reduced contrast: output range centred on [1024, 3071].
    EXPECT_EQ(at(curve("linear", 4095, doubles({0.0, -0.5})), {0, 2000, 4095}),
              (Levels{1024, 1024 + 2000 * 2047 / 4095, 3071}));
    // Positive brightness raises the input window by W × b / 2 = 1023.
    EXPECT_EQ(at(curve("linear", 4095, doubles({0.5, 0.0})), {1000, 2000}), (Levels{0, 977}));
    // W = 1001, b = 1, c = 0.5: 500.5 and -250.5 truncated apart start the window at 750, not 751.
    EXPECT_EQ(at(curve("linear", 1001, doubles({1.0, 0.5})), {750, 751}), (Levels{0, 2}));
}

}  // namespace
