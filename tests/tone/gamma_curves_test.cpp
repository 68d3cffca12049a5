#include <gtest/gtest.h>

#include <cmath>

#include "tone/tone_testing.h"

namespace {

using namespace krf::test;

TEST(Gamma, IdentityWorkedExampleAndDegenerateExponents) {
    const Levels identity = curve("gamma", 4095, doubles({1.0}), 3);
    for (int i = 0; i <= 4098; ++i) ASSERT_EQ(identity[i], std::min(i, 4095));  // above white: entry of white
    const Levels root = curve("gamma", 4095, doubles({0.5}));
    EXPECT_EQ(root[1024], 2048);  // trunc(sqrt(1024) × sqrt(4095) + 0.5)
    for (int i = 0; i <= 4095; i += 7) ASSERT_NEAR(root[i], std::floor(4095 * std::sqrt(i / 4095.0) + 0.5), 1);
    EXPECT_EQ(curve("gamma", 99, doubles({0.0})), Levels(100, 99));                   // pow(0, 0) = 1
    EXPECT_EQ(at(curve("gamma", 255, doubles({-1.0})), {0, 1}), (Levels{0, 65025}));  // inf stored as 0
    EXPECT_EQ(curve("gamma", 99, doubles({NAN})), Levels(100, 0));
}

TEST(Sigma, CentreShiftAndHardStep) {
    EXPECT_EQ(at(curve("sigma", 4094, doubles({0.1, 0.0})), {0, 2047}),
              (Levels{static_cast<int>(4094 / (std::exp(0.5 / 0.1) + 1) + 0.5), 2047}));
    EXPECT_EQ(curve("sigma", 4096, doubles({0.1, 0.25}))[3072], 2048);  // centre moved to 3/4
    EXPECT_EQ(at(curve("sigma", 4094, doubles({0.0, 0.0})), {2046, 2047, 2048}),
              (Levels{0, 0, 4094}));  // 0/0 at the centre
}

TEST(Gammalog, ExponentScaleFollowsTheBitDepthAndPiecesMeet) {
    const Levels twelve = curve("gammalog", 4095, doubles({1000.0}));
    EXPECT_EQ(twelve[3000], std::trunc(std::pow(3000 / 4095.0, 3000 / 1000.0) * 4095));  // G = g
    EXPECT_EQ(curve("gammalog", 65535, doubles({1000.0}))[50000],
              std::trunc(std::pow(50000 / 65535.0, 50000 / 16000.0) * 65535));
    // The logarithmic toe S × ln(1 + i / C) reaches the shoulder's value P × W at the knee B = 1925.12.
    const double B = 0.47 * 4096, S = 4095 / std::log(40.95), P = std::pow(B / 4095, B / 1000);
    const double C = B / (std::exp(P * 4095 / S) - 1);
    EXPECT_EQ(twelve[500], std::trunc(std::log(500 / C + 1) * S));
    EXPECT_NEAR(twelve[1925], P * 4095, 2);
    for (int white : {0, 1, 100}) EXPECT_EQ(curve("gammalog", white, doubles({1.0}), 2)[white + 2], white);
}

}  // namespace
