#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <tuple>
#include <utility>
#include <vector>

#include "neighbourhood/neighbourhood_testing.h"

namespace krf::test {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// The update as stated (conduction table G; south, north, east, west products
// summed in that order, times lambda, plus the centre, truncated; Jacobi
// passes), its interior inside a frame that still holds the marker. Images
// without an interior are all frame: nothing is written.
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
                b.at(r, c) = static_cast<Sample>(static_cast<int>(sum * lambda + u));
            }
    for (int r = 0; r < in.height(); ++r)
        for (int c = 0; c < in.width(); ++c)
            if (r == 0 || c == 0 || r == in.height() - 1 || c == in.width() - 1) a.at(r, c) = kMarker;
    return a;
}

Image adf(const Image& in, double lambda, double k, int iterations, int white = 4095) {
    return filtered("ADF", in, white, Params().add_double(lambda).add_double(k).add_int(iterations).data());
}

TEST(Diffusion, NoPassOrNoStepGivesTheClampedInputInsideAnUntouchedFrame) {
    const Image in = random_image(9, 14, 4500, 1);  // some samples above white
    const Image clamped = reference_diffusion(in, 4095, 0, 0.1, 0);
    for (int iterations : {0, -5}) EXPECT_TRUE(adf(in, 0.1, 0, iterations) == clamped) << iterations;
    for (double lambda : {0.0, -1.0, kNaN}) EXPECT_TRUE(adf(in, lambda, 0, 7) == clamped) << lambda;
}

// Lambda is held to 0.25 and a k that is not a number means the default, like 0. (The default itself, and
// how a pass spreads a level to its four neighbours, are the stated update's, checked exactly below.)
TEST(Diffusion, ParameterRules) {
    const Image in = random_image(10, 13, 4095, 2);
    EXPECT_TRUE(adf(in, 0.3, 0, 3) == adf(in, 0.25, 0, 3));
    EXPECT_TRUE(adf(in, 0.2, kNaN, 3) == adf(in, 0.2, 0, 3));
}

TEST(Diffusion, MatchesTheStatedUpdateOnEveryPathAndFailsCleanly) {
    for (double k : {0.0, 50.0, -50.0, 1e-300, std::numeric_limits<double>::infinity()})
        for (int passes : {1, 2, 7})
            expect_paths_match(
                [&](Rows s, Rows d, int h, int w, KernelPath p) {
                    return anisotropic_diffusion(s, d, h, w, 4095, passes, 0.2, k, p);
                },
                [&](const Image& in) { return reference_diffusion(in, 4095, passes, 0.2, k); }, 4195, passes);
    Image in = phantom(70, 101, 65535, 5);
    EXPECT_TRUE(adf(in, 0.25, 0, 4, 65535) == reference_diffusion(in, 65535, 4, 0.25, 0));
    // Neighbours within 16 levels of each other take in-register look-ups in the widest kernel; a
    // narrow spread mixes them with the table's, and white levels below 16 get a padded table.
    for (const auto [low, high, white] : {std::tuple{2000, 2024, 4095}, std::tuple{0, 9, 9}, std::tuple{0, 1, 1}}) {
        const Image narrow = random_image(37, 61, low, high, static_cast<std::uint32_t>(high));
        const Image expected = reference_diffusion(narrow, white, 3, 0.25, 7.0);
        for (KernelPath path : {KernelPath::fastest, KernelPath::avx2, KernelPath::portable})
            EXPECT_TRUE(output_of(narrow, [&](Rows s, Rows d) {
                            return anisotropic_diffusion(s, d, 37, 61, white, 3, 0.25, 7.0, path);
                        }) == expected)
                << "levels " << low << " ... " << high << ", path " << static_cast<int>(path);
    }
}

// Up to 32 passes run as one pipeline over row pairs, more over two whole
// rasters; both must give the stated passes, on odd and even row counts and
// with the AVX2 row-pair kernel as well as the widest one.
TEST(Diffusion, PipelinedAndWholeImagePassesAgreeWithTheStatedUpdate) {
    for (int height : {3, 4, 37, 38})
        for (int passes : {31, 32, 33}) {
            const Image in = random_image(height, 29, 4095, static_cast<std::uint32_t>(height + passes));
            const Image expected = reference_diffusion(in, 4095, passes, 0.25, 300);
            for (KernelPath path : {KernelPath::fastest, KernelPath::avx2})
                EXPECT_TRUE(output_of(in, [&](Rows s, Rows d) {
                                return anisotropic_diffusion(s, d, height, 29, 4095, passes, 0.25, 300, path);
                            }) == expected)
                    << height << " rows, " << passes << " passes, path " << static_cast<int>(path);
        }
}

TEST(Diffusion, HugeIterationCountsFinishOnceThePassesSettle) {
    Image board(6, 6);  // with full conduction a checkerboard swaps its levels on every pass
    for (int r = 0; r < 6; ++r)
        for (int c = 0; c < 6; ++c) board.at(r, c) = (r + c) % 2 ? 400 : 0;
    ASSERT_TRUE(reference_diffusion(board, 4095, 100, 0.25, 1e9) == reference_diffusion(board, 4095, 102, 0.25, 1e9));
    EXPECT_TRUE(adf(board, 0.25, 1e9, 1000000000) == reference_diffusion(board, 4095, 100, 0.25, 1e9));
    EXPECT_TRUE(adf(board, 0.25, 1e9, 1000000001) == reference_diffusion(board, 4095, 101, 0.25, 1e9));
    const Image noise = random_image(8, 9, 4095, 4);  // settles into a fixed image
    ASSERT_TRUE(reference_diffusion(noise, 4095, 6001, 0.1, 0) == reference_diffusion(noise, 4095, 6002, 0.1, 0));
    EXPECT_TRUE(adf(noise, 0.1, 0, INT_MAX) == reference_diffusion(noise, 4095, 6001, 0.1, 0));
}

}  // namespace
}  // namespace krf::test
