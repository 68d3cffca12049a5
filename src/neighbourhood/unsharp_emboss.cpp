// Two sharpening filters: the unsharp mask against the box mean, through two
// per-level tables, and the 3 x 3 emboss relief.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "neighbourhood/local_filters.h"
#include "neighbourhood/local_filters_simd.h"
#include "platform/memory.h"
#include "platform/platform.h"

namespace krf {
namespace {

template <class Acc>
[[gnu::always_inline]] inline void emboss_row(const Sample* up, const Sample* mid, const Sample* down, Sample* out,
                                              int width, Acc k, Acc h, Acc white) {
    for (int c = 1; c + 1 < width; ++c) {
        const Acc value = -k * up[c - 1] - h * up[c] - h * mid[c - 1] + mid[c] + h * mid[c + 1] + h * down[c] +
                          k * down[c + 1];
        out[c] = static_cast<Sample>(std::clamp<Acc>(value, 0, white));
    }
}

// The kernel sums in 32 bits whenever no tap product can overflow them
// (hardness up to about 8000); larger hardness sums in 64 bits, which gives the
// value the 32-bit sum would have had without overflow.
[[gnu::always_inline]] inline void emboss_row_any(const Sample* up, const Sample* mid, const Sample* down,
                                                  Sample* out, int width, std::int64_t k, std::int64_t h, int white) {
    if ((2 * std::llabs(k) + 4 * std::llabs(h) + 1) * 65535 < (std::int64_t{1} << 31))
        emboss_row<std::int32_t>(up, mid, down, out, width, static_cast<std::int32_t>(k), static_cast<std::int32_t>(h),
                                 white);
    else
        emboss_row<std::int64_t>(up, mid, down, out, width, k, h, white);
}

using EmbossRow = void (*)(const Sample* up, const Sample* mid, const Sample* down, Sample* out, int width,
                           std::int64_t k, std::int64_t h, int white);

void emboss_row_portable(const Sample* up, const Sample* mid, const Sample* down, Sample* out, int width,
                         std::int64_t k, std::int64_t h, int white) {
    emboss_row_any(up, mid, down, out, width, k, h, white);
}

#if KRF_X86
// The same loop, vectorised by the compiler for AVX2 (eight 32-bit products
// per instruction instead of emulated ones).
KRF_TARGET_AVX2 void emboss_row_avx2(const Sample* up, const Sample* mid, const Sample* down, Sample* out, int width,
                              std::int64_t k, std::int64_t h, int white) {
    emboss_row_any(up, mid, down, out, width, k, h, white);
}
#endif

// Lo[i] = trunc(i * k) and Hi[i] = trunc(i + i * k), 64-bit.
struct SharpeningTables {
    const std::int64_t* low;
    const std::int64_t* high;
    double k;
    int white;
};

// One output row from an image row and its mean row.
using SharpenRow = void (*)(const Sample* in, const Sample* mean, Sample* out, int first, int last,
                            const SharpeningTables& tables);

[[gnu::always_inline]] inline void sharpen_row_plain(const Sample* in, const Sample* mean, Sample* out, int first,
                                                     int last, const SharpeningTables& tables) {
    for (int c = first; c < last; ++c) {
        // Levels above white would index past Hi; they count as white. The
        // mean is already held to white by the box mean.
        const int level = std::min<int>(in[c], tables.white);
        const std::int64_t value = tables.high[level] - tables.low[mean[c]];
        out[c] = static_cast<Sample>(std::clamp<std::int64_t>(value, 0, tables.white));
    }
}

void sharpen_row_portable(const Sample* in, const Sample* mean, Sample* out, int first, int last,
                          const SharpeningTables& tables) {
    sharpen_row_plain(in, mean, out, first, last, tables);
}

#if KRF_X86
// Eight levels' table entries computed again, lane by lane, with the very
// operations that filled the tables (same doubles, same truncation): on
// vectors that is cheaper than two lookups per sample. Used only while every
// entry and every difference fits 32 bits.
KRF_AVX2_INLINE __m128i sharpened4(__m128i level, __m128i mean, __m256d k) {
    const __m256d level_d = _mm256_cvtepi32_pd(level);
    const __m128i high = _mm256_cvttpd_epi32(_mm256_add_pd(level_d, _mm256_mul_pd(level_d, k)));
    const __m128i low = _mm256_cvttpd_epi32(_mm256_mul_pd(_mm256_cvtepi32_pd(mean), k));
    return _mm_sub_epi32(high, low);
}

KRF_TARGET_AVX2 void sharpen_row_avx2(const Sample* in, const Sample* mean, Sample* out, int first, int last,
                               const SharpeningTables& tables) {
    using namespace simd;
    const __m128i white16 = _mm_set1_epi16(static_cast<short>(tables.white));
    const __m256i white32 = _mm256_set1_epi32(tables.white);
    const __m256d k = _mm256_set1_pd(tables.k);
    int c = first;
    for (; c + 8 <= last; c += 8) {
        const __m256i level = _mm256_cvtepu16_epi32(_mm_min_epu16(load8(in + c), white16));
        const __m256i m = widen8(mean + c);
        const __m256i value =
            join(sharpened4(low_half(level), low_half(m), k), sharpened4(high_half(level), high_half(m), k));
        const __m256i clamped = _mm256_min_epi32(_mm256_max_epi32(value, _mm256_setzero_si256()), white32);
        store8(out + c, narrow8(clamped));
    }
    sharpen_row_plain(in, mean, out, c, last, tables);
}
#endif

// The sharpened rows, from each mean row and the image row under it.
class SharpenedRows final : public MeanRowSink {
public:
    SharpenedRows(Rows src, Rows dst, Sample* mean, int width, const SharpeningTables& tables, SharpenRow sharpen)
        : src_(src), dst_(dst), mean_(mean), width_(width), tables_(tables), sharpen_(sharpen) {}
    Sample* row(int) noexcept override { return mean_; }
    void done(int r) noexcept override { sharpen_(src_[r], mean_, dst_[r], 0, width_, tables_); }

private:
    Rows src_;
    Rows dst_;
    Sample* mean_;
    int width_;
    SharpeningTables tables_;
    SharpenRow sharpen_;
};

}  // namespace

int unsharp_mask(Rows src, Rows dst, int height, int width, int white, int radius, double intensity,
                 KernelPath path) noexcept {
    // The sharpening needs one row of means at a time, not a raster of them.
    ScratchArray<Sample> mean;
    if (!mean.allocate(std::max(width, 0))) return kNoBuffer;
    ScratchArray<std::int64_t> low;
    ScratchArray<std::int64_t> high;
    if (!low.allocate(std::int64_t{white} + 1) || !high.allocate(std::int64_t{white} + 1)) return kNoBuffer;

    // The tables hold 64-bit entries rather than 32-bit ones, and the
    // intensity is held to +-2^61 / white so that every entry, and the
    // difference of any two, fits them: intensities up to about 3 * 10^13 keep
    // their exact arithmetic, and beyond that the sign of (sample - mean)
    // still decides between 0 and white. An intensity that is not a number
    // sharpens nothing (the output is the input).
    const double largest = 2305843009213693952.0 / std::max(white, 1);  // 2^61 / white
    const double k = std::isnan(intensity) ? 0.0 : std::clamp(intensity, -largest, largest);
    for (int i = 0; i <= white; ++i) {
        const double level = i;
        low[i] = static_cast<std::int64_t>(level * k);
        high[i] = static_cast<std::int64_t>(level + level * k);
    }
    const SharpeningTables tables{low.get(), high.get(), k, white};
    SharpenRow sharpen = sharpen_row_portable;
#if KRF_X86
    // Entries up to 2^30 in magnitude keep the lanes' 32-bit differences exact.
    const bool fits_32_bits = std::fabs(k) * white + white < 1073741824.0;
    if (path == KernelPath::fastest && platform::cpu_features().avx2 && fits_32_bits) sharpen = sharpen_row_avx2;
#endif
    SharpenedRows sink(src, dst, mean.get(), width, tables, sharpen);
    return box_mean_rows(src, height, width, white, radius, sink, path);
}

int emboss(Rows src, Rows dst, int height, int width, int white, int hardness, KernelPath path) noexcept {
    // An empty image has nothing to write.
    if (height < 1 || width < 1) return 0;
    const std::int64_t k = hardness == 0 ? 7 : hardness;
    const auto h = static_cast<std::int64_t>(static_cast<double>(k) * 0.5);
    // Relief row r can go to the output once row r + 1 is computed: no later
    // row reads image row r any more. So two relief rows in turn suffice (and
    // an in-place call still reads only unwritten rows); a zero-filled raster
    // of the whole image would cost more in fresh pages than the kernel.
    Raster relief;
    if (const int code = relief.allocate(2, width)) return code;

    EmbossRow relief_row = emboss_row_portable;
#if KRF_X86
    if (path == KernelPath::fastest && platform::cpu_features().avx2) relief_row = emboss_row_avx2;
#endif
    (void)path;
    // The first and last rows and columns of the output are 0: the relief rows
    // are zero-filled and their first and last samples are never computed.
    const auto write_out = [&](int r) {
        if (r == 0 || r == height - 1)
            std::fill(dst[r], dst[r] + width, Sample{0});
        else
            std::copy(relief[r % 2], relief[r % 2] + width, dst[r]);
    };
    for (int r = 1; r + 1 < height; ++r) {
        relief_row(src[r - 1], src[r], src[r + 1], relief[r % 2], width, k, h, white);
        write_out(r - 1);
    }
    for (int r = std::max(height - 2, 0); r < height; ++r) write_out(r);
    return 0;
}

}  // namespace krf
