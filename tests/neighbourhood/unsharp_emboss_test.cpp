#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <limits>

#include "neighbourhood/local_filters_testing.h"

namespace {

using krf::KernelPath;
using krf::Rows;
using namespace krf::test;

// trunc(s + s k) - trunc(m k) for the sample s (held to white) and its mean m, held to 0 ... white.
Image reference_unsharp(const Image& in, int radius, double k, int white) {
    const Image mean = reference_mean(in, radius, white);
    Image out(in.height(), in.width());
    for (int r = 0; r < in.height(); ++r)
        for (int c = 0; c < in.width(); ++c) {
            const double s = std::min<int>(in.at(r, c), white), m = mean.at(r, c);
            const auto value = static_cast<std::int64_t>(s + s * k) - static_cast<std::int64_t>(m * k);
            out.at(r, c) = static_cast<krf::Sample>(std::clamp<std::int64_t>(value, 0, white));
        }
    return out;
}

Image unsharp_of(const Image& in, int radius, double k, int white = 4095, KernelPath path = KernelPath::fastest) {
    return output_of(
        in, [&](Rows s, Rows d) { return krf::unsharp_mask(s, d, in.height(), in.width(), white, radius, k, path); });
}

TEST(Unsharp, SpikeIsLiftedAndItsNeighboursClampToZeroWhileFlatOrUnitWindowsStay) {
    Image spike(7, 7), out(7, 7, kMarker), expected(7, 7);
    spike.at(3, 3) = 90;
    expected.at(3, 3) = 330;  // 90 * 4 - trunc(10 * 3); the neighbours' 0 - 30 clamp to 0
    ASSERT_EQ(run_filter("unsharp", spike, out, 4095, Params().add_double(3.0).add_int(3).data()), 0);
    EXPECT_TRUE(out == expected);
    EXPECT_TRUE(unsharp_of(Image(6, 9, 1234), 5, 3.0) == Image(6, 9, 1234));
    Image in = random_image(7, 20, 4095, 30);
    EXPECT_TRUE(unsharp_of(in, 0, 3.0) == in);
    EXPECT_TRUE(unsharp_of(in, 1, 3.0) == in);
}

TEST(Unsharp, MatchesTheTablesOnEveryPath) {
    for (double k : {0.1, 3.0, -2.5, 1000.7})
        for (int radius : {2, 9})  // samples up to 4195: levels above white count as white
            expect_paths_match(
                [&](Rows s, Rows d, int h, int w, KernelPath p) {
                    return krf::unsharp_mask(s, d, h, w, 4095, radius, k, p);
                },
                [&](const Image& in) { return reference_unsharp(in, radius, k, 4095); }, 4195, radius);
    Image in = phantom(90, 130, 65535, 4), image = in;
    ASSERT_EQ(krf::unsharp_mask(image.rows(), image.rows(), 90, 130, 65535, 5, 7.25), 0);  // in place
    EXPECT_TRUE(image == reference_unsharp(in, 5, 7.25, 65535));
}

TEST(Unsharp, ExtremeIntensitiesStayDefinedAndAllocationFailuresAreClean) {
    Image in = random_image(9, 30, 4095, 50);
    EXPECT_TRUE(unsharp_of(in, 3, std::numeric_limits<double>::quiet_NaN()) == in);
    const Image mean = reference_mean(in, 3, 4095);
    for (double k : {std::numeric_limits<double>::infinity(), 1e300, -1e300}) {
        const Image out = unsharp_of(in, 3, k);
        for (int r = 0; r < 9; ++r)
            for (int c = 0; c < 30; ++c)
                if (in.at(r, c) != mean.at(r, c))
                    ASSERT_EQ(out.at(r, c), (in.at(r, c) > mean.at(r, c)) == (k > 0) ? 4095 : 0) << k;
    }
    expect_clean_allocation_failures(
        [&](Image& out) { return run_filter("unsharp", in, out, 4095, Params().add_double(2.0).add_int(3).data()); },
        9, 30, {krf::kNoRowArray, krf::kNoBuffer});
}

// The 3 x 3 relief in 64-bit integers inside a zero frame.
Image reference_emboss(const Image& in, int hardness, int white) {
    const std::int64_t k = hardness == 0 ? 7 : hardness, h = static_cast<std::int64_t>(k * 0.5);
    Image out(in.height(), in.width());
    for (int r = 1; r + 1 < in.height(); ++r)
        for (int c = 1; c + 1 < in.width(); ++c) {
            const std::int64_t value = -k * in.at(r - 1, c - 1) - h * in.at(r - 1, c) - h * in.at(r, c - 1) +
                                       in.at(r, c) + h * in.at(r, c + 1) + h * in.at(r + 1, c) +
                                       k * in.at(r + 1, c + 1);
            out.at(r, c) = static_cast<krf::Sample>(std::clamp<std::int64_t>(value, 0, white));
        }
    return out;
}

Image emboss_of(const Image& in, int hardness, int white = 4095, KernelPath path = KernelPath::fastest) {
    return output_of(in,
                     [&](Rows s, Rows d) { return krf::emboss(s, d, in.height(), in.width(), white, hardness, path); });
}

TEST(Emboss, FlatImageKeepsItsLevelInsideAZeroFrameAndHardnessZeroIsSeven) {
    Image flat(5, 6, 777), out(5, 6, kMarker), expected(5, 6);
    for (int r = 1; r < 4; ++r)
        for (int c = 1; c < 5; ++c) expected.at(r, c) = 777;
    ASSERT_EQ(run_filter("emboss", flat, out, 4095, Params().add_int(5).data()), 0);
    EXPECT_TRUE(out == expected);
    Image in = random_image(8, 11, 4095, 70);
    EXPECT_TRUE(emboss_of(in, 0) == emboss_of(in, 7));
    const Image diagonal = emboss_of(in, 1);  // h = 0: only the diagonal taps remain
    EXPECT_EQ(diagonal.at(4, 5), std::clamp(in.at(4, 5) - in.at(3, 4) + in.at(5, 6), 0, 4095));
}

TEST(Emboss, MatchesTheKernelForAnyHardnessOnEveryPath) {
    for (int hardness : {1, 5, -3, 8191, 100000, INT_MAX, INT_MIN})
        expect_paths_match(
            [&](Rows s, Rows d, int h, int w, KernelPath p) { return krf::emboss(s, d, h, w, 65535, hardness, p); },
            [&](const Image& in) { return reference_emboss(in, hardness, 65535); }, 65535, hardness);
    Image in = random_image(9, 12, 4095, 90), image = in;
    ASSERT_EQ(krf::emboss(image.rows(), image.rows(), 9, 12, 4095, 4), 0);  // in place
    EXPECT_TRUE(image == reference_emboss(in, 4, 4095));
    expect_clean_allocation_failures(
        [&](Image& out) { return run_filter("emboss", in, out, 4095, Params().add_int(4).data()); }, 9, 12,
        {krf::kNoRowArray, krf::kNoBuffer});
}

}  // namespace
