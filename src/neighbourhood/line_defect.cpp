// "supereq" and "supereq_pre": one detector line whose gain drifted is
// measured against the lines beside it and rescaled, tile by tile, so that a
// gain that varies along the line (a line read out by several amplifiers,
// say) is followed as well as a constant one.
#include "neighbourhood/line_defect.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "platform/memory.h"

namespace krf {
namespace {

// A half-open range [first, last) of rows or columns; 64-bit so that offsets
// near INT_MAX plus extents near INT_MAX cannot wrap.
struct Span {
    std::int64_t first = 0;
    std::int64_t last = 0;
    std::int64_t size() const { return last > first ? last - first : 0; }
    bool empty() const { return last <= first; }
};

Span span(std::int64_t first, std::int64_t last) { return {first, std::max(first, last)}; }

// [offset, offset + extent) held to [0, size); an extent of 0 or less reaches
// the far edge, so that zeros everywhere select the whole image.
Span clip(int offset, int extent, int size) {
    const std::int64_t first = std::max<std::int64_t>(0, offset);
    const std::int64_t last = extent <= 0 ? size : std::min<std::int64_t>(size, std::int64_t{offset} + extent);
    return span(first, last);
}

struct ReferenceRows {
    Span above;
    Span below;
};

ReferenceRows reference_rows(std::int64_t line, int prev_lines, int post_lines, bool enable_post, Span rows) {
    const std::int64_t above_count = prev_lines > 0 ? prev_lines : kDefaultReferenceLines;
    const std::int64_t below_count = post_lines > 0 ? post_lines : kDefaultReferenceLines;
    auto below = [&](std::int64_t count) {
        return span(std::max(rows.first, line + 1), std::min(rows.last, line + 1 + count));
    };
    ReferenceRows ref;
    ref.above = span(std::max(rows.first, line - above_count), std::min(rows.last, line));
    if (enable_post) ref.below = below(below_count);
    // The first row of a detector (or of the region) has nothing above it.
    // Refusing would leave the host without a way to correct it, so the rows
    // below stand in, as many as were asked for above.
    if (ref.above.empty() && !enable_post) ref.below = below(above_count);
    return ref;
}

// The level a block of samples stands at: its mean, or (percentile 1 ... 100)
// the percentile of its samples. Samples count at most white, as everywhere
// else a level is read.
class BlockLevel {
public:
    BlockLevel(Sample top, int percentile, Sample* scratch) : top_(top), percentile_(percentile), scratch_(scratch) {}

