#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>

#include "neighbourhood/local_filters_testing.h"

namespace {

using krf::KernelPath;
using krf::test::Image;
using krf::test::kMarker;
using krf::test::Params;
using krf::test::random_image;

using krf::test::reference_mean;

Image mean_of(Image in, int side, int white, KernelPath path = KernelPath::fastest) {
    Image out(in.height(), in.width(), kMarker);
    EXPECT_EQ(krf::box_mean(in.rows(), out.rows(), in.height(), in.width(), white, side, path), 0);
    return out;
}

int run_mean(Image& in, Image& out, int side) {
    Params p;
    p.add_int(side);
    return krf::test::run_filter("mean2D", in, out, 4095, p.data());
}

TEST(BoxMean, SidesBelowTwoCopyAndEvenSidesGrowByOne) {
    Image in = random_image(9, 21, 4095, 1);
    for (int side : {0, 1, -1, -4, INT_MIN}) {
        Image out(9, 21, kMarker);
        ASSERT_EQ(run_mean(in, out, side), 0);
        EXPECT_TRUE(out == in) << side;
    }
    EXPECT_TRUE(mean_of(in, 2, 4095) == mean_of(in, 3, 4095));
    EXPECT_TRUE(mean_of(in, 6, 4095) == mean_of(in, 7, 4095));
}

TEST(BoxMean, CornerWindowWeighsTheReplicatedEdge) {
    Image in(3, 3);
    in.at(0, 0) = 90;  // counted four times
    in.at(0, 1) = 9;   // twice
    in.at(1, 0) = 18;  // twice
    in.at(1, 1) = 45;  // once
    Image out = mean_of(in, 3, 4095);
    EXPECT_EQ(out.at(0, 0), (4 * 90 + 2 * 9 + 2 * 18 + 45) / 9);
}

TEST(BoxMean, FlatWhiteStaysWhiteUpToTheLargestSideOf32BitSums) {
    for (int side : {3, 181, 183}) {
        Image in(4, 5, 65535);
        EXPECT_TRUE(mean_of(in, side, 65535) == in) << side;
        EXPECT_TRUE(mean_of(in, side, 65535, KernelPath::portable) == in) << side;
    }
}

TEST(BoxMean, MatchesDirectSumsOnEveryPathAndSize) {
    std::uint32_t seed = 10;
    for (auto [h, w] : krf::test::kOddSizes)
        for (int side : {3, 5, 8, 15, 41}) {
            // Samples up to 100 above white: the mean is held to white.
            Image in = random_image(h, w, 4195, ++seed);
            const Image expected = reference_mean(in, side, 4095);
            EXPECT_TRUE(mean_of(in, side, 4095, KernelPath::portable) == expected) << h << "x" << w << " " << side;
            EXPECT_TRUE(mean_of(in, side, 4095, KernelPath::fastest) == expected) << h << "x" << w << " " << side;
        }
}

TEST(BoxMean, FastAndPortablePathsAgreeOnAPhantom) {
    Image in = krf::test::phantom(160, 250, 65535, 3);
    for (int side : {3, 9, 61, 181})
        EXPECT_TRUE(mean_of(in, side, 65535, KernelPath::fastest) == mean_of(in, side, 65535, KernelPath::portable))
            << side;
}

TEST(BoxMean, WindowsBeyond181StayExact) {
    Image bright(3, 4, 65535);
    EXPECT_TRUE(mean_of(bright, 201, 65535) == bright);
    Image in = random_image(6, 9, 65535, 7);
    EXPECT_TRUE(mean_of(in, 201, 65535) == reference_mean(in, 201, 65535));
}

TEST(BoxMean, UnaffordableWindowsAreRefusedWithoutTouchingTheOutput) {
    Image in = random_image(3, 4, 4095, 2);
    for (int side : {INT_MAX, INT_MAX - 1, 70001}) {
        Image out(3, 4, kMarker);
        EXPECT_EQ(run_mean(in, out, side), krf::kNoRowArray) << side;
        EXPECT_TRUE(out == Image(3, 4, kMarker));
    }
}

TEST(BoxMean, WorksInPlaceAndOnEmptyImages) {
    Image in = random_image(12, 40, 4095, 5);
    Image image = in;
    ASSERT_EQ(krf::box_mean(image.rows(), image.rows(), 12, 40, 4095, 5), 0);
    EXPECT_TRUE(image == reference_mean(in, 5, 4095));

    Image empty(0, 5), out(0, 5);
    EXPECT_EQ(run_mean(empty, out, 3), 0);
}

TEST(BoxMean, AllocationFailuresLeaveTheOutputUntouched) {
    for (int side : {5, 183}) {
        Image in = random_image(6, 7, 4095, 8);
        const int allocations = krf::test::expect_clean_allocation_failures(
            [&](Image& out) { return run_mean(in, out, side); }, 6, 7, {krf::kNoRowArray, krf::kNoBuffer});
        // the row array of the padded rows, n padded rows, the column sums
        EXPECT_EQ(allocations, 1 + side + 1);
    }
}

int run_despeckle(Image& in, Image& out, int side, int threshold, int white = 4095) {
    Params p;
    p.add_int(side).add_int(threshold);
    return krf::test::run_filter("despeckle", in, out, white, p.data());
}

TEST(Despeckle, ReplacesOnlySamplesFurtherFromTheMeanThanTheThreshold) {
    Image in = random_image(15, 33, 4095, 20);
    const Image mean = reference_mean(in, 5, 4095);
    for (int threshold : {0, 300, -300, 1000}) {
        Image out(15, 33, kMarker);
        ASSERT_EQ(run_despeckle(in, out, 4, threshold), 0);
        for (int r = 0; r < 15; ++r)
            for (int c = 0; c < 33; ++c) {
                const bool speck = std::abs(in.at(r, c) - mean.at(r, c)) > std::abs(threshold);
                ASSERT_EQ(out.at(r, c), speck ? mean.at(r, c) : in.at(r, c)) << threshold << " " << r << "," << c;
            }
    }
}

TEST(Despeckle, ThresholdAtWhiteOrBeyondKeepsTheInput) {
    Image in = random_image(8, 9, 4095, 21);
    for (int threshold : {4095, 100000, -4095, INT_MIN, INT_MAX}) {
        Image out(8, 9, kMarker);
        ASSERT_EQ(run_despeckle(in, out, 3, threshold), 0);
        EXPECT_TRUE(out == in) << threshold;
    }
}

TEST(Despeckle, AllocationFailuresLeaveTheOutputUntouched) {
    Image in = random_image(5, 6, 4095, 22);
    krf::test::expect_clean_allocation_failures([&](Image& out) { return run_despeckle(in, out, 3, 10); }, 5, 6,
                                                {krf::kNoRowArray, krf::kNoBuffer});
    Image out(5, 6, kMarker);
    EXPECT_EQ(run_despeckle(in, out, INT_MAX, 10), krf::kNoRowArray);
    EXPECT_TRUE(out == Image(5, 6, kMarker));
}

}  // namespace
