// 16-tap filters and one level of wavelet analysis and synthesis. Every
// operation is reduced to weighted sums of whole rows (WeightedSumF32): the
// column filters weight source rows, the row filters weight shifted copies of
// one row, and the down- and up-sampling become polyphase choices of which
// rows and shifts take part, so no product with an inserted zero is computed.
#include "primitives/wavelet.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "platform/platform.h"
#include "platform/vector_targets.h"

// Vectors never cross a call boundary: every lane helper is inlined into a
// function compiled for its width.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace krf::prim {

namespace {

using lanes::load;
using lanes::store;

// ---- The weighted row sum, written once over a vector of floats and
// instantiated for 16-byte vectors (any x86-64), 32-byte vectors inside an
// AVX2 function and 64-byte vectors inside an AVX-512 function. Every width
// starts from the first product and adds the others in ascending term order,
// without fused multiply-adds, so all of them give the same samples.

template <int Bytes>
struct Lanes {
    typedef float type __attribute__((vector_size(Bytes)));
    static constexpr int count = Bytes / static_cast<int>(sizeof(float));
};


template <int Bytes>
KRF_ALWAYS_INLINE void weighted_sum_lanes(const float* const* terms, const float* weights, int termCount, float* dst,
                                          std::int64_t count) {
    using V = typename Lanes<Bytes>::type;
    constexpr int n = Lanes<Bytes>::count;
    std::int64_t i = 0;
    // Four independent vectors per pass hide the latency of the add chain.
    for (; i + 4 * n <= count; i += 4 * n) {
        V a[4];
        for (int j = 0; j < 4; ++j) a[j] = weights[0] * load<V>(terms[0] + i + j * n);
        for (int t = 1; t < termCount; ++t)
            for (int j = 0; j < 4; ++j) a[j] = a[j] + weights[t] * load<V>(terms[t] + i + j * n);
        std::memcpy(dst + i, a, sizeof a);
    }
    for (; i + n <= count; i += n) {
        V a = weights[0] * load<V>(terms[0] + i);
        for (int t = 1; t < termCount; ++t) a = a + weights[t] * load<V>(terms[t] + i);
        std::memcpy(dst + i, &a, sizeof a);
    }
    for (; i < count; ++i) {
        float a = weights[0] * terms[0][i];
        for (int t = 1; t < termCount; ++t) a = a + weights[t] * terms[t][i];
        dst[i] = a;
    }
}

void weighted_sum_portable(const float* const* terms, const float* weights, int termCount, float* dst,
                           std::int64_t count) noexcept {
    weighted_sum_lanes<16>(terms, weights, termCount, dst, count);
}

#if KRF_X86
KRF_TARGET_AVX2 void weighted_sum_avx2(const float* const* terms, const float* weights, int termCount, float* dst,
                                       std::int64_t count) noexcept {
    weighted_sum_lanes<32>(terms, weights, termCount, dst, count);
}

__attribute__((target("avx512f"))) void weighted_sum_avx512(const float* const* terms, const float* weights,
                                                            int termCount, float* dst, std::int64_t count) noexcept {
    weighted_sum_lanes<64>(terms, weights, termCount, dst, count);
}
#endif

template <class T>
T* row_at(T* base, int step, std::int64_t y) noexcept {
    using Byte = std::conditional_t<std::is_const_v<T>, const unsigned char, unsigned char>;
    return reinterpret_cast<T*>(reinterpret_cast<Byte*>(base) + y * step);
}

bool valid_filter(const float* taps, int tapCount, int anchor) noexcept {
    return taps != nullptr && tapCount == kWaveletTaps && anchor >= 0 && anchor < kWaveletTaps;
}

// Floor of v / 2 for negative v too.
constexpr std::int64_t half_down(std::int64_t v) noexcept { return v >= 0 ? v / 2 : -((1 - v) / 2); }

// The terms of one polyphase branch: the taps k whose sample offset
// anchor + phase − k is even, with the half offset each one reads.
struct Branch {
    float weights[kWaveletTaps];
    std::int64_t offsets[kWaveletTaps];
    int count = 0;
};

Branch branch(const float* taps, int anchor, int phase) noexcept {
    Branch b;
    for (int k = 0; k < kWaveletTaps; ++k) {
        const int offset = anchor + phase - k;
        if ((offset & 1) != 0) continue;
        b.weights[b.count] = taps[k];
        b.offsets[b.count] = offset / 2;
        ++b.count;
    }
    return b;
}

// Band rows (or columns) from `first` to `last` that the synthesis reads for
// outputs 0 .. 2n − 1.
struct Span {
    std::int64_t first;
    std::int64_t last;
    std::int64_t length() const noexcept { return last - first + 1; }
};

Span synthesis_span(const WaveletFilterPair& r, std::int64_t n) noexcept {
    const int lo = std::min(r.low_anchor, r.high_anchor);
    const int hi = std::max(r.low_anchor, r.high_anchor);
    // Only band samples that land on even up-sampled positions are read.
    return {half_down(lo - (kWaveletTaps - 1) + 1), half_down(2 * n - 1 + hi)};
}

// Source rows (or columns) that the analysis reads for band samples 0 .. n − 1.
Span analysis_span(const WaveletFilterPair& r, std::int64_t n) noexcept {
    const int lo = std::min(r.low_anchor, r.high_anchor);
    const int hi = std::max(r.low_anchor, r.high_anchor);
    return {lo - (kWaveletTaps - 1), 2 * (n - 1) + hi};
}

template <class... Pointers>
bool any_null(Pointers... pointers) noexcept {
    return ((pointers == nullptr) || ...);
}

PrimitiveStatus check_pair(const WaveletFilterPair* record, Size bandSize) noexcept {
    if (record == nullptr) return kNullPointer;
    if (bandSize.width <= 0 || bandSize.height <= 0) return kBadSize;
    return kOk;
}

// Work sizes are float counts; the byte count must fit a signed 64-bit value.
PrimitiveStatus work_bytes(std::int64_t floats, std::int64_t* bytes) noexcept {
    if (bytes == nullptr) return kNullPointer;
    if (floats <= 0 || floats > INT64_MAX / 4) return kBadSize;
    *bytes = floats * 4;
    return kOk;
}

}  // namespace

