#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>

#include "neighbourhood/local_filters_testing.h"

namespace {

using krf::KernelPath;
using krf::Rows;
using namespace krf::test;

Image mean_of(const Image& in, int side, int white = 4095, KernelPath path = KernelPath::fastest) {
    return output_of(in,
                     [&](Rows s, Rows d) { return krf::box_mean(s, d, in.height(), in.width(), white, side, path); });
}

int run_mean(Image& in, Image& out, int side) {
    return run_filter("mean2D", in, out, 4095, Params().add_int(side).data());
}

TEST(BoxMean, SidesBelowTwoCopyEvenSidesGrowAndTheCornerReplicatesItsEdge) {
    Image in = random_image(9, 21, 4095, 1);
    for (int side : {0, 1, -4, INT_MIN}) {
        Image out(9, 21, kMarker);
        ASSERT_EQ(run_mean(in, out, side), 0);
        EXPECT_TRUE(out == in) << side;
    }
    EXPECT_TRUE(mean_of(in, 2) == mean_of(in, 3));
    Image corner(3, 3);
    corner.at(0, 0) = 90;  // counted four times, its edge neighbours twice, the inner one once
    corner.at(0, 1) = 9;
    corner.at(1, 0) = 18;
    corner.at(1, 1) = 45;
    EXPECT_EQ(mean_of(corner, 3).at(0, 0), (4 * 90 + 2 * 9 + 2 * 18 + 45) / 9);
    for (int side : {3, 181, 183})  // 181: the largest side with 32-bit sums
        EXPECT_TRUE(mean_of(Image(4, 5, 65535), side, 65535) == Image(4, 5, 65535)) << side;
}

TEST(BoxMean, MatchesDirectSumsOnEveryPathAndSize) {
    for (int side : {3, 8, 15, 41, 201})  // samples up to 4195: the mean is held to white
        expect_paths_match(
            [&](Rows s, Rows d, int h, int w, KernelPath p) { return krf::box_mean(s, d, h, w, 4095, side, p); },
            [&](const Image& in) { return reference_mean(in, side, 4095); }, 4195, side);
    Image in = phantom(160, 250, 65535, 3);
    for (int side : {3, 61, 181})
        EXPECT_TRUE(mean_of(in, side, 65535, KernelPath::fastest) == mean_of(in, side, 65535, KernelPath::portable));
}

TEST(BoxMean, InPlaceUnaffordableWindowsAndAllocationFailures) {
    Image in = random_image(12, 40, 4095, 5), image = in;
    ASSERT_EQ(krf::box_mean(image.rows(), image.rows(), 12, 40, 4095, 5), 0);
    EXPECT_TRUE(image == reference_mean(in, 5, 4095));
    for (int side : {INT_MAX, 70001}) {
        Image out(12, 40, kMarker);
        EXPECT_EQ(run_mean(in, out, side), krf::kNoRowArray);
        EXPECT_TRUE(out == Image(12, 40, kMarker));
    }
    const int allocations = expect_clean_allocation_failures([&](Image& out) { return run_mean(in, out, 5); }, 12, 40,
                                                             {krf::kNoRowArray, krf::kNoBuffer});
    EXPECT_EQ(allocations, 1 + 5 + 1);  // row array, n padded rows, column sums
}

TEST(Despeckle, ReplacesOnlySamplesFurtherFromTheMeanThanTheThreshold) {
    Image in = random_image(15, 33, 4095, 20);
    const Image mean = reference_mean(in, 5, 4095);
    for (int threshold : {0, 300, -300, 4095, INT_MIN}) {
        Image out(15, 33, kMarker);
        ASSERT_EQ(run_filter("despeckle", in, out, 4095, Params().add_int(4).add_int(threshold).data()), 0);
        const long limit = std::min(std::labs(threshold), 4095L);
        for (int r = 0; r < 15; ++r)
            for (int c = 0; c < 33; ++c) {
                const bool speck = std::abs(in.at(r, c) - mean.at(r, c)) > limit;
                ASSERT_EQ(out.at(r, c), speck ? mean.at(r, c) : in.at(r, c)) << threshold << " " << r << "," << c;
            }
    }
    expect_clean_allocation_failures(
        [&](Image& out) { return run_filter("despeckle", in, out, 4095, Params().add_int(3).add_int(9).data()); }, 15,
        33, {krf::kNoRowArray, krf::kNoBuffer});
}

}  // namespace
