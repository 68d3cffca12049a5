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

// The flux table holds at least the differences -kNearReach ... kNearReach.
constexpr int kNearReach = 16;

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

// Four consecutive rows of the previous pass; the middle two are updated.
struct DiffusionRows {
    const Sample* up;
    const Sample* top;
    const Sample* bottom;
    const Sample* down;
};

// The south flux of a pair's lower row is minus the north flux of the next
// pair's upper row. A kernel may keep it here, one double per column, and
// read it back for the next pair of the same pass (`filled` is false for the
// first pair); kernels that do not use it leave it alone.
struct CarriedFlux {
    double* south;
    bool filled;
};

// Interior columns first ... last - 1 of two neighbouring rows.
using DiffusionRowPair = void (*)(const DiffusionRows& in, Sample* out_top, Sample* out_bottom, int first, int last,
                                  const double* flux, double lambda, CarriedFlux carried);

void diffuse_row_pair_portable(const DiffusionRows& in, Sample* out_top, Sample* out_bottom, int first, int last,
                               const double* flux, double lambda, CarriedFlux) {
    diffuse_row_plain(in.up, in.top, in.bottom, out_top, first, last, flux, lambda);
    diffuse_row_plain(in.top, in.bottom, in.down, out_bottom, first, last, flux, lambda);
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

// With `carried_south`, the south fluxes of the lower row are kept there for
// the next pair, and with north_carried the upper row's north fluxes are
// read back from there, negated: four look-ups for eight samples instead of
// five, as in the AVX-512 kernel.
template <bool north_carried, bool keep_south>
KRF_TARGET_AVX2 bool diffuse_row_pair_avx2_carrying(const DiffusionRows& in, Sample* out_top, Sample* out_bottom,
                                                    int first, int last, const double* flux, double lambda,
                                                    double* carried_south) {
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
        const __m256d north_top = north_carried ? _mm256_xor_pd(_mm256_loadu_pd(carried_south + c), sign)
                                                : lookup(flux, four_samples(in.up + c), top);
        const __m256d south_bottom = lookup(flux, four_samples(in.down + c), bottom);
        const __m256d east_top = lookup(flux, four_samples(in.top + c + 1), top);
        const __m256d east_bottom = lookup(flux, four_samples(in.bottom + c + 1), bottom);
        const __m256d west_top = _mm256_xor_pd(shifted_east(east_top_before, east_top), sign);
        const __m256d west_bottom = _mm256_xor_pd(shifted_east(east_bottom_before, east_bottom), sign);
        east_top_before = east_top;
        east_bottom_before = east_bottom;
        if (keep_south) _mm256_storeu_pd(carried_south + c, south_bottom);
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

KRF_TARGET_AVX2 bool diffuse_row_pair_avx2_changed(const DiffusionRows& in, Sample* out_top, Sample* out_bottom,
                                                   int first, int last, const double* flux, double lambda) {
    return diffuse_row_pair_avx2_carrying<false, false>(in, out_top, out_bottom, first, last, flux, lambda, nullptr);
}

KRF_TARGET_AVX2 bool diffusion_pass_avx2(Rows from, Rows to, int height, int width, const double* flux, double lambda) {
    bool changed = false;
    int r = 1;
    for (; r + 2 < height; r += 2) {
        const DiffusionRows rows{from[r - 1], from[r], from[r + 1], from[r + 2]};
        changed |= diffuse_row_pair_avx2_changed(rows, to[r], to[r + 1], 1, width - 1, flux, lambda);
    }
    if (r + 1 < height)
        changed |= diffuse_row_plain(from[r - 1], from[r], from[r + 1], to[r], 1, width - 1, flux, lambda);
    return changed;
}

KRF_TARGET_AVX2 void diffuse_row_pair_avx2(const DiffusionRows& in, Sample* out_top, Sample* out_bottom, int first,
                                           int last, const double* flux, double lambda, CarriedFlux carried) {
    if (carried.filled) {
        diffuse_row_pair_avx2_carrying<true, true>(in, out_top, out_bottom, first, last, flux, lambda, carried.south);
    } else {
        diffuse_row_pair_avx2_carrying<false, true>(in, out_top, out_bottom, first, last, flux, lambda, carried.south);
    }
}

#define KRF_AVX512_INLINE __attribute__((target("avx512bw,avx512vl,avx512dq"), always_inline)) inline

KRF_AVX512_INLINE __m256i eight_samples(const Sample* p) {
    return _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

// -v by flipping the sign bit, as the AVX2 kernel does (AVX-512F has no xor of doubles).
KRF_AVX512_INLINE __m512d negate8(__m512d v) {
    return _mm512_castsi512_pd(_mm512_xor_si512(_mm512_castpd_si512(v), _mm512_set1_epi64(INT64_MIN)));
}

KRF_AVX512_INLINE __m256i update8(__m512d south, __m512d north, __m512d east, __m512d west, __m256i u,
                                  __m512d lambda) {
    const __m512d sum = _mm512_add_pd(_mm512_add_pd(_mm512_add_pd(south, north), east), west);
    return _mm512_cvttpd_epi32(_mm512_add_pd(_mm512_mul_pd(sum, lambda), _mm512_cvtepi32_pd(u)));
}

// The flux of the 32 differences -16 ... 15 in four registers: neighbours in
// smooth regions differ by little (on the real radiograph 92 % of the kernel's
// steps had all their differences in that range), and then a look-up is two
// in-register permutes and a blend instead of eight loads and their shuffles.
// The entries are the table's own doubles, so the sums are the same. A range
// of 64 needs four permutes and measured slower; so did choosing per look-up.
struct NearFlux {
    __m512d part[4];  // differences -16 + 8 j ... -9 + 8 j
};

KRF_AVX512_INLINE NearFlux near_flux(const double* flux) {
    NearFlux near;
    for (int j = 0; j < 4; ++j) near.part[j] = _mm512_loadu_pd(flux - kNearReach + 8 * j);
    return near;
}

// Eight flux entries of differences already known to lie in -16 ... 15.
KRF_AVX512_INLINE __m512d near_lookup8(const NearFlux& near, __m256i difference) {
    const __m512i index = _mm512_cvtepi32_epi64(_mm256_add_epi32(difference, _mm256_set1_epi32(kNearReach)));
    const __m512d q0 = _mm512_permutex2var_pd(near.part[0], index, near.part[1]);
    const __m512d q1 = _mm512_permutex2var_pd(near.part[2], index, near.part[3]);
    return _mm512_mask_blend_pd(_mm512_test_epi64_mask(index, _mm512_set1_epi64(16)), q0, q1);
}

// Whether every difference lies in -16 ... 15.
KRF_AVX512_INLINE bool all_near(__m256i a, __m256i b, __m256i c, __m256i d, __m256i e) {
    const __m256i bias = _mm256_set1_epi32(kNearReach);
    const __m256i any = _mm256_or_si256(
        _mm256_or_si256(_mm256_add_epi32(a, bias), _mm256_add_epi32(b, bias)),
        _mm256_or_si256(_mm256_or_si256(_mm256_add_epi32(c, bias), _mm256_add_epi32(d, bias)),
                        _mm256_add_epi32(e, bias)));
    return _mm256_testz_si256(any, _mm256_set1_epi32(~(2 * kNearReach - 1)));
}

// Eight flux entries of any differences; scalar loads, as in lookup4, beat the
// gather instruction.
KRF_AVX512_INLINE __m512d lookup8(const double* flux, __m256i difference) {
    const __m256d low = simd::lookup4(flux, _mm256_castsi256_si128(difference));
    const __m256d high = simd::lookup4(flux, _mm256_extracti128_si256(difference, 1));
    return _mm512_insertf64x4(_mm512_castpd256_pd512(low), high, 1);
}

// The AVX2 pair kernel's scheme eight columns wide: the same lookups shared
// between neighbours and the same sums in the same order, so the same samples.
// The north flux of the upper row comes negated from the pair above when it
// is carried, which leaves four look-ups for sixteen samples instead of five.
template <bool north_carried>
__attribute__((target("avx512bw,avx512vl,avx512dq"))) void diffuse_row_pair_avx512_carrying(
    const DiffusionRows& in, Sample* out_top, Sample* out_bottom, int first, int last, const double* flux,
    double lambda, double* carried_south) {
    const __m512d lambda_v = _mm512_set1_pd(lambda);
    // Lanes [previous[7], current[0], ..., current[6]]: the east flux one column to the left.
    const __m512i shift = _mm512_setr_epi64(15, 0, 1, 2, 3, 4, 5, 6);
    const NearFlux near = near_flux(flux);
    __m512d east_top_before = _mm512_set1_pd(flux[in.top[first] - in.top[first - 1]]);
    __m512d east_bottom_before = _mm512_set1_pd(flux[in.bottom[first] - in.bottom[first - 1]]);
    int c = first;
    int unchecked = 0;
    for (; c + 8 <= last; c += 8) {
        const __m256i top = eight_samples(in.top + c);
        const __m256i bottom = eight_samples(in.bottom + c);
        const __m256i d_between = _mm256_sub_epi32(bottom, top);
        const __m256i d_north = north_carried ? d_between : _mm256_sub_epi32(eight_samples(in.up + c), top);
        const __m256i d_south = _mm256_sub_epi32(eight_samples(in.down + c), bottom);
        const __m256i d_east_top = _mm256_sub_epi32(eight_samples(in.top + c + 1), top);
        const __m256i d_east_bottom = _mm256_sub_epi32(eight_samples(in.bottom + c + 1), bottom);
        __m512d between, north_top, south_bottom, east_top, east_bottom;
        // Where the look-ups go to the table, the next steps usually do as
        // well: after a failed test the next three steps skip it.
        const bool near_step = unchecked == 0 && all_near(d_between, d_north, d_south, d_east_top, d_east_bottom);
        if (!near_step) unchecked = unchecked == 0 ? 3 : unchecked - 1;
        if (near_step) {
            between = near_lookup8(near, d_between);
            north_top = north_carried ? negate8(_mm512_loadu_pd(carried_south + c)) : near_lookup8(near, d_north);
            south_bottom = near_lookup8(near, d_south);
            east_top = near_lookup8(near, d_east_top);
            east_bottom = near_lookup8(near, d_east_bottom);
        } else {
            between = lookup8(flux, d_between);
            north_top = north_carried ? negate8(_mm512_loadu_pd(carried_south + c)) : lookup8(flux, d_north);
            south_bottom = lookup8(flux, d_south);
            east_top = lookup8(flux, d_east_top);
            east_bottom = lookup8(flux, d_east_bottom);
        }
        const __m512d west_top = negate8(_mm512_permutex2var_pd(east_top, shift, east_top_before));
        const __m512d west_bottom = negate8(_mm512_permutex2var_pd(east_bottom, shift, east_bottom_before));
        east_top_before = east_top;
        east_bottom_before = east_bottom;
        _mm512_storeu_pd(carried_south + c, south_bottom);
        const __m256i new_top = update8(between, north_top, east_top, west_top, top, lambda_v);
        const __m256i new_bottom = update8(south_bottom, negate8(between), east_bottom, west_bottom, bottom, lambda_v);
        // Both rows' eight samples narrowed to 16 bits: top in the low half.
        const __m256i values = _mm256_permute4x64_epi64(_mm256_packus_epi32(new_top, new_bottom), 0xD8);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out_top + c), _mm256_castsi256_si128(values));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out_bottom + c), _mm256_extracti128_si256(values, 1));
    }
    if (c < last) diffuse_row_pair_avx2_changed(in, out_top, out_bottom, c, last, flux, lambda);
}

