#include <gtest/gtest.h>

#include <cmath>
#include <array>
#include <random>

#include "tone/tone.h"
#include "tone/tone_testing.h"

namespace {

using krf::Sample;
using krf::test::Image;
using krf::test::Params;
using krf::test::filtered;
using krf::test::kMarker;

TEST(Equalize, SingleLevelTwoLevelAndAllZeroImages) {
    EXPECT_TRUE(filtered("equalize", Image(3, 4, 700), 4095) == Image(3, 4, 4095));
    EXPECT_TRUE(filtered("equalize", Image(3, 4, 0), 4095) == Image(3, 4, 0));  // 0/0 stored as 0
    Image two(2, 3, 0);
    for (int c = 0; c < 3; ++c) two.at(1, c) = 4095;
    EXPECT_TRUE(filtered("equalize", two, 4095) == two);
}

TEST(Equalize, MatchesTheCumulativeShareOfEveryLevel) {
    std::mt19937 random(5);
    Image in(9, 11);
    for (int r = 0; r < 9; ++r)
        for (int c = 0; c < 11; ++c) in.at(r, c) = static_cast<Sample>(200 + random() % 900);  // some above white
    const int white = 1000;
    const Image out = filtered("equalize", in, white);
    const double n = 99;
    auto share_up_to = [&](int level) {
        int count = 0;
        for (Sample v : in.samples()) count += std::min<int>(v, white) <= level;
        return count / n;
    };
    const double lowest = share_up_to(200);
    for (int r = 0; r < 9; ++r)
        for (int c = 0; c < 11; ++c) {
            const double share = share_up_to(std::min<int>(in.at(r, c), white));
            ASSERT_EQ(out.at(r, c), std::trunc((share - lowest) / (1 - lowest) * white + 0.5)) << r << " " << c;
        }
}

// Border values go into the params array in catalogue order: low_th, high_th, up, down, left, right.
Params shannon_params(double low, double high, int up, int down, int left, int right) {
    Params p;
    p.add_double(low).add_double(high).add_int(up).add_int(down).add_int(left).add_int(right);
    return p;
}

TEST(ShannonStretching, BordersSelectTheMeasuredRegion) {
    // Region rows 2 ... 14, columns 3 ... 12 hold levels 200 and 601 in equal
    // numbers; the borders hold 900 and one sample of 400. Half of the entropy
    // lies at 200, half at 601, so the window is [200, 600].
    Image in(20, 20, 900);
    for (int r = 2; r < 15; ++r)
        for (int c = 3; c < 13; ++c) in.at(r, c) = (r + c) % 2 ? 200 : 601;
    in.at(0, 0) = 400;
    Params p = shannon_params(0.25, 0.75, 2, 5, 3, 7);
    const Image out = filtered("ShannonStretching", in, 1000, &p);
    EXPECT_EQ(out.at(0, 0), 500);  // (400 - 200) × 1000 / 400
    EXPECT_EQ(out.at(2, 3), 0);     // 200
    EXPECT_EQ(out.at(2, 4), 1000);  // 601
    // The shares are exactly 0.5 from 200 to 600: a threshold equal to a
    // share is passed by the lower cut and stops the upper one.
    int code = 0;
    Params lower_equal = shannon_params(0.5, 0.75, 2, 5, 3, 7);  // window [601, 600]
    filtered("ShannonStretching", in, 1000, &lower_equal, &code);
    EXPECT_EQ(code, -3);
    Params upper_equal = shannon_params(0.25, 0.5, 2, 5, 3, 7);  // window [200, 199]
    filtered("ShannonStretching", in, 1000, &upper_equal, &code);
    EXPECT_EQ(code, -3);
    // Any other reading of the four borders takes 900s into the region.
    for (auto [up, down, left, right] : {std::array{5, 2, 3, 7}, std::array{3, 7, 2, 5}, std::array{2, 5, 7, 3}}) {
        Params q = shannon_params(0.25, 0.75, up, down, left, right);
        EXPECT_NE(filtered("ShannonStretching", in, 1000, &q).at(0, 0), 500);
    }
}

TEST(ShannonStretching, EmptyRegionsAndThresholdsAtTheEnds) {
    const Image in = krf::test::phantom(12, 10, 4095);
    Params all = shannon_params(0.05, 0.95, 0, 0, 0, 0);
    Params none = shannon_params(0.05, 0.95, 6, 6, 0, 0);  // borders meet: no region
    Params outside = shannon_params(0.05, 0.95, 100, 100, 100, 100);
    Params negative = shannon_params(0.05, 0.95, -4, -4, -4, -4);  // counts as no border
    EXPECT_FALSE(filtered("ShannonStretching", in, 4095, &all) == in);
    EXPECT_TRUE(filtered("ShannonStretching", in, 4095, &negative) == filtered("ShannonStretching", in, 4095, &all));
    EXPECT_TRUE(filtered("ShannonStretching", in, 4095, &none) == in);  // identity window
    EXPECT_TRUE(filtered("ShannonStretching", in, 4095, &outside) == in);
    // low_th of 1 or more cuts at the last level; with high_th below 1 the window is inverted.
    int code = 0;
    Params high_low = shannon_params(1.5, 0.95, 0, 0, 0, 0);
    EXPECT_TRUE(filtered("ShannonStretching", in, 4095, &high_low, &code) == Image(12, 10, kMarker));
    EXPECT_EQ(code, -3);
    Params both_high = shannon_params(1.5, 2.0, 0, 0, 0, 0);  // window [W, W]
    const Image top = filtered("ShannonStretching", in, 4095, &both_high, &code);
    EXPECT_EQ(code, 0);
    for (int i = 0; i < 120; ++i) ASSERT_EQ(top.samples()[i], in.samples()[i] >= 4095 ? 4095 : 0);
    Params both_low = shannon_params(-1.0, 0.0, 0, 0, 0, 0);  // window [0, 0]: all white
    EXPECT_TRUE(filtered("ShannonStretching", in, 4095, &both_low) == Image(12, 10, 4095));
}

TEST(HistogramStretching, AllocationFailuresLeaveTheOutputUntouched) {
    const Image in = krf::test::phantom(6, 5, 4095);
    Params p = shannon_params(0.05, 0.95, 1, 1, 1, 1);
    for (const char* name : {"equalize", "ShannonStretching"}) {
        krf::test::expect_clean_allocation_failures(
            [&](Image& out) {
                Image copy = in;
                return krf::test::run_filter(name, copy, out, 4095, std::string(name) == "equalize" ? nullptr : p.data());
            },
            6, 5, {krf::kNoBuffer, krf::kNoRowArray});
    }
}

}  // namespace
