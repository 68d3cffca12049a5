// Scratch memory and the copies between row-pointer rasters and contiguous
// buffers: the only place the multi-scale filters touch a host's rows.
#include <cstring>

#include "interface/truncation.h"
#include "platform/memory.h"
#include "primitives/primitives.h"

namespace krf::prim {

namespace {
template <class T>
T* alloc_samples(std::int64_t count) noexcept {
    if (count <= 0) return nullptr;
    return static_cast<T*>(zalloc(count, sizeof(T)));
}
}  // namespace

std::uint16_t* AllocU16(std::int64_t count) noexcept { return alloc_samples<std::uint16_t>(count); }
float* AllocF32(std::int64_t count) noexcept { return alloc_samples<float>(count); }
unsigned char* AllocBytes(std::int64_t count) noexcept { return alloc_samples<unsigned char>(count); }
void FreeBuffer(void* block) noexcept { zfree(block); }

void CopyRowsToBuffer(const Rows rows, std::uint16_t* buf, int width, int height) noexcept {
    if (width <= 0) return;
    for (int y = 0; y < height; ++y)
        std::memcpy(buf + static_cast<std::size_t>(y) * width, rows[y], static_cast<std::size_t>(width) * 2);
}

void CopyBufferToRows(const std::uint16_t* buf, Rows rows, int width, int height) noexcept {
    if (width <= 0) return;
    for (int y = 0; y < height; ++y)
        std::memcpy(rows[y], buf + static_cast<std::size_t>(y) * width, static_cast<std::size_t>(width) * 2);
}

void CopyF32BufferToRowsTruncated(const float* buf, Rows rows, int width, int height) noexcept {
    for (int y = 0; y < height; ++y) {
        const float* src = buf + static_cast<std::size_t>(y) * (width > 0 ? width : 0);
        Sample* dst = rows[y];
        for (int x = 0; x < width; ++x) dst[x] = truncate_to_low16(src[x]);
    }
}

}  // namespace krf::prim
