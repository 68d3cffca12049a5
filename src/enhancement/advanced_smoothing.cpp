// Wavelet shrinkage with the symlet of order 8: "advancedsmoothing" on the
// decimated transform, "advancedsmoothing2" on the undecimated one.
//
// Both filters normalise the image to a 0 ... 255 scale, pad it periodically
// to multiples of 16, soft-threshold the detail bands of each level with that
// level's threshold, reconstruct and scale back. Every scratch block is owned
// by a handle that releases it on every path, so a failure anywhere returns
// with nothing held and the output rows unwritten.
#include <climits>
#include <cmath>
#include <cstdint>
#include <memory>
#include <utility>

#include "enhancement/enhancement.h"
#include "primitives/wavelet.h"

namespace krf {

namespace {

using prim::kBadSize;
using prim::kNoMemory;
using prim::kOk;
using prim::PrimitiveStatus;
using prim::Size;

struct ReleaseBuffer {
    void operator()(void* block) const noexcept { prim::FreeBuffer(block); }
};
template <class T>
using Block = std::unique_ptr<T, ReleaseBuffer>;
using FloatBlock = Block<float>;

constexpr int kLevels = 4;

// The image and its padded extent: both sides rounded up to multiples of 16.
struct Geometry {
    int width;
    int height;
    int padded_width;
    int padded_height;
    std::int64_t padded_count() const noexcept { return std::int64_t{padded_width} * padded_height; }
};

// False for images without samples and for those whose padded rows (plus the
// analysis borders) would not fit the primitives' byte steps: such images are
// refused, output untouched.
bool padded_geometry(int height, int width, Geometry* g) noexcept {
    if (width <= 0 || height <= 0) return false;
    const std::int64_t padded_width = (std::int64_t{width} + 15) / 16 * 16;
    const std::int64_t padded_height = (std::int64_t{height} + 15) / 16 * 16;
    if (padded_width + 16 > INT_MAX / 4 || padded_height + 16 > INT_MAX / 4) return false;
    *g = {width, height, static_cast<int>(padded_width), static_cast<int>(padded_height)};
    return true;
}

std::int64_t wrap(std::int64_t coordinate, std::int64_t extent) noexcept {
    const std::int64_t r = coordinate % extent;
    return r < 0 ? r + extent : r;
}

// The input as floats on the 0 ... 255 scale of its range: 65535 when the
// largest sample is at least 4096, else 4095 (12-bit data). kBadSize for
// images padded_geometry refuses.
PrimitiveStatus scaled_input(const Rows src, int height, int width, Geometry* g, float* range,
                             FloatBlock* image) noexcept {
    if (!padded_geometry(height, width, g)) return kBadSize;
    image->reset(prim::AllocF32(std::int64_t{width} * height));
    if (!*image) return kNoMemory;
    float* samples = image->get();
    for (int y = 0; y < height; ++y)
        prim::ConvertU16ToF32(src[y], width * 2, samples + std::int64_t{y} * width, width * 4, {width, 1});
    float maximum = 0.0f;
    prim::MaxF32(samples, width * 4, {width, height}, &maximum);
    *range = maximum >= 4096.0f ? 65535.0f : 4095.0f;
    const float scale = 255.0f / *range;
    prim::MulConstF32InPlace(scale, samples, width * 4, {width, height});
    return kOk;
}

// The image periodically continued to its padded extent, placed at (left, top).
PrimitiveStatus pad_image(FloatBlock image, const Geometry& g, int top, int left, FloatBlock* padded) noexcept {
    padded->reset(prim::AllocF32(g.padded_count()));
    if (!*padded) return kNoMemory;
    const PrimitiveStatus s = prim::PadWrapF32(image.get(), g.width * 4, {g.width, g.height}, padded->get(),
                                               g.padded_width * 4, {g.padded_width, g.padded_height}, top, left);
    if (s != kOk) padded->reset();
    return s;
}

// Thresholds are taken through ×255 and ÷255 in float: the round trip can move
// a threshold by a rounding step, and the results depend on that step.
void level_thresholds(const float thresh[kLevels], float out[kLevels]) noexcept {
    for (int l = 0; l < kLevels; ++l) out[l] = (thresh[l] * 255.0f) / 255.0f;
}

// Soft thresholding: the magnitude shrinks by the threshold, down to zero.
// The decimated filter gives the result of a coefficient not above zero a
// negative sign; the undecimated one negates only results of negative
// coefficients, so a zero coefficient stays +0 (and, under a negative
// threshold, grows to +|threshold|).
enum class ZeroSign { negative_for_non_positive, positive };

void soft_threshold(float* band, std::int64_t count, float threshold, ZeroSign zero) noexcept {
    for (std::int64_t i = 0; i < count; ++i) {
        const float x = band[i];
        const float m = std::fabs(x) - threshold;
        float y = (std::fabs(m) + m) * 0.5f;
        const bool flip = zero == ZeroSign::negative_for_non_positive ? !(x > 0.0f) : x < 0.0f;
        if (flip) y = -y;
        band[i] = y;
    }
}

// One primitive run with its preparation record and work block, both released
// on return.
template <class WorkSize, class Run>
PrimitiveStatus with_prepared(const float* low, const float* high, int anchor, Size bandSize, WorkSize work_size,
                              Run run) noexcept {
    prim::WaveletFilterPair* raw = nullptr;
    if (const PrimitiveStatus s = prim::PrepareWaveletF32(low, 16, anchor, high, 16, anchor, &raw); s != kOk) return s;
    const Block<prim::WaveletFilterPair> record(raw);
    std::int64_t bytes = 0;
    if (const PrimitiveStatus s = work_size(record.get(), bandSize, &bytes); s != kOk) return s;
    const Block<unsigned char> work(prim::AllocBytes(bytes));
    if (!work) return kNoMemory;
    return run(record.get(), work.get());
}

// ---- "advancedsmoothing": four levels of the decimated transform.
//
// Analysis keeps the even samples of filters with anchor 7 over a source with
// 8 samples before and 7 after; synthesis places band sample j at 2j and
// filters with anchor 8 over bands with 3 samples before and 4 after. With the
// symlet's synthesis filters the reversed analysis filters, this synthesis is
// the transpose of the periodic analysis, which is orthogonal: synthesis after
// analysis gives back the source to float precision.

PrimitiveStatus analyse_level(const float* input, int width, int height, prim::WaveletLevel* level) noexcept {
    const int padded_width = width + 15;
    FloatBlock padded(prim::AllocF32(std::int64_t{padded_width} * (height + 15)));
    if (!padded) return kNoMemory;
    if (const PrimitiveStatus s = prim::PadWrapF32(input, width * 4, {width, height}, padded.get(), padded_width * 4,
                                                   {padded_width, height + 15}, 8, 8);
        s != kOk)
        return s;
    float low[16], high[16];
    prim::Symlet8AnalysisTaps(low, high);
    const Size band{width / 2, height / 2};
    return with_prepared(low, high, 7, band, prim::WaveletAnalysisWorkSizeF32,
                         [&](const prim::WaveletFilterPair* record, unsigned char* work) {
                             if (!level->allocate(band.width, band.height)) return kNoMemory;
                             const int step = band.width * 4;
                             return prim::WaveletAnalysisF32(padded.get() + 8 * padded_width + 8, padded_width * 4,
                                                             level->approx, step, level->detail_x, step,
                                                             level->detail_y, step, level->detail_xy, step, band,
                                                             record, work);
                         });
}

PrimitiveStatus synthesise_level(const prim::WaveletLevel& level, float* dst) noexcept {
    const int W = level.width;
    const int H = level.height;
    const int padded_width = W + 7;
    const std::int64_t padded_count = std::int64_t{padded_width} * (H + 7);
    const float* bands[4] = {level.approx, level.detail_x, level.detail_y, level.detail_xy};
    FloatBlock padded[4];
    for (int b = 0; b < 4; ++b) {
        padded[b].reset(prim::AllocF32(padded_count));
        if (!padded[b]) return kNoMemory;
        if (const PrimitiveStatus s = prim::PadWrapF32(bands[b], W * 4, {W, H}, padded[b].get(), padded_width * 4,
                                                       {padded_width, H + 7}, 3, 3);
            s != kOk)
            return s;
    }
    float low[16], high[16];
    prim::Symlet8SynthesisTaps(low, high);
    const std::int64_t origin = 3 * padded_width + 3;
    const int step = padded_width * 4;
    return with_prepared(low, high, 8, {W, H}, prim::WaveletSynthesisWorkSizeF32,
                         [&](const prim::WaveletFilterPair* record, unsigned char* work) {
                             return prim::WaveletSynthesisF32(padded[0].get() + origin, step, padded[1].get() + origin,
                                                              step, padded[2].get() + origin, step,
                                                              padded[3].get() + origin, step, dst, 2 * W * 4, {W, H},
                                                              record, work);
                         });
}

// ---- "advancedsmoothing2": the undecimated transform.
//
// Level i (dilation d = 2^i) filters with the 16 taps spread d samples apart.
// Such a filter only ever combines samples whose coordinates agree modulo d,
// so the level splits into d × d independent sub-grids (rows p, p + d, ...,
// columns q, q + d, ...), each periodic and each transformed with the plain
// 16 taps. Working sub-grid by sub-grid keeps the scratch small.
//
// Alignment: the analysis output at x reads the sub-grid samples x − 7 ... x + 8
// (tap k meets x + 8 − k), as centred as an even filter can be. Then the
// even-phase coefficients, placed at even positions and filtered with the
// synthesis taps at anchor 7, are the transpose of the even-phase analysis and
// reconstruct the sub-grid; the odd phase is the same transform of the
// sub-grid advanced by one sample, so its reconstruction is moved back by one.
//
// Memory: the synthesis reads a level's detail bands only on the d sub-grids
// whose row and column offsets are equal, so only those are computed and kept,
// packed one sub-grid after another (1/d of a full band). The approximations
// are kept in full, since the coarser levels read all of them, but only the
// latest two at a time. Details are thresholded as they are produced. All
// scratch, bands included, comes from the library's one zero-filling
// allocator, so that its size checks and failure paths cover this filter too.

int level_count(float threshLv2, float threshLv3, float threshLv4) noexcept {
    if (threshLv4 != 1.0f) return 4;
    if (threshLv3 != 1.0f) return 3;
    if (threshLv2 != 1.0f) return 2;
    return 1;
}

// The detail bands of one level on its equal-offset sub-grids.
struct PackedDetails {
    FloatBlock x, y, xy;
    bool allocate(std::int64_t count) noexcept {
        x.reset(prim::AllocF32(count));
        y.reset(prim::AllocF32(count));
        xy.reset(prim::AllocF32(count));
        return x && y && xy;
    }
    void release() noexcept {
        x.reset();
        y.reset();
        xy.reset();
    }
};

// One level's sub-grid extent and the copies between a full-size buffer and
// a contiguous sub-grid.
struct SubGrid {
    int full_width;
    int width;
    int height;
    int dilation;
    std::int64_t count() const noexcept { return std::int64_t{width} * height; }
    std::int64_t full_index(int p, int q, int r, int c) const noexcept {
        return (p + std::int64_t{r} * dilation) * full_width + q + std::int64_t{c} * dilation;
    }
    void gather(const float* full, int p, int q, float* sub) const noexcept {
        for (int r = 0; r < height; ++r)
            for (int c = 0; c < width; ++c) sub[std::int64_t{r} * width + c] = full[full_index(p, q, r, c)];
    }
    void scatter(const float* sub, int p, int q, float* full) const noexcept {
        for (int r = 0; r < height; ++r)
            for (int c = 0; c < width; ++c) full[full_index(p, q, r, c)] = sub[std::int64_t{r} * width + c];
    }
};

// Row pass over a periodic sub-grid: each row is continued by 7 samples on the
// left and 8 on the right in a row buffer and filtered there.
void filter_rows_periodic(const float* src, const SubGrid& g, const float* taps, float* row_buffer,
                          float* dst) noexcept {
    for (int r = 0; r < g.height; ++r) {
        const float* row = src + std::int64_t{r} * g.width;
        for (int m = 0; m < g.width + 15; ++m) row_buffer[m] = row[wrap(m - 7, g.width)];
        prim::FilterRowF32(row_buffer + 7, (g.width + 15) * 4, dst + std::int64_t{r} * g.width, g.width * 4,
                           {g.width, 1}, taps, 16, 8);
    }
}

// Column pass over a periodic sub-grid: output row r weights rows r + 8 − k.
void filter_columns_periodic(const float* src, const SubGrid& g, const float* taps, float* dst) noexcept {
    const float* terms[16];
    for (int r = 0; r < g.height; ++r) {
        for (int k = 0; k < 16; ++k) terms[k] = src + wrap(std::int64_t{r} + 8 - k, g.height) * g.width;
        prim::WeightedSumF32(terms, taps, 16, dst + std::int64_t{r} * g.width, g.width);
    }
}

PrimitiveStatus analyse_undecimated(const float* previous, float* next, PackedDetails* details, const Geometry& geo,
                                    int dilation, float threshold) noexcept {
    const SubGrid g{geo.padded_width, geo.padded_width / dilation, geo.padded_height / dilation, dilation};
    const bool direct = dilation == 1;  // the sub-grid is the whole buffer
    FloatBlock sub(direct ? nullptr : prim::AllocF32(g.count()));
    FloatBlock sub_out(direct ? nullptr : prim::AllocF32(g.count()));
    FloatBlock row_pass(prim::AllocF32(g.count()));
    FloatBlock row_buffer(prim::AllocF32(g.width + 15));
    if ((!direct && (!sub || !sub_out)) || !row_pass || !row_buffer) return kNoMemory;
    float low[16], high[16];
    prim::Symlet8AnalysisTaps(low, high);

    for (int p = 0; p < dilation; ++p)
        for (int q = 0; q < dilation; ++q) {
            const float* source = previous;
            if (!direct) {
                g.gather(previous, p, q, sub.get());
                source = sub.get();
            }
            filter_rows_periodic(source, g, low, row_buffer.get(), row_pass.get());
            float* approx = direct ? next : sub_out.get();
            filter_columns_periodic(row_pass.get(), g, low, approx);
            if (!direct) g.scatter(approx, p, q, next);
            if (p != q) continue;
            const std::int64_t at = p * g.count();
            filter_columns_periodic(row_pass.get(), g, high, details->x.get() + at);
            filter_rows_periodic(source, g, high, row_buffer.get(), row_pass.get());
            filter_columns_periodic(row_pass.get(), g, low, details->y.get() + at);
            filter_columns_periodic(row_pass.get(), g, high, details->xy.get() + at);
            for (float* band : {details->x.get(), details->y.get(), details->xy.get()})
                soft_threshold(band + at, g.count(), threshold, ZeroSign::positive);
        }
    return kOk;
}

// Rewrites the equal-offset sub-grids of `result` (the running approximation)
// from it and the level's details: the average of the even-phase and the
// odd-phase reconstructions. Each phase reads the result only at positions
// whose offsets agree modulo 2d, which the coarser level has just rewritten;
// the positions it left alone are read by no finer level, and the finest
// level rewrites every sample.
PrimitiveStatus synthesise_undecimated(float* result, const PackedDetails& details, const Geometry& geo,
                                       int dilation) noexcept {
    const SubGrid g{geo.padded_width, geo.padded_width / dilation, geo.padded_height / dilation, dilation};
    const int band_width = g.width / 2;
    const int band_height = g.height / 2;
    const int padded_width = band_width + 8;  // 4 samples on each side
    const std::int64_t padded_count = std::int64_t{padded_width} * (band_height + 8);
    FloatBlock padded[4];
    for (FloatBlock& band : padded) {
        band.reset(prim::AllocF32(padded_count));
        if (!band) return kNoMemory;
    }
    FloatBlock phase_out[2] = {FloatBlock(prim::AllocF32(g.count())), FloatBlock(prim::AllocF32(g.count()))};
    if (!phase_out[0] || !phase_out[1]) return kNoMemory;
    float low[16], high[16];
    prim::Symlet8SynthesisTaps(low, high);
    const std::int64_t origin = 4 * padded_width + 4;
    const int step = padded_width * 4;

    return with_prepared(low, high, 7, {band_width, band_height}, prim::WaveletSynthesisWorkSizeF32,
                         [&](const prim::WaveletFilterPair* record, unsigned char* work) {
        for (int o = 0; o < dilation; ++o) {
            const std::int64_t at = o * g.count();
            const float* packed[3] = {details.x.get() + at, details.y.get() + at, details.xy.get() + at};
            for (int phase = 0; phase < 2; ++phase) {
                for (int jj = 0; jj < band_height + 8; ++jj) {
                    const int r = 2 * static_cast<int>(wrap(jj - 4, band_height)) + phase;
                    for (int ii = 0; ii < padded_width; ++ii) {
                        const int c = 2 * static_cast<int>(wrap(ii - 4, band_width)) + phase;
                        const std::int64_t to = std::int64_t{jj} * padded_width + ii;
                        const std::int64_t from = std::int64_t{r} * g.width + c;
                        padded[0].get()[to] = result[g.full_index(o, o, r, c)];
                        for (int b = 0; b < 3; ++b) padded[b + 1].get()[to] = packed[b][from];
                    }
                }
                const PrimitiveStatus s = prim::WaveletSynthesisF32(
                    padded[0].get() + origin, step, padded[1].get() + origin, step, padded[2].get() + origin, step,
                    padded[3].get() + origin, step, phase_out[phase].get(), g.width * 4, {band_width, band_height},
                    record, work);
                if (s != kOk) return s;
            }
            const float* even = phase_out[0].get();
            const float* odd = phase_out[1].get();
            for (int r = 0; r < g.height; ++r) {
                const std::int64_t odd_row = wrap(r - 1, g.height) * g.width;
                for (int c = 0; c < g.width; ++c) {
                    const float sum = even[std::int64_t{r} * g.width + c] + odd[odd_row + wrap(c - 1, g.width)];
                    result[g.full_index(o, o, r, c)] = sum * 0.5f;
                }
            }
        }
        return kOk;
    });
}

}  // namespace

PrimitiveStatus advanced_smoothing(Rows src, Rows dst, int height, int width, float threshLv1, float threshLv2,
                                   float threshLv3, float threshLv4) noexcept {
    Geometry g;
    float range = 0.0f;
    FloatBlock image;
    if (const PrimitiveStatus s = scaled_input(src, height, width, &g, &range, &image); s != kOk) return s;
    // The image sits in the bottom-right corner; the output is read back from there.
    FloatBlock padded;
    if (const PrimitiveStatus s =
            pad_image(std::move(image), g, g.padded_height - height, g.padded_width - width, &padded);
        s != kOk)
        return s;

    prim::WaveletLevel levels[kLevels];
    for (int l = 0; l < kLevels; ++l) {
        const float* input = l == 0 ? padded.get() : levels[l - 1].approx;
        const int w = l == 0 ? g.padded_width : levels[l - 1].width;
        const int h = l == 0 ? g.padded_height : levels[l - 1].height;
        if (const PrimitiveStatus s = analyse_level(input, w, h, &levels[l]); s != kOk) return s;
    }
    padded.reset();

    const float thresh[kLevels] = {threshLv1, threshLv2, threshLv3, threshLv4};
    float threshold[kLevels];
    level_thresholds(thresh, threshold);
    for (int l = 0; l < kLevels; ++l) {
        const std::int64_t count = std::int64_t{levels[l].width} * levels[l].height;
        for (float* band : {levels[l].detail_x, levels[l].detail_y, levels[l].detail_xy})
            soft_threshold(band, count, threshold[l], ZeroSign::negative_for_non_positive);
    }

    // Each level's synthesis overwrites the approximation of the next finer one.
    FloatBlock result(prim::AllocF32(g.padded_count()));
    if (!result) return kNoMemory;
    for (int l = kLevels - 1; l >= 0; --l) {
        float* into = l > 0 ? levels[l - 1].approx : result.get();
        if (const PrimitiveStatus s = synthesise_level(levels[l], into); s != kOk) return s;
    }
    for (prim::WaveletLevel& level : levels) level.release();

    Block<std::uint16_t> samples(prim::AllocU16(std::int64_t{width} * height));
    if (!samples) return kNoMemory;
    prim::MulConstF32InPlace(range / 255.0f, result.get(), g.padded_width * 4, {g.padded_width, g.padded_height});
    const float* corner =
        result.get() + std::int64_t{g.padded_height - height} * g.padded_width + (g.padded_width - width);
    prim::ConvertF32ToU16(corner, g.padded_width * 4, samples.get(), width * 2, {width, height},
                          prim::Rounding::ties_away_from_zero);
    result.reset();
    prim::CopyBufferToRows(samples.get(), dst, width, height);
    return kOk;
}

PrimitiveStatus advanced_smoothing_2(Rows src, Rows dst, int height, int width, float threshLv1, float threshLv2,
                                     float threshLv3, float threshLv4) noexcept {
    Geometry g;
    float range = 0.0f;
    FloatBlock image;
    if (const PrimitiveStatus s = scaled_input(src, height, width, &g, &range, &image); s != kOk) return s;
    const int top = (g.padded_height - height) / 2;
    const int left = (g.padded_width - width) / 2;
    FloatBlock approx;
    if (const PrimitiveStatus s = pad_image(std::move(image), g, top, left, &approx); s != kOk) return s;

    const int levels = level_count(threshLv2, threshLv3, threshLv4);
    const float thresh[kLevels] = {threshLv1, threshLv2, threshLv3, threshLv4};
    float threshold[kLevels];
    level_thresholds(thresh, threshold);

    PackedDetails details[kLevels];
    for (int i = 0; i < levels; ++i) {
        const int dilation = 1 << i;
        FloatBlock next(prim::AllocF32(g.padded_count()));
        if (!next || !details[i].allocate(g.padded_count() / dilation)) return kNoMemory;
        if (const PrimitiveStatus s =
                analyse_undecimated(approx.get(), next.get(), &details[i], g, dilation, threshold[i]);
            s != kOk)
            return s;
        approx = std::move(next);
    }

    // The coarsest approximation becomes the running result; each level
    // rewrites its equal-offset sub-grids and then gives its details back.
    FloatBlock result = std::move(approx);
    for (int i = levels - 1; i >= 0; --i) {
        if (const PrimitiveStatus s = synthesise_undecimated(result.get(), details[i], g, 1 << i); s != kOk) return s;
        details[i].release();
    }

    // Scaled back, clamped to the range and truncated. NaN (from NaN or
    // infinite thresholds) has no place in the range: it stores 0, like the
    // negative values.
    const float scale = range / 255.0f;
    for (int y = 0; y < height; ++y) {
        const float* row = result.get() + std::int64_t{top + y} * g.padded_width + left;
        Sample* out = dst[y];
        for (int x = 0; x < width; ++x) {
            float v = row[x] * scale;
            if (!(v > 0.0f)) v = 0.0f;
            else if (v > range) v = range;
            out[x] = static_cast<Sample>(static_cast<int>(v));
        }
    }
    return kOk;
}

}  // namespace krf
