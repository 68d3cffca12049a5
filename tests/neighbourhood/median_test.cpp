#include "neighbourhood/median.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <vector>

#include "support/test_images.h"

namespace krf::test {
namespace {

// 12-bit data, the full 16-bit range, heavy ties, a two-valued mask and the
// extremes with sparse mid-range values (the sliding histogram must cross long
// empty stretches of grey levels), and a ramp along which a large window's
// median moves steadily, both ways along the snaking walk.
enum class Values { twelve_bit, full_range, ties, mask, extremes, ramp };

Image random_image(int height, int width, Values kind, std::uint32_t seed) {
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

int median2d(Image& in, Image& out, int oddnum) {
    Params p;
    p.add_int(oddnum);
    return run_filter("median2D", in, out, 4095, p.data());
}

// What "median2D" with odd side n leaves in an output pre-filled with
// kMarker: brute-force medians inside (the 5 × 5 area stops one row and one
// column short), the input on the frame.
Image expected_median(const Image& in, int n) {
    const int h = (n - 1) / 2, height = in.height(), width = in.width();
    Image expected(height, width, kMarker);
    for (int r = h; r <= (n == 5 ? height - 4 : height - h - 1); ++r) {
        for (int c = h; c <= (n == 5 ? width - 4 : width - h - 1); ++c) {
            std::vector<Sample> window;
            for (int y = r - h; y <= r + h; ++y)
                for (int x = c - h; x <= c + h; ++x) window.push_back(in.at(y, x));
            std::nth_element(window.begin(), window.begin() + window.size() / 2, window.end());
            expected.at(r, c) = window[window.size() / 2];
        }
    }
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c)
            if (r < h || r >= height - h || c < h || c >= width - h) expected.at(r, c) = in.at(r, c);
    return expected;
}

TEST(Median2D, MatchesBruteForceMedianForEveryWindowAndValueRange) {
    for (const int n : {3, 5, 7, 9, 15, 31}) {
        for (const Values kind :
             {Values::twelve_bit, Values::full_range, Values::ties, Values::mask, Values::extremes, Values::ramp}) {
            // Wide enough for the 3 × 3 and 5 × 5 kernels to cross their
            // 512-column chunks; five rows of windows for the others.
            const int height = n + 4, width = n <= 5 ? 1100 : 80;
            Image in = random_image(height, width, kind, 17 * n + static_cast<int>(kind));
            Image out(height, width, kMarker);
            ASSERT_EQ(median2d(in, out, n), 0);
            EXPECT_TRUE(out == expected_median(in, n)) << "n " << n << " values " << static_cast<int>(kind);
        }
    }
}

TEST(Median2D, EvenSidesRiseToOddAndSidesBelowTwoCopy) {
    Image in = random_image(20, 24, Values::twelve_bit, 9);
    for (const auto [even, odd] : {std::pair{2, 3}, {4, 5}, {6, 7}}) {
        Image from_even(20, 24, kMarker), from_odd(20, 24, kMarker);
        ASSERT_EQ(median2d(in, from_even, even), 0);
        ASSERT_EQ(median2d(in, from_odd, odd), 0);
        EXPECT_TRUE(from_even == from_odd) << even;
    }
    for (const int n : {1, 0, -1, -4, INT_MIN}) {
        Image out(20, 24, kMarker);
        ASSERT_EQ(median2d(in, out, n), 0);
        EXPECT_TRUE(out == in) << n;
    }
}

TEST(Median2D, FiveLeavesOneRowAndOneColumnUnwritten) {
    Image in = random_image(10, 10, Values::twelve_bit, 4);
    Image out(10, 10, kMarker);
    ASSERT_EQ(median2d(in, out, 5), 0);
    for (int r = 0; r < 10; ++r) {
        for (int c = 0; c < 10; ++c) {
            const bool unwritten = (r == 7 && c >= 2 && c <= 7) || (c == 7 && r >= 2 && r <= 6);
            EXPECT_EQ(out.at(r, c) == kMarker, unwritten) << r << "," << c;
        }
    }
}

TEST(Median2D, SmallImagesAndWindowsLargerThanTheImage) {
    for (const auto [height, width] : {std::pair{1, 1}, {1, 7}, {2, 9}, {7, 2}, {4, 4}, {6, 40}}) {
        Image in = random_image(height, width, Values::full_range, height * 100 + width);
        for (const int n : {3, 5, 7, 13, INT_MAX}) {
            Image out(height, width, kMarker);
            ASSERT_EQ(median2d(in, out, n), 0);
            const bool fits = n <= height && n <= width;
            EXPECT_TRUE(out == (fits || n == 5 ? expected_median(in, n) : in)) << height << "x" << width << " n " << n;
        }
    }
}

TEST(Median2D, OutputMayBeTheInputFromSideFive) {
    Image in = random_image(30, 40, Values::twelve_bit, 8);
    for (const int n : {5, 9}) {
        Image separate = in, in_place = in;
        ASSERT_EQ(median2d(in, separate, n), 0);
        ASSERT_EQ(median2d(in_place, in_place, n), 0);
        EXPECT_TRUE(in_place == separate) << n;
    }
}

// The 3 × 3 and 5 × 5 networks and the pseudo-median's row kernels, at every
// vector width the processor offers, against the portable width.
TEST(MedianKernels, VectorWidthsAgreeSampleForSample) {
    for (const MedianIsa isa : {MedianIsa::avx2, MedianIsa::avx512bw}) {
        if (!median_isa_available(isa)) continue;
        for (int width = 1; width <= 140; width += 3) {
            Image in = random_image(11, width, Values::full_range, width);
            for (const int n : {3, 5, 6, 7, 9}) {
                Image portable(11, width, kMarker), vectored(11, width, kMarker);
                const bool median = n <= 5;
                const auto run = median ? median_2d : pseudo_median_2d;
                ASSERT_EQ(run(in.rows(), portable.rows(), 11, width, n, MedianIsa::portable), 0);
                ASSERT_EQ(run(in.rows(), vectored.rows(), 11, width, n, isa), 0);
                EXPECT_TRUE(portable == vectored) << (median ? "median " : "pseudo-median ") << n << " width " << width;
            }
        }
    }
}

TEST(Median2D, AllocationFailuresLeaveTheOutputUntouched) {
    Image in = random_image(12, 15, Values::twelve_bit, 6);
    for (const int n : {3, 5, 7}) {
        const auto run = [&](Image& out) { return median2d(in, out, n); };
        // The 3 × 3 path allocates nothing.
        EXPECT_EQ(expect_clean_allocation_failures(run, 12, 15, {kNoRowArray, kNoBuffer}) > 0, n != 3) << n;
    }
}

}  // namespace
}  // namespace krf::test
