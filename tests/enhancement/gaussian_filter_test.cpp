// "gaussian" through the dispatcher: the stated weights, the sigma clamp, the
// refusals and an untouched output on every failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

#include "support/test_images.h"

namespace {

using krf::test::Image;
using krf::test::Params;

Image blurred(Image& in, int kernel, float sigma, int* code = nullptr) {
    Image out(in.height(), in.width(), krf::test::kMarker);
    const int c = krf::test::run_filter("gaussian", in, out, 4095, Params().add_int(kernel).add_float(sigma).data());
    if (code != nullptr) *code = c;
    else EXPECT_EQ(c, 0);
    return out;
}

// Rows, then columns, in double with replicated edges.
std::vector<double> reference(const Image& in, int k, double sigma) {
    const int w = in.width(), h = in.height();
    std::vector<double> g(k);
    double sum = 0;
    for (int i = 0; i < k; ++i) sum += g[i] = std::exp(-(i - k / 2) * (i - k / 2) / (2 * sigma * sigma));
    std::vector<double> rows(w * h), out(w * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int i = 0; i < k; ++i) rows[y * w + x] += g[i] / sum * in.at(y, std::clamp(x - k / 2 + i, 0, w - 1));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int i = 0; i < k; ++i) out[y * w + x] += g[i] / sum * rows[std::clamp(y - k / 2 + i, 0, h - 1) * w + x];
    return out;
}

void expect_near_reference(const Image& out, const std::vector<double>& ref) {
    for (int y = 0; y < out.height(); ++y)
        for (int x = 0; x < out.width(); ++x)
            ASSERT_LE(std::abs(out.at(y, x) - ref[y * out.width() + x]), 0.5 + 1e-3) << x << "," << y;
}

TEST(GaussianFilter, DefaultsBlurWithTheStatedWeightsAndOneColumnImagesBlurAlongIt) {
    Image in = krf::test::phantom(30, 41, 4095);
    // The defaults: exp(−d² / 1.125) for d = −2 ... 2, normalised.
    expect_near_reference(blurred(in, 5, 0.75f), reference(in, 5, 0.75));
    Image column(9, 1);
    for (int y = 0; y < 9; ++y) column.at(y, 0) = static_cast<krf::Sample>(y == 0 ? 4000 : y * 100);
    expect_near_reference(blurred(column, 7, 2.0f), reference(column, 7, 2.0));
}

// The blur reads the host's rows directly; each is read before its own
// output row is written, so filtering an image onto itself is safe.
TEST(GaussianFilter, FilteringAnImageOntoItselfGivesTheSameSamples) {
    for (const int kernel : {3, 7, 31}) {
        Image in = krf::test::phantom(40, 27, 4095);
        const Image expected = blurred(in, kernel, 3.0f);
        ASSERT_EQ(krf::test::run_filter("gaussian", in, in, 4095, Params().add_int(kernel).add_float(3.0f).data()), 0);
        EXPECT_TRUE(in == expected) << kernel;
    }
}

TEST(GaussianFilter, SigmaIsHeldBetweenATenthAndFive) {
    Image in = krf::test::phantom(20, 23, 4095);
    const Image tenth = blurred(in, 7, 0.1f);
    EXPECT_TRUE(blurred(in, 7, 0.0f) == tenth);
    EXPECT_TRUE(blurred(in, 7, -3.0f) == tenth);
    const Image five = blurred(in, 7, 5.0f);
    EXPECT_TRUE(blurred(in, 7, 7.0f) == five);
    EXPECT_TRUE(blurred(in, 7, INFINITY) == five);
    EXPECT_FALSE(blurred(in, 7, 4.9f) == five);
    EXPECT_FALSE(blurred(in, 7, 0.4f) == tenth);
}

TEST(GaussianFilter, RefusedKernelsAndNaNSigmaLeaveTheOutputUntouched) {
    Image in = krf::test::phantom(6, 5, 4095);
    const Image untouched(6, 5, krf::test::kMarker);
    for (const auto& [kernel, sigma] : {std::pair{4, 1.0f}, {0, 1.0f}, {1, 1.0f}, {-5, 1.0f}, {INT_MAX, 1.0f},
                                         {65537, 1.0f}, {5, NAN}}) {
        int code = 0;
        EXPECT_TRUE(blurred(in, kernel, sigma, &code) == untouched) << kernel;
        EXPECT_EQ(code, -5) << kernel;
    }
    Image empty(0, 5);
    int code = 0;
    blurred(empty, 5, 1.0f, &code);
    EXPECT_EQ(code, -6);
}

TEST(GaussianFilter, AllocationFailuresReportMissingMemory) {
    Image in = krf::test::phantom(12, 17, 4095);
    Params params;
    params.add_int(5).add_float(1.0f);
    const int allocations = krf::test::expect_clean_allocation_failures(
        [&](Image& out) { return krf::test::run_filter("gaussian", in, out, 4095, params.data()); }, 12, 17, {-9});
    EXPECT_EQ(allocations, 2);  // the preparation record and the work block
}

}  // namespace
