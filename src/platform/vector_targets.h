// Marks for the processor-specific code paths. The library is built for any
// x86-64; a function marked for a wider instruction set is compiled for it and
// called only when cpu_features() reported that set at load time.
#pragma once

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
