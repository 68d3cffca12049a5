// Border padding: replicated edges for the 16-bit window operations, periodic
// continuation for the wavelet transforms.
#include <algorithm>
#include <cstring>

#include "primitives/primitives.h"

namespace krf::prim {

namespace {

template <class T>
const T* row_at(const T* base, int step, std::int64_t y) noexcept {
    return reinterpret_cast<const T*>(reinterpret_cast<const unsigned char*>(base) + y * step);
}
template <class T>
T* row_at(T* base, int step, std::int64_t y) noexcept {
    return reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(base) + y * step);
}

// The checks every padding shares: pointers, positive sizes, a destination
// that holds the source at (left, top) and row steps that hold a row.
template <class T>
PrimitiveStatus check_padding(const T* src, int srcStep, Size srcSize, const T* dst, int dstStep, Size dstSize,
                              int top, int left) noexcept {
    if (src == nullptr || dst == nullptr) return kNullPointer;
    if (srcSize.width <= 0 || srcSize.height <= 0 || dstSize.width <= 0 || dstSize.height <= 0) return kBadSize;
    if (top < 0 || left < 0) return kBadSize;
    if (std::int64_t{left} + srcSize.width > dstSize.width || std::int64_t{top} + srcSize.height > dstSize.height)
        return kBadSize;
    if (std::int64_t{srcStep} < std::int64_t{srcSize.width} * std::int64_t{sizeof(T)} ||
        std::int64_t{dstStep} < std::int64_t{dstSize.width} * std::int64_t{sizeof(T)})
        return kBadSize;
    return kOk;
}

// Non-negative remainder, so that coordinates left of or above the source wrap
// to its last columns or rows however wide the border is.
std::int64_t wrap(std::int64_t coordinate, std::int64_t extent) noexcept {
    const std::int64_t r = coordinate % extent;
    return r < 0 ? r + extent : r;
}

}  // namespace

PrimitiveStatus PadReplicateU16(const std::uint16_t* src, int srcStep, Size srcSize, std::uint16_t* dst, int dstStep,
                                Size dstSize, int top, int left) noexcept {
    if (const PrimitiveStatus s = check_padding(src, srcStep, srcSize, dst, dstStep, dstSize, top, left); s != kOk)
        return s;
    const int right = dstSize.width - left - srcSize.width;
    for (int y = 0; y < dstSize.height; ++y) {
        const int sy = y < top ? 0 : (y - top >= srcSize.height ? srcSize.height - 1 : y - top);
        const std::uint16_t* s = row_at(src, srcStep, sy);
        std::uint16_t* d = row_at(dst, dstStep, y);
        for (int x = 0; x < left; ++x) d[x] = s[0];
        std::memcpy(d + left, s, static_cast<std::size_t>(srcSize.width) * 2);
        for (int x = 0; x < right; ++x) d[left + srcSize.width + x] = s[srcSize.width - 1];
    }
    return kOk;
}

PrimitiveStatus PadWrapF32(const float* src, int srcStep, Size srcSize, float* dst, int dstStep, Size dstSize, int top,
                           int left) noexcept {
    if (const PrimitiveStatus s = check_padding(src, srcStep, srcSize, dst, dstStep, dstSize, top, left); s != kOk)
        return s;
    for (int y = 0; y < dstSize.height; ++y) {
        const float* s = row_at(src, srcStep, wrap(std::int64_t{y} - top, srcSize.height));
        float* d = row_at(dst, dstStep, y);
        // The row is the source row repeated; start at the column that lands on
        // destination column 0 and copy whole runs.
        int x = 0;
        std::int64_t sx = wrap(-std::int64_t{left}, srcSize.width);
        while (x < dstSize.width) {
            const int run = static_cast<int>(std::min<std::int64_t>(srcSize.width - sx, dstSize.width - x));
            std::memcpy(d + x, s + sx, static_cast<std::size_t>(run) * sizeof(float));
            x += run;
            sx = 0;
        }
    }
    return kOk;
}

}  // namespace krf::prim
