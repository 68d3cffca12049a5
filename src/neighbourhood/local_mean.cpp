// The box mean ("mean2D") over an edge-replicated copy of the image, and
// "despeckle", which falls back to that mean where a sample stands out of it.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "neighbourhood/local_filters.h"
#include "neighbourhood/local_filters_simd.h"
#include "platform/memory.h"
#include "platform/platform.h"

namespace krf {
namespace {

// Column and window sums fit 32 bits while n * n * 65535 < 2^31.
constexpr std::int64_t kLargestSideFor32BitSums = 181;

// The padded rows grow with the square of the window. Beyond 2^28 samples
// (512 MiB, a window of some 14000 on a 3000-sample row) they are refused as if
// their row array could not be had: with overcommitted memory the allocation
// itself would succeed, and only filling the padding would find out, by
// getting the process killed.
constexpr std::int64_t kLargestPaddedRows = std::int64_t{1} << 28;

// Of the padded raster (the image with h replicated rows and columns on every
// side) only the n rows under the window are ever needed, and each is read
// exactly twice: when it enters the column sums and when it leaves them, n rows
// later. So the padded rows live in a ring of n rows: the row entering at step
// r takes the slot of the one leaving. A full raster would be as large as the
// image and cost more in fresh pages than the whole mean costs to compute.
struct BoxJob {
    Rows src;
    Rows ring;  // n padded rows; padded row k is in slot k mod n
    MeanRowSink* sink;
    int height;
    int width;
    int white;
    std::int64_t side;  // n, odd
    std::int64_t half;  // h = n / 2
    std::int64_t padded_width;
};

// Padded row k: image row k - h held to the image, with h copies of its first
// sample on the left and of its last sample on the right.
[[gnu::always_inline]] inline const Sample* source_of_padded_row(const BoxJob& job, std::int64_t k) {
    return job.src[std::clamp<std::int64_t>(k - job.half, 0, job.height - 1)];
}

// Column sums take in padded row `k` in the slot it will occupy.
template <class Sum>
[[gnu::always_inline]] inline void enter_first_row(const BoxJob& job, Sum* sums, std::int64_t k) {
    const Sample* source = source_of_padded_row(job, k);
    Sample* slot = job.ring[k];
    std::fill(slot, slot + job.half, source[0]);
    std::memcpy(slot + job.half, source, static_cast<std::size_t>(job.width) * sizeof(Sample));
    std::fill(slot + job.half + job.width, slot + job.padded_width, source[job.width - 1]);
    for (std::int64_t j = 0; j < job.padded_width; ++j) sums[j + 1] += slot[j];
}

// Padded row k + n enters where padded row k leaves: one pass that updates
// the column sums and the slot together, span by span (left padding, image
// row, right padding).
template <class Sum>
[[gnu::always_inline]] inline void replace_span(Sum* sums, Sample* slot, std::int64_t count, const Sample* entering) {
    for (std::int64_t j = 0; j < count; ++j) {
        sums[j] += static_cast<Sum>(entering[j]) - static_cast<Sum>(slot[j]);
        slot[j] = entering[j];
    }
}

template <class Sum>
[[gnu::always_inline]] inline void replace_padding(Sum* sums, Sample* slot, std::int64_t count, Sample entering) {
    for (std::int64_t j = 0; j < count; ++j) {
        sums[j] += static_cast<Sum>(entering) - static_cast<Sum>(slot[j]);
        slot[j] = entering;
    }
}

template <class Sum>
[[gnu::always_inline]] inline void slide_down(const BoxJob& job, Sum* sums, std::int64_t k) {
    const Sample* source = source_of_padded_row(job, k + job.side);
    Sample* slot = job.ring[k % job.side];
    const std::int64_t h = job.half;
    // sums + 1: entry j + 1 belongs to padded column j.
    replace_padding(sums + 1, slot, h, source[0]);
    replace_span(sums + 1 + h, slot + h, job.width, source);
    replace_padding(sums + 1 + h + job.width, slot + h + job.width, h, source[job.width - 1]);
}

// Writes one output row from the column sums (entry 0 is 0, entry j + 1 the
// sum of padded column j over the current n rows).
template <class Sum>
using WindowRow = void (*)(const Sum* sums, Sample* out, int width, std::int64_t side, int white);

// The plain statement: a running sum that starts one column left of the first
// window and slides by one column, divided by n * n in doubles.
template <class Sum>
void window_row_portable(const Sum* sums, Sample* out, int width, std::int64_t side, int white) {
    const double area = static_cast<double>(side * side);
    Sum running = 0;
    for (std::int64_t k = 0; k < side; ++k) running += sums[k];
    for (int c = 0; c < width; ++c) {
        running += sums[c + side] - sums[c];
        const auto mean = static_cast<std::int64_t>(static_cast<double>(running) / area);
        out[c] = static_cast<Sample>(std::min<std::int64_t>(mean, white));
    }
}

#if KRF_X86
// Eight windows at a time: the entering-minus-leaving differences become
// running sums through a prefix sum inside the register, carried from group to
// group (wrapping 32-bit adds; every final sum fits). The quotient S / (n * n)
// is first estimated in single precision, which is off by less than 0.02
// (a mean is at most 65535 and three roundings of 2^-24 each bound the
// error), so its truncation is within one of the exact integer quotient; one
// integer correction step then gives that quotient exactly. It is also what
// the division in doubles truncates to: with S < 2^31 and n * n < 2^15,
// S / (n * n) never lies within rounding distance below the next integer.
KRF_TARGET_AVX2 void window_row_avx2(const std::int32_t* sums, Sample* out, int width, std::int64_t side, int white) {
    std::int32_t start = 0;
    for (std::int64_t k = 0; k < side; ++k) start += sums[k];
    const __m256i zero = _mm256_setzero_si256();
    const __m256i last_lane = _mm256_set1_epi32(7);
    const __m256i area = _mm256_set1_epi32(static_cast<int>(side * side));
    const __m256i area_less_one = _mm256_set1_epi32(static_cast<int>(side * side) - 1);
    const __m256i white_level = _mm256_set1_epi32(white);
    const __m256 reciprocal = _mm256_set1_ps(1.0f / static_cast<float>(side * side));
    __m256i carry = _mm256_set1_epi32(start);
    int c = 0;
    for (; c + 8 <= width; c += 8) {
        __m256i s = _mm256_sub_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(sums + c + side)),
                                     _mm256_loadu_si256(reinterpret_cast<const __m256i*>(sums + c)));
        s = _mm256_add_epi32(s, _mm256_slli_si256(s, 4));
        s = _mm256_add_epi32(s, _mm256_slli_si256(s, 8));
        const __m256i low_total = _mm256_shuffle_epi32(s, 0xFF);
        s = _mm256_add_epi32(s, _mm256_permute2x128_si256(low_total, low_total, 0x08));
        s = _mm256_add_epi32(s, carry);
        carry = _mm256_permutevar8x32_epi32(s, last_lane);
        __m256i quotient = _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_cvtepi32_ps(s), reciprocal));
        const __m256i rest = _mm256_sub_epi32(s, _mm256_mullo_epi32(quotient, area));
        // Comparison masks are -1 where true: subtracting one adds 1.
        quotient = _mm256_sub_epi32(quotient, _mm256_cmpgt_epi32(rest, area_less_one));
        quotient = _mm256_add_epi32(quotient, _mm256_cmpgt_epi32(zero, rest));
        simd::store8(out + c, simd::narrow8(_mm256_min_epi32(quotient, white_level)));
    }
    std::int32_t running = _mm256_cvtsi256_si32(carry);
    const double area_d = static_cast<double>(side * side);
    for (; c < width; ++c) {
        running += sums[c + side] - sums[c];
        const auto mean = static_cast<std::int64_t>(static_cast<double>(running) / area_d);
        out[c] = static_cast<Sample>(std::min<std::int64_t>(mean, white));
    }
}
#endif