    double operator()(Rows rows, Span r, Span c) const {
        if (percentile_ == 0) {
            std::int64_t sum = 0;
            for (std::int64_t y = r.first; y < r.last; ++y)
                for (std::int64_t x = c.first; x < c.last; ++x) sum += std::min(rows[y][x], top_);
            return static_cast<double>(sum) / static_cast<double>(r.size() * c.size());
        }
        std::int64_t n = 0;
        for (std::int64_t y = r.first; y < r.last; ++y)
            for (std::int64_t x = c.first; x < c.last; ++x) scratch_[n++] = std::min(rows[y][x], top_);
        // Position percentile / 100 × (n − 1) in the sorted block, between
        // ranks interpolated: on an even count the median is then the middle
        // of the two central samples, not the lower one, which would bias the
        // two sides of the line in opposite directions on a gradient.
        const std::int64_t scaled = percentile_ * (n - 1);
        const std::int64_t rank = scaled / 100;
        std::nth_element(scratch_, scratch_ + rank, scratch_ + n);
        const double low = scratch_[rank];
        if (scaled % 100 == 0) return low;
        const double high = *std::min_element(scratch_ + rank + 1, scratch_ + n);
        return low + (high - low) * static_cast<double>(scaled % 100) / 100.0;
    }

private:
    Sample top_;
    std::int64_t percentile_;
    Sample* scratch_;
};

double tile_gain(double line_level, double reference_level, double max_factor) {
    // A tile that reads black on the line says nothing about its gain.
    if (!(line_level > 0.0)) return 1.0;
    const double gain = reference_level / line_level;
    // A bound of 1 would forbid every correction; only a factor above 1 is
    // taken as a bound (NaN compares false and leaves the gain free).
    return max_factor > 1.0 ? std::clamp(gain, 1.0 / max_factor, max_factor) : gain;
}

void copy_row(Rows src, Rows dst, std::int64_t r, int width) {
    if (src[r] != dst[r]) std::memcpy(dst[r], src[r], static_cast<std::size_t>(width) * sizeof(Sample));
}

void copy_image(Rows src, Rows dst, int height, int width) {
    if (width < 1) return;
    for (int r = 0; r < height; ++r) copy_row(src, dst, r, width);
}

}  // namespace

int line_defect_correction(Rows src, Rows dst, int height, int width, int white, int defect_line, int prev_lines,
                           int post_lines, int tile_size, int enable_post, int pre_mode, int roi_width,
                           int roi_height, int roi_offset_v, int roi_offset_h, int percentile,
                           double max_correction_factor) noexcept {
    if (height < 1 || width < 1 || defect_line < 0 || defect_line >= height) {
        copy_image(src, dst, height, width);
        return kDefectLineOutsideImage;
    }
    const bool pre = pre_mode != 0;
    const Span rows = pre ? clip(roi_offset_v, roi_height, height) : Span{0, height};
    const Span columns = pre ? clip(roi_offset_h, roi_width, width) : Span{0, width};
    const ReferenceRows ref = reference_rows(defect_line, prev_lines, post_lines, enable_post != 0, rows);
    if (columns.empty() || (ref.above.empty() && ref.below.empty())) {
        copy_image(src, dst, height, width);
        return kNoReferenceLines;
    }

    const std::int64_t tile = tile_size > 0 ? std::min<std::int64_t>(tile_size, columns.size()) : columns.size();
    const std::int64_t tiles = (columns.size() + tile - 1) / tile;
    // The median is the level a bright object has to cover half a tile to move.
    const int rank_percentile = !pre ? 0 : percentile <= 0 ? 50 : std::min(percentile, 100);
    ScratchArray<double> gains;
    ScratchArray<Sample> scratch;
    if (!gains.allocate(tiles)) return kNoBuffer;
    if (rank_percentile > 0 &&
        !scratch.allocate(tile * std::max({ref.above.size(), ref.below.size(), std::int64_t{1}}))) {
        return kNoBuffer;
    }

    const Sample top = static_cast<Sample>(std::clamp(white, 0, 65535));
    const BlockLevel level(top, rank_percentile, scratch.get());
    const Span line = span(defect_line, std::int64_t{defect_line} + 1);
    for (std::int64_t t = 0; t < tiles; ++t) {
        const Span c = span(columns.first + t * tile, std::min(columns.last, columns.first + (t + 1) * tile));
        // Both sides weigh alike whatever their row counts, so the reference
        // interpolates across the line instead of leaning to the longer side.
        double reference = 0.0;
        if (ref.above.empty()) {
            reference = level(src, ref.below, c);
        } else if (ref.below.empty()) {
            reference = level(src, ref.above, c);
        } else {
            reference = (level(src, ref.above, c) + level(src, ref.below, c)) / 2.0;
        }
        gains[t] = tile_gain(level(src, line, c), reference, max_correction_factor);
    }

    for (int r = 0; r < height; ++r)
        if (r != defect_line) copy_row(src, dst, r, width);
    const Sample* in = src[defect_line];
    Sample* out = dst[defect_line];
    for (std::int64_t c = 0; c < width; ++c) {
        // Columns outside the region keep the gain of the tile nearest to them.
        const std::int64_t t = c < columns.first ? 0 : std::min(tiles - 1, (c - columns.first) / tile);
        const double corrected = static_cast<double>(std::min(in[c], top)) * gains[t] + 0.5;
        out[c] = corrected >= top ? top : static_cast<Sample>(corrected);
    }
    return 0;
}

}  // namespace krf
