// The Gaussian blur against a double-precision statement of its definition,
// its check order, and every code path against the portable one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "primitives/primitives.h"
#include "support/radiographs.h"

namespace {

using namespace krf::prim;

std::vector<double> weights(int k, double sigma) {
    std::vector<double> w(k);
    double sum = 0;
    for (int i = 0; i < k; ++i) sum += w[i] = std::exp(-std::pow(i - (k - 1) / 2.0, 2) / (2 * sigma * sigma));
    for (double& v : w) v /= sum;
    return w;
}

// Rows, then columns, in double; outside samples replicated or zero.
std::vector<double> reference_blur(const std::vector<double>& img, int w, int h, int k, double sigma, bool replicate) {
    const auto g = weights(k, sigma);
    auto at = [&](const std::vector<double>& v, int x, int y) {
        if (replicate) return v[std::clamp(y, 0, h - 1) * w + std::clamp(x, 0, w - 1)];
        return x < 0 || y < 0 || x >= w || y >= h ? 0.0 : v[y * w + x];
    };
    std::vector<double> rows(img.size()), out(img.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int i = 0; i < k; ++i) rows[y * w + x] += g[i] * at(img, x - k / 2 + i, y);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int i = 0; i < k; ++i) out[y * w + x] += g[i] * at(rows, x, y - k / 2 + i);
    return out;
}

std::vector<std::uint16_t> random_image(int w, int h, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<std::uint16_t> v(static_cast<std::size_t>(w) * h);
    for (auto& s : v) s = static_cast<std::uint16_t>(random() % 4 == 0 ? 65535 : random() % 4096);
    return v;
}

TEST(GaussianPrimitive, MatchesTheDefinitionOnEveryShape) {
    const int shapes[][2] = {{1, 1}, {1, 9}, {9, 1}, {2, 3}, {17, 13}, {70, 5}};
    for (const auto& wh : shapes)
        for (const auto& [k, sigma] : {std::pair{3, 0.5f}, {5, 0.75f}, {7, 2.0f}, {31, 7.0f}, {401, 1.0f}}) {
            const int w = wh[0], h = wh[1];
            const auto img = random_image(w, h, w * 100 + h + k);
            const std::vector<double> img_d(img.begin(), img.end());
            std::vector<std::uint16_t> out16(img.size(), 0xBEEF);
            ASSERT_EQ(GaussianFilterU16(img.data(), w * 2, out16.data(), w * 2, {w, h}, k, sigma), kOk);
            const auto ref16 = reference_blur(img_d, w, h, k, sigma, true);
            std::vector<float> img_f(img.begin(), img.end()), out32(img.size(), -1.0f);
            ASSERT_EQ(GaussianFilterF32(img_f.data(), w * 4, out32.data(), w * 4, {w, h}, k, sigma), kOk);
            const auto ref32 = reference_blur(img_d, w, h, k, sigma, false);
            for (std::size_t i = 0; i < img.size(); ++i) {
                // Float sums: the rounded result is the nearest integer unless
                // the exact value lies within float error of a half (a float
                // step near 65535 is 1/128; a few of them at most).
                ASSERT_LE(std::abs(out16[i] - ref16[i]), 0.5 + 0.03) << w << "x" << h << " K " << k << " at " << i;
                ASSERT_NEAR(out32[i], ref32[i], 1e-5 * (1 + ref32[i])) << w << "x" << h << " K " << k << " at " << i;
            }
        }
}

