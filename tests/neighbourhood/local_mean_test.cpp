#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>

#include "neighbourhood/neighbourhood_testing.h"

namespace krf::test {
namespace {

Image mean_of(const Image& in, int side, int white, KernelPath path = KernelPath::fastest) {
    return output_of(in, [&](Rows s, Rows d) { return box_mean(s, d, in.height(), in.width(), white, side, path); });
}

Image mean2d(const Image& in, int side, int code = 0) {
    return filtered("mean2D", in, 4095, Params().add_int(side).data(), code);
}

// Sides below two copy; a window too large to pad is refused up front.
TEST(BoxMean, SideRulesAndUnaffordableWindows) {
    const Image in = random_image(12, 40, 4095, 1);
    for (int side : {0, 1, -4, INT_MIN}) EXPECT_TRUE(mean2d(in, side) == in) << side;
    for (int side : {INT_MAX, 70001}) EXPECT_TRUE(mean2d(in, side, kNoRowArray) == Image(12, 40, kMarker)) << side;
    for (int side : {3, 181, 183})  // 181: the largest side with 32-bit sums
        EXPECT_TRUE(mean_of(Image(4, 5, 65535), side, 65535) == Image(4, 5, 65535)) << side;
}

TEST(BoxMean, MatchesDirectSumsOnEveryPathAndSize) {
    for (int side : {2, 3, 8, 15, 41, 201})  // samples up to 4195: the mean is held to white
        expect_paths_match(
            [&](Rows s, Rows d, int h, int w, KernelPath p) { return box_mean(s, d, h, w, 4095, side, p); },
            [&](const Image& in) { return reference_mean(in, side, 4095); }, 4195, side);
    const Image in = phantom(160, 250, 65535, 3);
    for (int side : {3, 61, 181})
        EXPECT_TRUE(mean_of(in, side, 65535, KernelPath::fastest) == mean_of(in, side, 65535, KernelPath::portable));
}

TEST(BoxMean, RunsInPlace) {
    Image in = random_image(12, 40, 4095, 5), image = in;
    ASSERT_EQ(box_mean(image.rows(), image.rows(), 12, 40, 4095, 5), 0);
    EXPECT_TRUE(image == reference_mean(in, 5, 4095));
}

TEST(Despeckle, ReplacesOnlySamplesFurtherFromTheMeanThanTheThreshold) {
    Image in = random_image(15, 33, 4095, 20);
    const Image mean = reference_mean(in, 5, 4095);
    for (int threshold : {0, 300, -300, 4095, INT_MIN}) {
        const Image out = filtered("despeckle", in, 4095, Params().add_int(4).add_int(threshold).data());
        const long limit = std::min(std::labs(threshold), 4095L);
        for (int r = 0; r < 15; ++r)
            for (int c = 0; c < 33; ++c) {
                const bool speck = std::abs(in.at(r, c) - mean.at(r, c)) > limit;
                ASSERT_EQ(out.at(r, c), speck ? mean.at(r, c) : in.at(r, c)) << threshold << " " << r << "," << c;
            }
    }
}

}  // namespace
}  // namespace krf::test