void WeightedSumF32(const float* const* terms, const float* weights, int termCount, float* dst,
                    std::int64_t count) noexcept {
    if (termCount <= 0 || count <= 0) return;
#if KRF_X86
    const auto& cpu = platform::cpu_features();
    if (cpu.avx512bw) return weighted_sum_avx512(terms, weights, termCount, dst, count);
    if (cpu.avx2) return weighted_sum_avx2(terms, weights, termCount, dst, count);
#endif
    weighted_sum_portable(terms, weights, termCount, dst, count);
}

namespace testing {
void weighted_sum_on_path(SumPath path, const float* const* terms, const float* weights, int termCount, float* dst,
                          std::int64_t count) noexcept {
    if (termCount <= 0 || count <= 0) return;
#if KRF_X86
    if (path == SumPath::avx512) return weighted_sum_avx512(terms, weights, termCount, dst, count);
    if (path == SumPath::avx2) return weighted_sum_avx2(terms, weights, termCount, dst, count);
#endif
    weighted_sum_portable(terms, weights, termCount, dst, count);
}
}  // namespace testing

namespace {
// The checks both 16-tap filters make, in the order of every primitive.
PrimitiveStatus check_filter_call(const float* src, const float* dst, Size size, const float* taps, int tapCount,
                                  int anchor) noexcept {
    if (src == nullptr || dst == nullptr || taps == nullptr) return kNullPointer;
    if (size.width <= 0 || size.height <= 0) return kBadSize;
    if (!valid_filter(taps, tapCount, anchor)) return kBadArgument;
    return kOk;
}
}  // namespace

PrimitiveStatus FilterColumnF32(const float* src, int srcStep, float* dst, int dstStep, Size size, const float* taps,
                                int tapCount, int anchor) noexcept {
    if (const PrimitiveStatus s = check_filter_call(src, dst, size, taps, tapCount, anchor); s != kOk) return s;
    const float* terms[kWaveletTaps];
    for (int y = 0; y < size.height; ++y) {
        for (int k = 0; k < kWaveletTaps; ++k) terms[k] = row_at(src, srcStep, std::int64_t{y} + anchor - k);
        WeightedSumF32(terms, taps, kWaveletTaps, row_at(dst, dstStep, y), size.width);
    }
    return kOk;
}

