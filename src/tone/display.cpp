// "reverse", "flip" and "colorize": transforms for showing an image, not for
// measuring on it.
#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <utility>

#include "platform/platform.h"
#include "platform/vector_targets.h"
#include "tone/tone.h"

#if KRF_X86
// GCC 12's AVX-512 and gather intrinsics start from deliberately undefined
// registers and warn about them once inlined; the warning says nothing about
// the code here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#endif

namespace krf::tone {

int reverse(Rows src, Rows dst, int height, int width, int white) noexcept {
    // 16-bit arithmetic on purpose: a sample above white wraps around
    // (white 4095, sample 5000 gives 64631) rather than clamping to black.
    const Sample top = static_cast<Sample>(white);
    for (int r = 0; r < height; ++r) {
        const Sample* in = src[r];
        Sample* out = dst[r];
        for (int c = 0; c < width; ++c) out[c] = static_cast<Sample>(top - in[c]);
    }
    return 0;
}

namespace {

void reverse_row_in_place(Sample* row, int width) { std::reverse(row, row + width); }

// Hosts that pass one image as both input and output get the flipped image
// too, instead of rows overwritten before they were read: mirrored pairs of
// rows are swapped, each pair read before it is written.
void flip_in_place(Rows rows, int height, int width, bool horizontal, bool vertical) {
    if (!vertical) {
        if (horizontal)
            for (int r = 0; r < height; ++r) reverse_row_in_place(rows[r], width);
        return;
    }
    for (int r = 0, mirror = height - 1; r <= mirror; ++r, --mirror) {
        Sample* a = rows[r];
        Sample* b = rows[mirror];
        if (r == mirror) {
            if (horizontal) reverse_row_in_place(a, width);
        } else if (horizontal) {
            for (int c = 0; c < width; ++c) std::swap(a[c], b[width - 1 - c]);
        } else {
            std::swap_ranges(a, a + width, b);
        }
    }
}

}  // namespace

int flip(Rows src, Rows dst, int height, int width, int /*ignored*/, int horizontal, int vertical) noexcept {
    if (src == dst) {
        flip_in_place(src, height, width, horizontal != 0, vertical != 0);
        return 0;
    }
    for (int r = 0; r < height; ++r) {
        const Sample* in = src[r];
        Sample* out = dst[vertical ? height - 1 - r : r];
        if (horizontal) {
            for (int c = 0; c < width; ++c) out[width - 1 - c] = in[c];
        } else if (width > 0) {
            std::memcpy(out, in, static_cast<std::size_t>(width) * sizeof(Sample));
        }
    }
    return 0;
}

namespace {

// The blue-to-red palette. U rises in steps of 4 to 128, then in steps of 4
// from 131 to 255, so both halves of each ramp end on a full byte.
constexpr int ramp(int k) { return k <= 0 ? 0 : k <= 32 ? 4 * k : 4 * k - 1; }

using Colour = std::array<unsigned char, 3>;

constexpr std::array<Colour, 256> make_palette() {
    std::array<Colour, 256> palette{};
    for (int i = 0; i < 256; ++i) {
        int red, green, blue;
        if (i < 32) {
            red = 0, green = 0, blue = ramp(i + 33);
        } else if (i < 96) {
            red = 0, green = ramp(i - 31), blue = 255;
        } else if (i < 160) {
            red = ramp(i - 95), green = 255, blue = ramp(159 - i);
        } else if (i < 224) {
            red = 255, green = ramp(223 - i), blue = 0;
        } else {
            red = ramp(287 - i), green = 0, blue = 0;
        }
        palette[i] = {static_cast<unsigned char>(red), static_cast<unsigned char>(green),
                      static_cast<unsigned char>(blue)};
    }
    return palette;
}

constexpr std::array<Colour, 256> kPalette = make_palette();

// The same colours as words with red in the low byte, so that neighbouring
// pixels are joined with shifts and leave in whole 8-byte stores.
constexpr std::array<std::uint32_t, 256> make_packed_palette() {
    std::array<std::uint32_t, 256> packed{};
    for (int i = 0; i < 256; ++i)
        packed[i] = kPalette[i][0] | static_cast<std::uint32_t>(kPalette[i][1]) << 8 |
                    static_cast<std::uint32_t>(kPalette[i][2]) << 16;
    return packed;
}

constexpr std::array<std::uint32_t, 256> kPackedPalette = make_packed_palette();

}  // namespace

// Eight pixels are 24 bytes: three 8-byte stores instead of 24 byte stores.
void paint_row_portable(const Sample* samples, unsigned char* out, std::int64_t width, Sample white,
                        const std::uint32_t* colours) noexcept {
    const auto colour = [&](std::int64_t c) { return colours[std::min(samples[c], white)]; };
    std::int64_t c = 0;
    if constexpr (std::endian::native == std::endian::little) {
        for (; c + 8 <= width; c += 8) {
            const std::uint64_t p0 = colour(c), p1 = colour(c + 1), p2 = colour(c + 2), p3 = colour(c + 3);
            const std::uint64_t p4 = colour(c + 4), p5 = colour(c + 5), p6 = colour(c + 6), p7 = colour(c + 7);
            const std::uint64_t first = p0 | p1 << 24 | p2 << 48;
            const std::uint64_t second = p2 >> 16 | p3 << 8 | p4 << 32 | p5 << 56;
            const std::uint64_t third = p5 >> 8 | p6 << 16 | p7 << 40;
            unsigned char* at = out + 3 * c;
            std::memcpy(at, &first, 8);
            std::memcpy(at + 8, &second, 8);
            std::memcpy(at + 16, &third, 8);
        }
    }
    for (; c < width; ++c) {
        const std::uint32_t packed = colour(c);
        const unsigned char bytes[3] = {static_cast<unsigned char>(packed), static_cast<unsigned char>(packed >> 8),
                                        static_cast<unsigned char>(packed >> 16)};
        std::memcpy(out + 3 * c, bytes, 3);
    }
}

#if KRF_X86
namespace {

// The three colour bytes of each 4-byte lane, moved to the front of their
// 16-byte block (12 bytes, then 4 unused).
KRF_AVX2_INLINE __m256i squeeze_blocks_avx2(__m256i packed) {
    const __m256i order = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,  //
                                           0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    return _mm256_shuffle_epi8(packed, order);
}

}  // namespace

// The vector unit clamps, collects the eight colours with one gather and
// squeezes them into 24 bytes; the scalar path spends most of its time on
// that shifting and joining. Measured faster than scalar look-ups here, unlike
// the gathers of the 16-bit table applier, since the joining is what it saves.
KRF_TARGET_AVX2 void paint_row_avx2(const Sample* samples, unsigned char* out, std::int64_t width, Sample white,
                                    const std::uint32_t* colours) noexcept {
    const __m128i cap = _mm_set1_epi16(static_cast<short>(white));
    const __m256i joined = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7);
    std::int64_t c = 0;
    for (; c + 8 <= width; c += 8) {
        const __m128i levels = _mm_min_epu16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(samples + c)), cap);
        const __m256i packed = _mm256_i32gather_epi32(reinterpret_cast<const int*>(colours),
                                                      _mm256_cvtepu16_epi32(levels), 4);
        const __m256i bytes = _mm256_permutevar8x32_epi32(squeeze_blocks_avx2(packed), joined);
        unsigned char* at = out + 3 * c;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(at), _mm256_castsi256_si128(bytes));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(at + 16), _mm256_extracti128_si256(bytes, 1));
    }
    paint_row_portable(samples + c, out + 3 * c, width - c, white, colours);
}

