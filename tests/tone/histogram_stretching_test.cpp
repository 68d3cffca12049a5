#include <gtest/gtest.h>

#include <array>

#include "tone/tone_testing.h"

namespace {

using namespace krf::test;

TEST(Equalize, FlatTwoLevelAndCumulativeShares) {
    EXPECT_TRUE(filtered("equalize", Image(3, 4, 700), 4095) == Image(3, 4, 4095));
    EXPECT_TRUE(filtered("equalize", Image(3, 4, 0), 4095) == Image(3, 4, 0));  // 0/0 stored as 0
    EXPECT_TRUE(filtered("equalize", row_of({0, 4095, 4095, 0}), 4095) == row_of({0, 4095, 4095, 0}));
    // Shares at or below each level 1/5, 3/5, 5/5 (5000 counts as white); the
    // smallest share is level 0's: 0 here, 1/5 once level 0 is occupied.
    EXPECT_TRUE(filtered("equalize", row_of({10, 20, 20, 5000, 1000}), 1000) == row_of({200, 600, 600, 1000, 1000}));
    EXPECT_TRUE(filtered("equalize", row_of({0, 20, 20, 5000, 1000}), 1000) == row_of({0, 500, 500, 1000, 1000}));
}

// Catalogue order: low_th, high_th, then the up, down, left and right borders.
Params shannon(double low, double high, std::array<int, 4> borders) {
    Params p = doubles({low, high});
    for (int b : borders) p.add_int(b);
    return p;
}

TEST(ShannonStretching, BordersThresholdsAndTheHandOverToLlUl) {
    // Rows 2 ... 14 and columns 3 ... 12 hold 200 and 601 in equal numbers:
    // half the entropy at each, so the window is [200, 600]. The borders
    // hold 900 and one 400 that shows the window.
    Image in(20, 20, 900);
    for (int r = 2; r < 15; ++r)
        for (int c = 3; c < 13; ++c) in.at(r, c) = (r + c) % 2 ? 200 : 601;
    in.at(0, 0) = 400;
    const Image out = filtered("ShannonStretching", in, 1000, shannon(0.25, 0.75, {2, 5, 3, 7}));
    EXPECT_EQ((Levels{out.at(0, 0), out.at(2, 3), out.at(2, 4)}), (Levels{500, 0, 1000}));
    for (auto borders : {std::array{5, 2, 3, 7}, std::array{3, 7, 2, 5}, std::array{2, 5, 7, 3}})  // 900s get in
        EXPECT_NE(filtered("ShannonStretching", in, 1000, shannon(0.25, 0.75, borders)).at(0, 0), 500);
    // A threshold equal to a share (0.5) is passed by the lower cut and stops the upper one: inverted windows.
    for (auto [low, high] : {std::pair{0.5, 0.75}, std::pair{0.25, 0.5}})
        EXPECT_TRUE(filtered("ShannonStretching", in, 1000, shannon(low, high, {2, 5, 3, 7}), -3) ==
                    Image(20, 20, kMarker));
}

TEST(ShannonStretching, EmptyRegionsAndThresholdsBeyondTheRange) {
    const Image in = phantom(12, 10, 4095);
    auto run = [&](double low, double high, std::array<int, 4> b) {
        return filtered("ShannonStretching", in, 4095, shannon(low, high, b));
    };
    EXPECT_FALSE(run(0.05, 0.95, {0, 0, 0, 0}) == in);
    EXPECT_TRUE(run(0.05, 0.95, {-4, -4, -4, -4}) == run(0.05, 0.95, {0, 0, 0, 0}));  // negative: no border
    EXPECT_TRUE(run(0.05, 0.95, {6, 6, 0, 0}) == in);                                 // no region: identity window
    EXPECT_TRUE(run(0.05, 0.95, {99, 99, 99, 99}) == in);
    const Image top = run(1.5, 2.0, {0, 0, 0, 0});  // low_th >= 1 cuts at the last level: window [W, W]
    for (int i = 0; i < 120; ++i) ASSERT_EQ(top.samples()[i], in.samples()[i] == 4095 ? 4095 : 0);
    EXPECT_TRUE(run(-1.0, 0.0, {0, 0, 0, 0}) == Image(12, 10, 4095));  // high_th <= 0: window [0, 0]
}

}  // namespace
