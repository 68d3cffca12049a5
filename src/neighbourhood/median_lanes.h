// Lanes of unsigned 16-bit samples for the median kernels. A kernel is written
// once over a lane type V and instantiated three times: 16-byte vectors for
// any x86-64, 32-byte vectors inside AVX2 functions, 64-byte vectors inside
// AVX-512BW functions. The same code also runs on a single Sample for the
// samples that do not fill a vector, so every width computes the same
// min/max network.
#pragma once

#include <cstring>

#include "interface/rows.h"
#include "platform/vector_targets.h"

// Every helper here is always inlined into a function compiled for the target
// that matches its vector width, so vectors never cross a call boundary and
// the compiler's note about the vector-argument ABI does not apply.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace krf::lanes {

template <int Bytes>
struct Vector {
    typedef Sample type __attribute__((vector_size(Bytes)));
    static constexpr int count = Bytes / static_cast<int>(sizeof(Sample));
};

// The comparisons pick whole lanes, so the compiler emits vpminuw/vpmaxuw
// (or their SSE2 equivalents) for vectors and a plain compare for a Sample.
template <class V>
KRF_ALWAYS_INLINE V vmin(const V& a, const V& b) { return a < b ? a : b; }
template <class V>
KRF_ALWAYS_INLINE V vmax(const V& a, const V& b) { return a < b ? b : a; }


// Calls vector(i) for blocks of `lanes` positions covering [0, count), the
// last block moved back so that it ends at count (its overlap with the block
// before is computed twice, with identical results); scalar(i) per position
// when count is shorter than one block.
template <int lanes, class VectorStep, class ScalarStep>
KRF_ALWAYS_INLINE void for_blocks(int count, VectorStep vector, ScalarStep scalar) {
    if (count < lanes) {
        for (int i = 0; i < count; ++i) scalar(i);
        return;
    }
    for (int i = 0;; i += lanes) {
        if (i + lanes > count) i = count - lanes;
        vector(i);
        if (i + lanes >= count) break;
    }
}

// Median of 3: four operations.
template <class V>
KRF_ALWAYS_INLINE V median3(const V& a, const V& b, const V& c) {
    return vmax(vmin(a, b), vmin(vmax(a, b), c));
}

// Sorts three values in place: lo <= mid <= hi afterwards.
template <class V>
KRF_ALWAYS_INLINE void sort3(V& lo, V& mid, V& hi) {
    const V a = vmin(lo, mid), b = vmax(lo, mid);
    lo = vmin(a, hi);
    const V c = vmax(a, hi);
    mid = vmin(b, c);
    hi = vmax(b, c);
}

}  // namespace krf::lanes