PrimitiveStatus FilterRowF32(const float* src, int srcStep, float* dst, int dstStep, Size size, const float* taps,
                             int tapCount, int anchor) noexcept {
    if (const PrimitiveStatus s = check_filter_call(src, dst, size, taps, tapCount, anchor); s != kOk) return s;
    const float* terms[kWaveletTaps];
    for (int y = 0; y < size.height; ++y) {
        const float* row = row_at(src, srcStep, y);
        for (int k = 0; k < kWaveletTaps; ++k) terms[k] = row + anchor - k;
        WeightedSumF32(terms, taps, kWaveletTaps, row_at(dst, dstStep, y), size.width);
    }
    return kOk;
}

PrimitiveStatus PrepareWaveletF32(const float* low, int lowLength, int lowAnchor, const float* high, int highLength,
                                  int highAnchor, WaveletFilterPair** record) noexcept {
    if (low == nullptr || high == nullptr || record == nullptr) return kNullPointer;
    if (!valid_filter(low, lowLength, lowAnchor) || !valid_filter(high, highLength, highAnchor)) return kBadArgument;
    auto* pair = reinterpret_cast<WaveletFilterPair*>(AllocBytes(sizeof(WaveletFilterPair)));
    if (pair == nullptr) return kNoMemory;
    std::copy(low, low + kWaveletTaps, pair->low);
    std::copy(high, high + kWaveletTaps, pair->high);
    pair->low_anchor = lowAnchor;
    pair->high_anchor = highAnchor;
    *record = pair;
    return kOk;
}

// ---- Analysis. The row pass splits each source row into its even and odd
// samples, so that a decimated output reads contiguous runs of one of them;
// the column pass then weights whole rows of the row pass's results.

// Band rows per strip: the row pass keeps only the source rows that one strip
// of band rows reads (2 · strip + 14 for equal anchors), so its results are
// still in cache when the column pass weights them. A strip recomputes the 14
// rows it shares with the one before; the samples are the same either way.
constexpr std::int64_t kAnalysisStrip = 32;

std::int64_t analysis_strip_rows(const WaveletFilterPair& r, std::int64_t bandHeight) noexcept {
    return analysis_span(r, std::min(bandHeight, kAnalysisStrip)).length();
}

PrimitiveStatus WaveletAnalysisWorkSizeF32(const WaveletFilterPair* record, Size bandSize,
                                           std::int64_t* bytes) noexcept {
    if (const PrimitiveStatus s = check_pair(record, bandSize); s != kOk) return s;
    const std::int64_t rows = analysis_strip_rows(*record, bandSize.height);
    const std::int64_t columns = analysis_span(*record, bandSize.width).length();
    // Row-pass low and high results of one strip, then the even and odd halves of one row.
    return work_bytes(2 * rows * bandSize.width + 2 * (columns / 2 + 1), bytes);
}

