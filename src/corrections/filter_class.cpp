#include "corrections/filter_class.h"

#include <algorithm>

namespace krf {
namespace {

template <class T>
int allocate_plane(T*** plane, int rows, int cols, int no_array, int no_row) noexcept {
    const int count = std::max(rows, 0);
    *plane = static_cast<T**>(zalloc(count, sizeof(T*)));
    if (*plane == nullptr) return no_array;
    const int elements = std::max(cols, 0);
    for (int r = 0; r < count; ++r) {
        (*plane)[r] = static_cast<T*>(zalloc(elements, sizeof(T)));
        if ((*plane)[r] == nullptr) return no_row;
    }
    return 0;
}

}  // namespace

int allocate_float_plane(float*** plane, int rows, int cols) noexcept {
    return allocate_plane(plane, rows, cols, kNoWordPlaneArray, kNoWordPlaneRow);
}

int allocate_int_plane(int*** plane, int rows, int cols) noexcept {
    return allocate_plane(plane, rows, cols, kNoWordPlaneArray, kNoWordPlaneRow);
}

int allocate_byte_plane(unsigned char*** plane, int rows, int cols) noexcept {
    return allocate_plane(plane, rows, cols, kNoBytePlaneArray, kNoBytePlaneRow);
}

int FilterClass::Init(unsigned short** image_rows, int nLevels, int nRows, int nCols, const int* first,
                      const int* length) {
    image = image_rows;
    NLevels = nLevels;
    NRows = nRows;
    NCols = nCols;
    // A second Init on one object gets fresh ranges rather than writing
    // through arrays sized for another image.
    zfree(std::exchange(RowFirst, nullptr));
    zfree(std::exchange(RowLast, nullptr));
    const int rows = std::max(NRows, 0);
    RowFirst = static_cast<int*>(zalloc(rows, sizeof(int)));
    RowLast = static_cast<int*>(zalloc(rows, sizeof(int)));
    if (RowFirst == nullptr || RowLast == nullptr) return kNoBuffer;
    for (int r = 0; r < rows; ++r) {
        std::int64_t lo = 0, hi = static_cast<std::int64_t>(NCols) - 1;
        if (first != nullptr && length != nullptr) {
            lo = first[r];
            hi = lo + length[r] - 1;
        }
        // Ranges reaching past the row are cut at its ends, so every loop over
        // them stays inside the image; an empty range stays empty.
        RowFirst[r] = static_cast<int>(std::max<std::int64_t>(lo, 0));
        RowLast[r] = static_cast<int>(std::clamp<std::int64_t>(hi, -1, std::max(NCols - 1, -1)));
    }
    return 0;
}

int FilterClass::Release() {
    image = nullptr;
    NLevels = NRows = NCols = 0;
    zfree(std::exchange(RowFirst, nullptr));
    zfree(std::exchange(RowLast, nullptr));
    return 0;
}

int FilterClass::Hook() { return 0; }

}  // namespace krf