// Sixteen pixels per step: 48 bytes, written with one masked store.
KRF_TARGET_AVX512BW void paint_row_avx512(const Sample* samples, unsigned char* out, std::int64_t width, Sample white,
                                          const std::uint32_t* colours) noexcept {
    const __m256i cap = _mm256_set1_epi16(static_cast<short>(white));
    const __m512i order = _mm512_broadcast_i32x4(_mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1));
    const __m512i joined = _mm512_setr_epi32(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, 15, 15, 15, 15);
    std::int64_t c = 0;
    for (; c + 16 <= width; c += 16) {
        const __m256i levels =
            _mm256_min_epu16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(samples + c)), cap);
        const __m512i packed = _mm512_i32gather_epi32(_mm512_cvtepu16_epi32(levels), colours, 4);
        const __m512i bytes = _mm512_permutexvar_epi32(joined, _mm512_shuffle_epi8(packed, order));
        _mm512_mask_storeu_epi32(out + 3 * c, 0x0FFF, bytes);
    }
    paint_row_portable(samples + c, out + 3 * c, width - c, white, colours);
}
#endif

PaintRowKernel paint_row_kernel(VectorPath path) noexcept {
    switch (path) {
        case VectorPath::portable: return paint_row_portable;
#if KRF_X86
        case VectorPath::avx2: return platform::cpu_features().avx2 ? paint_row_avx2 : nullptr;
        case VectorPath::avx512: return platform::cpu_features().avx512bw ? paint_row_avx512 : nullptr;
#endif
        default: return nullptr;
    }
}

namespace {

// The widest kernel this processor runs.
PaintRowKernel fastest_paint_row() noexcept {
    for (VectorPath path : {VectorPath::avx512, VectorPath::avx2})
        if (PaintRowKernel kernel = paint_row_kernel(path)) return kernel;
    return paint_row_portable;
}

}  // namespace

int colorize(Rows src, unsigned char* rgb, int height, int width, int white) noexcept {
    if (height < 1 || width < 1) return 0;
    // The buffer comes from the input image; when it could not be made there
    // is nowhere to write, which is an exhausted-memory failure.
    if (rgb == nullptr) return kNoBuffer;
    // A white level of 255 uses the samples as palette indices; samples above
    // it show as white does, which the palette itself does as a table of
    // white + 1 colours.
    const std::uint32_t* colours = kPackedPalette.data();
    ScratchArray<std::uint32_t> scaled;
    if (white != 255) {
        // The 8-bit level of a sample and its colour are both functions of
        // min(sample, white), so one table of white + 1 colours gives the
        // same bytes as scaling the image to 8 bits first and painting that
        // copy, without the copy.
        if (white < 0 || !scaled.allocate(std::int64_t{white} + 1)) return kNoBuffer;
        for (int i = 0; i <= white; ++i) {
            // A white level of 0 leaves no range to scale (0 × 255 / 0 has no
            // value): like every undefined level of this library it shows as
            // level 0, so the whole image takes the first palette colour.
            const Sample level = white == 0 ? 0 : to_table_entry(i * 255.0 / white);
            // Levels above 255 cannot come out of the scaling; should one, it
            // shows as the top of the palette.
            scaled[i] = kPackedPalette[std::min<Sample>(level, 255)];
        }
        colours = scaled.get();
    }
    const Sample cap = static_cast<Sample>(std::min(white, 0xFFFF));
    const PaintRowKernel paint_row = fastest_paint_row();
    for (int r = 0; r < height; ++r)
        paint_row(src[r], rgb + static_cast<std::size_t>(r) * static_cast<std::size_t>(width) * 3, width, cap,
                  colours);
    return 0;
}

}  // namespace krf::tone
