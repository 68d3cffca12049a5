// "bilateral_filter": the window mean weighted by a Gaussian of the grey-level
// difference to the centre and a Gaussian of the city-block distance to it.
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

struct SharedWeights;

struct BilateralJob {
    Rows src;
    int white;
    int half;
    const double* range;    // indexed by u - v, -white ... white
    const double* spatial;  // indexed by |dx| + |dy|, 0 ... 2 * half
    const SharedWeights* shared = nullptr;  // set for the kernels that read the weights ahead
};

// Filters columns first ... last - 1 of image row r into `out`.
using BilateralRow = void (*)(const BilateralJob& job, int r, Sample* out, int first, int last);

// Samples above white would index past the range table; they enter as white,
// as the centre and as neighbours alike.
[[gnu::always_inline]] inline void bilateral_row_plain(const BilateralJob& job, int r, Sample* out, int first,
                                                       int last) {
    const int h = job.half;
    for (int c = first; c < last; ++c) {
        const int u = std::min<int>(job.src[r][c], job.white);
        double weights = 0.0;
        double weighted = 0.0;
        for (int dy = -h; dy <= h; ++dy) {
            const Sample* line = job.src[r + dy];
            for (int dx = -h; dx <= h; ++dx) {
                const int v = std::min<int>(line[c + dx], job.white);
                const double w = job.range[u - v] * job.spatial[std::abs(dx) + std::abs(dy)];
                weights += w;
                weighted += v * w;
            }
        }
        out[c] = static_cast<Sample>(static_cast<int>(weighted / weights));
    }
}

void bilateral_row_portable(const BilateralJob& job, int r, Sample* out, int first, int last) {
    bilateral_row_plain(job, r, out, first, last);
}

#if KRF_X86
// Eight centres side by side, each lane summing its taps in the plain loop's
// order (rows outer, columns inner), so every lane forms the same doubles.
KRF_TARGET_AVX2 void bilateral_row_avx2(const BilateralJob& job, int r, Sample* out, int first, int last) {
    using namespace simd;
    const int h = job.half;
    const __m128i white8 = _mm_set1_epi16(static_cast<short>(job.white));
    int c = first;
    for (; c + 8 <= last; c += 8) {
        const __m256i u = _mm256_cvtepu16_epi32(_mm_min_epu16(load8(job.src[r] + c), white8));
        __m256d weights_low = _mm256_setzero_pd();
        __m256d weights_high = _mm256_setzero_pd();
        __m256d weighted_low = _mm256_setzero_pd();
        __m256d weighted_high = _mm256_setzero_pd();
        for (int dy = -h; dy <= h; ++dy) {
            const Sample* line = job.src[r + dy] + c;
            for (int dx = -h; dx <= h; ++dx) {
                const __m256i v = _mm256_cvtepu16_epi32(_mm_min_epu16(load8(line + dx), white8));
                const __m256i index = _mm256_sub_epi32(u, v);
                const __m256d spatial = _mm256_set1_pd(job.spatial[std::abs(dx) + std::abs(dy)]);
                const __m256d w_low = _mm256_mul_pd(lookup4(job.range, low_half(index)), spatial);
                const __m256d w_high = _mm256_mul_pd(lookup4(job.range, high_half(index)), spatial);
                weights_low = _mm256_add_pd(weights_low, w_low);
                weights_high = _mm256_add_pd(weights_high, w_high);
                weighted_low = _mm256_add_pd(weighted_low, _mm256_mul_pd(_mm256_cvtepi32_pd(low_half(v)), w_low));
                weighted_high = _mm256_add_pd(weighted_high, _mm256_mul_pd(_mm256_cvtepi32_pd(high_half(v)), w_high));
            }
        }
        const __m128i low = _mm256_cvttpd_epi32(_mm256_div_pd(weighted_low, weights_low));
        const __m128i high = _mm256_cvttpd_epi32(_mm256_div_pd(weighted_high, weights_high));
        store8(out + c, narrow8(join(low, high)));
    }
    bilateral_row_plain(job, r, out, c, last);
}
#endif

