// The polymorphic framework of the class-based corrections: a filter object
// bound to one image with per-row ranges of samples to process and its own
// work planes, a parameter object the filter checks by its dynamic type, and
// the 2-D work-plane helpers that the spine filters share.
#pragma once

#include <cstdint>

#include "interface/rows.h"
#include "platform/memory.h"

namespace krf {

// Codes of the work-plane helpers and of a parameter object of the wrong class.
constexpr int kNoWordPlaneArray = 1007210;  // pointer array of a 4-byte plane
constexpr int kNoWordPlaneRow = 1007160;    // a row of a 4-byte plane
constexpr int kNoBytePlaneArray = kNoRowArray;
constexpr int kNoBytePlaneRow = kNoBuffer;
constexpr int kWrongParameterClass = 363500;

// A work plane is an array of `rows` pointers, each to its own zero-filled row
// of `cols` elements. On a failed row the allocator returns at once and keeps
// the rows it already has in the array (later entries are null), so that one
// free_plane call releases exactly what was obtained.
int allocate_float_plane(float*** plane, int rows, int cols) noexcept;
int allocate_int_plane(int*** plane, int rows, int cols) noexcept;
int allocate_byte_plane(unsigned char*** plane, int rows, int cols) noexcept;

// Frees the rows from the last to the first, then the array; null rows and a
// null plane are skipped, so partial planes are freed too. Sets *plane to null.
template <class T>
int free_plane(T*** plane, int rows) noexcept {
    if (*plane != nullptr) {
        for (int r = rows - 1; r >= 0; --r) zfree((*plane)[r]);
        zfree(*plane);
        *plane = nullptr;
    }
    return 0;
}

class FilterParametersClass {
public:
    virtual void SetDefaults() = 0;
};

class FilterClass {
public:
    FilterClass() = default;
    FilterClass(const FilterClass&) = delete;
    FilterClass& operator=(const FilterClass&) = delete;

    // Binds the image and builds the row ranges: row r covers columns
    // first[r] ... first[r] + length[r] - 1, or the whole row when either array
    // is null. A derived Init then allocates its planes and returns the first
    // allocator code that is not 0. Meant for a freshly constructed object.
    virtual int Init(unsigned short** image, int nLevels, int nRows, int nCols, const int* first,
                     const int* length);
    // Frees the planes (derived part) and the ranges, and clears the geometry.
    // Safe after a failed or partial Init and when called twice.
    virtual int Release();
    virtual int Apply(FilterParametersClass* params) = 0;
    virtual int Hook();
    // Frees nothing: the work memory belongs to Init / Release.
    virtual ~FilterClass() = default;

protected:
    bool inside(int r, int c) const noexcept { return RowFirst[r] <= c && c <= RowLast[r]; }

    unsigned short** image = nullptr;
    int NLevels = 0;
    int NRows = 0;
    int NCols = 0;
    int* RowFirst = nullptr;
    int* RowLast = nullptr;
};

// No data and no behaviour; kept for its exact shape (a polymorphic object
// whose only virtual member is its destructor).
class CMemClass {
public:
    virtual ~CMemClass() = default;
};

}  // namespace krf