TEST(GaussianPrimitive, ChecksInTheStatedOrderAndLeavesTheDestinationOnFailure) {
    std::int64_t rb = 0, wb = 0;
    const Size ok{4, 3};
    EXPECT_EQ(GaussianFilterGetBufferSize({0, 0}, 2, SampleType::f64, 3, nullptr, &wb), kNullPointer);
    EXPECT_EQ(GaussianFilterGetBufferSize({0, 3}, 2, SampleType::f64, 3, &rb, &wb), kBadSize);
    EXPECT_EQ(GaussianFilterGetBufferSize(ok, 2, SampleType::f64, 3, &rb, &wb), kBadArgument);
    EXPECT_EQ(GaussianFilterGetBufferSize(ok, 3, SampleType::f64, 3, &rb, &wb), kBadSampleType);
    EXPECT_EQ(GaussianFilterGetBufferSize(ok, 3, SampleType::u8, 3, &rb, &wb), kBadChannels);
    ASSERT_EQ(GaussianFilterGetBufferSize(ok, 3, SampleType::s16, 1, &rb, &wb), kOk);

    std::vector<unsigned char> record(rb), work(wb);
    auto init = [&](Size s, int k, float sigma, BorderKind b, SampleType t, int c, unsigned char* r) {
        return GaussianFilterInit(s, k, sigma, b, t, c, r, work.data());
    };
    EXPECT_EQ(init({-1, 3}, 4, 0, BorderKind::wrap, SampleType::f64, 2, nullptr), kNullPointer);
    EXPECT_EQ(init({-1, 3}, 4, 0, BorderKind::wrap, SampleType::f64, 2, record.data()), kBadSize);
    EXPECT_EQ(init(ok, 4, 0, BorderKind::wrap, SampleType::f64, 2, record.data()), kBadArgument);
    EXPECT_EQ(init(ok, 3, 0, BorderKind::wrap, SampleType::f64, 2, record.data()), kBadSampleType);
    EXPECT_EQ(init(ok, 3, 0, BorderKind::wrap, SampleType::u16, 2, record.data()), kBadChannels);
    EXPECT_EQ(init(ok, 3, 0, BorderKind::wrap, SampleType::u16, 1, record.data()), kBadArgument);
    EXPECT_EQ(init(ok, 3, NAN, BorderKind::replicate, SampleType::u16, 1, record.data()), kBadArgument);
    EXPECT_EQ(init(ok, 3, 1, BorderKind::wrap, SampleType::u16, 1, record.data()), kBadBorder);
    // A record for 16-bit samples does not serve a float blur or another size.
    ASSERT_EQ(init(ok, 3, 1, BorderKind::constant, SampleType::u16, 1, record.data()), kOk);
    float f[12] = {};
    EXPECT_EQ(GaussianFilterRunF32(f, 16, f, 16, ok, 0, record.data(), work.data()), kBadSampleType);
    std::uint16_t u[12] = {};
    EXPECT_EQ(GaussianFilterRunU16(u, 8, u, 8, {4, 2}, 0, record.data(), work.data()), kBadSize);
    EXPECT_EQ(GaussianFilterRunU16(u, 6, u, 8, ok, 0, record.data(), work.data()), kBadSize);

    std::vector<std::uint16_t> src(12, 100), dst(12, 0xBEEF);
    for (const int k : {-3, 0, 1, 2, 4, 64, kLargestGaussianKernel + 2, 2147483647})
        EXPECT_EQ(GaussianFilterU16(src.data(), 8, dst.data(), 8, ok, k, 1.0f), kBadArgument) << k;
    EXPECT_EQ(GaussianFilterU16(src.data(), 8, dst.data(), 8, ok, 3, 0.0f), kBadArgument);
    EXPECT_EQ(dst, std::vector<std::uint16_t>(12, 0xBEEF));
}

// The longest kernel on a small image: a ring of filtered rows, not of taps.
TEST(GaussianPrimitive, LongKernelsAndExtremeSigmasStayDefined) {
    std::vector<float> img(6 * 4, 2.0f), out(24, -1.0f);
    ASSERT_EQ(GaussianFilterF32(img.data(), 24, out.data(), 24, {6, 4}, kLargestGaussianKernel, INFINITY), kOk);
    for (const float v : out) EXPECT_NEAR(v, 2.0f * 6 / kLargestGaussianKernel * 4 / kLargestGaussianKernel, 1e-9);
    std::vector<std::uint16_t> u(24, 1000), uo(24, 0);
    u[5] = 7;
    ASSERT_EQ(GaussianFilterU16(u.data(), 12, uo.data(), 12, {6, 4}, 9, 1e-30f), kOk);
    EXPECT_EQ(uo, u);  // all weight on the centre tap
    // The longest kernel with a narrow sigma on a whole radiograph's width:
    // only the taps that matter are visited.
    std::vector<std::uint16_t> wide(3000 * 40, 500), wide_out(wide.size());
    wide[1500] = 4000;
    ASSERT_EQ(GaussianFilterU16(wide.data(), 6000, wide_out.data(), 6000, {3000, 40}, kLargestGaussianKernel, 5.0f),
              kOk);
    std::vector<std::uint16_t> short_out(wide.size());
    ASSERT_EQ(GaussianFilterU16(wide.data(), 6000, short_out.data(), 6000, {3000, 40}, 301, 5.0f), kOk);
    for (std::size_t i = 0; i < wide.size(); ++i) ASSERT_NEAR(wide_out[i], short_out[i], 1) << i;
}