void diffuse_row_pair_avx512(const DiffusionRows& in, Sample* out_top, Sample* out_bottom, int first, int last,
                             const double* flux, double lambda, CarriedFlux carried) {
    if (carried.filled) {
        diffuse_row_pair_avx512_carrying<true>(in, out_top, out_bottom, first, last, flux, lambda, carried.south);
    } else {
        diffuse_row_pair_avx512_carrying<false>(in, out_top, out_bottom, first, last, flux, lambda, carried.south);
    }
}
#endif

// Up to this many passes run as one pipeline over the rows; more passes take
// the two full scratch rasters, where a pass that changes nothing ends the run.
constexpr int kPipelinedPasses = 32;

// Every pass at once, row pair by row pair: pass p updates rows 2j + 1 and
// 2j + 2 as soon as pass p - 1 has rows 2j ... 2j + 3, so each pass keeps only
// six rows (three pairs) in a ring and the whole run stays in the cache. The
// samples are those of the passes one after the other over whole images:
// every row of every pass is computed from the same rows of the pass before.
// Rows 0 and height - 1 and columns 0 and width - 1 are the clamped input in
// every pass. Needs height, width >= 3 and 0 <= passes <= kPipelinedPasses.
class DiffusionPipeline {
public:
    static constexpr int kRingRows = 6;

