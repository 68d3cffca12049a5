// The wavelet primitives against direct sums written from the phase
// convention, the reconstruction they promise, and the vector paths against
// the portable one.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "platform/memory.h"
#include "platform/platform.h"
#include "primitives/wavelet.h"

namespace {

using namespace krf::prim;

std::vector<float> random_floats(std::size_t n, std::uint32_t seed, float scale = 255.0f) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> value(-scale, scale);
    std::vector<float> v(n);
    for (float& x : v) x = value(random);
    return v;
}

// A periodic W × H signal continued by `before` and `after` samples on all
// sides, as the caller of the primitives builds it.
struct Periodic {
    int width, height, before, stride;
    std::vector<float> data;
    Periodic(const std::vector<float>& src, int w, int h, int b, int a) : width(w), height(h), before(b) {
        stride = w + b + a;
        data.resize(static_cast<std::size_t>(stride) * (h + b + a));
        EXPECT_EQ(PadWrapF32(src.data(), w * 4, {w, h}, data.data(), stride * 4, {stride, h + b + a}, b, b), kOk);
    }
    const float* origin() const { return data.data() + before * stride + before; }
    float at(int y, int x) const { return origin()[static_cast<std::ptrdiff_t>(y) * stride + x]; }
};

// Σ_k taps[k] · s(x + anchor − k) in ascending k, started from the first product.
template <class Sample>
float direct_sum(const float* taps, int anchor, Sample s) {
    float acc = taps[0] * s(anchor);
    for (int k = 1; k < 16; ++k) acc = acc + taps[k] * s(anchor - k);
    return acc;
}

TEST(WaveletFilters, RowAndColumnFiltersAreTrueConvolutionsAtTheirAnchor) {
    const int w = 23, h = 9;
    const auto src = random_floats(w * h, 1);
    const auto taps = random_floats(16, 2, 1.0f);
    for (int anchor : {0, 7, 8, 15}) {
        const Periodic p(src, w, h, 15, 15);
        std::vector<float> rows(w * h), columns(w * h);
        ASSERT_EQ(FilterRowF32(p.origin(), p.stride * 4, rows.data(), w * 4, {w, h}, taps.data(), 16, anchor), kOk);
        ASSERT_EQ(FilterColumnF32(p.origin(), p.stride * 4, columns.data(), w * 4, {w, h}, taps.data(), 16, anchor),
                  kOk);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                EXPECT_EQ(rows[y * w + x], direct_sum(taps.data(), anchor, [&](int o) { return p.at(y, x + o); }));
                EXPECT_EQ(columns[y * w + x], direct_sum(taps.data(), anchor, [&](int o) { return p.at(y + o, x); }));
            }
    }
    std::vector<float> dst(w * h, 7.0f);
    EXPECT_EQ(FilterRowF32(src.data(), w * 4, dst.data(), w * 4, {w, h}, taps.data(), 15, 7), kBadArgument);
    EXPECT_EQ(FilterColumnF32(src.data(), w * 4, dst.data(), w * 4, {w, h}, taps.data(), 16, 16), kBadArgument);
    for (float v : dst) ASSERT_EQ(v, 7.0f);
}

TEST(WaveletFilters, EveryVectorPathGivesThePortableSamples) {
    const auto& cpu = krf::platform::cpu_features();
    if (!cpu.avx2) GTEST_SKIP() << "this processor has no AVX2 path to compare";
    const auto data = random_floats(40 * 300, 3, 1e4f);
    const auto weights = random_floats(40, 4, 2.0f);
    std::vector<const float*> terms;
    for (int t = 0; t < 40; ++t) terms.push_back(data.data() + t * 300 + t % 5);
    using krf::prim::testing::SumPath;
    for (int termCount : {1, 8, 16, 32})
        for (std::int64_t count : {1, 7, 15, 16, 17, 31, 63, 64, 65, 129, 290}) {
            auto on = [&](SumPath path) {
                std::vector<float> sums(count);
                krf::prim::testing::weighted_sum_on_path(path, terms.data(), weights.data(), termCount, sums.data(),
                                                         count);
                return sums;
            };
            const std::vector<float> portable = on(SumPath::portable);
            EXPECT_EQ(on(SumPath::avx2), portable) << termCount << " terms, " << count << " samples";
            if (cpu.avx512bw) EXPECT_EQ(on(SumPath::avx512), portable) << termCount << " terms, " << count;
        }
}

struct Bands {
    int w, h;
    std::vector<float> approx, x, y, xy;
    Bands(int width, int height) : w(width), h(height), approx(w * h), x(w * h), y(w * h), xy(w * h) {}
};

