// Vector-code helpers shared by the local filters' AVX2 paths.
#pragma once

#include <cstdint>

#include "interface/rows.h"
#include "platform/vector_targets.h"

#if defined(__x86_64__) || defined(__i386__)
// GCC 12's gather intrinsics start from a deliberately undefined register and
// warn about it once inlined; the warning says nothing about our code.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop

namespace krf::simd {

// Eight samples from p (no alignment needed).
KRF_AVX2_INLINE __m128i load8(const Sample* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// Eight samples widened to 32-bit lanes.
KRF_AVX2_INLINE __m256i widen8(const Sample* p) { return _mm256_cvtepu16_epi32(load8(p)); }

// Eight 32-bit lanes holding 0 ... 65535 narrowed to samples.
KRF_AVX2_INLINE __m128i narrow8(__m256i v) {
    return _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packus_epi32(v, v), 0x08));
}

KRF_AVX2_INLINE void store8(Sample* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

KRF_AVX2_INLINE __m128i low_half(__m256i v) { return _mm256_castsi256_si128(v); }
KRF_AVX2_INLINE __m128i high_half(__m256i v) { return _mm256_extracti128_si256(v, 1); }
KRF_AVX2_INLINE __m256i join(__m128i low, __m128i high) { return _mm256_set_m128i(high, low); }

// Four table entries at the indices of `index`. Plain loads beat the gather
// instruction here: gathers are slow on the AMD processors this library
// mostly runs on.
KRF_AVX2_INLINE __m256d lookup4(const double* table, __m128i index) {
    // Two indexes per 64-bit extraction: the low one sign-extended, the high
    // one shifted down arithmetically.
    const std::int64_t i01 = _mm_cvtsi128_si64(index), i23 = _mm_extract_epi64(index, 1);
    const __m128d low = _mm_loadh_pd(_mm_load_sd(table + static_cast<std::int32_t>(i01)), table + (i01 >> 32));
    const __m128d high = _mm_loadh_pd(_mm_load_sd(table + static_cast<std::int32_t>(i23)), table + (i23 >> 32));
    return _mm256_insertf128_pd(_mm256_castpd128_pd256(low), high, 1);
}

}  // namespace krf::simd
#endif