PrimitiveStatus WaveletAnalysisF32(const float* src, int srcStep, float* approx, int approxStep, float* detailX,
                                   int detailXStep, float* detailY, int detailYStep, float* detailXY,
                                   int detailXYStep, Size bandSize, const WaveletFilterPair* record,
                                   unsigned char* work) noexcept {
    if (any_null(src, approx, detailX, detailY, detailXY, work)) return kNullPointer;
    if (const PrimitiveStatus s = check_pair(record, bandSize); s != kOk) return s;
    const WaveletFilterPair& r = *record;
    const std::int64_t W = bandSize.width;
    const std::int64_t H = bandSize.height;
    const std::int64_t strip_rows = analysis_strip_rows(r, H);
    const Span columns = analysis_span(r, W);
    float* row_low = reinterpret_cast<float*>(work);
    float* row_high = row_low + strip_rows * W;
    const std::int64_t half_length = columns.length() / 2 + 1;
    float* evens = row_high + strip_rows * W;
    float* odds = evens + half_length;
    // evens[m] is source sample 2(m + even_base), odds[m] is 2(m + odd_base) + 1.
    const std::int64_t even_base = half_down(columns.first + 1);
    const std::int64_t odd_base = half_down(columns.first);

    auto row_terms = [&](int anchor, const float** terms) {
        for (int k = 0; k < kWaveletTaps; ++k) {
            const std::int64_t offset = anchor - k;
            terms[k] = (offset & 1) == 0 ? evens + (offset / 2 - even_base) : odds + (half_down(offset) - odd_base);
        }
    };
    const float* low_terms[kWaveletTaps];
    const float* high_terms[kWaveletTaps];
    row_terms(r.low_anchor, low_terms);
    row_terms(r.high_anchor, high_terms);

    for (std::int64_t first = 0; first < H; first += kAnalysisStrip) {
        const std::int64_t last = std::min(H, first + kAnalysisStrip) - 1;
        // Source rows of this strip: those of band rows 0 .. last − first, moved down by 2 · first.
        const Span rows = analysis_span(r, last - first + 1);
        const std::int64_t top = rows.first + 2 * first;
        for (std::int64_t y = top; y <= rows.last + 2 * first; ++y) {
            const float* s = row_at(src, srcStep, y);
            for (std::int64_t x = columns.first; x <= columns.last; ++x) {
                if ((x & 1) == 0) evens[half_down(x) - even_base] = s[x];
                else odds[half_down(x) - odd_base] = s[x];
            }
            const std::int64_t at = (y - top) * W;
            WeightedSumF32(low_terms, r.low, kWaveletTaps, row_low + at, W);
            WeightedSumF32(high_terms, r.high, kWaveletTaps, row_high + at, W);
        }

        // Band row i of a column filter with anchor A weights the row-pass rows
        // 2i + A − k.
        auto column_pass = [&](const float* rowPass, const float* taps, int anchor, float* band, int bandStep) {
            const float* terms[kWaveletTaps];
            for (std::int64_t i = first; i <= last; ++i) {
                for (int k = 0; k < kWaveletTaps; ++k) terms[k] = rowPass + (2 * i + anchor - k - top) * W;
                WeightedSumF32(terms, taps, kWaveletTaps, row_at(band, bandStep, i), W);
            }
        };
        column_pass(row_low, r.low, r.low_anchor, approx, approxStep);
        column_pass(row_low, r.high, r.high_anchor, detailX, detailXStep);
        column_pass(row_high, r.low, r.low_anchor, detailY, detailYStep);
        column_pass(row_high, r.high, r.high_anchor, detailXY, detailXYStep);
    }
    return kOk;
}

// ---- Synthesis. Output sample 2m + p of a filter with anchor A reads band
// sample m + (A + p − k)/2 for the taps k of matching parity, so each output
// phase is a weighted sum of eight shifted band rows (or columns) per filter.

PrimitiveStatus WaveletSynthesisWorkSizeF32(const WaveletFilterPair* record, Size bandSize,
                                            std::int64_t* bytes) noexcept {
    if (const PrimitiveStatus s = check_pair(record, bandSize); s != kOk) return s;
    const std::int64_t columns = synthesis_span(*record, bandSize.width).length();
    // One output row's column-pass results for the row-low and row-high
    // pairs, then its even and odd samples.
    return work_bytes(2 * columns + 2 * std::int64_t{bandSize.width}, bytes);
}