template <class Sum>
[[gnu::always_inline]] inline void run_box_mean(const BoxJob& job, Sum* sums, WindowRow<Sum> window_row) {
    for (std::int64_t k = 0; k < job.side; ++k) enter_first_row(job, sums, k);
    for (int r = 0; r < job.height; ++r) {
        window_row(sums, job.sink->row(r), job.width, job.side, job.white);
        job.sink->done(r);
        if (r + 1 < job.height) slide_down(job, sums, r);
    }
}

void box_mean_portable(const BoxJob& job, std::int32_t* sums) {
    run_box_mean(job, sums, window_row_portable<std::int32_t>);
}

// Windows above 181 would overflow 32-bit sums; they take 64-bit ones, which
// are exact for every window the padded-row limit admits.
void box_mean_wide(const BoxJob& job, std::int64_t* sums) {
    run_box_mean(job, sums, window_row_portable<std::int64_t>);
}

#if KRF_X86
KRF_TARGET_AVX2 void box_mean_avx2(const BoxJob& job, std::int32_t* sums) { run_box_mean(job, sums, window_row_avx2); }
#endif

// mean2D's sink: the means are the output.
class OutputRows final : public MeanRowSink {
public:
    explicit OutputRows(Rows dst) : dst_(dst) {}
    Sample* row(int r) noexcept override { return dst_[r]; }
    void done(int) noexcept override {}

private:
    Rows dst_;
};

