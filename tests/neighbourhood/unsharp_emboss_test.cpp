#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <limits>

#include "neighbourhood/neighbourhood_testing.h"

namespace krf::test {
namespace {

// trunc(s + s k) - trunc(m k) for the sample s (held to white) and its mean m, held to 0 ... white.
Image reference_unsharp(const Image& in, int radius, double k, int white) {
    const Image mean = reference_mean(in, radius, white);
    Image out(in.height(), in.width());
    for (int r = 0; r < in.height(); ++r)
        for (int c = 0; c < in.width(); ++c) {
            const double s = std::min<int>(in.at(r, c), white), m = mean.at(r, c);
            const auto value = static_cast<std::int64_t>(s + s * k) - static_cast<std::int64_t>(m * k);
            out.at(r, c) = static_cast<Sample>(std::clamp<std::int64_t>(value, 0, white));
        }
    return out;
}

Image unsharp_of(const Image& in, int radius, double k) {
    return output_of(in, [&](Rows s, Rows d) { return unsharp_mask(s, d, in.height(), in.width(), 4095, radius, k); });
}

TEST(Unsharp, SpikeIsLiftedAndItsNeighboursClampToZeroWhileUnitWindowsCopy) {
    Image spike(7, 7), expected(7, 7);
    spike.at(3, 3) = 90;
    expected.at(3, 3) = 330;  // 90 * 4 - trunc(10 * 3); the neighbours' 0 - 30 clamp to 0
    EXPECT_TRUE(filtered("unsharp", spike, 4095, Params().add_double(3.0).add_int(3).data()) == expected);
    const Image in = random_image(7, 20, 4095, 30);
    for (int radius : {0, 1}) EXPECT_TRUE(unsharp_of(in, radius, 3.0) == in) << radius;
}

TEST(Unsharp, MatchesTheTablesOnEveryPath) {
    for (double k : {0.1, 3.0, -2.5, 1000.7})
        for (int radius : {2, 9})  // samples up to 4195: levels above white count as white
            expect_paths_match(
                [&](Rows s, Rows d, int h, int w, KernelPath p) { return unsharp_mask(s, d, h, w, 4095, radius, k, p); },
                [&](const Image& in) { return reference_unsharp(in, radius, k, 4095); }, 4195, radius);
    Image in = phantom(90, 130, 65535, 4), image = in;
    ASSERT_EQ(unsharp_mask(image.rows(), image.rows(), 90, 130, 65535, 5, 7.25), 0);  // in place
    EXPECT_TRUE(image == reference_unsharp(in, 5, 7.25, 65535));
}

// A sample above its mean goes to white for a huge positive intensity and to
// 0 for a huge negative one; an intensity that is not a number copies.
TEST(Unsharp, ExtremeIntensitiesStayDefined) {
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
}

// The 3 x 3 relief in 64-bit integers inside a zero frame; hardness 0 means 7.
Image reference_emboss(const Image& in, int hardness, int white) {
    const std::int64_t k = hardness == 0 ? 7 : hardness, h = static_cast<std::int64_t>(k * 0.5);
    Image out(in.height(), in.width());
    for (int r = 1; r + 1 < in.height(); ++r)
        for (int c = 1; c + 1 < in.width(); ++c) {
            const std::int64_t value = -k * in.at(r - 1, c - 1) - h * in.at(r - 1, c) - h * in.at(r, c - 1) +
                                       in.at(r, c) + h * in.at(r, c + 1) + h * in.at(r + 1, c) +
                                       k * in.at(r + 1, c + 1);
            out.at(r, c) = static_cast<Sample>(std::clamp<std::int64_t>(value, 0, white));
        }
    return out;
}

TEST(Emboss, MatchesTheKernelForAnyHardnessOnEveryPath) {
    for (int hardness : {0, 1, 5, -3, 8191, 100000, INT_MAX, INT_MIN})
        expect_paths_match(
            [&](Rows s, Rows d, int h, int w, KernelPath p) { return emboss(s, d, h, w, 65535, hardness, p); },
            [&](const Image& in) { return reference_emboss(in, hardness, 65535); }, 65535, hardness);
    Image in = random_image(9, 12, 4095, 90), image = in;
    EXPECT_TRUE(filtered("emboss", in, 4095, Params().add_int(5).data()) == reference_emboss(in, 5, 4095));
    ASSERT_EQ(emboss(image.rows(), image.rows(), 9, 12, 4095, 4), 0);  // in place
    EXPECT_TRUE(image == reference_emboss(in, 4, 4095));
}

}  // namespace
}  // namespace krf::test
