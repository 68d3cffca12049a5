#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "neighbourhood/local_filters_testing.h"

namespace {

using krf::KernelPath;
using krf::test::Image;
using krf::test::kMarker;
using krf::test::Params;
using krf::test::random_image;

// The update as stated: conduction table G, four products summed south,
// north, east, west, times lambda plus the centre, truncated; Jacobi passes.
// Returns the whole image written last (its frame is the clamped input's).
Image reference_diffusion(const Image& in, int white, int iterations, double lambda, double k_devstd) {
    lambda = std::clamp(lambda, 0.0, 0.25);
    const double k = k_devstd == 0.0 ? (2 * white + 1) / 6.0 : k_devstd;
    std::vector<double> g(2 * white + 1);
    for (int i = 0; i <= 2 * white; ++i) {
        const double x = (i - white) / k;
        g[i] = std::exp(-(x * x));
    }
    Image a = in;
    for (int r = 0; r < in.height(); ++r)
        for (int c = 0; c < in.width(); ++c) a.at(r, c) = std::min<int>(in.at(r, c), white);
    Image b = a;
    for (int pass = 0; pass < iterations; ++pass) {
        for (int r = 1; r + 1 < in.height(); ++r)
            for (int c = 1; c + 1 < in.width(); ++c) {
                const int u = a.at(r, c);
                const int ds = a.at(r + 1, c) - u, dn = a.at(r - 1, c) - u;
                const int de = a.at(r, c + 1) - u, dw = a.at(r, c - 1) - u;
                const double sum =
                    ((ds * g[ds + white] + dn * g[dn + white]) + de * g[de + white]) + dw * g[dw + white];
                b.at(r, c) = static_cast<krf::Sample>(static_cast<int>(sum * lambda + u));
            }
        std::swap(a, b);
    }
    return a;
}

// The interior of `expected` inside an untouched (marker) frame.
Image framed(const Image& expected) {
    Image out(expected.height(), expected.width(), kMarker);
    for (int r = 1; r + 1 < out.height(); ++r)
        for (int c = 1; c + 1 < out.width(); ++c) out.at(r, c) = expected.at(r, c);
    return out;
}

Image diffusion_of(Image in, int white, int iterations, double lambda, double k,
                   KernelPath path = KernelPath::fastest) {
    Image out(in.height(), in.width(), kMarker);
    EXPECT_EQ(krf::anisotropic_diffusion(in.rows(), out.rows(), in.height(), in.width(), white, iterations, lambda,
                                         k, path),
              0);
    return out;
}

int run_adf(Image& in, Image& out, double lambda, double k, int iterations) {
    Params p;
    p.add_double(lambda).add_double(k).add_int(iterations);
    return krf::test::run_filter("ADF", in, out, 4095, p.data());
}

TEST(Diffusion, NoPassOrNoStepGivesTheClampedInputInsideAnUntouchedFrame) {
    Image in = random_image(9, 14, 4500, 1);  // some samples above white
    const Image clamped = framed(reference_diffusion(in, 4095, 0, 0.1, 0));
    for (int iterations : {0, -5, INT_MIN}) {
        Image out(9, 14, kMarker);
        ASSERT_EQ(run_adf(in, out, 0.1, 0, iterations), 0);
        EXPECT_TRUE(out == clamped) << iterations;
    }
    for (double lambda : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()})
        EXPECT_TRUE(diffusion_of(in, 4095, 7, lambda, 0) == clamped) << lambda;
}

TEST(Diffusion, LambdaAboveAQuarterActsAsAQuarterAndKZeroMeansTheDefault) {
    Image in = random_image(10, 13, 4095, 2);
    EXPECT_TRUE(diffusion_of(in, 4095, 3, 0.3, 0) == diffusion_of(in, 4095, 3, 0.25, 0));
    EXPECT_TRUE(diffusion_of(in, 4095, 3, 0.2, 0) == diffusion_of(in, 4095, 3, 0.2, 8191 / 6.0));
    EXPECT_TRUE(diffusion_of(in, 4095, 3, 0.2, std::numeric_limits<double>::quiet_NaN()) ==
                diffusion_of(in, 4095, 3, 0.2, 0));
}