    int run(Rows src, Rows dst, int height, int width, Sample white, int passes, const double* flux, double lambda,
            DiffusionRowPair pair) noexcept {
        height_ = height;
        width_ = width;
        const std::int64_t ring_samples = std::int64_t{kRingRows} * width;
        // The rings of every pass, then the first and last image rows, then
        // the first and last column of every row.
        if (!store_.allocate((passes + 1) * ring_samples + 2 * std::int64_t{width} + 2 * std::int64_t{height}))
            return kNoBuffer;
        // One row of carried south fluxes per pass.
        if (!carried_.allocate(std::int64_t{passes} * width)) return kNoBuffer;
        rings_ = store_.get();
        ring_samples_ = ring_samples;
        first_row_ = rings_ + (passes + 1) * ring_samples;
        last_row_ = first_row_ + width;
        left_ = last_row_ + width;
        right_ = left_ + height;
        const auto clamp_row = [&](const Sample* in, Sample* out) {
            for (int c = 0; c < width; ++c) out[c] = std::min(in[c], white);
        };
        clamp_row(src[0], first_row_);
        clamp_row(src[height - 1], last_row_);
        for (int r = 0; r < height; ++r) {
            left_[r] = std::min(src[r][0], white);
            right_[r] = std::min(src[r][width - 1], white);
        }

        const int interior = height - 2;
        const int pairs = (interior + 1) / 2;
        for (int step = 0; step < pairs + passes; ++step) {
            for (int level = 0; level <= passes; ++level) {
                const int j = step - level;
                if (j < 0 || j >= pairs) continue;
                const int top = 2 * j + 1;
                const bool both = top + 1 < height - 1;
                Sample* out_top = row(level, top);
                Sample* out_bottom = both ? row(level, top + 1) : nullptr;
                if (level == 0) {
                    // In-place calls stay exact: the output rows written so
                    // far lie above every input row still to be read.
                    clamp_row(src[top], out_top);
                    if (both) clamp_row(src[top + 1], out_bottom);
                    continue;
                }
                const DiffusionRows in{row(level - 1, top - 1), row(level - 1, top), row(level - 1, top + 1),
                                       both ? row(level - 1, top + 2) : nullptr};
                if (both) {
                    const CarriedFlux carried{carried_.get() + std::int64_t{level - 1} * width, j > 0};
                    pair(in, out_top, out_bottom, 1, width - 1, flux, lambda, carried);
                } else {
                    diffuse_row_plain(in.up, in.top, in.bottom, out_top, 1, width - 1, flux, lambda);
                }
                frame(out_top, top);
                if (both) frame(out_bottom, top + 1);
            }
            const int done = step - passes;
            if (done < 0 || done >= pairs) continue;
            const int top = 2 * done + 1;
            for (int r = top; r <= top + 1 && r < height - 1; ++r)
                std::memcpy(dst[r] + 1, row(passes, r) + 1, static_cast<std::size_t>(width - 2) * sizeof(Sample));
        }
        return 0;
    }

private:
    // Row r of pass `level` (0 is the clamped input).
    Sample* row(int level, int r) const noexcept {
        if (r == 0) return first_row_;
        if (r == height_ - 1) return last_row_;
        return rings_ + level * ring_samples_ + static_cast<std::int64_t>((r - 1) % kRingRows) * width_;
    }
    void frame(Sample* out, int r) const noexcept {
        out[0] = left_[r];
        out[width_ - 1] = right_[r];
    }

