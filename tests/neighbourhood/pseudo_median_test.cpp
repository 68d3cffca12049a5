#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <vector>

#include "neighbourhood/median.h"
#include "support/test_images.h"

namespace krf::test {
namespace {

Image random_image(int height, int width, std::uint32_t seed) {
    std::mt19937 random(seed);
    Image image(height, width);
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c) image.at(r, c) = static_cast<Sample>(random() & 65535);
    return image;
}

int pseudo_median(Image& in, Image& out, int dimwnd) {
    Params p;
    p.add_int(dimwnd);
    return run_filter("pseudo-median2D", in, out, 4095, p.data());
}

Sample median_of(std::vector<Sample> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Row medians into a copy of the input, then column medians into an output
// pre-filled with kMarker. `taps` samples are used from the start of each
// gathered window of 2h + 1.
Image row_then_column(const Image& in, int h, int taps) {
    const int height = in.height(), width = in.width();
    Image rows = in;
    for (int r = h; r < height - h; ++r) {
        for (int c = h; c < width - h; ++c) {
            std::vector<Sample> window;
            for (int j = 0; j < taps; ++j) window.push_back(in.at(r, c - h + j));
            rows.at(r, c) = median_of(window);
        }
    }
    Image out(height, width, kMarker);
    for (int r = h; r < height - h; ++r) {
        for (int c = h; c < width - h; ++c) {
            std::vector<Sample> window;
            for (int j = 0; j < taps; ++j) window.push_back(rows.at(r - h + j, c));
            out.at(r, c) = median_of(window);
        }
    }
    return out;
}

TEST(PseudoMedian2D, RowMedianThenColumnMedian) {
    for (const int w : {3, 5, 7, 9}) {
        Image in = random_image(31, 77, w);
        Image out(31, 77, kMarker);
        ASSERT_EQ(pseudo_median(in, out, w), 0);
        EXPECT_TRUE(out == row_then_column(in, (w - 1) / 2, w)) << w;
    }
}

TEST(PseudoMedian2D, OtherWindowsUseTheFirstThreeGatheredSamples) {
    for (const int w : {4, 6, 8, 10, 13}) {
        Image in = random_image(30, 45, w);
        Image out(30, 45, kMarker);
        ASSERT_EQ(pseudo_median(in, out, w), 0);
        EXPECT_TRUE(out == row_then_column(in, (w - 1) / 2, 3)) << w;
    }
}

TEST(PseudoMedian2D, WindowSixOnAWorkedExample) {
    // One interior sample (2, 2). Its row median takes columns 0..2 of row 2:
    // median(10, 20, 30) = 20 (the five-sample median would be 30). Its column
    // median takes rows 0..2 of column 2: median(25, 15, 20) = 20 (the
    // five-sample median would be 25).
    Image in(5, 5, 100);
    const Sample row2[5] = {10, 20, 30, 40, 50};
    for (int c = 0; c < 5; ++c) in.at(2, c) = row2[c];
    in.at(0, 2) = 25;
    in.at(1, 2) = 15;
    Image out(5, 5, kMarker);
    ASSERT_EQ(pseudo_median(in, out, 6), 0);
    Image expected(5, 5, kMarker);
    expected.at(2, 2) = 20;
    EXPECT_TRUE(out == expected);
}

TEST(PseudoMedian2D, WindowsBelowThreeLeaveTheImageUnchanged) {
    Image in = random_image(7, 11, 1);
    for (const int w : {1, 2, 0, -5, INT_MIN}) {
        Image out(7, 11, kMarker);
        ASSERT_EQ(pseudo_median(in, out, w), 0);
        EXPECT_TRUE(out == in) << w;
    }
}

TEST(PseudoMedian2D, WindowsLargerThanTheImageWriteNothing) {
    for (const auto [height, width, w] : {std::tuple{1, 9, 3}, {2, 9, 3}, {9, 2, 3}, {1, 1, 3}, {8, 8, 9}, {40, 40, INT_MAX}}) {
        Image in = random_image(height, width, w);
        Image out(height, width, kMarker);
        ASSERT_EQ(pseudo_median(in, out, w), 0);
        EXPECT_TRUE(out == Image(height, width, kMarker)) << height << "x" << width << " w " << w;
    }
}

TEST(PseudoMedian2D, VectorWidthsAgreeSampleForSample) {
    for (const MedianIsa isa : {MedianIsa::avx2, MedianIsa::avx512bw}) {
        if (!median_isa_available(isa)) continue;
        for (const int w : {3, 5, 6, 7, 9}) {
            for (const int width : {9, 23, 40, 71, 130}) {
                Image in = random_image(12, width, width + w);
                Image portable(12, width, kMarker), vectored(12, width, kMarker);
                ASSERT_EQ(pseudo_median_2d(in.rows(), portable.rows(), 12, width, w, MedianIsa::portable), 0);
                ASSERT_EQ(pseudo_median_2d(in.rows(), vectored.rows(), 12, width, w, isa), 0);
                EXPECT_TRUE(portable == vectored) << "w " << w << " width " << width;
            }
        }
    }
}

TEST(PseudoMedian2D, AllocationFailuresLeaveTheOutputUntouched) {
    Image in = random_image(10, 13, 2);
    EXPECT_GT(expect_clean_allocation_failures([&](Image& out) { return pseudo_median(in, out, 5); }, 10, 13,
                                               {kNoRowArray, kNoBuffer}),
              0);
}

}  // namespace
}  // namespace krf::test