TEST(Diffusion, FlatImageStaysAndABrightPixelFeedsItsFourNeighbours) {
    Image flat(6, 7, 2000);
    EXPECT_TRUE(diffusion_of(flat, 4095, 5, 0.25, 0) == framed(flat));

    Image spot(5, 5);
    spot.at(2, 2) = 1000;
    const Image out = diffusion_of(spot, 4095, 1, 0.25, 0);
    const double g = std::exp(-std::pow(1000 / (8191 / 6.0), 2));
    Image expected(5, 5);
    expected.at(2, 2) = static_cast<krf::Sample>(static_cast<int>(4 * (-1000 * g) * 0.25 + 1000));
    for (auto [r, c] : {std::pair{1, 2}, {3, 2}, {2, 1}, {2, 3}})
        expected.at(r, c) = static_cast<krf::Sample>(static_cast<int>(1000 * g * 0.25));
    EXPECT_TRUE(out == framed(expected));
    EXPECT_GT(expected.at(1, 2), 0);
}

TEST(Diffusion, MatchesTheStatedUpdateOnEveryPath) {
    std::uint32_t seed = 10;
    for (auto [h, w] : krf::test::kOddSizes)
        for (double k : {0.0, 50.0, -50.0, 1e-300, std::numeric_limits<double>::infinity()})
            for (int iterations : {1, 2, 7}) {
                Image in = random_image(h, w, 4195, ++seed);
                const Image expected = framed(reference_diffusion(in, 4095, iterations, 0.2, k));
                EXPECT_TRUE(diffusion_of(in, 4095, iterations, 0.2, k, KernelPath::portable) == expected) << k;
                EXPECT_TRUE(diffusion_of(in, 4095, iterations, 0.2, k, KernelPath::fastest) == expected) << k;
            }
    Image in = krf::test::phantom(70, 101, 65535, 5);
    EXPECT_TRUE(diffusion_of(in, 65535, 4, 0.25, 0) == framed(reference_diffusion(in, 65535, 4, 0.25, 0)));
}

TEST(Diffusion, ImagesWithoutInteriorAreNotWritten) {
    for (auto [h, w] : {std::pair{2, 9}, {9, 2}, {1, 1}, {0, 4}}) {
        Image in = random_image(h, w, 4095, 3);
        Image out(h, w, kMarker);
        ASSERT_EQ(run_adf(in, out, 0.1, 0, 5), 0);
        EXPECT_TRUE(out == Image(h, w, kMarker)) << h << "x" << w;
    }
}

TEST(Diffusion, HugeIterationCountsFinishOnceThePassesSettle) {
    // A checkerboard with full conduction swaps its two levels on every pass.
    Image board(6, 6);
    for (int r = 0; r < 6; ++r)
        for (int c = 0; c < 6; ++c) board.at(r, c) = (r + c) % 2 ? 400 : 0;
    const double wide = 1e9;
    ASSERT_TRUE(reference_diffusion(board, 4095, 100, 0.25, wide) == reference_diffusion(board, 4095, 102, 0.25, wide));
    EXPECT_TRUE(diffusion_of(board, 4095, 1000000000, 0.25, wide) ==
                framed(reference_diffusion(board, 4095, 100, 0.25, wide)));
    EXPECT_TRUE(diffusion_of(board, 4095, 1000000001, 0.25, wide) ==
                framed(reference_diffusion(board, 4095, 101, 0.25, wide)));

    Image noise = random_image(8, 9, 4095, 4);
    const Image settled = reference_diffusion(noise, 4095, 6001, 0.1, 0);
    ASSERT_TRUE(settled == reference_diffusion(noise, 4095, 6003, 0.1, 0));
    EXPECT_TRUE(diffusion_of(noise, 4095, INT_MAX, 0.1, 0, KernelPath::portable) == framed(settled));
    EXPECT_TRUE(diffusion_of(noise, 4095, INT_MAX, 0.1, 0, KernelPath::fastest) == framed(settled));
}

TEST(Diffusion, WorksInPlaceAndFailsCleanly) {
    Image in = random_image(11, 19, 4095, 6);
    Image image = in;
    ASSERT_EQ(krf::anisotropic_diffusion(image.rows(), image.rows(), 11, 19, 4095, 3, 0.2, 0), 0);
    Image expected = reference_diffusion(in, 4095, 3, 0.2, 0);
    for (int r = 0; r < 11; ++r)  // the frame keeps the input
        for (int c = 0; c < 19; ++c)
            if (r == 0 || r == 10 || c == 0 || c == 18) expected.at(r, c) = in.at(r, c);
    EXPECT_TRUE(image == expected);
    krf::test::expect_clean_allocation_failures([&](Image& out) { return run_adf(in, out, 0.2, 0, 3); }, 11, 19,
                                                {krf::kNoRowArray, krf::kNoBuffer});
}

}  // namespace