// The weight of a tap is symmetric: range[u - v] == range[v - u] exactly (the
// table is built from the square of a quotient whose sign alone differs), and
// the spatial factor depends on the distance only. So the weight that centre p
// gives its neighbour q is the weight q gives p, and half the taps of every
// window (those pointing up, or left within the row) were already formed as
// the "forward" taps of an earlier centre. For small windows the forward
// weights of the last h + 1 rows are kept, one row per forward tap, and every
// centre reads its 2 h (h + 1) forward and as many backward weights from
// them: half the table look-ups. The sums still run over the taps in the
// plain loop's order with the same doubles, so the samples are the same.
struct SharedWeights {
    static constexpr int kLargestHalf = 2;
    int half = 0;
    int width = 0;
    double* rows = nullptr;  // forward tap k, image row q: rows + (k (h + 1) + q mod (h + 1)) width
    int computed_through = -1;
    // Per tap (dy + h, dx + h) of the window: the forward tap it reads and
    // whether it reads the weight of the centre itself or of the neighbour.
    int forward_index[2 * kLargestHalf + 1][2 * kLargestHalf + 1] = {};

    static int forward_taps(int h) { return 2 * h * (h + 1); }
    const double* row(int tap, int image_row) const {
        return rows + (static_cast<std::int64_t>(tap) * (half + 1) + image_row % (half + 1)) * width;
    }
    double* row(int tap, int image_row) {
        return rows + (static_cast<std::int64_t>(tap) * (half + 1) + image_row % (half + 1)) * width;
    }
};

// Where each tap of row r's centres finds its weight: weight(c) = base[c + shift];
// the centre's own tap has no base.
struct Tap {
    const double* base;
    int shift;
};
constexpr int kLargestWindow = (2 * SharedWeights::kLargestHalf + 1) * (2 * SharedWeights::kLargestHalf + 1);

void shared_taps(const BilateralJob& job, int r, Tap* taps) {
    const int h = job.half;
    const SharedWeights& shared = *job.shared;
    for (int dy = -h, t = 0; dy <= h; ++dy)
        for (int dx = -h; dx <= h; ++dx, ++t) {
            if (dy == 0 && dx == 0) {
                taps[t] = {nullptr, 0};
            } else if (dy > 0 || (dy == 0 && dx > 0)) {
                taps[t] = {shared.row(shared.forward_index[dy + h][dx + h], r), 0};
            } else {
                taps[t] = {shared.row(shared.forward_index[h - dy][h - dx], r + dy), dx};
            }
        }
}

#if KRF_X86
// Forward tap (dy, dx) of every centre of image row q whose neighbour lies in the image.
KRF_TARGET_AVX2 void forward_weights_avx2(const BilateralJob& job, int q, int dy, int dx, double* out) {
    const int first = std::max(0, -dx);
    const int last = job.shared->width - std::max(0, dx);
    const Sample* centre = job.src[q];
    const Sample* neighbour = job.src[q + dy];
    const double spatial = job.spatial[std::abs(dx) + std::abs(dy)];
    const __m256d spatial4 = _mm256_set1_pd(spatial);
    const __m128i white8 = _mm_set1_epi16(static_cast<short>(job.white));
    int c = first;
    for (; c + 8 <= last; c += 8) {
        const __m256i u = _mm256_cvtepu16_epi32(_mm_min_epu16(simd::load8(centre + c), white8));
        const __m256i v = _mm256_cvtepu16_epi32(_mm_min_epu16(simd::load8(neighbour + c + dx), white8));
        const __m256i index = _mm256_sub_epi32(u, v);
        _mm256_storeu_pd(out + c, _mm256_mul_pd(simd::lookup4(job.range, simd::low_half(index)), spatial4));
        _mm256_storeu_pd(out + c + 4, _mm256_mul_pd(simd::lookup4(job.range, simd::high_half(index)), spatial4));
    }
    for (; c < last; ++c) {
        const int u = std::min<int>(centre[c], job.white);
        const int v = std::min<int>(neighbour[c + dx], job.white);
        out[c] = job.range[u - v] * spatial;
    }
}

