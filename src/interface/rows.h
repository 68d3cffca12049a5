// Row-pointer rasters: the layout every filter reads and writes.
#pragma once

#include <cstdint>

namespace krf {

using Sample = unsigned short;
using Rows = Sample**;

// Library-wide allocation codes.
constexpr int kNoBuffer = 1007100;     // a buffer or a row could not be allocated
constexpr int kNoRowArray = 1007200;   // a row-pointer array could not be allocated

// Stores in *rows a zero-filled array of `height` row pointers, then
// allocates `height` zero-filled rows of `width` samples. Returns 0,
// kNoRowArray when the array fails, kNoBuffer at the first row that fails
// (rows obtained before it stay in the array, later entries are null).
// A height below 1 allocates an empty array and returns 0.
int allocate_rows(Rows* rows, int height, int width) noexcept;

// Frees rows from the last to the first (null entries are skipped), then the array.
void free_rows(Rows rows, int height) noexcept;

// A scratch raster that owns its rows and frees them, partial ones included,
// on every path.
class Raster {
public:
    Raster() = default;
    Raster(const Raster&) = delete;
    Raster& operator=(const Raster&) = delete;
    ~Raster() { release(); }

    // The row allocator's code; on failure the raster still frees what it got.
    int allocate(int height, int width) noexcept {
        release();
        height_ = height;
        return allocate_rows(&rows_, height, width);
    }
    void release() noexcept {
        free_rows(rows_, height_);
        rows_ = nullptr;
        height_ = 0;
    }
    Rows rows() const noexcept { return rows_; }
    Sample* operator[](int r) const noexcept { return rows_[r]; }

private:
    Rows rows_ = nullptr;
    int height_ = 0;
};

}  // namespace krf