Bands analyse(const std::vector<float>& src, int w2, int h2) {
    Bands b(w2 / 2, h2 / 2);
    float low[16], high[16];
    Symlet8AnalysisTaps(low, high);
    WaveletFilterPair* record = nullptr;
    EXPECT_EQ(PrepareWaveletF32(low, 16, 7, high, 16, 7, &record), kOk);
    std::int64_t bytes = 0;
    EXPECT_EQ(WaveletAnalysisWorkSizeF32(record, {b.w, b.h}, &bytes), kOk);
    std::vector<unsigned char> work(bytes);
    const Periodic p(src, w2, h2, 8, 7);
    const int step = b.w * 4;
    EXPECT_EQ(WaveletAnalysisF32(p.origin(), p.stride * 4, b.approx.data(), step, b.x.data(), step, b.y.data(), step,
                                 b.xy.data(), step, {b.w, b.h}, record, work.data()),
              kOk);
    FreeBuffer(record);
    return b;
}

std::vector<float> synthesise(const Bands& b, int anchor) {
    float low[16], high[16];
    Symlet8SynthesisTaps(low, high);
    WaveletFilterPair* record = nullptr;
    EXPECT_EQ(PrepareWaveletF32(low, 16, anchor, high, 16, anchor, &record), kOk);
    std::int64_t bytes = 0;
    EXPECT_EQ(WaveletSynthesisWorkSizeF32(record, {b.w, b.h}, &bytes), kOk);
    std::vector<unsigned char> work(bytes);
    const int before = anchor == 8 ? 3 : 4;
    const Periodic a(b.approx, b.w, b.h, before, 4), x(b.x, b.w, b.h, before, 4), y(b.y, b.w, b.h, before, 4),
        xy(b.xy, b.w, b.h, before, 4);
    std::vector<float> out(4 * b.w * b.h);
    const int step = a.stride * 4;
    EXPECT_EQ(WaveletSynthesisF32(a.origin(), step, x.origin(), step, y.origin(), step, xy.origin(), step, out.data(),
                                  2 * b.w * 4, {b.w, b.h}, record, work.data()),
              kOk);
    FreeBuffer(record);
    return out;
}

TEST(WaveletTransform, AnalysisKeepsTheEvenSamplesOfTheRowThenColumnFilters) {
    const int w2 = 22, h2 = 70;  // 35 band rows: more than one strip of the row pass
    const auto src = random_floats(w2 * h2, 5);
    const Bands b = analyse(src, w2, h2);
    float low[16], high[16];
    Symlet8AnalysisTaps(low, high);
    const Periodic p(src, w2, h2, 16, 16);
    auto band = [&](const float* rowTaps, const float* columnTaps, int i, int j) {
        return direct_sum(columnTaps, 7, [&](int oy) {
            return direct_sum(rowTaps, 7, [&](int ox) { return p.at(2 * i + oy, 2 * j + ox); });
        });
    };
    for (int i = 0; i < b.h; ++i)
        for (int j = 0; j < b.w; ++j) {
            const int at = i * b.w + j;
            ASSERT_EQ(b.approx[at], band(low, low, i, j));
            ASSERT_EQ(b.x[at], band(low, high, i, j));   // low along the rows, high along the columns
            ASSERT_EQ(b.y[at], band(high, low, i, j));
            ASSERT_EQ(b.xy[at], band(high, high, i, j));
        }
}

TEST(WaveletTransform, SynthesisAfterAnalysisGivesBackTheSourceAndEnergyIsKept) {
    // Periods down to 2 samples: the coarsest levels of a small padded image.
    for (auto [w2, h2] : {std::pair{2, 2}, {2, 16}, {16, 2}, {24, 10}, {64, 48}, {200, 30}}) {
        const auto src = random_floats(w2 * h2, 6 + w2);
        const Bands b = analyse(src, w2, h2);
        double source_energy = 0.0, band_energy = 0.0;
        for (float v : src) source_energy += double{v} * v;
        for (const auto* band : {&b.approx, &b.x, &b.y, &b.xy})
            for (float v : *band) band_energy += double{v} * v;
        EXPECT_NEAR(band_energy / source_energy, 1.0, 1e-5) << w2 << "x" << h2;

        const auto back = synthesise(b, 8);
        float worst = 0.0f;
        for (std::size_t i = 0; i < src.size(); ++i) worst = std::max(worst, std::fabs(back[i] - src[i]));
        EXPECT_LT(worst, 2e-4f) << w2 << "x" << h2;  // a few float steps of values up to 255
    }
}

TEST(WaveletTransform, PreparationChecksItsFiltersAndReportsExhaustedMemory) {
    float low[16], high[16];
    Symlet8AnalysisTaps(low, high);
    WaveletFilterPair* record = nullptr;
    EXPECT_EQ(PrepareWaveletF32(low, 8, 7, high, 16, 7, &record), kBadArgument);
    EXPECT_EQ(PrepareWaveletF32(low, 16, 7, high, 16, -1, &record), kBadArgument);
    krf::testing::fail_allocation(1);
    EXPECT_EQ(PrepareWaveletF32(low, 16, 7, high, 16, 7, &record), kNoMemory);
    krf::testing::fail_allocation(0);
    EXPECT_EQ(record, nullptr);
}

}  // namespace
