#include "neighbourhood/median.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>

#include "neighbourhood/neighbourhood_testing.h"

namespace krf::test {
namespace {

// 12-bit data, the full 16-bit range, heavy ties, a two-valued mask and the
// extremes with sparse mid-range values (the sliding histogram must cross long
// empty stretches of grey levels), and a ramp along which a large window's
// median moves steadily, both ways along the snaking walk.
enum class Values { twelve_bit, full_range, ties, mask, extremes, ramp };

Image values_image(int height, int width, Values kind, std::uint32_t seed) {
    std::mt19937 random(seed);
    Image image(height, width);
    for (int r = 0; r < height; ++r) {
        for (int c = 0; c < width; ++c) {
            const std::uint32_t x = random();
            image.at(r, c) = static_cast<Sample>(kind == Values::twelve_bit ? x & 4095
                                                 : kind == Values::full_range ? x & 65535
                                                 : kind == Values::ties       ? 4000 + (x % 3) * 30000
                                                 : kind == Values::ramp       ? r * 600 + (c % 45) * 200 + x % 50
                                                 : kind == Values::mask       ? (x & 1) * 65535
                                                 : x % 7 == 0                 ? (x >> 8) & 65535
                                                                              : (x & 1) * 65535);
        }
    }
    return image;
}

Image median2d(const Image& in, int n) { return filtered("median2D", in, 4095, Params().add_int(n).data()); }

// What "median2D" with odd side n leaves in an output pre-filled with the
// marker (or, filtering in place, with the input): the input on the frame,
// brute-force medians inside, except that the 5 × 5 area stops one row and one
// column short and leaves those unwritten.
Image expected_median(const Image& in, int n, bool in_place = false) {
    const int h = (n - 1) / 2, last_row = in.height() - h - (n == 5), last_column = in.width() - h - (n == 5);
    Image expected = in;
    for (int r = h; r < in.height() - h; ++r)
        for (int c = h; c < in.width() - h; ++c)
            if (r < last_row && c < last_column) expected.at(r, c) = window_median(in, r, c, h);
            else if (!in_place) expected.at(r, c) = kMarker;
    return expected;
}

TEST(Median2D, MatchesBruteForceMedianForEveryWindowAndValueRange) {
    for (const int n : {3, 5, 7, 9, 15, 31}) {
        for (const Values kind :
             {Values::twelve_bit, Values::full_range, Values::ties, Values::mask, Values::extremes, Values::ramp}) {
            // Wide enough for the 3 × 3 and 5 × 5 kernels to cross their
            // 512-column chunks; five rows of windows for the others.
            const Image in = values_image(n + 4, n <= 5 ? 1100 : 80, kind, 17 * n + static_cast<int>(kind));
            EXPECT_TRUE(median2d(in, n) == expected_median(in, n)) << "n " << n << " values " << static_cast<int>(kind);
            // From side 5 the medians go through a scratch raster, so the
            // output may be the input.
            if (n == 3) continue;
            Image image = in;
            ASSERT_EQ(median_2d(image.rows(), image.rows(), in.height(), in.width(), n), 0);
            EXPECT_TRUE(image == expected_median(in, n, true)) << "in place, n " << n;
        }
    }
}

// From 25 × 25 on, images of at most 4096 grey levels take per-column counts
// in buckets of 64 levels, in stripes of columns: windows across stripe
// edges, levels counted from a darkest level far from 0, a median that
// crosses buckets (a ramp), and every vector width.
TEST(Median2D, BucketedWindowsMatchBruteForceAcrossStripes) {
    for (const int n : {25, 31}) {
        const Image noise = values_image(n + 6, 190, Values::twelve_bit, n);
        Image shifted_ramp = noise;
        for (int r = 0; r < shifted_ramp.height(); ++r)
            for (int c = 0; c < shifted_ramp.width(); ++c)
                shifted_ramp.at(r, c) = static_cast<Sample>(30000 + c * 20 + noise.at(r, c) % 200);
        for (const Image& in : {noise, shifted_ramp}) {
            const Image expected = expected_median(in, n);
            for (const MedianIsa isa : {MedianIsa::portable, MedianIsa::avx2, MedianIsa::avx512bw}) {
                if (!median_isa_available(isa)) continue;
                const auto run = [&](Rows s, Rows d) { return median_2d(s, d, in.height(), in.width(), n, isa); };
                EXPECT_TRUE(output_of(in, run) == expected) << "n " << n << " path " << static_cast<int>(isa);
            }
        }
    }
}

TEST(Median2D, SideRulesWindowsLargerThanTheImageAndAllocationFailures) {
    const Image in = values_image(20, 24, Values::twelve_bit, 9);
    for (const int even : {2, 4, 6}) EXPECT_TRUE(median2d(in, even) == expected_median(in, even + 1)) << even;
    for (const int n : {1, 0, -1, -4, INT_MIN}) EXPECT_TRUE(median2d(in, n) == in) << n;
    for (const auto [height, width] : {std::pair{1, 1}, {1, 7}, {2, 9}, {7, 2}, {4, 4}, {6, 40}}) {
        const Image small = values_image(height, width, Values::full_range, height * 100 + width);
        for (const int n : {3, 5, 7, 13, INT_MAX})
            EXPECT_TRUE(median2d(small, n) == expected_median(small, n)) << height << "x" << width << " n " << n;
    }
    for (const int n : {3, 5, 7})  // the 3 × 3 path allocates nothing
        EXPECT_EQ(expect_clean_failures("median2D", in, Params().add_int(n).data()) > 0, n != 3) << n;
}

// The 3 × 3 and 5 × 5 networks and the pseudo-median's row kernels, at every
// vector width the processor offers, against the portable width.
TEST(MedianKernels, VectorWidthsAgreeSampleForSample) {
    if (!median_isa_available(MedianIsa::avx2) && !median_isa_available(MedianIsa::avx512bw))
        GTEST_SKIP() << "this processor has neither AVX2 nor AVX-512BW: only the portable kernels run here";
    for (const MedianIsa isa : {MedianIsa::avx2, MedianIsa::avx512bw}) {
        if (!median_isa_available(isa)) continue;
        for (int width = 1; width <= 140; width += 3) {
            Image in = values_image(11, width, Values::full_range, width);
            for (const int n : {3, 5, 6, 7, 9}) {
                const auto run = n <= 5 ? median_2d : pseudo_median_2d;
                const auto with = [&](MedianIsa i) {
                    return output_of(in, [&](Rows s, Rows d) { return run(s, d, 11, width, n, i); });
                };
                EXPECT_TRUE(with(MedianIsa::portable) == with(isa)) << (n <= 5 ? "median " : "pseudo-median ") << n
                                                                    << " width " << width;
            }
        }
    }
}

}  // namespace
}  // namespace krf::test
