#include "corrections/spine_compensation.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "corrections/filter_class.h"
#include "interface/truncation.h"
#include "platform/memory.h"

namespace krf {
namespace {

// Below this many rows or columns the edge profiles are empty or a single
// sample wide: there is no field to find and no column level worth trusting,
// so every gain is 1 and the output is the input (samples above white as white).
constexpr int kMinSide = 10;

// Mean profile across the edge zone, smoothed over a window of about one
// twentieth of its length, and its central difference. Returns the index of
// the first minimum (want_minimum) or first maximum of the difference; an
// empty profile gives index 0.
int steepest_edge(double* profile, double* smooth, double* slope, int n, bool want_minimum) {
    const int w = truncate_to_int32(n / 20.0 + 0.5);
    for (int i = 0; i < n; ++i) {
        const int lo = std::max(truncate_to_int32(i - w * 0.5 + 0.5), 0);
        const int hi = std::min(truncate_to_int32(w * 0.5 + i + 0.5), n - 1);
        double sum = 0;
        for (int j = lo; j <= hi; ++j) sum += profile[j];
        smooth[i] = lo <= hi ? sum / (hi - lo + 1) : 0.0;
    }
    for (int i = 0; i < n; ++i) slope[i] = i == 0 || i == n - 1 ? 0.0 : smooth[i + 1] - smooth[i - 1];
    int best = 0;
    for (int i = 1; i < n; ++i)
        if (want_minimum ? slope[i] < slope[best] : slope[i] > slope[best]) best = i;
    return best;
}

// The near border sits a little beyond the steepest fall (1.1 times its
// index), the far one a little before the steepest rise (0.9 times its index
// from the zone's start); both stay inside the zone of n.
int near_border(int index, int n) { return std::min(truncate_to_int32(1.1 * index + 0.5), n); }
int far_border(int index, int n, int extent) {
    return extent - 1 + (std::min(truncate_to_int32(index - 0.1 * index + 0.5), n) - n);
}

// A byte plane that frees itself, partial rows included.
struct BytePlane {
    unsigned char** rows = nullptr;
    int count = 0;
    ~BytePlane() { free_plane(&rows, count); }
};

}  // namespace

int spine_half_size(int half_size, int width) noexcept {
    if (half_size != 0) return half_size;
    return std::max(truncate_to_int32(((width / 2814.0) * 41.0 - 1.0) * 0.5), 1);
}

int find_spine_borders(Rows src, int height, int width, SpineBorders* borders) noexcept {
    const int h = std::max(height, 0), w = std::max(width, 0);
    // Columns: the first and the last tenth of the width.
    int n = truncate_to_int32(w / 10.0 + 0.5);
    {
        ScratchArray<double> profile, smooth, slope;
        if (!profile.allocate(n) || !smooth.allocate(n) || !slope.allocate(n)) return kSpineNoProfile;
        for (const bool near : {true, false}) {
            const int offset = near ? 0 : w - n;
            for (int i = 0; i < n; ++i) profile[i] = 0;
            for (int r = 0; r < h; ++r)
                for (int i = 0; i < n; ++i) profile[i] += src[r][offset + i];
            for (int i = 0; i < n; ++i) profile[i] /= h;
            const int index = steepest_edge(profile.get(), smooth.get(), slope.get(), n, near);
            if (near) borders->left = near_border(index, n);
            else borders->right = far_border(index, n, w);
        }
    }
    // Rows: the first and the last tenth of the height.
    n = truncate_to_int32(h / 10.0 + 0.5);
    ScratchArray<double> profile, smooth, slope;
    if (!profile.allocate(n) || !smooth.allocate(n) || !slope.allocate(n)) return kSpineNoProfile;
    for (const bool near : {true, false}) {
        const int offset = near ? 0 : h - n;
        for (int i = 0; i < n; ++i) {
            std::int64_t sum = 0;
            for (int c = 0; c < w; ++c) sum += src[offset + i][c];
            profile[i] = static_cast<double>(sum) / w;
        }
        const int index = steepest_edge(profile.get(), smooth.get(), slope.get(), n, near);
        if (near) borders->top = near_border(index, n);
        else borders->bottom = far_border(index, n, h);
    }
    return 0;
}

int spine_compensation(Rows src, Rows dst, int height, int width, int white, const SpineSettings& settings) noexcept {
    if (height <= 0 || width <= 0) return 0;
    const int half = spine_half_size(settings.half_size, width);

    SpineBorders b;
    if (const int code = find_spine_borders(src, height, width, &b); code != 0) return code;

    Raster inverted;
    BytePlane mask;
    mask.count = height;
    ScratchArray<double> count, gain, smooth;
    if (inverted.allocate(height, width) != 0 || allocate_byte_plane(&mask.rows, height, width) != 0 ||
        !count.allocate(width) || !gain.allocate(width) || !smooth.allocate(width)) {
        return kSpineNoWorkMemory;
    }

    // The inversion v -> white - v, computed rather than looked up so that
    // the passes vectorise; samples above white count as white (they come
    // out as white).
    for (int r = 0; r < height; ++r) {
        const Sample* __restrict in = src[r];
        Sample* __restrict inv = inverted[r];
        for (int c = 0; c < width; ++c) inv[c] = static_cast<Sample>(white - std::min<int>(in[c], white));
    }

    if (height < kMinSide || width < kMinSide) {
        for (int c = 0; c < width; ++c) smooth[c] = 1.0;
    } else {
        Sample threshold = 65207;
        if (settings.variant == SpineVariant::metal_threshold) {
            threshold = truncate_to_low16(white * static_cast<double>(settings.metal_threshold) + 0.5);
        } else if (white != 65535) {
            threshold = truncate_to_low16(white * 0.95 + 0.5);
        }

        // Inside the field a column counts every row above the ellipse through
        // the bottom corners and the top-centre of the image, and below it only
        // the samples darker than the threshold (metal and burnt-out areas
        // stay out of the mean). Rows outside the field and columns outside it
        // count whole. Built row by row; each column's terms still arrive in
        // row order, so every sum below is the column-by-column sum.
        ScratchArray<int> ellipse;
        if (!ellipse.allocate(width)) return kSpineNoWorkMemory;
        const double h1 = height - 1, a = (width - 1) * 0.5, k = (h1 / a) * (h1 / a);
        for (int c = b.left + 1; c < b.right; ++c) {
            const int e = truncate_to_int32(h1 - std::sqrt(h1 * h1 - (c - a) * (c - a) * k));
            ellipse[c] = std::clamp(e, 0, height);
            count[c] = std::max(ellipse[c], b.top + 1) + (height - b.bottom);
        }
        for (int c = 0; c < width; ++c)
            if (c <= b.left || c >= b.right) count[c] = height;

        std::int64_t masked_sum = 0;
        for (int r = 0; r < height; ++r) {
            const Sample* __restrict in = src[r];
            const Sample* __restrict inv = inverted[r];
            unsigned char* __restrict taken = mask.rows[r];
            // Columns outside the field, and every column in the rows outside
            // it, count whole.
            const bool whole_row = r <= b.top || r >= b.bottom;
            const int from = whole_row ? width : b.left + 1, to = whole_row ? width : b.right;
            for (int c = 0; c < from; ++c) taken[c] = 1;
            for (int c = to; c < width; ++c) taken[c] = 1;
            const int* __restrict curve = ellipse.get();
            double* __restrict n = count.get();
            for (int c = from; c < to; ++c) {
                const int below = r >= curve[c];
                const int take = !below | (in[c] < threshold);
                n[c] += below & take;
                taken[c] = static_cast<unsigned char>(take);
            }
            for (int c = 0; c < width; ++c) masked_sum += inv[c] * taken[c];
        }
        double total_count = 0;
        for (int c = 0; c < width; ++c) total_count += count[c];
        const double global_mean = static_cast<double>(masked_sum) / total_count;

        // Adding 0 for an unmasked sample leaves the sum as it is.
        for (int r = 0; r < height; ++r) {
            const Sample* __restrict inv = inverted[r];
            const unsigned char* __restrict taken = mask.rows[r];
            const double* __restrict n = count.get();
            double* __restrict sum = gain.get();
            for (int c = 0; c < width; ++c) sum[c] += static_cast<double>(inv[c] * taken[c]) / n[c];
        }
        // A column whose counted samples are all white has no level to bring
        // to the mean; any finite gain leaves those samples white, and an
        // infinite one would blacken its neighbours through the smoothing.
        for (int c = 0; c < width; ++c) gain[c] = gain[c] > 0 ? global_mean / gain[c] : 1.0;

        // Ramps to exactly 1 at the first and the last column.
        for (int c = 0; c < b.left; ++c) {
            const double t = static_cast<double>(b.left - c) / b.left;
            gain[c] = (1 - t) * gain[b.left + 1] + t;
        }
        gain[b.left] = gain[b.left + 1];
        const double span = width - b.right - 1;  // at least 1 from 10 columns up
        for (int c = b.right; c < width; ++c) {
            const double t = span > 0 ? (c - b.right) / span : 1.0;
            gain[c] = (1 - t) * gain[b.right - 1] + t;
        }

        // A negative half size is an empty window: each column keeps its own gain.
        for (int c = 0; c < width; ++c) {
            const std::int64_t lo = std::max<std::int64_t>(static_cast<std::int64_t>(c) - half, 0);
            const std::int64_t hi = std::min<std::int64_t>(static_cast<std::int64_t>(c) + half, width - 1);
            if (lo > hi) {
                smooth[c] = gain[c];
                continue;
            }
            double sum = 0;
            for (std::int64_t j = lo; j <= hi; ++j) sum += gain[j];
            smooth[c] = sum / static_cast<double>(hi - lo + 1);
        }

        if (settings.variant == SpineVariant::strength) {
            const double s = static_cast<unsigned>(settings.strength_percent) <= 100u
                                 ? settings.strength_percent / 100.0
                                 : 1.0;
            for (int c = 0; c < width; ++c) smooth[c] = (smooth[c] - 1) * s + 1;
        }
    }

    for (int r = 0; r < height; ++r) {
        const Sample* __restrict inv = inverted[r];
        const double* __restrict g = smooth.get();
        Sample* __restrict out = dst[r];
        for (int c = 0; c < width; ++c) {
            const double y = inv[c] * g[c] + 0.5;
            const int v = y >= white ? white : y >= 1 ? static_cast<int>(y) : 0;
            out[c] = static_cast<Sample>(white - v);
        }
    }
    return 0;
}

}  // namespace krf
