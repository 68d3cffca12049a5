// "pseudo-median2D": a one-dimensional median along each row into a scratch
// raster, then along each column into the output. Both passes are the same
// kernel: out[i] = median of lines[0][i] ... lines[taps-1][i], where the lines
// are shifted copies of one row (horizontal pass) or consecutive rows
// (vertical pass), so every output lane runs its own min/max network.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "corrections/filter_class.h"
#include "neighbourhood/median.h"
#include "neighbourhood/median_lanes.h"

namespace krf {
namespace {

using namespace lanes;

// Median networks pruned to the operations that reach the middle output.
template <class V>
KRF_ALWAYS_INLINE V median5(const V* v) {
    const V t0 = vmin(v[0], v[1]), t1 = vmax(v[0], v[1]);
    const V t2 = vmin(v[2], v[3]), t3 = vmax(v[2], v[3]);
    const V t4 = vmin(t0, t2), t5 = vmax(t0, t2);
    const V t6 = vmin(t1, t3);
    const V t7 = vmin(t6, t5), t8 = vmax(t6, t5);
    return vmax(t7, vmin(t8, vmax(t4, v[4])));
}

template <class V>
KRF_ALWAYS_INLINE V median7(const V* v) {
    const V t0 = vmin(v[0], v[1]), t1 = vmax(v[0], v[1]);
    const V t2 = vmin(v[2], v[3]), t3 = vmax(v[2], v[3]);
    const V t4 = vmin(t0, t2), t5 = vmax(t0, t2);
    const V t6 = vmin(t1, t3), t7 = vmax(t1, t3);
    const V t8 = vmin(t6, t5), t9 = vmax(t6, t5);
    const V t10 = vmin(v[4], v[5]), t11 = vmax(v[4], v[5]);
    const V t12 = vmin(t10, v[6]), t13 = vmax(t10, v[6]);
    const V t14 = vmin(t11, t13), t15 = vmax(t11, t13);
    const V t18 = vmax(vmin(t9, t15), vmax(t4, t12));
    const V t20 = vmin(t7, vmax(t8, t14));
    return vmin(t20, t18);
}

// Nine values as three sorted triples: the median is the median of (largest
// minimum, median of medians, smallest maximum).
template <class V>
KRF_ALWAYS_INLINE V median9(const V* v) {
    V a0 = v[0], a1 = v[1], a2 = v[2], b0 = v[3], b1 = v[4], b2 = v[5], c0 = v[6], c1 = v[7], c2 = v[8];
    sort3(a0, a1, a2);
    sort3(b0, b1, b2);
    sort3(c0, c1, c2);
    return median3(vmax(vmax(a0, b0), c0), median3(a1, b1, c1), vmin(vmin(a2, b2), c2));
}

template <int taps, class V>
KRF_ALWAYS_INLINE V median_of(const V* v) {
    if constexpr (taps == 1) return v[0];
    else if constexpr (taps == 3) return median3(v[0], v[1], v[2]);
    else if constexpr (taps == 5) return median5(v);
    else if constexpr (taps == 7) return median7(v);
    else return median9(v);
}

template <int taps, int Bytes>
KRF_ALWAYS_INLINE void median_of_lines(const Sample* const* lines, Sample* out, int count) {
    using V = typename lanes::Vector<Bytes>::type;
    const auto median_at = [&]<class T>(int i) KRF_INLINE_LAMBDA {
        T v[taps];
        for (int j = 0; j < taps; ++j) v[j] = load<T>(lines[j] + i);
        store(out + i, median_of<taps>(v));
    };
    for_blocks<lanes::Vector<Bytes>::count>(
        count, [&](int i) KRF_INLINE_LAMBDA { median_at.template operator()<V>(i); },
        [&](int i) KRF_INLINE_LAMBDA { median_at.template operator()<Sample>(i); });
}

using LinesKernel = void (*)(const Sample* const*, Sample*, int);

template <int taps>
void median_of_lines_portable(const Sample* const* lines, Sample* out, int count) {
    median_of_lines<taps, 16>(lines, out, count);
}
template <int taps>
KRF_TARGET_AVX2 void median_of_lines_avx2(const Sample* const* lines, Sample* out, int count) {
    median_of_lines<taps, 32>(lines, out, count);
}
template <int taps>
KRF_TARGET_AVX512BW void median_of_lines_avx512(const Sample* const* lines, Sample* out, int count) {
    median_of_lines<taps, 64>(lines, out, count);
}

template <int taps>
LinesKernel lines_kernel_for(MedianIsa isa) {
    return isa == MedianIsa::avx512bw ? median_of_lines_avx512<taps>
           : isa == MedianIsa::avx2   ? median_of_lines_avx2<taps>
                                      : median_of_lines_portable<taps>;
}

LinesKernel lines_kernel(int taps, MedianIsa isa) {
    switch (taps) {
        case 1: return lines_kernel_for<1>(isa);
        case 5: return lines_kernel_for<5>(isa);
        case 7: return lines_kernel_for<7>(isa);
        case 9: return lines_kernel_for<9>(isa);
        default: return lines_kernel_for<3>(isa);
    }
}

}  // namespace

int pseudo_median_2d(Rows src, Rows dst, int height, int width, int dimwnd, MedianIsa isa) noexcept {
    if (height <= 0 || width <= 0) return 0;
    CMemClass memory;  // held for the call; it has no behaviour
    // A window below one sample is taken as one sample.
    const int window = std::max(dimwnd, 1);
    const int h = (window - 1) / 2;
    // Only 5, 7 and 9 get their own network; every other window takes the
    // median of its first three samples, even where it gathers more (6, 8,
    // above 9): that is the filter's established response and it is kept.
    // Windows of 1 and 2 gather a single sample (h = 0), which the median of
    // three cannot complete; the missing entries are taken equal to it, so
    // these windows leave the image unchanged.
    const int taps = h == 0 ? 1 : (window == 5 || window == 7 || window == 9) ? window : 3;
    const LinesKernel kernel = lines_kernel(taps, isa);

    // The one-dimensional medians run over whole rows of lanes, so the row
    // pass result is the only working memory; no per-window buffer is needed.
    Raster scratch;
    if (const int code = scratch.allocate(height, width); code != 0) return code;

    // A window wider or taller than the image has no interior: the scratch
    // frame copy is clipped to the image and the output, all frame, stays
    // unwritten.
    const std::int64_t count = width - 2 * static_cast<std::int64_t>(h);
    const std::int64_t last_row = height - static_cast<std::int64_t>(h);
    const Sample* lines[9];
    for (int r = h; r < last_row && count > 0; ++r) {
        for (int j = 0; j < taps; ++j) lines[j] = src[r] + j;
        kernel(lines, scratch[r] + h, static_cast<int>(count));
    }
    copy_median_frame(src, scratch.rows(), height, width, h);
    for (int r = h; r < last_row && count > 0; ++r) {
        for (int j = 0; j < taps; ++j) lines[j] = scratch[r - h + j] + h;
        kernel(lines, dst[r] + h, static_cast<int>(count));
    }
    return 0;
}

}  // namespace krf
