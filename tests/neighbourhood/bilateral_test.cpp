#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <vector>

#include "neighbourhood/local_filters_testing.h"

namespace {

using krf::KernelPath;
using krf::test::Image;
using krf::test::kMarker;
using krf::test::Params;
using krf::test::random_image;

// Window n = trunc(6 |sigma|) made odd; range weight exp(-((u - v) / sigma_l)^2)
// (exact match only when sigma_l is 0); spatial weight exp(-((|dx| + |dy|) /
// sigma)^2); samples held to white; top and bottom h rows copied without
// column 0, which stays 0; left and right h columns copied; n = 1 copies.
Image reference_bilateral(const Image& in, int white, double sigma_s, double sigma_l) {
    int n = static_cast<int>(6 * std::fabs(sigma_s));
    if (n % 2 == 0) ++n;
    const int h = n / 2;
    std::vector<double> range(2 * white + 1), spatial(n);
    for (int i = 0; i <= 2 * white; ++i)
        range[i] = sigma_l == 0 ? (i == white) : std::exp(-std::pow((i - white) / sigma_l, 2));
    for (int i = 0; i < n; ++i) spatial[i] = std::exp(-std::pow(i / sigma_s, 2));
    Image out(in.height(), in.width());
    for (int r = 0; r < in.height(); ++r)
        for (int c = 0; c < in.width(); ++c) {
            if (r < h || r >= in.height() - h) {
                out.at(r, c) = c == 0 ? 0 : in.at(r, c);
                continue;
            }
            if (h == 0 || c < h || c >= in.width() - h) {
                out.at(r, c) = in.at(r, c);
                continue;
            }
            const int u = std::min<int>(in.at(r, c), white);
            double weights = 0, weighted = 0;
            for (int dy = -h; dy <= h; ++dy)
                for (int dx = -h; dx <= h; ++dx) {
                    const int v = std::min<int>(in.at(r + dy, c + dx), white);
                    const double w = range[u - v + white] * spatial[std::abs(dx) + std::abs(dy)];
                    weights += w;
                    weighted += v * w;
                }
            out.at(r, c) = static_cast<krf::Sample>(static_cast<int>(weighted / weights));
        }
    return out;
}

Image bilateral_of(Image in, int white, double sigma_s, double sigma_l, KernelPath path = KernelPath::fastest) {
    Image out(in.height(), in.width(), kMarker);
    EXPECT_EQ(krf::bilateral_filter(in.rows(), out.rows(), in.height(), in.width(), white, sigma_s, sigma_l, path), 0);
    return out;
}

int run_bilateral(Image& in, Image& out, double sigma_s, double sigma_l) {
    Params p;
    p.add_double(sigma_s).add_double(sigma_l);  // LuminanceSigma travels as a double
    return krf::test::run_filter("bilateral_filter", in, out, 4095, p.data());
}

// The weights cancel on a flat image only up to rounding: the weighted sum can
// come out a hair under level * total weight, and truncation then gives one
// level less. Both cases occur; the result is never above the level.
TEST(Bilateral, FlatInteriorKeepsItsLevelAndEdgeRowsStartAtZero) {
    for (auto [sigma, h] : {std::pair{0.5, 1}, {0.8, 2}})
        for (int level : {1000, 3}) {
            Image in(9, 12, static_cast<krf::Sample>(level));
            Image out(9, 12, kMarker);
            ASSERT_EQ(run_bilateral(in, out, sigma, 1300.0), 0);
            EXPECT_TRUE(out == reference_bilateral(in, 4095, sigma, 1300.0));
            for (int r = 0; r < 9; ++r)
                for (int c = 0; c < 12; ++c) {
                    const bool edge_row = r < h || r >= 9 - h;
                    if (edge_row && c == 0) {
                        ASSERT_EQ(out.at(r, c), 0);
                    } else {
                        ASSERT_LE(out.at(r, c), level);
                        ASSERT_GE(out.at(r, c), level - 1);
                    }
                }
        }
}

TEST(Bilateral, StepManyRangeSigmasHighStaysSharp) {
    Image in(10, 16);
    for (int r = 0; r < 10; ++r)
        for (int c = 0; c < 16; ++c) in.at(r, c) = c < 8 ? 100 : 4000;
    const Image out = bilateral_of(in, 4095, 0.8, 50.0);
    EXPECT_TRUE(out == reference_bilateral(in, 4095, 0.8, 50.0));
    for (int r = 2; r < 8; ++r)
        for (int c = 1; c < 16; ++c) ASSERT_LE(std::abs(out.at(r, c) - in.at(r, c)), 1) << r << "," << c;
}

TEST(Bilateral, WindowsOfOneSampleCopy) {
    Image in = random_image(7, 19, 4095, 1);
    for (double sigma : {0.0, 0.2, -0.3, std::numeric_limits<double>::quiet_NaN()}) {
        Image out(7, 19, kMarker);
        ASSERT_EQ(run_bilateral(in, out, sigma, 1300.0), 0);
        EXPECT_TRUE(out == in) << sigma;
    }
}

TEST(Bilateral, RangeSigmaZeroWeighsOnlyExactMatches) {
    Image in = random_image(9, 21, 40, 2);  // few levels, so matches are common
    const Image zero = bilateral_of(in, 4095, 0.8, 0.0);
    EXPECT_TRUE(zero == bilateral_of(in, 4095, 0.8, 1e-300));
    EXPECT_TRUE(zero == bilateral_of(in, 4095, 0.8, std::numeric_limits<double>::quiet_NaN()));
    EXPECT_TRUE(zero == reference_bilateral(in, 4095, 0.8, 0.0));
}

TEST(Bilateral, MatchesTheWeightedMeanOnEveryPath) {
    std::uint32_t seed = 10;
    for (auto [h, w] : krf::test::kOddSizes)
        for (double sigma_s : {0.4, 0.7, 0.8, 1.3, -0.8})
            for (double sigma_l : {30.0, 1300.0, 1e6}) {
                Image in = random_image(h, w, 4195, ++seed);  // some samples above white
                const Image expected = reference_bilateral(in, 4095, sigma_s, sigma_l);
                EXPECT_TRUE(bilateral_of(in, 4095, sigma_s, sigma_l, KernelPath::portable) == expected)
                    << h << "x" << w << " " << sigma_s << " " << sigma_l;
                EXPECT_TRUE(bilateral_of(in, 4095, sigma_s, sigma_l, KernelPath::fastest) == expected)
                    << h << "x" << w << " " << sigma_s << " " << sigma_l;
            }
    Image in = krf::test::phantom(60, 90, 65535, 7);
    EXPECT_TRUE(bilateral_of(in, 65535, 0.8, 1300.0) == reference_bilateral(in, 65535, 0.8, 1300.0));
}

TEST(Bilateral, WindowsTallerThanTheImageOnlyCopy) {
    Image in = random_image(6, 30, 4095, 3);
    Image expected = in;
    for (int r = 0; r < 6; ++r) expected.at(r, 0) = 0;
    for (double sigma : {1.0, 1e12, std::numeric_limits<double>::infinity()})
        EXPECT_TRUE(bilateral_of(in, 4095, sigma, 1300.0) == expected) << sigma;
}

TEST(Bilateral, WorksInPlaceAndFailsCleanly) {
    Image in = random_image(12, 23, 4095, 4);
    Image image = in;
    ASSERT_EQ(krf::bilateral_filter(image.rows(), image.rows(), 12, 23, 4095, 0.8, 300.0), 0);
    EXPECT_TRUE(image == reference_bilateral(in, 4095, 0.8, 300.0));
    krf::test::expect_clean_allocation_failures([&](Image& out) { return run_bilateral(in, out, 0.8, 300.0); }, 12,
                                                23, {krf::kNoRowArray, krf::kNoBuffer});
}

}  // namespace