TEST(GaussianPrimitive, EveryCodePathGivesThePortableSamples) {
    const int w = 1003, h = 60;  // a width that is no multiple of any vector width
    const auto img = krf::test::crop(krf::test::radiograph("cr-leg-10bit.png"), 0, 0, h, w).samples();
    const std::vector<float> img_f(img.begin(), img.end());
    int paths_run = 0;
    for (const CodePath path : {CodePath::avx2, CodePath::avx512}) {
        if (!CodePathAvailable(path)) continue;
        ++paths_run;
        for (const auto& [k, sigma] : {std::pair{3, 0.4f}, {5, 0.75f}, {7, 1.5f}, {31, 7.0f}, {65, 99.0f}, {201, 2.0f}, {9, 1e-30f}}) {
            std::vector<std::uint16_t> a(img.size()), b(img.size());
            ASSERT_EQ(GaussianFilterU16(img.data(), w * 2, a.data(), w * 2, {w, h}, k, sigma, CodePath::portable), kOk);
            ASSERT_EQ(GaussianFilterU16(img.data(), w * 2, b.data(), w * 2, {w, h}, k, sigma, path), kOk);
            EXPECT_EQ(a, b) << "K " << k;
            std::vector<float> fa(img.size()), fb(img.size());
            ASSERT_EQ(GaussianFilterF32(img_f.data(), w * 4, fa.data(), w * 4, {w, h}, k, sigma, CodePath::portable), kOk);
            ASSERT_EQ(GaussianFilterF32(img_f.data(), w * 4, fb.data(), w * 4, {w, h}, k, sigma, path), kOk);
            EXPECT_EQ(0, std::memcmp(fa.data(), fb.data(), fa.size() * 4)) << "K " << k;
        }
    }
    // This machine has both wider paths; a processor without them has nothing to compare.
    if (paths_run == 0) GTEST_SKIP() << "no vector path on this processor";
}

// A border in memory reads the samples around the region: with a replicated
// padding around it, it gives the replicated blur.
TEST(GaussianPrimitive, BorderInMemoryReadsTheSurroundingSamples) {
    const int w = 23, h = 9, k = 7, r = 3, pw = w + 6, ph = h + 6;
    const auto img = random_image(w, h, 5);
    std::vector<std::uint16_t> padded(pw * ph), expected(w * h), out(w * h);
    ASSERT_EQ(PadReplicateU16(img.data(), w * 2, {w, h}, padded.data(), pw * 2, {pw, ph}, r, r), kOk);
    ASSERT_EQ(GaussianFilterU16(img.data(), w * 2, expected.data(), w * 2, {w, h}, k, 1.5f), kOk);
    std::int64_t rb = 0, wb = 0;
    ASSERT_EQ(GaussianFilterGetBufferSize({w, h}, k, SampleType::u16, 1, &rb, &wb), kOk);
    std::vector<unsigned char> record(rb), work(wb);
    ASSERT_EQ(GaussianFilterInit({w, h}, k, 1.5f, BorderKind::in_memory, SampleType::u16, 1, record.data(), work.data()),
              kOk);
    ASSERT_EQ(GaussianFilterRunU16(padded.data() + r * pw + r, pw * 2, out.data(), w * 2, {w, h}, 0, record.data(),
                                   work.data()),
              kOk);
    EXPECT_EQ(out, expected);
}

}  // namespace