KRF_TARGET_AVX2 void bilateral_row_shared_avx2(const BilateralJob& job, int r, Sample* out, int first, int last) {
    const int h = job.half;
    Tap taps[kLargestWindow];
    shared_taps(job, r, taps);
    const __m256d centre_weight = _mm256_set1_pd(job.range[0] * job.spatial[0]);
    const __m128i white8 = _mm_set1_epi16(static_cast<short>(job.white));
    int c = first;
    for (; c + 8 <= last; c += 8) {
        __m256d weights_low = _mm256_setzero_pd();
        __m256d weights_high = _mm256_setzero_pd();
        __m256d weighted_low = _mm256_setzero_pd();
        __m256d weighted_high = _mm256_setzero_pd();
        int k = 0;
        for (int dy = -h; dy <= h; ++dy) {
            const Sample* line = job.src[r + dy] + c;
            for (int dx = -h; dx <= h; ++dx, ++k) {
                const __m256i v = _mm256_cvtepu16_epi32(_mm_min_epu16(simd::load8(line + dx), white8));
                __m256d w_low = centre_weight;
                __m256d w_high = centre_weight;
                if (taps[k].base != nullptr) {
                    const double* w = taps[k].base + c + taps[k].shift;
                    w_low = _mm256_loadu_pd(w);
                    w_high = _mm256_loadu_pd(w + 4);
                }
                weights_low = _mm256_add_pd(weights_low, w_low);
                weights_high = _mm256_add_pd(weights_high, w_high);
                weighted_low = _mm256_add_pd(weighted_low, _mm256_mul_pd(_mm256_cvtepi32_pd(simd::low_half(v)), w_low));
                weighted_high =
                    _mm256_add_pd(weighted_high, _mm256_mul_pd(_mm256_cvtepi32_pd(simd::high_half(v)), w_high));
            }
        }
        const __m128i low = _mm256_cvttpd_epi32(_mm256_div_pd(weighted_low, weights_low));
        const __m128i high = _mm256_cvttpd_epi32(_mm256_div_pd(weighted_high, weights_high));
        simd::store8(out + c, simd::narrow8(simd::join(low, high)));
    }
    bilateral_row_plain(job, r, out, c, last);
}

// The same eight centres in one register.
__attribute__((target("avx512bw,avx512vl,avx512dq"))) void bilateral_row_shared_avx512(const BilateralJob& job, int r,
                                                                                        Sample* out, int first,
                                                                                        int last) {
    const int h = job.half;
    Tap taps[kLargestWindow];
    shared_taps(job, r, taps);
    const __m512d centre_weight = _mm512_set1_pd(job.range[0] * job.spatial[0]);
    const __m128i white8 = _mm_set1_epi16(static_cast<short>(job.white));
    int c = first;
    for (; c + 8 <= last; c += 8) {
        __m512d weights = _mm512_setzero_pd();
        __m512d weighted = _mm512_setzero_pd();
        int k = 0;
        for (int dy = -h; dy <= h; ++dy) {
            const Sample* line = job.src[r + dy] + c;
            for (int dx = -h; dx <= h; ++dx, ++k) {
                const __m256i v = _mm256_cvtepu16_epi32(_mm_min_epu16(simd::load8(line + dx), white8));
                const __m512d w =
                    taps[k].base != nullptr ? _mm512_loadu_pd(taps[k].base + c + taps[k].shift) : centre_weight;
                weights = _mm512_add_pd(weights, w);
                weighted = _mm512_add_pd(weighted, _mm512_mul_pd(_mm512_cvtepi32_pd(v), w));
            }
        }
        simd::store8(out + c, simd::narrow8(_mm512_cvttpd_epi32(_mm512_div_pd(weighted, weights))));
    }
    bilateral_row_plain(job, r, out, c, last);
}

// Forward weights of every image row up to r that a centre row up to r reads.
void share_weights_through(const BilateralJob& job, SharedWeights& shared, int r) {
    const int h = shared.half;
    for (int q = shared.computed_through + 1; q <= r; ++q)
        for (int dy = 0; dy <= h; ++dy)
            for (int dx = dy == 0 ? 1 : -h; dx <= h; ++dx)
                forward_weights_avx2(job, q, dy, dx, shared.row(shared.forward_index[dy + h][dx + h], q));
    shared.computed_through = r;
}
#endif

// Half-width of the window n = trunc(6 sigma), raised to odd.
int window_half(double sigma, int height, int width) {
    // A negative sigma gives the same spatial weights as its magnitude, and a
    // sigma that is not a number a 1 x 1 window.
    const double size = std::trunc(6.0 * std::fabs(sigma));
    if (std::isnan(size)) return 0;
    // A window whose half-width reaches half the image height leaves no row to
    // filter: every row is then a copied top or bottom row, whatever the
    // window. Holding h to the image keeps a huge sigma from asking for a huge
    // spatial table while giving the same samples.
    const int cap = std::max({height, width, 0});
    if (size >= 2.0 * cap + 1.0) return cap;
    auto n = static_cast<std::int64_t>(size);
    if (n % 2 == 0) ++n;
    return static_cast<int>(std::min<std::int64_t>(n / 2, cap));
}

}  // namespace