PrimitiveStatus WaveletSynthesisF32(const float* approx, int approxStep, const float* detailX, int detailXStep,
                                    const float* detailY, int detailYStep, const float* detailXY, int detailXYStep,
                                    float* dst, int dstStep, Size bandSize, const WaveletFilterPair* record,
                                    unsigned char* work) noexcept {
    if (any_null(approx, detailX, detailY, detailXY, dst, work)) return kNullPointer;
    if (const PrimitiveStatus s = check_pair(record, bandSize); s != kOk) return s;
    const WaveletFilterPair& r = *record;
    const std::int64_t W = bandSize.width;
    const std::int64_t H = bandSize.height;
    const Span columns = synthesis_span(r, W);
    const std::int64_t C = columns.length();
    float* column_low = reinterpret_cast<float*>(work);  // C band columns
    float* column_high = column_low + C;
    float* evens = column_high + C;
    float* odds = evens + W;

    const Branch low_branch[2] = {branch(r.low, r.low_anchor, 0), branch(r.low, r.low_anchor, 1)};
    const Branch high_branch[2] = {branch(r.high, r.high_anchor, 0), branch(r.high, r.high_anchor, 1)};
    const float* terms[2 * kWaveletTaps];
    float weights[2 * kWaveletTaps];

    // The terms of output phase p: the low-pass branch over `low`, then the
    // high-pass branch over `high`, each shifted by its band offsets.
    auto gather = [&](int p, auto low, auto high) {
        int n = 0;
        for (int t = 0; t < low_branch[p].count; ++t, ++n) {
            terms[n] = low(low_branch[p].offsets[t]);
            weights[n] = low_branch[p].weights[t];
        }
        for (int t = 0; t < high_branch[p].count; ++t, ++n) {
            terms[n] = high(high_branch[p].offsets[t]);
            weights[n] = high_branch[p].weights[t];
        }
        return n;
    };

    // Each output row 2m + p: columns first (band rows m + offset of a pair),
    // then the row's even and odd samples, interleaved into the destination.
    for (std::int64_t y = 0; y < 2 * H; ++y) {
        const int p = static_cast<int>(y & 1);
        const std::int64_t m = y >> 1;
        auto column_pair = [&](const float* lowBand, int lowStep, const float* highBand, int highStep, float* out) {
            const int n = gather(
                p, [&](std::int64_t o) { return row_at(lowBand, lowStep, m + o) + columns.first; },
                [&](std::int64_t o) { return row_at(highBand, highStep, m + o) + columns.first; });
            WeightedSumF32(terms, weights, n, out, C);
        };
        column_pair(approx, approxStep, detailX, detailXStep, column_low);
        column_pair(detailY, detailYStep, detailXY, detailXYStep, column_high);

        const float* low_row = column_low - columns.first;
        const float* high_row = column_high - columns.first;
        for (int q = 0; q < 2; ++q) {
            const int n = gather(
                q, [&](std::int64_t o) { return low_row + o; }, [&](std::int64_t o) { return high_row + o; });
            WeightedSumF32(terms, weights, n, q == 0 ? evens : odds, W);
        }
        float* out = row_at(dst, dstStep, y);
        for (std::int64_t i = 0; i < W; ++i) {
            out[2 * i] = evens[i];
            out[2 * i + 1] = odds[i];
        }
    }
    return kOk;
}

// ---- The symlet of order 8.

const double kSymlet8Low[kWaveletTaps] = {
    -0.0033824159510061256, -0.00054213233179114812, 0.031695087811492981,  0.0076074873249176054,
    -0.14329423835080971,   -0.061273359067658524,   0.48135965125837221,   0.77718575170052351,
    0.3644418948353314,     -0.051945838107709037,   -0.027219029917056003, 0.049137179673607506,
    0.0038087520138906151,  -0.014952258337048231,   -0.0003029205147213668, 0.0018899503327594609};

void Symlet8AnalysisTaps(float low[kWaveletTaps], float high[kWaveletTaps]) noexcept {
    for (int k = 0; k < kWaveletTaps; ++k) {
        low[k] = static_cast<float>(kSymlet8Low[k]);
        const double h = kSymlet8Low[kWaveletTaps - 1 - k];
        high[k] = static_cast<float>((k % 2 == 0) ? -h : h);  // (−1)^(k+1)
    }
}

void Symlet8SynthesisTaps(float low[kWaveletTaps], float high[kWaveletTaps]) noexcept {
    float analysis_low[kWaveletTaps];
    float analysis_high[kWaveletTaps];
    Symlet8AnalysisTaps(analysis_low, analysis_high);
    for (int k = 0; k < kWaveletTaps; ++k) {
        low[k] = analysis_low[kWaveletTaps - 1 - k];
        high[k] = analysis_high[kWaveletTaps - 1 - k];
    }
}

// ---- WaveletLevel.

void WaveletLevel::release() noexcept {
    FreeBuffer(approx);
    FreeBuffer(detail_x);
    FreeBuffer(detail_y);
    FreeBuffer(detail_xy);
    approx = detail_x = detail_y = detail_xy = nullptr;
    width = height = 0;
}

bool WaveletLevel::allocate(int bandWidth, int bandHeight) noexcept {
    release();
    const std::int64_t count = std::int64_t{bandWidth} * bandHeight;
    approx = AllocF32(count);
    detail_x = AllocF32(count);
    detail_y = AllocF32(count);
    detail_xy = AllocF32(count);
    if (approx == nullptr || detail_x == nullptr || detail_y == nullptr || detail_xy == nullptr) {
        release();
        return false;
    }
    width = bandWidth;
    height = bandHeight;
    return true;
}

}  // namespace krf::prim
