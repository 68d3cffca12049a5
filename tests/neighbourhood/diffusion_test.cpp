#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "neighbourhood/local_filters_testing.h"

namespace {

using krf::KernelPath;
using krf::Rows;
using namespace krf::test;

// The update as stated (conduction table G; south, north, east, west products
// summed in that order, times lambda, plus the centre, truncated; Jacobi
// passes), its interior inside a frame that still holds the marker.
Image reference_diffusion(const Image& in, int white, int iterations, double lambda, double k_devstd) {
    lambda = std::clamp(lambda, 0.0, 0.25);
    const double k = k_devstd == 0.0 ? (2 * white + 1) / 6.0 : k_devstd;
    std::vector<double> g(2 * white + 1);
    for (int i = 0; i <= 2 * white; ++i) g[i] = std::exp(-((i - white) / k) * ((i - white) / k));
    Image a = in;
    for (int r = 0; r < in.height(); ++r)
        for (int c = 0; c < in.width(); ++c) a.at(r, c) = std::min<int>(in.at(r, c), white);
    Image b = a;
    for (int pass = 0; pass < iterations; ++pass, std::swap(a, b))
        for (int r = 1; r + 1 < in.height(); ++r)
            for (int c = 1; c + 1 < in.width(); ++c) {
                const int u = a.at(r, c), ds = a.at(r + 1, c) - u, dn = a.at(r - 1, c) - u;
                const int de = a.at(r, c + 1) - u, dw = a.at(r, c - 1) - u;
                const double sum =
                    ((ds * g[ds + white] + dn * g[dn + white]) + de * g[de + white]) + dw * g[dw + white];
                b.at(r, c) = static_cast<krf::Sample>(static_cast<int>(sum * lambda + u));
            }
    for (int r = 0; r < in.height(); ++r)
        for (int c = 0; c < in.width(); ++c)
            if (r == 0 || c == 0 || r == in.height() - 1 || c == in.width() - 1) a.at(r, c) = kMarker;
    return a;
}

Image diffusion_of(const Image& in, int white, int iterations, double lambda, double k,
                   KernelPath path = KernelPath::fastest) {
    return output_of(in, [&](Rows s, Rows d) {
        return krf::anisotropic_diffusion(s, d, in.height(), in.width(), white, iterations, lambda, k, path);
    });
}

int run_adf(Image& in, Image& out, double lambda, double k, int iterations) {
    return run_filter("ADF", in, out, 4095, Params().add_double(lambda).add_double(k).add_int(iterations).data());
}

TEST(Diffusion, NoPassOrNoStepGivesTheClampedInputInsideAnUntouchedFrame) {
    Image in = random_image(9, 14, 4500, 1);  // some samples above white
    const Image clamped = reference_diffusion(in, 4095, 0, 0.1, 0);
    for (int iterations : {0, -5}) {
        Image out(9, 14, kMarker);
        ASSERT_EQ(run_adf(in, out, 0.1, 0, iterations), 0);
        EXPECT_TRUE(out == clamped) << iterations;
    }
    for (double lambda : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()})
        EXPECT_TRUE(diffusion_of(in, 4095, 7, lambda, 0) == clamped) << lambda;
    for (auto [h, w] : {std::pair{2, 9}, {9, 2}, {1, 1}}) {  // no interior: nothing is written
        Image small = random_image(h, w, 4095, 3), out(h, w, kMarker);
        ASSERT_EQ(run_adf(small, out, 0.1, 0, 5), 0);
        EXPECT_TRUE(out == Image(h, w, kMarker));
    }
}

TEST(Diffusion, ParameterRulesAndASpreadingBrightPixel) {
    Image in = random_image(10, 13, 4095, 2);
    EXPECT_TRUE(diffusion_of(in, 4095, 3, 0.3, 0) == diffusion_of(in, 4095, 3, 0.25, 0));
    EXPECT_TRUE(diffusion_of(in, 4095, 3, 0.2, 0) == diffusion_of(in, 4095, 3, 0.2, 8191 / 6.0));
    EXPECT_TRUE(diffusion_of(in, 4095, 3, 0.2, std::numeric_limits<double>::quiet_NaN()) ==
                diffusion_of(in, 4095, 3, 0.2, 0));
    Image spot(5, 5);
    spot.at(2, 2) = 1000;
    const Image out = diffusion_of(spot, 4095, 1, 0.25, 0);
    const double flux = 1000 * std::exp(-std::pow(1000 / (8191 / 6.0), 2));
    EXPECT_EQ(out.at(2, 2), static_cast<int>(4 * -flux * 0.25 + 1000));
    for (auto [r, c] : {std::pair{1, 2}, {3, 2}, {2, 1}, {2, 3}})
        EXPECT_EQ(out.at(r, c), static_cast<int>(flux * 0.25));
    EXPECT_EQ(out.at(1, 1), 0);
}

TEST(Diffusion, MatchesTheStatedUpdateOnEveryPathAndFailsCleanly) {
    for (double k : {0.0, 50.0, -50.0, 1e-300, std::numeric_limits<double>::infinity()})
        for (int passes : {1, 2, 7})
            expect_paths_match(
                [&](Rows s, Rows d, int h, int w, KernelPath p) {
                    return krf::anisotropic_diffusion(s, d, h, w, 4095, passes, 0.2, k, p);
                },
                [&](const Image& in) { return reference_diffusion(in, 4095, passes, 0.2, k); }, 4195, passes);
    Image in = phantom(70, 101, 65535, 5);
    EXPECT_TRUE(diffusion_of(in, 65535, 4, 0.25, 0) == reference_diffusion(in, 65535, 4, 0.25, 0));
    expect_clean_allocation_failures([&](Image& out) { return run_adf(in, out, 0.2, 0, 3); }, 70, 101,
                                     {krf::kNoRowArray, krf::kNoBuffer});
}

TEST(Diffusion, HugeIterationCountsFinishOnceThePassesSettle) {
    Image board(6, 6);  // with full conduction a checkerboard swaps its levels on every pass
    for (int r = 0; r < 6; ++r)
        for (int c = 0; c < 6; ++c) board.at(r, c) = (r + c) % 2 ? 400 : 0;
    ASSERT_TRUE(reference_diffusion(board, 4095, 100, 0.25, 1e9) == reference_diffusion(board, 4095, 102, 0.25, 1e9));
    EXPECT_TRUE(diffusion_of(board, 4095, 1000000000, 0.25, 1e9) == reference_diffusion(board, 4095, 100, 0.25, 1e9));
    EXPECT_TRUE(diffusion_of(board, 4095, 1000000001, 0.25, 1e9) == reference_diffusion(board, 4095, 101, 0.25, 1e9));
    Image noise = random_image(8, 9, 4095, 4);  // settles into a fixed image
    ASSERT_TRUE(reference_diffusion(noise, 4095, 6001, 0.1, 0) == reference_diffusion(noise, 4095, 6002, 0.1, 0));
    EXPECT_TRUE(diffusion_of(noise, 4095, INT_MAX, 0.1, 0) == reference_diffusion(noise, 4095, 6001, 0.1, 0));
}

}  // namespace
