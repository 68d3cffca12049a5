// Image primitives on contiguous buffers: the building blocks of the
// multi-scale filters. A buffer is described at each call by its first sample,
// its row step in bytes and its size in samples; the filters use row steps of
// width × sample size. Every operation is a free function that returns a
// PrimitiveStatus and keeps no state between calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

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

// Owns a block from the Alloc* functions, so that every path releases it.
struct BufferDeleter {
    void operator()(void* block) const noexcept { FreeBuffer(block); }
};
template <class T>
using Buffer = std::unique_ptr<T[], BufferDeleter>;

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

// ---- Neighbourhood operations.

// Code paths of the vectorised operations. `fastest` is the widest one the
// processor reported at load time; the others exist so that tests can run
// each path the processor has and compare it with the portable one.
enum class CodePath { fastest, portable, avx2, avx512 };
bool CodePathAvailable(CodePath path) noexcept;

// Box mean over odd windows of 1 ... kLargestBoxSide samples: larger windows
// would overflow the exact 64-bit window sums. (A window that large only ever
// fits an image through the replicated border.)
constexpr int kLargestBoxSide = (1 << 23) - 1;

// Bytes of the work block BoxMeanU16 needs for (size, k), whatever the border.
// -8 null bytes, -6 size not positive, -5 k even, below 1 or above kLargestBoxSide.
PrimitiveStatus BoxMeanGetBufferSize(Size size, int k, std::int64_t* bytes) noexcept;

// dst = the mean of the k × k window centred on each sample, rounded to nearest
// (k is odd, so the exact mean never lies halfway). Border `replicate` repeats
// the nearest edge sample of src; `in_memory` reads the k / 2 rows and columns
// around the region, which the caller has filled. Checks: -8 null pointer, -6
// size or row step, -5 k, -225 any other border kind.
PrimitiveStatus BoxMeanU16(const std::uint16_t* src, int srcStep, std::uint16_t* dst, int dstStep, Size size, int k,
                           BorderKind border, unsigned char* work) noexcept;

// Population standard deviation (divisor k · k) of the k × k block whose
// top-left sample is src. -8 null pointer, -5 k below 1 or above
// kLargestDeviationSide, -6 a row step shorter than k samples.
constexpr int kLargestDeviationSide = 32767;
PrimitiveStatus WindowStdDevU16(const std::uint16_t* src, int srcStep, int k, double* stdDev) noexcept;

// For every (x, y) of size: WindowStdDevU16 of the block whose top-left sample
// is (x, y) of src, converted to float with rounding to nearest, in dst. src
// holds size + (k − 1) samples in each direction. Gives exactly the values of
// the per-window calls, from running sums instead of a k × k pass per sample.
// Its column sums come from AllocBytes (-9 when they cannot be had).
PrimitiveStatus WindowStdDevMapU16(const std::uint16_t* src, int srcStep, float* dst, int dstStep, Size size,
                                   int k) noexcept;

// Gaussian blur, prepared per call: a size query gives the bytes of the
// preparation record and of the work block, both obtained with AllocBytes;
// the record is initialised, then the blur runs. Weights g(i) = exp(−(i −
// (K−1)/2)² / (2s²)) / sum for i = 0 ... K−1, applied along rows, then along
// columns. Kernels longer than kLargestGaussianKernel are refused with -5: the
// work block holds K filtered rows, and longer kernels would only make it
// larger without changing any sample a sigma below a few hundred produces.
constexpr int kLargestGaussianKernel = 65535;

// Checks, in order: -8 null outputs, -6 size, -5 K below 3, even or too long,
// -12 sample type (8-bit, 16-bit signed or unsigned and float are known), -47
// channels other than 1.
PrimitiveStatus GaussianFilterGetBufferSize(Size size, int kernelSize, SampleType type, int channels,
                                            std::int64_t* recordBytes, std::int64_t* workBytes) noexcept;
// Checks, in order: -8 null record or work block, -6, -5, -12, -47 as above,
// -5 sigma not greater than 0 (NaN included), -225 border kind other than
// replicate, constant or in_memory.
PrimitiveStatus GaussianFilterInit(Size size, int kernelSize, float sigma, BorderKind border, SampleType type,
                                   int channels, unsigned char* record, unsigned char* work,
                                   CodePath path = CodePath::fastest) noexcept;
// The blur itself, with a record initialised for this size and sample type
// (-6 and -12 otherwise). borderValue serves the constant border only. The
// 16-bit result is rounded to nearest (ties to even) and saturated.
PrimitiveStatus GaussianFilterRunU16(const std::uint16_t* src, int srcStep, std::uint16_t* dst, int dstStep,
                                     Size size, std::uint16_t borderValue, const unsigned char* record,
                                     unsigned char* work) noexcept;
PrimitiveStatus GaussianFilterRunF32(const float* src, int srcStep, float* dst, int dstStep, Size size,
                                     float borderValue, const unsigned char* record, unsigned char* work) noexcept;
// The 16-bit blur from one row-pointer raster into another, which may be the
// same: the same samples as GaussianFilterRunU16 on contiguous copies of the
// rows, without the copies. A border in memory has no rows to read (-225).
PrimitiveStatus GaussianFilterRowsU16(const Rows src, Rows dst, Size size, std::uint16_t borderValue,
                                      const unsigned char* record, unsigned char* work) noexcept;

// The whole sequence for one blur: query, record and work block (-9 when
// either cannot be obtained), initialisation, run, release on every path.
// The 16-bit blur repeats the edge samples; the float blur counts samples
// outside the image as 0.0.
PrimitiveStatus GaussianFilterU16(const std::uint16_t* src, int srcStep, std::uint16_t* dst, int dstStep, Size size,
                                  int kernelSize, float sigma, CodePath path = CodePath::fastest) noexcept;
PrimitiveStatus GaussianFilterF32(const float* src, int srcStep, float* dst, int dstStep, Size size, int kernelSize,
                                  float sigma, CodePath path = CodePath::fastest) noexcept;

}  // namespace krf::prim
