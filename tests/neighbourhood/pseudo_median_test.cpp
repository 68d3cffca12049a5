#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <tuple>
#include <vector>

#include "neighbourhood/median.h"
#include "neighbourhood/neighbourhood_testing.h"

namespace krf::test {
namespace {

Image pseudo_median(const Image& in, int w) {
    return filtered("pseudo-median2D", in, 4095, Params().add_int(w).data());
}

// Row medians into a copy of the input, then column medians into an output
// pre-filled with the marker; each median sorts the first `taps` samples of
// the gathered 2h + 1.
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

// Windows other than 5, 7 and 9 take the median of the first three samples
// they gather, so window 6 differs from window 7 wherever those disagree.
TEST(PseudoMedian2D, RowMedianThenColumnMedianWithTheFirstThreeRule) {
    for (const int w : {3, 4, 5, 6, 7, 8, 9, 10, 13}) {
        const Image in = random_image(30, 77, 65535, w);
        const int taps = (w == 5 || w == 7 || w == 9) ? w : 3;
        EXPECT_TRUE(pseudo_median(in, w) == row_then_column(in, (w - 1) / 2, taps)) << w;
    }
}

TEST(PseudoMedian2D, WindowsBelowThreeCopyWindowsBeyondTheImageWriteNothing) {
    for (const auto [height, width, w] : {std::tuple{7, 11, 1}, {7, 11, 2}, {7, 11, 0}, {7, 11, INT_MIN}, {1, 9, 3},
                                        {2, 9, 3}, {9, 2, 3}, {8, 8, 9}, {40, 40, INT_MAX}}) {
        const Image in = random_image(height, width, 65535, w);
        EXPECT_TRUE(pseudo_median(in, w) == (w < 3 ? in : Image(height, width, kMarker)))
            << height << "x" << width << " w " << w;
    }
}

}  // namespace
}  // namespace krf::test
