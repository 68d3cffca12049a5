// Marks for the processor-specific code paths. The library is built for any
// x86-64; a function marked for a wider instruction set is compiled for it and
// called only when cpu_features() reported that set at load time.
#pragma once

#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#define KRF_X86 1
#define KRF_TARGET_AVX2 __attribute__((target("avx2")))
#define KRF_TARGET_AVX512BW __attribute__((target("avx512bw")))
#define KRF_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline
#else
#define KRF_X86 0
#define KRF_TARGET_AVX2
#define KRF_TARGET_AVX512BW
#define KRF_AVX2_INLINE inline
#endif

#define KRF_ALWAYS_INLINE [[gnu::always_inline]] inline
#define KRF_INLINE_LAMBDA [[gnu::always_inline]]

// Always inlined into a function compiled for the vector's width, so no wide
// vector crosses a call boundary and the note about that ABI does not apply.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpsabi"
namespace krf::lanes {

// Unaligned loads and stores of a whole vector of lanes (GCC vector types):
// rows of images start anywhere, and memcpy compiles to one unaligned move.
template <class V, class T>
KRF_ALWAYS_INLINE V load(const T* p) {
    V v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <class V>
KRF_ALWAYS_INLINE void store(void* p, const V& v) {
    std::memcpy(p, &v, sizeof v);
}

}  // namespace krf::lanes
#pragma GCC diagnostic pop
