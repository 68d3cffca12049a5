// The table applier and the histogram counter: the two loops that every point
// operation of the family runs over the whole raster.
#include <algorithm>
#include <cstring>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "tone/tone.h"

namespace krf::tone {

// The reference kernel, and the one used where no vector kernel exists. The
// loads of the table are the cost; clamping a block of samples first keeps
// the lookups of the block independent of each other.
void apply_table_row_portable(const Sample* src, Sample* dst, std::int64_t width, Sample white,
                              const Sample* table) noexcept {
    constexpr int kBlock = 16;
    std::int64_t c = 0;
    for (; c + kBlock <= width; c += kBlock) {
        Sample level[kBlock];
        for (int k = 0; k < kBlock; ++k) level[k] = std::min(src[c + k], white);
        for (int k = 0; k < kBlock; ++k) dst[c + k] = table[level[k]];
    }
    for (; c < width; ++c) dst[c] = table[std::min(src[c], white)];
}

#if defined(__SSE2__)
namespace {

// Eight lookups whose indices come straight out of a vector register
// (pextrw): no round trip of the clamped levels through memory.
template <std::size_t... Lane>
inline void look_up_lanes(__m128i levels, Sample* dst, const Sample* table, std::index_sequence<Lane...>) {
    ((dst[Lane] = table[_mm_extract_epi16(levels, Lane)]), ...);
}

// min(v, white) for unsigned 16-bit lanes with SSE2 alone: v - max(v - white, 0).
inline __m128i clamp_lanes(__m128i v, __m128i white) { return _mm_sub_epi16(v, _mm_subs_epu16(v, white)); }

// The table loads cannot be vectorised with profit (gathers are slower than
// scalar loads on the processors this runs on), so the vector unit only
// clamps and hands out indices; the loop is bound by one table load and one
// store per sample. SSE2 is part of every x86-64, so no run-time check is
// needed; wider vectors would only widen the clamp, which is not the cost.
void apply_table_row_sse2(const Sample* src, Sample* dst, std::int64_t width, Sample white,
                          const Sample* table) noexcept {
    const __m128i cap = _mm_set1_epi16(static_cast<short>(white));
    constexpr auto lanes = std::make_index_sequence<8>{};
    std::int64_t c = 0;
    for (; c + 16 <= width; c += 16) {
        // Both blocks are read before either is written, so in-place use stays exact.
        const __m128i first = clamp_lanes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + c)), cap);
        const __m128i second = clamp_lanes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + c + 8)), cap);
        look_up_lanes(first, dst + c, table, lanes);
        look_up_lanes(second, dst + c + 8, table, lanes);
    }
    apply_table_row_portable(src + c, dst + c, width - c, white, table);
}

}  // namespace

TableRowKernel active_table_row_kernel() noexcept { return apply_table_row_sse2; }
#else
TableRowKernel active_table_row_kernel() noexcept { return apply_table_row_portable; }
#endif

int apply_table(Rows src, Rows dst, int height, int width, int white, const Sample* table) noexcept {
    // The table ends at `white`; a white level beyond the sample range clamps nothing.
    const Sample cap = static_cast<Sample>(std::clamp(white, 0, 0xFFFF));
    const TableRowKernel kernel = active_table_row_kernel();
    for (int r = 0; r < height; ++r) kernel(src[r], dst[r], width, cap, table);
    return 0;
}

int count_histogram(Rows rows, int height, int width, int white, Count* hist) noexcept {
    return count_histogram_region(rows, 0, height, 0, width, white, hist);
}

int count_histogram_region(Rows rows, int first_row, int row_count, int first_col, int col_count, int white,
                           Count* hist) noexcept {
    if (white < 0) return 0;
    std::memset(hist, 0, (static_cast<std::size_t>(white) + 1) * sizeof(Count));
    return add_to_histogram(rows, first_row, row_count, first_col, col_count, white, hist);
}

int add_to_histogram(Rows rows, int first_row, int row_count, int first_col, int col_count, int white,
                     Count* hist) noexcept {
    if (white < 0) return 0;
    const std::size_t levels = static_cast<std::size_t>(white) + 1;
    const Sample cap = static_cast<Sample>(std::min(white, 0xFFFF));
    // Counting through the unsigned view of the same counters: a raster of
    // 2^31 equal samples wraps the counter instead of overflowing it.
    auto* counters = reinterpret_cast<std::uint32_t*>(hist);
    const std::int64_t row_end = std::int64_t{first_row} + std::max(row_count, 0);
    // Neighbouring samples of a radiograph are close in value, so one
    // increment often waits for the previous one to the same cache line.
    // Odd columns count into a second, small set of counters on the stack
    // (12-bit images and below), which halves those waits; the two sets are
    // added at the end, wrapping alike.
    constexpr std::size_t kSplitLevels = 4096;
    if (levels <= kSplitLevels) {
        std::uint32_t odd[kSplitLevels];
        std::memset(odd, 0, levels * sizeof(std::uint32_t));
        for (std::int64_t r = first_row; r < row_end; ++r) {
            const Sample* row = rows[r] + first_col;
            int c = 0;
            for (; c + 2 <= col_count; c += 2) {
                ++counters[std::min(row[c], cap)];
                ++odd[std::min(row[c + 1], cap)];
            }
            if (c < col_count) ++counters[std::min(row[c], cap)];
        }
        for (std::size_t i = 0; i < levels; ++i) counters[i] += odd[i];
        return 0;
    }
    for (std::int64_t r = first_row; r < row_end; ++r) {
        const Sample* row = rows[r] + first_col;
        for (int c = 0; c < col_count; ++c) ++counters[std::min(row[c], cap)];
    }
    return 0;
}

}  // namespace krf::tone