// despeckle's sink: the mean only where the sample stands out of it.
class SpeckleRows final : public MeanRowSink {
public:
    SpeckleRows(Rows src, Rows dst, Sample* mean, int width, int limit)
        : src_(src), dst_(dst), mean_(mean), width_(width), limit_(limit) {}
    Sample* row(int) noexcept override { return mean_; }
    void done(int r) noexcept override {
        const Sample* in = src_[r];
        Sample* out = dst_[r];
        for (int c = 0; c < width_; ++c) {
            const int difference = static_cast<int>(in[c]) - static_cast<int>(mean_[c]);
            out[c] = std::abs(difference) > limit_ ? mean_[c] : in[c];
        }
    }

private:
    Rows src_;
    Rows dst_;
    Sample* mean_;
    int width_;
    int limit_;
};

}  // namespace

int box_mean_rows(Rows src, int height, int width, int white, int side, MeanRowSink& sink,
                  KernelPath path) noexcept {
    // An empty image has no sample to replicate into the padding, and nothing to write.
    if (height < 1 || width < 1) return 0;
    // Sides below 1 have nothing to average over; like 0 they mean a 1 x 1 window.
    std::int64_t n = side < 1 ? 1 : side;
    if (n % 2 == 0) ++n;
    const std::int64_t padded_width = width + n - 1;
    if (padded_width > INT_MAX || n * padded_width > kLargestPaddedRows) return kNoRowArray;

    Raster ring;
    if (const int code = ring.allocate(static_cast<int>(n), static_cast<int>(padded_width))) return code;
    const BoxJob job{src, ring.rows(), &sink, height, width, white, n, n / 2, padded_width};

    if (n > kLargestSideFor32BitSums) {
        ScratchArray<std::int64_t> sums;
        if (!sums.allocate(width + n)) return kNoBuffer;
        box_mean_wide(job, sums.get());
        return 0;
    }
    ScratchArray<std::int32_t> sums;
    if (!sums.allocate(width + n)) return kNoBuffer;
#if KRF_X86
    if (path == KernelPath::fastest && platform::cpu_features().avx2) {
        box_mean_avx2(job, sums.get());
        return 0;
    }
#endif
    (void)path;
    box_mean_portable(job, sums.get());
    return 0;
}

int box_mean(Rows src, Rows dst, int height, int width, int white, int side, KernelPath path) noexcept {
    OutputRows sink(dst);
    return box_mean_rows(src, height, width, white, side, sink, path);
}

int despeckle(Rows src, Rows dst, int height, int width, int white, int side, int threshold,
              KernelPath path) noexcept {
    // The magnitude of INT_MIN has no int, so the threshold is taken in 64 bits.
    const auto limit = static_cast<int>(std::min<std::int64_t>(std::llabs(threshold), white));
    // One row of means at a time is all the comparison needs.
    ScratchArray<Sample> mean;
    if (!mean.allocate(std::max(width, 0))) return kNoBuffer;
    SpeckleRows sink(src, dst, mean.get(), width, limit);
    return box_mean_rows(src, height, width, white, side, sink, path);
}

}  // namespace krf
