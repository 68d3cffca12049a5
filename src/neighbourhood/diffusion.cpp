// "ADF": explicit anisotropic diffusion over the four nearest neighbours with
// the conduction exp(-(d / K)^2), Jacobi passes between two scratch rasters.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include "neighbourhood/local_filters.h"
#include "neighbourhood/local_filters_simd.h"
#include "platform/memory.h"
#include "platform/platform.h"

namespace krf {
namespace {

// One Jacobi pass over the interior, from `from` into `to`; true when some
// sample of `to` changed. `flux` is indexed by the signed difference d and
// holds d * G[d + white].
using DiffusionPass = bool (*)(Rows from, Rows to, int height, int width, const double* flux, double lambda);

// Interior columns first ... last - 1 of one row, exactly as the update is stated.
[[gnu::always_inline]] inline bool diffuse_row_plain(const Sample* up, const Sample* mid, const Sample* down,
                                                     Sample* out, int first, int last, const double* flux,
                                                     double lambda) {
    unsigned changed = 0;
    for (int c = first; c < last; ++c) {
        const int u = mid[c];
        const double sum = ((flux[down[c] - u] + flux[up[c] - u]) + flux[mid[c + 1] - u]) + flux[mid[c - 1] - u];
        const auto value = static_cast<Sample>(static_cast<int>(sum * lambda + u));
        changed |= static_cast<unsigned>(value ^ out[c]);
        out[c] = value;
    }
    return changed != 0;
}

bool diffusion_pass_portable(Rows from, Rows to, int height, int width, const double* flux, double lambda) {
    bool changed = false;
    for (int r = 1; r + 1 < height; ++r)
        changed |= diffuse_row_plain(from[r - 1], from[r], from[r + 1], to[r], 1, width - 1, flux, lambda);
    return changed;
}

#if KRF_X86
// The flux is odd: flux[-d] == -flux[d] exactly (the division, the square and
// the product are all symmetric in the sign of d). So a pair of neighbours
// needs one lookup for both directions: the west flux of column c is minus the
// east flux of column c - 1, and the north flux of row r + 1 is minus the
// south flux of row r. Two rows at a time, four columns per step, that is five
// lookups of four entries for eight samples instead of eight. Only a zero flux
// can come out as -0 instead of +0, which changes no sum that is then
// truncated.
struct DiffusionRows {
    const Sample* up;
    const Sample* top;
    const Sample* bottom;
    const Sample* down;
};

KRF_AVX2_INLINE __m128i four_samples(const Sample* p) {
    return _mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
}

KRF_AVX2_INLINE __m256d lookup(const double* flux, __m128i to, __m128i from) {
    return simd::lookup4(flux, _mm_sub_epi32(to, from));
}

// Lanes [previous[3], current[0], current[1], current[2]]: the east flux one
// column to the left.
KRF_AVX2_INLINE __m256d shifted_east(__m256d previous, __m256d current) {
    return _mm256_shuffle_pd(_mm256_permute2f128_pd(previous, current, 0x21), current, 0x5);
}

KRF_AVX2_INLINE __m128i update4(__m256d south, __m256d north, __m256d east, __m256d west, __m128i u,
                                __m256d lambda) {
    const __m256d sum = _mm256_add_pd(_mm256_add_pd(_mm256_add_pd(south, north), east), west);
    return _mm256_cvttpd_epi32(_mm256_add_pd(_mm256_mul_pd(sum, lambda), _mm256_cvtepi32_pd(u)));
}

KRF_TARGET_AVX2 bool diffuse_row_pair_avx2(const DiffusionRows& in, Sample* out_top, Sample* out_bottom, int first,
                                    int last, const double* flux, double lambda) {
    const __m256d lambda_v = _mm256_set1_pd(lambda);
    const __m256d sign = _mm256_set1_pd(-0.0);
    // Lane 3 of the "previous" east flux is the east flux of column first - 1.
    __m256d east_top_before = _mm256_set1_pd(flux[in.top[first] - in.top[first - 1]]);
    __m256d east_bottom_before = _mm256_set1_pd(flux[in.bottom[first] - in.bottom[first - 1]]);
    __m128i changed = _mm_setzero_si128();
    int c = first;
    for (; c + 4 <= last; c += 4) {
        const __m128i top = four_samples(in.top + c);
        const __m128i bottom = four_samples(in.bottom + c);
        const __m256d between = lookup(flux, bottom, top);  // south of the top row
        const __m256d north_top = lookup(flux, four_samples(in.up + c), top);
        const __m256d south_bottom = lookup(flux, four_samples(in.down + c), bottom);
        const __m256d east_top = lookup(flux, four_samples(in.top + c + 1), top);
        const __m256d east_bottom = lookup(flux, four_samples(in.bottom + c + 1), bottom);
        const __m256d west_top = _mm256_xor_pd(shifted_east(east_top_before, east_top), sign);
        const __m256d west_bottom = _mm256_xor_pd(shifted_east(east_bottom_before, east_bottom), sign);
        east_top_before = east_top;
        east_bottom_before = east_bottom;
        const __m128i new_top = update4(between, north_top, east_top, west_top, top, lambda_v);
        const __m128i new_bottom =
            update4(south_bottom, _mm256_xor_pd(between, sign), east_bottom, west_bottom, bottom, lambda_v);
        // Both rows' four samples, narrowed to 16 bits: top in the low half.
        const __m128i values = _mm_packus_epi32(new_top, new_bottom);
        const __m128i old = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(out_top + c)),
                                               _mm_loadl_epi64(reinterpret_cast<const __m128i*>(out_bottom + c)));
        changed = _mm_or_si128(changed, _mm_xor_si128(values, old));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out_top + c), values);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out_bottom + c), _mm_unpackhi_epi64(values, values));
    }
    bool tail_changed = diffuse_row_plain(in.up, in.top, in.bottom, out_top, c, last, flux, lambda);
    tail_changed |= diffuse_row_plain(in.top, in.bottom, in.down, out_bottom, c, last, flux, lambda);
    return tail_changed || !_mm_testz_si128(changed, changed);
}

