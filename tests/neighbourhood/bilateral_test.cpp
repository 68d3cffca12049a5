#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <vector>

#include "neighbourhood/neighbourhood_testing.h"

namespace krf::test {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN(), kInfinity = std::numeric_limits<double>::infinity();

// Window n = trunc(6 |sigma|) made odd; weights exp(-((u - v) / sigma_l)^2)
// (exact matches only for sigma_l 0) times exp(-((|dx| + |dy|) / sigma)^2);
// samples held to white; top and bottom h rows copied with column 0 at 0,
// left and right h columns copied; n = 1 copies. Even on a flat image the
// weighted sum can come out a hair under level * total weight, and truncation
// then gives one level less.
Image reference_bilateral(const Image& in, int white, double sigma_s, double sigma_l) {
    const int n = static_cast<int>(6 * std::fabs(sigma_s)) | 1, h = n / 2;
    std::vector<double> range(2 * white + 1), spatial(n);
    for (int i = 0; i <= 2 * white; ++i)
        range[i] = sigma_l == 0 ? (i == white) : std::exp(-std::pow((i - white) / sigma_l, 2));
    for (int i = 0; i < n; ++i) spatial[i] = std::exp(-std::pow(i / sigma_s, 2));
    Image out = in;
    for (int r = 0; r < in.height(); ++r)
        for (int c = 0; c < in.width(); ++c) {
            if (r < h || r >= in.height() - h) {
                if (c == 0) out.at(r, c) = 0;
            } else if (h > 0 && c >= h && c < in.width() - h) {
                const int u = std::min<int>(in.at(r, c), white);
                double weights = 0, weighted = 0;
                for (int dy = -h; dy <= h; ++dy)
                    for (int dx = -h; dx <= h; ++dx) {
                        const int v = std::min<int>(in.at(r + dy, c + dx), white);
                        const double w = range[u - v + white] * spatial[std::abs(dx) + std::abs(dy)];
                        weights += w;
                        weighted += v * w;
                    }
                out.at(r, c) = static_cast<Sample>(static_cast<int>(weighted / weights));
            }
        }
    return out;
}

Image bilateral_of(const Image& in, int white, double sigma_s, double sigma_l) {
    return output_of(in, [&](Rows s, Rows d) {
        return bilateral_filter(s, d, in.height(), in.width(), white, sigma_s, sigma_l);
    });
}

// A step many range sigmas high keeps its edge, through DoFilter, where
// LuminanceSigma travels as a double.
TEST(Bilateral, AStepKeepsItsEdge) {
    Image step(10, 16);
    for (int r = 0; r < 10; ++r)
        for (int c = 0; c < 16; ++c) step.at(r, c) = c < 8 ? 100 : 4000;
    const Image sharp = filtered("bilateral_filter", step, 4095, Params().add_double(0.8).add_double(50.0).data());
    EXPECT_TRUE(sharp == reference_bilateral(step, 4095, 0.8, 50.0));
}

TEST(Bilateral, DegenerateSigmasAreDefined) {
    const Image in = random_image(7, 19, 4095, 1);
    for (double sigma : {0.0, 0.2, -0.3, kNaN})  // 1 x 1 windows copy
        EXPECT_TRUE(bilateral_of(in, 4095, sigma, 1300.0) == in) << sigma;
    Image expected = in;  // windows taller than the image: every row is an edge row
    for (int r = 0; r < 7; ++r) expected.at(r, 0) = 0;
    for (double sigma : {1e12, kInfinity}) EXPECT_TRUE(bilateral_of(in, 4095, sigma, 1300.0) == expected) << sigma;
    const Image levels = random_image(9, 21, 40, 2);  // few levels, so exact matches are common
    const Image zero = reference_bilateral(levels, 4095, 0.8, 0.0);
    for (double sigma_l : {0.0, 1e-300, kNaN}) EXPECT_TRUE(bilateral_of(levels, 4095, 0.8, sigma_l) == zero) << sigma_l;
}

TEST(Bilateral, MatchesTheWeightedMeanOnEveryPathAndFailsCleanly) {
    std::uint32_t seed = 0;
    for (double sigma_s : {0.4, 0.8, 1.3, -0.8})
        for (double sigma_l : {30.0, 1300.0})  // samples up to 4195: they enter as white
            expect_paths_match(
                [&](Rows s, Rows d, int h, int w, KernelPath p) {
                    return bilateral_filter(s, d, h, w, 4095, sigma_s, sigma_l, p);
                },
                [&](const Image& in) { return reference_bilateral(in, 4095, sigma_s, sigma_l); }, 4195, seed += 100);
    // Windows up to 5 x 5 share their weights between neighbours; the AVX2
    // kernels of that scheme are reached here on processors with wider ones.
    for (double sigma_s : {0.4, 0.8})
        for (auto [h, w] : {std::pair{23, 37}, std::pair{9, 70}, std::pair{6, 13}}) {
            const Image random = random_image(h, w, 4195, static_cast<std::uint32_t>(h * w));
            EXPECT_TRUE(output_of(random, [&](Rows s, Rows d) {
                            return bilateral_filter(s, d, h, w, 4095, sigma_s, 300.0, KernelPath::avx2);
                        }) == reference_bilateral(random, 4095, sigma_s, 300.0))
                << h << "x" << w << " sigma " << sigma_s;
        }
    Image in = phantom(60, 90, 65535, 7), image = in;
    ASSERT_EQ(bilateral_filter(image.rows(), image.rows(), 60, 90, 65535, 0.8, 1300.0), 0);  // in place
    EXPECT_TRUE(image == reference_bilateral(in, 65535, 0.8, 1300.0));
}

}  // namespace
}  // namespace krf::test
