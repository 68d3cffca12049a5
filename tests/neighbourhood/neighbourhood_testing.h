// Helpers for the neighbourhood-filter tests: random images, brute-force box
// means and window medians, and the image sizes every filter must handle.
#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "neighbourhood/local_filters.h"
#include "support/test_images.h"

namespace krf::test {

// Samples uniform in 0 ... top.
inline Image random_image(int height, int width, int top, std::uint32_t seed) {
    return random_image(height, width, 0, top, seed);
}

// Mean of the n x n window (sides made odd, at least 1) with coordinates held
// to the image, summed directly, truncated and held to white.
inline Image reference_mean(const Image& in, int side, int white) {
    const std::int64_t n = side < 1 ? 1 : side | 1, h = n / 2;
    Image out(in.height(), in.width());
    for (int r = 0; r < in.height(); ++r)
        for (int c = 0; c < in.width(); ++c) {
            std::int64_t sum = 0;
            for (std::int64_t y = r - h; y <= r + h; ++y)
                for (std::int64_t x = c - h; x <= c + h; ++x)
                    sum += in.at(static_cast<int>(std::clamp<std::int64_t>(y, 0, in.height() - 1)),
                                 static_cast<int>(std::clamp<std::int64_t>(x, 0, in.width() - 1)));
            const auto mean = static_cast<std::int64_t>(static_cast<double>(sum) / static_cast<double>(n * n));
            out.at(r, c) = static_cast<Sample>(std::min<std::int64_t>(mean, white));
        }
    return out;
}

// Median of the window of side 2h + 1 centred on (r, c), found by sorting.
inline Sample window_median(const Image& in, int r, int c, int h) {
    std::vector<Sample> window;
    for (int y = r - h; y <= r + h; ++y)
        for (int x = c - h; x <= c + h; ++x) window.push_back(in.at(y, x));
    std::nth_element(window.begin(), window.begin() + window.size() / 2, window.end());
    return window[window.size() / 2];
}

// Output of run(src, dst) on a copy of `in`, into rows pre-filled with the marker.
template <class Run>
Image output_of(Image in, Run run) {
    Image out(in.height(), in.width(), kMarker);
    EXPECT_EQ(run(in.rows(), out.rows()), 0);
    return out;
}

// expect_clean_allocation_failures for DoFilter `name` on `in` (white 4095).
inline int expect_clean_failures(const char* name, Image in, void** params,
                                 std::initializer_list<int> codes = {kNoRowArray, kNoBuffer}) {
    const auto run = [&](Image& out) { return run_filter(name, in, out, 4095, params); };
    return expect_clean_allocation_failures(run, in.height(), in.width(), codes);
}

inline constexpr std::pair<int, int> kOddSizes[] = {{1, 1}, {1, 7},  {7, 1},  {2, 2},   {2, 9},
                                                    {3, 3}, {5, 17}, {19, 4}, {23, 37}, {9, 70}};

// Both kernel paths of filter(src, dst, height, width, path) against
// reference(in) on random images (samples 0 ... top) of every odd size.
template <class Filter, class Reference>
void expect_paths_match(Filter filter, Reference reference, int top, std::uint32_t seed) {
    for (auto [h, w] : kOddSizes) {
        const Image in = random_image(h, w, top, seed++), expected = reference(in);
        for (KernelPath path : {KernelPath::portable, KernelPath::fastest})
            EXPECT_TRUE(output_of(in, [&](Rows s, Rows d) { return filter(s, d, h, w, path); }) == expected)
                << h << "x" << w << (path == KernelPath::portable ? " portable" : " fastest");
    }
}

}  // namespace krf::test
