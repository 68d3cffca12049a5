#include "neighbourhood/median.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <vector>

#include "support/test_images.h"

namespace krf::test {
namespace {

// Values drawn from a few distributions that stress different parts of the
// kernels: 12-bit data, the full 16-bit range, heavy ties, and a mixture of
// the extremes with sparse mid-range values (the sliding histogram must
// cross long empty stretches of grey levels).
enum class Values { twelve_bit, full_range, ties, extremes };

Image random_image(int height, int width, Values kind, std::uint32_t seed) {
    std::mt19937 random(seed);
    Image image(height, width);
    for (int r = 0; r < height; ++r) {
        for (int c = 0; c < width; ++c) {
            const std::uint32_t x = random();
            Sample v = 0;
            switch (kind) {
                case Values::twelve_bit: v = static_cast<Sample>(x & 4095); break;
                case Values::full_range: v = static_cast<Sample>(x & 65535); break;
                case Values::ties: v = static_cast<Sample>(4000 + (x % 3) * 30000); break;
                case Values::extremes: v = static_cast<Sample>(x % 7 == 0 ? (x >> 8) & 65535 : (x & 1) * 65535); break;
            }
            image.at(r, c) = v;
        }
    }
    return image;
}

Sample brute_force_median(const Image& in, int r, int c, int half) {
    std::vector<Sample> window;
    for (int y = r - half; y <= r + half; ++y)
        for (int x = c - half; x <= c + half; ++x) window.push_back(in.at(y, x));
    std::nth_element(window.begin(), window.begin() + window.size() / 2, window.end());
    return window[window.size() / 2];
}

int median2d(Image& in, Image& out, int oddnum) {
    Params p;
    p.add_int(oddnum);
    return run_filter("median2D", in, out, 4095, p.data());
}

// What the output must hold after "median2D" with odd side n on an output
// pre-filled with kMarker.
Image expected_median(const Image& in, int n) {
    const int h = (n - 1) / 2;
    const int height = in.height(), width = in.width();
    Image expected(height, width, kMarker);
    // Interior rows and columns that receive a median; the 5 × 5 path stops
    // one row and one column short.
    const int last_row = n == 5 ? height - 4 : height - h - 1;
    const int last_col = n == 5 ? width - 4 : width - h - 1;
    for (int r = h; r <= last_row; ++r)
        for (int c = h; c <= last_col; ++c) expected.at(r, c) = brute_force_median(in, r, c, h);
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c)
            if (r < h || r >= height - h || c < h || c >= width - h) expected.at(r, c) = in.at(r, c);
    return expected;
}

TEST(Median2D, MatchesBruteForceMedianForEveryWindowAndValueRange) {
    for (const int n : {3, 5, 7, 9, 15}) {
        for (const Values kind : {Values::twelve_bit, Values::full_range, Values::ties, Values::extremes}) {
            Image in = random_image(29, 71, kind, 17 * n + static_cast<int>(kind));
            Image out(29, 71, kMarker);
            ASSERT_EQ(median2d(in, out, n), 0);
            EXPECT_TRUE(out == expected_median(in, n)) << "n " << n << " values " << static_cast<int>(kind);
        }
    }
}

TEST(Median2D, WideRowsCrossTheKernelChunks) {
    // The 5 × 5 kernel sorts window columns 512 at a time.
    for (const int n : {3, 5}) {
        Image in = random_image(7, 1100, Values::full_range, 3);
        Image out(7, 1100, kMarker);
        ASSERT_EQ(median2d(in, out, n), 0);
        EXPECT_TRUE(out == expected_median(in, n)) << n;
    }
}

TEST(Median2D, LargeWindowOnSmoothDataMatchesBruteForce) {
    // A ramp with little noise moves the tracked median steadily through
    // many histogram blocks, in both directions of the snaking traversal.
    Image in(70, 90);
    std::mt19937 random(5);
    for (int r = 0; r < 70; ++r)
        for (int c = 0; c < 90; ++c) in.at(r, c) = static_cast<Sample>(r * 600 + (c % 45) * 200 + random() % 50);
    Image out(70, 90, kMarker);
    ASSERT_EQ(median2d(in, out, 31), 0);
    EXPECT_TRUE(out == expected_median(in, 31));
}

TEST(Median2D, EvenSidesAreRaisedToTheNextOddSide) {
    Image in = random_image(20, 24, Values::twelve_bit, 9);
    for (const auto [even, odd] : {std::pair{2, 3}, {4, 5}, {6, 7}}) {
        Image from_even(20, 24, kMarker), from_odd(20, 24, kMarker);
        ASSERT_EQ(median2d(in, from_even, even), 0);
        ASSERT_EQ(median2d(in, from_odd, odd), 0);
        EXPECT_TRUE(from_even == from_odd) << even;
    }
}

TEST(Median2D, SideOneZeroOrNegativeCopiesTheInput) {
    Image in = random_image(6, 9, Values::full_range, 2);
    for (const int n : {1, 0, -1, -4, INT_MIN}) {
        Image out(6, 9, kMarker);
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
            if (unwritten) EXPECT_EQ(out.at(r, c), kMarker) << r << "," << c;
            else EXPECT_NE(out.at(r, c), kMarker) << r << "," << c;
        }
    }
}