KRF_TARGET_AVX2 bool diffusion_pass_avx2(Rows from, Rows to, int height, int width, const double* flux, double lambda) {
    bool changed = false;
    int r = 1;
    for (; r + 2 < height; r += 2) {
        const DiffusionRows rows{from[r - 1], from[r], from[r + 1], from[r + 2]};
        changed |= diffuse_row_pair_avx2(rows, to[r], to[r + 1], 1, width - 1, flux, lambda);
    }
    if (r + 1 < height)
        changed |= diffuse_row_plain(from[r - 1], from[r], from[r + 1], to[r], 1, width - 1, flux, lambda);
    return changed;
}
#endif

}  // namespace

int anisotropic_diffusion(Rows src, Rows dst, int height, int width, int white, int iterations, double lambda,
                          double k_devstd, KernelPath path) noexcept {
    Raster a;
    if (const int code = a.allocate(height, width)) return code;
    Raster b;
    if (const int code = b.allocate(height, width)) return code;
    ScratchArray<double> table;
    if (!table.allocate(2 * std::int64_t{white} + 1)) return kNoBuffer;

    // A lambda that is not a number diffuses nothing, like lambda 0.
    const double step = std::isnan(lambda) ? 0.0 : std::clamp(lambda, 0.0, 0.25);
    // A k_devstd that is not a number falls back to the default, like 0.
    const double k = (k_devstd == 0.0 || std::isnan(k_devstd)) ? (2 * white + 1) / 6.0 : k_devstd;
    // The table holds the whole flux d * G[d + white] of a difference d rather
    // than the conduction G alone: the product is the same double the update
    // would form, and one multiplication per neighbour leaves the inner loop.
    for (int i = 0; i <= 2 * white; ++i) {
        const double d = i - white;
        const double x = d / k;
        table[i] = d * std::exp(-(x * x));
    }
    const double* flux = table.get() + white;

    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c) a[r][c] = std::min<Sample>(src[r][c], static_cast<Sample>(white));
    if (height > 0 && width > 0) {
        copy_rows(a.rows(), b.rows(), 0, 1, width);
        copy_rows(a.rows(), b.rows(), height - 1, height, width);
        for (int r = 1; r + 1 < height; ++r) {
            b[r][0] = a[r][0];
            b[r][width - 1] = a[r][width - 1];
        }
    }
    if (height < 3 || width < 3) return 0;

    DiffusionPass diffuse = diffusion_pass_portable;
#if KRF_X86
    if (path == KernelPath::fastest && platform::cpu_features().avx2) diffuse = diffusion_pass_avx2;
#endif
    (void)path;

    Rows newest = a.rows();
    Rows previous = b.rows();
    for (int pass = 0; pass < iterations; ++pass) {
        const bool changed = diffuse(newest, previous, height, width, flux, step);
        std::swap(newest, previous);
        // From the second pass on, `newest` was written over the image of two
        // passes back. If nothing changed, the passes have settled into a cycle
        // of at most two images, and the remaining passes only alternate
        // between them: skip to the one the last pass would leave. So a huge
        // "numIter" costs only the passes until the image settles.
        if (pass >= 1 && !changed) {
            if ((iterations - 1 - pass) % 2 == 1) std::swap(newest, previous);
            break;
        }
    }
    for (int r = 1; r + 1 < height; ++r)
        std::memcpy(dst[r] + 1, newest[r] + 1, static_cast<std::size_t>(width - 2) * sizeof(Sample));
    return 0;
}

}  // namespace krf
