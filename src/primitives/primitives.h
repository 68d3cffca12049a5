// Image primitives on contiguous buffers: the building blocks of the
// multi-scale filters. A buffer is described at each call by its first sample,
// its row step in bytes and its size in samples; the filters use row steps of
// width × sample size. Every operation is a free function that returns a
// PrimitiveStatus and keeps no state between calls.
#pragma once

#include <cstddef>
#include <cstdint>

#include "interface/rows.h"

namespace krf::prim {

using PrimitiveStatus = int;
constexpr PrimitiveStatus kOk = 0;
constexpr PrimitiveStatus kBadArgument = -5;     // Gaussian size below 3 or even, sigma not above 0
constexpr PrimitiveStatus kBadSize = -6;         // width or height not above 0, destination too small
constexpr PrimitiveStatus kNullPointer = -8;
constexpr PrimitiveStatus kNoMemory = -9;
constexpr PrimitiveStatus kBadSampleType = -12;
constexpr PrimitiveStatus kBadChannels = -47;
constexpr PrimitiveStatus kBadBorder = -225;

struct Size {
    int width;
    int height;
};

enum class SampleType { u8, s16, u16, f32, f64 };
enum class BorderKind { replicate, constant, in_memory, wrap };
enum class Rounding { ties_to_even, ties_away_from_zero };

// ---- Scratch memory: zero-filled, from the library's one allocator. A count
// of 0 or below, an overflowing size or exhausted memory gives nullptr.
std::uint16_t* AllocU16(std::int64_t count) noexcept;
float* AllocF32(std::int64_t count) noexcept;
unsigned char* AllocBytes(std::int64_t count) noexcept;
void FreeBuffer(void* block) noexcept;

// ---- Row copies: the only operations that touch row-pointer rasters.
void CopyRowsToBuffer(const Rows rows, std::uint16_t* buf, int width, int height) noexcept;
void CopyBufferToRows(const std::uint16_t* buf, Rows rows, int width, int height) noexcept;
// Truncation toward zero to a 32-bit integer, low 16 bits stored, no clamp:
// 70000.0 is stored as 4464 and -1.0 as 65535. Values outside the 32-bit
// range take the processor's conversion result (INT32_MIN, low bits 0).
void CopyF32BufferToRowsTruncated(const float* buf, Rows rows, int width, int height) noexcept;

// ---- Element-wise operations on a size.width × size.height region.
PrimitiveStatus ConvertU16ToF32(const std::uint16_t* src, int srcStep, float* dst, int dstStep, Size size) noexcept;
PrimitiveStatus ConvertF32ToU16(const float* src, int srcStep, std::uint16_t* dst, int dstStep, Size size,
                                Rounding rounding) noexcept;
PrimitiveStatus ClampAboveU16InPlace(std::uint16_t* buf, int step, Size size, std::uint16_t threshold,
                                     std::uint16_t value) noexcept;
PrimitiveStatus SubF32InPlace(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size) noexcept;
PrimitiveStatus MulConstF32InPlace(float value, float* srcDst, int step, Size size) noexcept;
PrimitiveStatus MulF32InPlace(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size) noexcept;
PrimitiveStatus AddF32InPlace(const float* src, int srcStep, float* srcDst, int srcDstStep, Size size) noexcept;
PrimitiveStatus ScaleF32Vector(float value, float* buf, std::int64_t count) noexcept;
PrimitiveStatus MaxF32(const float* buf, int step, Size size, float* max) noexcept;

// ---- Padding: dst has size (src.width + left + right, src.height + top +
// bottom); the source lands at (left, top).
PrimitiveStatus PadReplicateU16(const std::uint16_t* src, int srcStep, Size srcSize, std::uint16_t* dst, int dstStep,
                                Size dstSize, int top, int left) noexcept;
PrimitiveStatus PadWrapF32(const float* src, int srcStep, Size srcSize, float* dst, int dstStep, Size dstSize, int top,
                           int left) noexcept;

}  // namespace krf::prim