TEST(Median2D, WindowsLargerThanTheImageCopyIt) {
    for (const auto [height, width] : {std::pair{1, 1}, {1, 7}, {2, 9}, {7, 2}, {4, 4}, {6, 40}}) {
        Image in = random_image(height, width, Values::full_range, height * 100 + width);
        for (const int n : {3, 7, 13, INT_MAX}) {
            Image out(height, width, kMarker);
            ASSERT_EQ(median2d(in, out, n), 0);
            const bool window_fits = n <= height && n <= width;
            if (!window_fits) EXPECT_TRUE(out == in) << height << "x" << width << " n " << n;
            else EXPECT_TRUE(out == expected_median(in, n)) << height << "x" << width << " n " << n;
        }
        Image out(height, width, kMarker);
        ASSERT_EQ(median2d(in, out, 5), 0);
        EXPECT_TRUE(out == expected_median(in, 5)) << height << "x" << width << " n 5";
    }
}

TEST(Median2D, OutputMayBeTheInputForScratchBackedWindows) {
    for (const int n : {5, 9}) {
        Image in = random_image(30, 40, Values::twelve_bit, 8);
        Image separate = in;
        Image in_place = in;
        ASSERT_EQ(median2d(in, separate, n), 0);
        ASSERT_EQ(median2d(in_place, in_place, n), 0);
        EXPECT_TRUE(in_place == separate) << n;
    }
}

TEST(Median2D, VectorWidthsAgreeSampleForSample) {
    for (const MedianIsa isa : {MedianIsa::avx2, MedianIsa::avx512bw}) {
        if (!median_isa_available(isa)) continue;
        for (const int n : {3, 5}) {
            for (int width = 1; width <= 80; width += 3) {
                Image in = random_image(9, width, Values::full_range, width);
                Image portable(9, width, kMarker), vectored(9, width, kMarker);
                ASSERT_EQ(median_2d(in.rows(), portable.rows(), 9, width, n, MedianIsa::portable), 0);
                ASSERT_EQ(median_2d(in.rows(), vectored.rows(), 9, width, n, isa), 0);
                EXPECT_TRUE(portable == vectored) << "n " << n << " width " << width;
            }
        }
    }
}

TEST(Median2D, AllocationFailuresLeaveTheOutputUntouched) {
    Image in = random_image(12, 15, Values::twelve_bit, 6);
    for (const int n : {5, 7}) {
        const int allocations = expect_clean_allocation_failures(
            [&](Image& out) { return median2d(in, out, n); }, 12, 15, {kNoRowArray, kNoBuffer});
        EXPECT_GT(allocations, 0) << n;
    }
    // The 3 × 3 path allocates nothing.
    EXPECT_EQ(expect_clean_allocation_failures([&](Image& out) { return median2d(in, out, 3); }, 12, 15, {}), 0);
}

}  // namespace
}  // namespace krf::test