int bilateral_filter(Rows src, Rows dst, int height, int width, int white, double spatial_sigma,
                     double luminance_sigma, KernelPath path) noexcept {
    ScratchArray<double> range_table;
    if (!range_table.allocate(2 * std::int64_t{white} + 1)) return kNoBuffer;
    // A LuminanceSigma of 0 would make the centre weight 0/0 and every other
    // weight 0. It is taken as the limit of a vanishing sigma instead: weight 1
    // for an exact grey-level match, 0 otherwise. A sigma that is not a number
    // is treated the same way; a negative one weighs as its magnitude.
    const bool exact_match = luminance_sigma == 0.0 || std::isnan(luminance_sigma);
    for (int i = 0; i <= 2 * white; ++i) {
        if (exact_match) {
            range_table[i] = i == white ? 1.0 : 0.0;
        } else {
            const double x = (i - white) / luminance_sigma;
            range_table[i] = std::exp(-(x * x));
        }
    }

    const int h = window_half(spatial_sigma, height, width);
    const std::int64_t n = 2 * std::int64_t{h} + 1;
    // The window corners reach |dx| + |dy| = n - 1, one entry past the n - 1
    // that the weights formula lists; that entry follows the same formula,
    // S[n - 1] = exp(-((n - 1) / sigma)^2), so the corners weigh what their
    // distance says.
    ScratchArray<double> spatial_table;
    if (!spatial_table.allocate(n)) return kNoBuffer;
    for (std::int64_t i = 0; i < n && h > 0; ++i) {
        const double x = static_cast<double>(i) / spatial_sigma;
        spatial_table[i] = std::exp(-(x * x));
    }

    // Filtered row r can go to the output once no later row reads image row r,
    // that is h rows later (at once when no row is filtered). So h + 1 rows in
    // turn suffice, in-place calls still read only unwritten rows, and no
    // zero-filled raster of the whole image costs its fresh pages.
    const int delay = 2 * std::int64_t{h} < height ? h : 0;
    Raster ring;
    if (const int code = ring.allocate(delay + 1, width)) return code;

    BilateralRow filter_row = bilateral_row_portable;
    SharedWeights shared;
    ScratchArray<double> shared_rows;
    BilateralJob job{src, white, h, range_table.get() + white, spatial_table.get()};
#if KRF_X86
    if (path != KernelPath::portable && platform::cpu_features().avx2) {
        filter_row = bilateral_row_avx2;
        // Sharing pays where a row holds at least one vector of centres.
        if (h >= 1 && h <= SharedWeights::kLargestHalf && std::int64_t{width} - 2 * h >= 8 && 2 * h < height) {
            shared.half = h;
            shared.width = width;
            if (!shared_rows.allocate(std::int64_t{SharedWeights::forward_taps(h)} * (h + 1) * width))
                return kNoBuffer;
            shared.rows = shared_rows.get();
            int k = 0;
            for (int dy = 0; dy <= h; ++dy)
                for (int dx = dy == 0 ? 1 : -h; dx <= h; ++dx) shared.forward_index[dy + h][dx + h] = k++;
            job.shared = &shared;
            const bool wide = path == KernelPath::fastest && platform::cpu_features().avx512bw;
            filter_row = wide ? bilateral_row_shared_avx512 : bilateral_row_shared_avx2;
        }
    }
#endif
    (void)path;
    const auto slot = [&](int r) { return ring[r % (delay + 1)]; };
    for (int r = 0; r < height && width > 0; ++r) {
        Sample* out = slot(r);
        const auto copy_span = [&](int first, int last) {
            if (last > first) std::copy(src[r] + first, src[r] + last, out + first);
        };
        if (r < h || r >= height - h) {
            // Top and bottom rows: column 0 is deliberately 0, as in a
            // zero-filled raster that receives only columns 1 ... width - 1.
            out[0] = 0;
            copy_span(1, width);
        } else {
            const int left_end = std::min(h, width);
            const int right_start = std::max(width - h, left_end);
            copy_span(0, left_end);
            if (h == 0) {
                // A 1 x 1 window (n = 1, which includes SpatialSigma 0) copies
                // the sample: its only weight may be 0/0 in the formula, and
                // its weighted mean is the sample itself.
                copy_span(0, width);
            } else if (right_start > left_end) {
#if KRF_X86
                if (job.shared != nullptr) share_weights_through(job, shared, r);
#endif
                filter_row(job, r, out, left_end, right_start);
            }
            copy_span(right_start, width);
        }
        if (r >= delay) std::copy(slot(r - delay), slot(r - delay) + width, dst[r - delay]);
    }
    for (int r = std::max(height - delay, 0); r < height && width > 0; ++r)
        std::copy(slot(r), slot(r) + width, dst[r]);
    return 0;
}

}  // namespace krf
