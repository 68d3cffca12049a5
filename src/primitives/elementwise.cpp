// Conversions and element-wise arithmetic. Each is an exact per-sample rule,
// so the compiler's vectorised loops give the same samples as scalar code.
#include <cmath>
#include <cstddef>
#include <limits>
#include <type_traits>

#include "primitives/primitives.h"

namespace krf::prim {

namespace {

template <class T>
T* row_at(T* base, int step, int y) noexcept {
    using Byte = std::conditional_t<std::is_const_v<T>, const unsigned char, unsigned char>;
    return reinterpret_cast<T*>(reinterpret_cast<Byte*>(base) + static_cast<std::ptrdiff_t>(y) * step);
}

PrimitiveStatus check_region(const void* a, const void* b, Size size) noexcept {
    if (a == nullptr || b == nullptr) return kNullPointer;
    if (size.width <= 0 || size.height <= 0) return kBadSize;
    return kOk;
}

// op(source sample, destination sample) for every sample of the region.
template <class S, class D, class Op>
PrimitiveStatus for_each_pair(const S* src, int srcStep, D* dst, int dstStep, Size size, Op op) noexcept {
    if (const PrimitiveStatus s = check_region(src, dst, size); s != kOk) return s;
    for (int y = 0; y < size.height; ++y) {
        const S* s = row_at(src, srcStep, y);
        D* d = row_at(dst, dstStep, y);
        for (int x = 0; x < size.width; ++x) op(s[x], d[x]);
    }
    return kOk;
}

// Rounded, then saturated to 0 ... 65535. NaN has no nearest integer; it
// stores 0, the low end of the saturation.
template <class Round>
std::uint16_t saturate_u16(float value, Round round) noexcept {
    if (!(value > 0.0f)) return 0;
    const float rounded = round(value);
    return rounded >= 65535.0f ? std::uint16_t{65535} : static_cast<std::uint16_t>(rounded);
}

// Saturated first, then rounded to nearest with ties to even: adding and
// subtracting 1.5 · 2^23 leaves the nearest integer in the default rounding
// mode for every value of 0 ... 65535, exactly as nearbyint would, without a
// library call per sample, so the loop vectorises. NaN fails the first
// comparison and stores 0.
std::uint16_t nearest_even_u16(float value) noexcept {
    float v = value > 0.0f ? value : 0.0f;
    v = v < 65535.0f ? v : 65535.0f;
    return static_cast<std::uint16_t>(static_cast<std::int32_t>((v + 12582912.0f) - 12582912.0f));
}

}  // namespace

PrimitiveStatus ConvertU16ToF32(const std::uint16_t* src, int srcStep, float* dst, int dstStep, Size size) noexcept {
    return for_each_pair(src, srcStep, dst, dstStep, size, [](std::uint16_t s, float& d) { d = s; });
}

PrimitiveStatus ConvertF32ToU16(const float* src, int srcStep, std::uint16_t* dst, int dstStep, Size size,
                                Rounding rounding) noexcept {
    if (rounding == Rounding::ties_to_even)
        return for_each_pair(src, srcStep, dst, dstStep, size, [](float s, std::uint16_t& d) { d = nearest_even_u16(s); });
    return for_each_pair(src, srcStep, dst, dstStep, size,
                         [](float s, std::uint16_t& d) { d = saturate_u16(s, [](float v) { return std::roundf(v); }); });
}

PrimitiveStatus ClampAboveU16InPlace(std::uint16_t* buf, int step, Size size, std::uint16_t threshold,
                                     std::uint16_t value) noexcept {
    return for_each_pair(buf, step, buf, step, size, [threshold, value](std::uint16_t, std::uint16_t& d) {
        if (d > threshold) d = value;
    });
}

PrimitiveStatus SubF32InPlace(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size) noexcept {
    return for_each_pair(src, srcStep, srcDst, srcDstStep, size, [](float s, float& d) { d = d - s; });
}

PrimitiveStatus MulConstF32InPlace(float value, float* srcDst, int step, Size size) noexcept {
    return for_each_pair(srcDst, step, srcDst, step, size, [value](float, float& d) { d = d * value; });
}

PrimitiveStatus MulF32InPlace(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size) noexcept {
    return for_each_pair(src, srcStep, srcDst, srcDstStep, size, [](float s, float& d) { d = d * s; });
}

PrimitiveStatus AddF32InPlace(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size) noexcept {
    return for_each_pair(src, srcStep, srcDst, srcDstStep, size, [](float s, float& d) { d = d + s; });
}

PrimitiveStatus ScaleF32Vector(float value, float* buf, std::int64_t count) noexcept {
    if (buf == nullptr) return kNullPointer;
    if (count <= 0) return kBadSize;
    for (std::int64_t i = 0; i < count; ++i) buf[i] = buf[i] * value;
    return kOk;
}

PrimitiveStatus MaxF32(const float* buf, int step, Size size, float* max) noexcept {
    if (const PrimitiveStatus s = check_region(buf, max, size); s != kOk) return s;
    // A sample replaces the maximum only when strictly greater, so NaN
    // samples are passed over (an all-NaN region reports minus infinity).
    float best = -std::numeric_limits<float>::infinity();
    for (int y = 0; y < size.height; ++y) {
        const float* row = row_at(buf, step, y);
        for (int x = 0; x < size.width; ++x)
            if (row[x] > best) best = row[x];
    }
    *max = best;
    return kOk;
}

}  // namespace krf::prim
