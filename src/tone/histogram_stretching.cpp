// "equalize" and "ShannonStretching": tone curves taken from the image's own
// histogram. Ratios of counts are real divisions; pixel counts are 32-bit
// products (pixel_count_32).
#include <algorithm>
#include <cmath>
#include <cstring>

#include "tone/tone.h"

namespace krf::tone {

int equalize(Rows src, Rows dst, int height, int width, int white) noexcept {
    // Released when the handler returns; nothing in the output depends on when.
    ScratchArray<Count> hist;
    ScratchArray<double> cdf;
    return run_table(src, dst, height, width, white, [&](Sample* table) {
        const std::int64_t levels = std::int64_t{white} + 1;
        if (!hist.allocate(levels) || !cdf.allocate(levels)) return kNoBuffer;
        count_histogram(src, height, width, white, hist.get());
        // The running sum wraps like the 32-bit counters it is kept in.
        auto* running = reinterpret_cast<std::uint32_t*>(hist.get());
        for (int i = 1; i <= white; ++i) running[i] += running[i - 1];
        const double pixels = pixel_count_32(height, width);
        double lowest = 2.0;
        for (int i = 0; i <= white; ++i) {
            cdf[i] = hist[i] / pixels;
            if (cdf[i] < lowest) lowest = cdf[i];
        }
        // A single occupied level 0 makes this 0 / 0 everywhere: NaN, stored as 0.
        for (int i = 0; i <= white; ++i) table[i] = to_table_entry((cdf[i] - lowest) / (1.0 - lowest) * white + 0.5);
        return 0;
    });
}

namespace {

// The region inside the borders: rows [first_row, first_row + rows), columns
// [first_col, first_col + cols). Borders that meet or cross leave it empty.
struct Region {
    int first_row, rows, first_col, cols;
};

Region region_inside(int height, int width, Borders b) {
    // A negative border would reach outside the image; it counts as no border.
    const int up = std::max(b.up, 0), down = std::max(b.down, 0);
    const int left = std::max(b.left, 0), right = std::max(b.right, 0);
    const int row_end = down < height ? height - down : 0;
    const int col_end = right < width ? width - right : 0;
    return {up, up < row_end ? row_end - up : 0, left, left < col_end ? col_end - left : 0};
}

// p ln p of every count up to this bound is remembered: a 16-bit histogram
// has tens of thousands of occupied levels but, on noisy or flat data, only a
// few hundred distinct counts, and each logarithm costs far more than the
// look-up. Larger counts are rare enough to compute every time.
constexpr Count kRememberedCounts = 4096;

}  // namespace

int shannon_cuts(Rows src, int height, int width, int white, Borders borders, double low_th, double high_th,
                 LevelCuts* cuts, Count* whole) noexcept {
    if (white < 0) return kNoBuffer;
    const std::int64_t levels = std::int64_t{white} + 1;
    ScratchArray<Count> hist;
    ScratchArray<double> acc;
    if (!hist.allocate(levels) || !acc.allocate(levels)) return kNoBuffer;
    // Counted where it lies: a copy of the region would give the same counts.
    const Region region = region_inside(height, width, borders);
    count_histogram_region(src, region.first_row, region.rows, region.first_col, region.cols, white, hist.get());
    if (whole != nullptr) {
        // The rest of the image around the region (bands above and below it,
        // and beside it in its rows), then the region's own counts.
        const int top = std::clamp(region.first_row, 0, std::max(height, 0));
        const int bottom = std::clamp(region.first_row + region.rows, top, std::max(height, 0));
        const int left = std::clamp(region.first_col, 0, std::max(width, 0));
        const int right = std::clamp(region.first_col + region.cols, left, std::max(width, 0));
        count_histogram_region(src, 0, top, 0, width, white, whole);
        add_to_histogram(src, top, bottom - top, 0, left, white, whole);
        add_to_histogram(src, top, bottom - top, right, width - right, white, whole);
        add_to_histogram(src, bottom, height - bottom, 0, width, white, whole);
        auto* sum = reinterpret_cast<std::uint32_t*>(whole);
        const auto* inside = reinterpret_cast<const std::uint32_t*>(hist.get());
        for (std::int64_t i = 0; i < levels; ++i) sum[i] += inside[i];
    }

    // Accumulated in ascending level order; the total is that same sum,
    // so the last share is exactly 1. An empty region makes every p NaN,
    // every term 0 and every share NaN: neither search below moves.
    const double pixels = pixel_count_32(region.cols, region.rows);
    // 0 marks a term not yet known; a term that really is 0 (p = 1) is
    // simply computed again, with the same result.
    double remembered[kRememberedCounts] = {};
    double total = 0.0;
    for (int i = 0; i <= white; ++i) {
        const Count count = hist[i];
        double term;
        if (count > 0 && count < kRememberedCounts && remembered[count] != 0.0) {
            term = remembered[count];
        } else {
            const double p = count / pixels;
            term = p > 0 ? p * std::log(p) : 0.0;
            if (count > 0 && count < kRememberedCounts) remembered[count] = term;
        }
        total += term;
        acc[i] = total;
    }
    for (int i = 0; i <= white; ++i) acc[i] /= total;

    // Both searches stop at the end of the range: a low_th of 1 or more
    // cuts at the last level and a high_th of 0 or less at level 0, where
    // an unbounded search would walk off the array.
    int lo = 0, hi = white;
    while (lo < white && acc[lo] <= low_th) ++lo;
    while (hi > 0 && acc[hi] >= high_th) --hi;
    *cuts = {lo, hi};
    return 0;
}

int shannon_stretching(Rows src, Rows dst, int height, int width, int white, Borders borders, double low_th,
                       double high_th) noexcept {
    LevelCuts cuts{};
    if (const int code = shannon_cuts(src, height, width, white, borders, low_th, high_th, &cuts)) return code;
    const double w = white;
    return ll_ul_window(src, dst, height, width, white, cuts.lo / w, cuts.hi / w);
}

}  // namespace krf::tone
