// "ContrastCorrection". The image is cut into an even-sized tile grid over a
// mirrored margin; every tile gets a clipped histogram and from it a mapping
// onto the target distribution, and each sample blends the mappings of the
// four nearest tiles.
//
// The arithmetic keeps the order and the single/double precision of the
// filter's definition; the speed comes from around it:
// - every normalised level, its histogram bin and its blending bin depend on
//   the sample value alone, so they are tabulated once per level instead of
//   held in a padded float plane;
// - the padded plane is never built: its rows and columns are the image's,
//   reached through the mirror rule, and only the image's own samples are
//   blended, since only they reach the output;
// - Rayleigh and exponential mappings depend on the cumulative count alone,
//   so they are tabulated over the counts 0 ... P when that is cheaper than
//   evaluating them bin by bin.
#include "corrections/contrast_correction.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "interface/truncation.h"
#include "platform/memory.h"

namespace krf::corrections {
namespace {

using Count = std::int32_t;

// The shape constant of the Rayleigh and exponential targets; fixed, never a parameter.
constexpr float kAlpha = 0.4f;

// Index into 0 ... n-1 of position i of a line mirrored at both ends with the
// edge sample repeated (..., 1, 0 | 0, 1, ..., n-1 | n-1, n-2, ...). A margin
// wider than the line keeps reflecting back and forth, so no position ever
// lands outside the line; with the tile rules a margin is at most as wide as
// the image, where this is the plain one-fold mirror.
std::int64_t mirror(std::int64_t i, std::int64_t n) noexcept {
    const std::int64_t period = 2 * n;
    std::int64_t m = i % period;
    if (m < 0) m += period;
    return m < n ? m : period - 1 - m;
}

// start of region k of an axis cut into half a tile, tiles - 1 whole tiles and half a tile.
std::int64_t region_start(const TileAxis& axis, std::int64_t k) noexcept {
    if (k == 0) return 0;
    if (k > axis.tiles) return axis.tiles * axis.tile;
    return axis.tile / 2 + (k - 1) * axis.tile;
}

// Adds n * size to *total, saturating at the budget (any excess is refused anyway).
void add_bytes(std::int64_t* total, std::int64_t n, std::int64_t size) noexcept {
    if (n > 0 && n > (kContrastScratchBudget + 1) / size) n = (kContrastScratchBudget + 1) / size + 1;
    *total = std::min(*total + n * size, kContrastScratchBudget + 1);
}

// Hands out the surplus left after clipping one bin at a time until none is
// left. The pass from `start` visits start, start + step, ... and the next
// pass starts one bin further on. clip * bins >= the tile's count (the
// callers' guarantee) means that while surplus remains some bin is below
// clip; the pass starting at that bin visits it, and the starts run through
// every bin, so each round of bins passes places at least one unit: the loop
// ends. A pass that places nothing changes nothing but its start, so rather
// than running the passes that cannot place anything, the next start whose
// pass meets a bin below clip is found directly: the results are those of the
// passes one by one, without a round of bins passes per unit in the worst case.
void redistribute(Count* hist, std::int64_t bins, std::int64_t clip, std::int64_t excess) noexcept {
    std::int64_t start = 0;
    while (excess > 0) {
        const std::int64_t step = std::max<std::int64_t>(bins / excess, 1);
        bool placed = false;
        for (std::int64_t b = start; b < bins; b += step) {
            if (hist[b] < clip) {
                ++hist[b];
                --excess;
                placed = true;
                if (excess < 1) break;
            }
        }
        start = (start + 1) % bins;
        if (placed) continue;
        // First start s from here on (cyclically) with a bin b >= s, b = s (mod step), below clip.
        std::int64_t next = -1;
        for (std::int64_t b = start; b < bins; ++b) {
            if (hist[b] >= clip) continue;
            const std::int64_t candidate = start + (b - start) % step;
            if (next < 0 || candidate < next) next = candidate;
            if (next == start) break;
        }
        if (next < 0) {
            for (std::int64_t b = 0; b < bins; ++b) {
                if (hist[b] >= clip) continue;
                const std::int64_t candidate = b % step;
                if (next < 0 || candidate < next) next = candidate;
                if (next == 0) break;
            }
        }
        start = next;
    }
}

// Clips every bin at `clip` and spreads the surplus: an equal share to every
// bin that has room for it, the rest one unit at a time.
void clip_histogram(Count* hist, std::int64_t bins, std::int64_t clip) noexcept {
    std::int64_t excess = 0;
    for (std::int64_t b = 0; b < bins; ++b)
        if (hist[b] > clip) excess += hist[b] - clip;
    if (excess == 0) return;
    const std::int64_t increment = excess / bins;
    const std::int64_t upper = clip - increment;
    for (std::int64_t b = 0; b < bins; ++b) {
        if (hist[b] > clip) {
            hist[b] = static_cast<Count>(clip);
        } else if (hist[b] > upper) {
            excess -= clip - hist[b];
            hist[b] = static_cast<Count>(clip);
        } else {
            excess -= increment;
            hist[b] = static_cast<Count>(hist[b] + increment);
        }
    }
    redistribute(hist, bins, clip, excess);
}

// What turns cumulative counts into mapping values for one call.
struct Target {
    int distribution = 0;
    std::int64_t bins = 0;
    std::int64_t tile_samples = 0;
    double inv_samples = 0;            // 1 / P, taken in single precision
    const float* by_count = nullptr;   // Rayleigh/exponential value per count 0 ... P, when tabulated
    const float* shape = nullptr;      // piecewise shapes: the cumulative target C over the bins
};

float rayleigh(std::int64_t count, double inv_samples) noexcept {
    const float s = 2.0f * (kAlpha * kAlpha);
    const double scale = 1.0 - std::exp(-1.0 / static_cast<double>(s));
    double p = static_cast<double>(count) * inv_samples * scale;
    if (p >= 1.0) p = 0.999999;
    return static_cast<float>(std::sqrt(-static_cast<double>(s) * std::log(1.0 - p)));
}

float exponential(std::int64_t count, double inv_samples) noexcept {
    const double alpha = kAlpha;
    const double scale = 1.0 - std::exp(-alpha);
    double p = static_cast<double>(count) * inv_samples * scale;
    // Capped at the single-precision 0.999999, unlike the Rayleigh cap.
    if (p >= 1.0) p = static_cast<double>(0.999999f);
    return static_cast<float>((-1.0 / alpha) * std::log(1.0 - p));
}

float value_for_count(const Target& target, std::int64_t count) noexcept {
    if (target.distribution == 0) return static_cast<float>(static_cast<double>(count) * target.inv_samples);
    if (target.by_count != nullptr) return target.by_count[count];
    return target.distribution == 1 ? rayleigh(count, target.inv_samples) : exponential(count, target.inv_samples);
}

// The cumulative target C of a piecewise shape for `bins` bins and P samples
// per tile, into `c` (bins floats), all in single precision. The density
// starts at the first weight and follows the segments between the knots;
// beyond the last knot (more than 1024 bins) it keeps the last segment's
// slope. Its sum T leaves out the first bin, and C[0] keeps the unscaled
// first weight, as the matching expects.
void shape_target(int distribution, std::int64_t bins, std::int64_t tile_samples, float* c) noexcept {
    const float* weights = kShapeWeights[distribution - kFirstShape];
    float scaled[kKnots];
    float slope[kKnots] = {};
    for (int j = 0; j < kKnots; ++j) scaled[j] = 500 * weights[j];
    for (int j = 1; j < kKnots; ++j) slope[j] = (scaled[j] - scaled[j - 1]) / (kKnotBins[j] - kKnotBins[j - 1]);

    c[0] = scaled[0];
    int j = 1;
    for (std::int64_t i = 1; i < bins; ++i) {
        if (j < kKnots && i % kKnotBins[j] == 0) {
            c[i] = scaled[j];
            ++j;
        } else {
            c[i] = c[i - 1] + slope[std::min(j, kKnots - 1)];
        }
    }
    std::int32_t total = 0;
    for (std::int64_t i = 1; i < bins; ++i) {
        total = truncate_to_int32(c[i] + static_cast<float>(total));
        c[i] = c[i - 1] + c[i];
    }
    const float ratio = static_cast<float>(tile_samples) / static_cast<float>(total);
    for (std::int64_t i = 1; i < bins; ++i) c[i] = c[i] * ratio;
}

// The mapping of one clipped histogram into `map` (bins floats).
void map_tile(const Count* hist, const Target& target, float* map) noexcept {
    const std::int64_t bins = target.bins;
    if (target.distribution < kFirstShape) {
        std::int64_t cumulative = 0;
        for (std::int64_t i = 0; i < bins; ++i) {
            cumulative += hist[i];
            map[i] = value_for_count(target, cumulative);
        }
        return;
    }
    // Each bin takes the position, in units of bins, where the target's
    // cumulative curve reaches the tile's cumulative count.
    const float* c = target.shape;
    std::int64_t k = 0, j = 1;
    std::int64_t cumulative = hist[0];
    while (k < bins) {
        if (j == bins) {
            std::fill(map + k, map + bins, 1.0f);
            return;
        }
        if (cumulative <= c[j]) {
            map[k] = ((cumulative - c[j - 1]) / (c[j] - c[j - 1]) + j) / bins;
            if (++k < bins) cumulative += hist[k];
        } else {
            ++j;
        }
    }
}

// Lowest and highest sample of a row of width >= 1. The samples are compared
// with their top bit flipped as signed numbers, the same order, because the
// base instruction set has signed 16-bit minimum and maximum only: so the
// loop vectorises on every x86-64.
std::pair<Sample, Sample> row_range(const Sample* row, int width) noexcept {
    std::int16_t lowest = INT16_MAX, highest = INT16_MIN;
    for (int c = 0; c < width; ++c) {
        const auto flipped = static_cast<std::int16_t>(row[c] ^ 0x8000u);
        lowest = std::min(lowest, flipped);
        highest = std::max(highest, flipped);
    }
    return {static_cast<Sample>(lowest ^ 0x8000), static_cast<Sample>(highest ^ 0x8000)};
}

// truncate_to_low16 for a single-precision value, written so that it
// vectorises: the same "integer indefinite" for NaN and values out of range.
inline Sample to_sample(float value) noexcept {
    const bool in_range = value > -2147483648.0f && value < 2147483648.0f;
    const std::int32_t whole = in_range ? static_cast<std::int32_t>(value) : INT32_MIN;
    return static_cast<Sample>(static_cast<std::uint32_t>(whole) & 0xFFFFu);
}

constexpr int kBlendChunk = 256;

void write_zeros(Rows dst, int height, int width) noexcept {
    for (int r = 0; r < height; ++r) std::memset(dst[r], 0, static_cast<std::size_t>(width) * sizeof(Sample));
}

}  // namespace

TileAxis split_axis(std::int64_t extent, int nominal) noexcept {
    TileAxis axis;
    axis.tiles = static_cast<std::int64_t>(std::ceil(static_cast<float>(extent) / static_cast<float>(nominal)));
    axis.tile = extent / axis.tiles + (extent % axis.tiles != 0 ? 1 : 0);
    axis.tile += axis.tile % 2;
    const std::int64_t padding = axis.tile * axis.tiles - extent;
    axis.before = padding / 2;
    axis.after = padding - axis.before;
    return axis;
}

std::int64_t clip_count(std::int64_t tile_samples, std::int64_t bins, float clip_limit) noexcept {
    const float samples = static_cast<float>(tile_samples);
    const float fair_share = std::ceil(samples / static_cast<float>(bins));
    const float limit = fair_share + std::round((samples - fair_share) * clip_limit);
    const std::int64_t exact_fair_share = (tile_samples + bins - 1) / bins;
    if (!(static_cast<double>(limit) >= static_cast<double>(exact_fair_share))) return exact_fair_share;
    if (static_cast<double>(limit) >= static_cast<double>(tile_samples)) return tile_samples;
    return static_cast<std::int64_t>(limit);
}

int contrast_correction(Rows src, Rows dst, int height, int width, int white, int tile_width, int tile_height,
                        float clip_limit, int bins_param, int distribution) noexcept {
    if (tile_width < 1 || tile_height < 1 || bins_param < 1) return kContrastInvalidArgument;
    if (height < 1 || width < 1) return 0;

    const TileAxis across = split_axis(width, tile_width);
    const TileAxis down = split_axis(height, tile_height);
    const std::int64_t bins = bins_param;
    const std::int64_t tile_samples = across.tile * down.tile;
    const std::int64_t tiles = across.tiles * down.tiles;
    const std::int64_t padded_width = across.tiles * across.tile;
    // Histogram counts are 32-bit: a larger tile is refused like an unaffordable table.
    if (tile_samples > INT32_MAX) return kNoBuffer;

    Sample lowest = src[0][0], highest = src[0][0];
    for (int r = 0; r < height; ++r) {
        const auto [row_lowest, row_highest] = row_range(src[r], width);
        lowest = std::min(lowest, row_lowest);
        highest = std::max(highest, row_highest);
    }
    const std::int64_t levels = std::int64_t{highest} + 1;
    const bool shaped = distribution >= kFirstShape && distribution < kDistributions;
    // Tabulated by count when that takes fewer evaluations than one per bin per tile.
    const bool count_table = (distribution == 1 || distribution == 2) && tiles >= (tile_samples + bins) / bins;

    std::int64_t bytes = 0;
    add_bytes(&bytes, tiles, bins * static_cast<std::int64_t>(sizeof(float)));  // the mapping table
    add_bytes(&bytes, 2 * across.tiles, bins * static_cast<std::int64_t>(sizeof(Count)));  // a row of histograms, twice
    add_bytes(&bytes, padded_width + 2 * levels, sizeof(std::int32_t));
    if (shaped) add_bytes(&bytes, bins, sizeof(float));
    if (count_table) add_bytes(&bytes, tile_samples + 1, sizeof(float));
    if (bytes > kContrastScratchBudget) return kNoBuffer;

    // A constant image has no range to normalise by (0 / 0); its output is 0.
    // Targets outside the known distributions map every tile to 0, so the
    // output is 0 as well, without the tables.
    if (lowest == highest || distribution < 0 || distribution >= kDistributions) {
        write_zeros(dst, height, width);
        return 0;
    }

    ScratchArray<float> table, shape, by_count;
    ScratchArray<Count> hist;
    ScratchArray<std::int32_t> histogram_bin, blend_bin, padded_bins;
    if (!table.allocate(tiles * bins) || !hist.allocate(2 * across.tiles * bins) || !histogram_bin.allocate(levels) ||
        !blend_bin.allocate(levels) || !padded_bins.allocate(padded_width) ||
        (shaped && !shape.allocate(bins)) || (count_table && !by_count.allocate(tile_samples + 1)))
        return kNoBuffer;

    // Normalisation: to 0 ... 1 by the range when the image does not already
    // span 0 ... white, else by the maximum alone.
    const float minimum = lowest, maximum = highest;
    const bool by_range = minimum > 0 || maximum < white;
    const float last_bin = static_cast<float>(bins - 1);
    for (std::int64_t x = lowest; x < levels; ++x) {
        const float level = static_cast<float>(x);
        const float v = by_range ? (level - minimum) / (maximum - minimum) : level / maximum;
        // Beyond 2^23 bins single precision can round past the last bin; such
        // bins are held to it (below that the clamp never acts).
        const float rounded = std::round(last_bin * v);
        const float blended = std::trunc(v * last_bin + 0.5f);
        histogram_bin[x] = static_cast<std::int32_t>(std::clamp<float>(rounded, 0.0f, last_bin));
        blend_bin[x] = static_cast<std::int32_t>(std::clamp<float>(blended, 0.0f, last_bin));
    }

    Target target;
    target.distribution = distribution;
    target.bins = bins;
    target.tile_samples = tile_samples;
    target.inv_samples = static_cast<double>(1.0f / static_cast<float>(tile_samples));
    if (shaped) {
        shape_target(distribution, bins, tile_samples, shape.get());
        target.shape = shape.get();
    }
    if (count_table) {
        for (std::int64_t n = 0; n <= tile_samples; ++n)
            by_count[n] = distribution == 1 ? rayleigh(n, target.inv_samples) : exponential(n, target.inv_samples);
        target.by_count = by_count.get();
    }
    const std::int64_t clip = clip_count(tile_samples, bins, clip_limit);

    // Histograms, one row of tiles at a time, over the padded plane's rows.
    for (std::int64_t ty = 0; ty < down.tiles; ++ty) {
        std::memset(hist.get(), 0, static_cast<std::size_t>(2 * across.tiles * bins) * sizeof(Count));
        for (std::int64_t py = ty * down.tile; py < (ty + 1) * down.tile; ++py) {
            const Sample* row = src[mirror(py - down.before, height)];
            std::int32_t* padded = padded_bins.get();
            for (std::int64_t px = 0; px < across.before; ++px)
                padded[px] = histogram_bin[row[mirror(px - across.before, width)]];
            std::int32_t* inside = padded + across.before;
            for (int c = 0; c < width; ++c) inside[c] = histogram_bin[row[c]];
            for (std::int64_t px = across.before + width; px < padded_width; ++px)
                padded[px] = histogram_bin[row[mirror(px - across.before, width)]];
            // Even and odd columns count into separate histograms (tiles are
            // even-sized), so that runs of one level do not wait on one counter.
            for (std::int64_t tx = 0; tx < across.tiles; ++tx) {
                Count* even = hist.get() + tx * bins;
                Count* odd = even + across.tiles * bins;
                const std::int32_t* tile_bins = padded + tx * across.tile;
                for (std::int64_t i = 0; i < across.tile; i += 2) {
                    ++even[tile_bins[i]];
                    ++odd[tile_bins[i + 1]];
                }
            }
        }
        for (std::int64_t tx = 0; tx < across.tiles; ++tx) {
            Count* h = hist.get() + tx * bins;
            const Count* odd = h + across.tiles * bins;
            for (std::int64_t b = 0; b < bins; ++b) h[b] += odd[b];
            clip_histogram(h, bins, clip);
            map_tile(h, target, table.get() + (ty * across.tiles + tx) * bins);
        }
    }

    // Bilinear blending of the four nearest tiles' mappings, only where the
    // padded plane holds image samples. Every output sample depends on its own
    // input sample alone (and the finished table), so src and dst may be the same.
    const float white_level = static_cast<float>(white);
    for (int r = 0; r < height; ++r) {
        const std::int64_t py = down.before + r;
        const std::int64_t ry = py < down.tile / 2 ? 0 : (py - down.tile / 2) / down.tile + 1;
        const std::int64_t y = py - region_start(down, ry);
        const std::int64_t h = region_start(down, ry + 1) - region_start(down, ry);
        const std::int64_t top = std::max<std::int64_t>(ry - 1, 0), bottom = std::min(ry, down.tiles - 1);
        const float above = static_cast<float>(h - y), below = static_cast<float>(y);
        const Sample* in = src[r];
        Sample* out = dst[r];
        for (std::int64_t rx = 0; rx <= across.tiles; ++rx) {
            const std::int64_t x0 = region_start(across, rx), x1 = region_start(across, rx + 1);
            const std::int64_t first = std::max<std::int64_t>(x0 - across.before, 0);
            const std::int64_t end = std::min<std::int64_t>(x1 - across.before, width);
            if (first >= end) continue;
            const std::int64_t w = x1 - x0;
            const std::int64_t left = std::max<std::int64_t>(rx - 1, 0), right = std::min(rx, across.tiles - 1);
            const float* top_left = table.get() + (top * across.tiles + left) * bins;
            const float* top_right = table.get() + (top * across.tiles + right) * bins;
            const float* bottom_left = table.get() + (bottom * across.tiles + left) * bins;
            const float* bottom_right = table.get() + (bottom * across.tiles + right) * bins;
            const float reciprocal = 1.0f / static_cast<float>(w * h);
            // In chunks: the table look-ups first, then the arithmetic, which
            // the compiler runs across vector lanes (lane by lane the same operations).
            for (std::int64_t chunk = first; chunk < end; chunk += kBlendChunk) {
                const int n = static_cast<int>(std::min<std::int64_t>(kBlendChunk, end - chunk));
                alignas(64) float tl[kBlendChunk], tr[kBlendChunk], bl[kBlendChunk], br[kBlendChunk];
                for (int i = 0; i < n; ++i) {
                    const std::int32_t b = blend_bin[in[chunk + i]];
                    tl[i] = top_left[b];
                    tr[i] = top_right[b];
                    bl[i] = bottom_left[b];
                    br[i] = bottom_right[b];
                }
                const std::int32_t x_first = static_cast<std::int32_t>(across.before + chunk - x0);
                const std::int32_t width_here = static_cast<std::int32_t>(w);
                Sample* target = out + chunk;
                for (int i = 0; i < n; ++i) {
                    const std::int32_t x = x_first + i;
                    const float near = static_cast<float>(width_here - x), far = static_cast<float>(x);
                    const float value = ((tl[i] * near + tr[i] * far) * above + (bl[i] * near + br[i] * far) * below) *
                                        reciprocal;
                    target[i] = to_sample(white_level * value);
                }
            }
        }
    }
    return 0;
}

}  // namespace krf::corrections
