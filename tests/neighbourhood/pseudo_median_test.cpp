#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <tuple>
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

// Row medians into a copy of the input, then column medians into an output
// pre-filled with kMarker; each median sorts the first `taps` samples of the
// gathered 2h + 1.
Image row_then_column(const Image& in, int h, int taps) {
    const auto median = [taps](auto sample) {
        std::vector<Sample> window;
        for (int j = 0; j < taps; ++j) window.push_back(sample(j));
        std::sort(window.begin(), window.end());
        return window[taps / 2];
    };
    Image rows = in, out(in.height(), in.width(), kMarker);
    for (int r = h; r < in.height() - h; ++r)
        for (int c = h; c < in.width() - h; ++c) rows.at(r, c) = median([&](int j) { return in.at(r, c - h + j); });
    for (int r = h; r < in.height() - h; ++r)
        for (int c = h; c < in.width() - h; ++c) out.at(r, c) = median([&](int j) { return rows.at(r - h + j, c); });
    return out;
}

TEST(PseudoMedian2D, RowMedianThenColumnMedianWithTheFirstThreeRule) {
    for (const int w : {3, 4, 5, 6, 7, 8, 9, 10, 13}) {
        Image in = random_image(30, 77, w);
        Image out(30, 77, kMarker);
        ASSERT_EQ(pseudo_median(in, out, w), 0);
        const int taps = (w == 5 || w == 7 || w == 9) ? w : 3;
        EXPECT_TRUE(out == row_then_column(in, (w - 1) / 2, taps)) << w;
    }
}

TEST(PseudoMedian2D, WindowSixOnAWorkedExample) {
    // One interior sample (2, 2). Its row median takes columns 0..2 of row 2:
    // median(10, 20, 30) = 20 (the five-sample median would be 30). Its column
    // median takes rows 0..2 of column 2: median(25, 15, 20) = 20 (the
    // five-sample median would be 25). Nothing else is written.
    Image in(5, 5, 100);
    for (int c = 0; c < 5; ++c) in.at(2, c) = static_cast<Sample>(10 * (c + 1));
    in.at(0, 2) = 25;
    in.at(1, 2) = 15;
    Image out(5, 5, kMarker), expected(5, 5, kMarker);
    expected.at(2, 2) = 20;
    ASSERT_EQ(pseudo_median(in, out, 6), 0);
    EXPECT_TRUE(out == expected);
}

TEST(PseudoMedian2D, WindowsBelowThreeCopyAndWindowsBeyondTheImageWriteNothing) {
    for (const auto [height, width, w] : {std::tuple{7, 11, 1}, {7, 11, 2}, {7, 11, 0}, {7, 11, INT_MIN}, {1, 9, 3},
                                        {2, 9, 3}, {9, 2, 3}, {8, 8, 9}, {40, 40, INT_MAX}}) {
        Image in = random_image(height, width, w), out(height, width, kMarker);
        ASSERT_EQ(pseudo_median(in, out, w), 0);
        EXPECT_TRUE(out == (w < 3 ? in : Image(height, width, kMarker))) << height << "x" << width << " w " << w;
    }
}

TEST(PseudoMedian2D, AllocationFailuresLeaveTheOutputUntouched) {
    Image in = random_image(10, 13, 2);
    const auto run = [&](Image& out) { return pseudo_median(in, out, 5); };
    EXPECT_GT(expect_clean_allocation_failures(run, 10, 13, {kNoRowArray, kNoBuffer}), 0);
}

}  // namespace
}  // namespace krf::test
