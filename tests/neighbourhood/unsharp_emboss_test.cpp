#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>

#include "neighbourhood/local_filters_testing.h"

namespace {

using krf::KernelPath;
using krf::test::Image;
using krf::test::kMarker;
using krf::test::Params;
using krf::test::random_image;

// (1 + k) * sample - k * mean through the two truncated tables, sample held to white.
Image reference_unsharp(const Image& in, int radius, double k, int white) {
    const Image mean = krf::test::reference_mean(in, radius, white);
    Image out(in.height(), in.width());
    for (int r = 0; r < in.height(); ++r)
        for (int c = 0; c < in.width(); ++c) {
            const double level = std::min<int>(in.at(r, c), white);
            const double m = mean.at(r, c);
            const auto value = static_cast<std::int64_t>(level + level * k) - static_cast<std::int64_t>(m * k);
            out.at(r, c) = static_cast<krf::Sample>(std::clamp<std::int64_t>(value, 0, white));
        }
    return out;
}

Image unsharp_of(Image in, int radius, double k, int white, KernelPath path) {
    Image out(in.height(), in.width(), kMarker);
    EXPECT_EQ(krf::unsharp_mask(in.rows(), out.rows(), in.height(), in.width(), white, radius, k, path), 0);
    return out;
}

int run_unsharp(Image& in, Image& out, double k, int radius, int white = 4095) {
    Params p;
    p.add_double(k).add_int(radius);
    return krf::test::run_filter("unsharp", in, out, white, p.data());
}

TEST(Unsharp, FlatImagesAndUnitWindowsComeBackUnchanged) {
    Image flat(6, 9, 1234);
    Image out(6, 9, kMarker);
    ASSERT_EQ(run_unsharp(flat, out, 3.0, 5), 0);
    EXPECT_TRUE(out == flat);
    Image in = random_image(7, 20, 4095, 30);
    for (int radius : {0, 1}) {
        Image same(7, 20, kMarker);
        ASSERT_EQ(run_unsharp(in, same, 3.0, radius), 0);
        EXPECT_TRUE(same == in) << radius;
    }
}

TEST(Unsharp, SingleSpikeIsLiftedAndItsNeighboursClampedToZero) {
    Image in(7, 7);
    in.at(3, 3) = 90;
    Image out(7, 7, kMarker);
    ASSERT_EQ(run_unsharp(in, out, 3.0, 3), 0);
    Image expected(7, 7);
    expected.at(3, 3) = 330;  // 90 * 4 - trunc(10 * 3); the neighbours' 0 - 30 clamp to 0
    EXPECT_TRUE(out == expected);
}

TEST(Unsharp, MatchesTheTablesOnEveryPath) {
    std::uint32_t seed = 40;
    for (auto [h, w] : krf::test::kOddSizes)
        for (double k : {0.1, 3.0, -2.5, 1000.7})
            for (int radius : {2, 3, 9}) {
                Image in = random_image(h, w, 4195, ++seed);  // some samples above white
                const Image expected = reference_unsharp(in, radius, k, 4095);
                EXPECT_TRUE(unsharp_of(in, radius, k, 4095, KernelPath::portable) == expected) << k << " " << radius;
                EXPECT_TRUE(unsharp_of(in, radius, k, 4095, KernelPath::fastest) == expected) << k << " " << radius;
            }
    Image in = krf::test::phantom(90, 130, 65535, 4);
    EXPECT_TRUE(unsharp_of(in, 5, 7.25, 65535, KernelPath::fastest) == reference_unsharp(in, 5, 7.25, 65535));
}

TEST(Unsharp, ExtremeIntensitiesStayDefined) {
    Image in = random_image(9, 30, 4095, 50);
    EXPECT_TRUE(unsharp_of(in, 3, std::numeric_limits<double>::quiet_NaN(), 4095, KernelPath::fastest) == in);
    const Image mean = krf::test::reference_mean(in, 3, 4095);
    for (double k : {std::numeric_limits<double>::infinity(), 1e300, -1e300}) {
        const Image out = unsharp_of(in, 3, k, 4095, KernelPath::fastest);
        for (int r = 0; r < 9; ++r)
            for (int c = 0; c < 30; ++c) {
                if (in.at(r, c) == mean.at(r, c)) continue;
                const bool brighter = (in.at(r, c) > mean.at(r, c)) == (k > 0);
                ASSERT_EQ(out.at(r, c), brighter ? 4095 : 0) << k << " " << r << "," << c;
            }
    }
}

TEST(Unsharp, WorksInPlaceAndFailsCleanly) {
    Image in = random_image(10, 25, 4095, 60);
    Image image = in;
    ASSERT_EQ(krf::unsharp_mask(image.rows(), image.rows(), 10, 25, 4095, 3, 2.0), 0);
    EXPECT_TRUE(image == reference_unsharp(in, 3, 2.0, 4095));

    krf::test::expect_clean_allocation_failures([&](Image& out) { return run_unsharp(in, out, 2.0, 3); }, 10, 25,
                                                {krf::kNoRowArray, krf::kNoBuffer});
    Image out(10, 25, kMarker);
    EXPECT_EQ(run_unsharp(in, out, 2.0, INT_MAX), krf::kNoRowArray);
    EXPECT_TRUE(out == Image(10, 25, kMarker));
}

// The 3 x 3 relief in 64-bit integers, zero border.
Image reference_emboss(const Image& in, int hardness, int white) {
    const std::int64_t k = hardness == 0 ? 7 : hardness;
    const auto h = static_cast<std::int64_t>(static_cast<double>(k) * 0.5);
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

Image emboss_of(Image in, int hardness, int white, KernelPath path = KernelPath::fastest) {
    Image out(in.height(), in.width(), kMarker);
    EXPECT_EQ(krf::emboss(in.rows(), out.rows(), in.height(), in.width(), white, hardness, path), 0);
    return out;
}

int run_emboss(Image& in, Image& out, int hardness) {
    Params p;
    p.add_int(hardness);
    return krf::test::run_filter("emboss", in, out, 4095, p.data());
}

TEST(Emboss, FlatImageKeepsItsLevelInsideAZeroFrame) {
    Image in(5, 6, 777);
    Image out(5, 6, kMarker);
    ASSERT_EQ(run_emboss(in, out, 5), 0);
    for (int r = 0; r < 5; ++r)
        for (int c = 0; c < 6; ++c) {
            const bool frame = r == 0 || r == 4 || c == 0 || c == 5;
            EXPECT_EQ(out.at(r, c), frame ? 0 : 777) << r << "," << c;
        }
}

TEST(Emboss, HardnessZeroIsSevenAndOneKeepsOnlyTheDiagonal) {
    Image in = random_image(8, 11, 4095, 70);
    EXPECT_TRUE(emboss_of(in, 0, 4095) == emboss_of(in, 7, 4095));
    const Image out = emboss_of(in, 1, 4095);
    for (int r = 1; r < 7; ++r)
        for (int c = 1; c < 10; ++c) {
            const int value = -in.at(r - 1, c - 1) + in.at(r, c) + in.at(r + 1, c + 1);
            ASSERT_EQ(out.at(r, c), std::clamp(value, 0, 4095)) << r << "," << c;
        }
}

TEST(Emboss, MatchesTheKernelForAnyHardnessOnEveryPath) {
    std::uint32_t seed = 80;
    for (auto [h, w] : krf::test::kOddSizes)
        for (int hardness : {1, 2, 5, -3, 8191, 100000, INT_MAX, INT_MIN}) {
            Image in = random_image(h, w, 65535, ++seed);
            const Image expected = reference_emboss(in, hardness, 65535);
            EXPECT_TRUE(emboss_of(in, hardness, 65535, KernelPath::portable) == expected) << hardness;
            EXPECT_TRUE(emboss_of(in, hardness, 65535, KernelPath::fastest) == expected) << hardness;
        }
}

TEST(Emboss, WorksInPlaceAndFailsCleanly) {
    Image in = random_image(9, 12, 4095, 90);
    Image image = in;
    ASSERT_EQ(krf::emboss(image.rows(), image.rows(), 9, 12, 4095, 4), 0);
    EXPECT_TRUE(image == reference_emboss(in, 4, 4095));
    krf::test::expect_clean_allocation_failures([&](Image& out) { return run_emboss(in, out, 4); }, 9, 12,
                                                {krf::kNoRowArray, krf::kNoBuffer});
}

}  // namespace