    ScratchArray<Sample> store_;
    ScratchArray<double> carried_;
    Sample* rings_ = nullptr;
    std::int64_t ring_samples_ = 0;
    Sample* first_row_ = nullptr;
    Sample* last_row_ = nullptr;
    Sample* left_ = nullptr;
    Sample* right_ = nullptr;
    int height_ = 0;
    int width_ = 0;
};

}  // namespace

int anisotropic_diffusion(Rows src, Rows dst, int height, int width, int white, int iterations, double lambda,
                          double k_devstd, KernelPath path) noexcept {
    // A negative white level has no table to build: that is an allocation
    // the allocator refuses.
    if (white < 0) return kNoBuffer;
    // The table reaches at least kNearReach levels either side of zero, for
    // the near look-ups of the widest kernel; entries beyond the white level
    // stay zero and no difference ever reaches them.
    const std::int64_t reach = std::max(white, kNearReach);
    ScratchArray<double> table;
    if (!table.allocate(2 * reach + 1)) return kNoBuffer;

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
        table[reach - white + i] = d * std::exp(-(x * x));
    }
    const double* flux = table.get() + reach;
    const auto cap = static_cast<Sample>(white);
    // An image without interior samples has nothing to diffuse and nothing to write.
    if (height < 3 || width < 3) return 0;

    DiffusionPass diffuse = diffusion_pass_portable;
    DiffusionRowPair pair = diffuse_row_pair_portable;
#if KRF_X86
    if (path != KernelPath::portable && platform::cpu_features().avx2) {
        diffuse = diffusion_pass_avx2;
        const bool wide = path == KernelPath::fastest && platform::cpu_features().avx512bw;
        pair = wide ? diffuse_row_pair_avx512 : diffuse_row_pair_avx2;
    }
#endif
    (void)path;

    if (iterations <= kPipelinedPasses) {
        DiffusionPipeline pipeline;
        return pipeline.run(src, dst, height, width, cap, std::max(iterations, 0), flux, step, pair);
    }

    Raster a;
    if (const int code = a.allocate(height, width)) return code;
    Raster b;
    if (const int code = b.allocate(height, width)) return code;
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c) a[r][c] = std::min<Sample>(src[r][c], cap);
    copy_rows(a.rows(), b.rows(), 0, 1, width);
    copy_rows(a.rows(), b.rows(), height - 1, height, width);
    for (int r = 1; r + 1 < height; ++r) {
        b[r][0] = a[r][0];
        b[r][width - 1] = a[r][width - 1];
    }

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
