#include "interface/rows.h"
#include "krfilter/krfilter.h"
#include "platform/memory.h"

// rgb and reserved are nulled by the constructors (the exported layout leaves
// them uninitialised, which would make the destructor's release unsafe).

CKRImage::CKRImage() : rows(nullptr), rgb(nullptr), height(0), width(0), white(0), ownership(1), reserved(0) {}

CKRImage::CKRImage(unsigned short** rows_in, int height_in, int width_in, int white_in)
    : rows(rows_in),
      rgb(nullptr),
      height(height_in),
      width(width_in),
      white(static_cast<unsigned short>(white_in)),
      ownership(1),
      reserved(0) {}

CKRImage::CKRImage(int height_in, int width_in, int white_in)
    : rows(nullptr),
      rgb(nullptr),
      height(height_in),
      width(width_in),
      white(static_cast<unsigned short>(white_in)),
      ownership(1),
      reserved(0) {
    if (height_in == 0 || width_in == 0) return;
    ownership = krf::allocate_rows(&rows, height_in, width_in) == 0 ? 2 : -2;
}

CKRImage::~CKRImage() {
    // A failed owning allocation (-2) keeps what it obtained, as hosts may
    // still inspect the partial rows; only a complete owned raster is freed.
    if (ownership == 2) krf::free_rows(rows, height);
    // The image owns its RGB buffer; releasing it keeps a host that processes
    // thousands of images from growing without bound.
    krf::zfree(rgb);
}

CKRImage& CKRImage::operator=(const CKRImage& other) {
    rows = other.rows;
    rgb = other.rgb;
    height = other.height;
    width = other.width;
    white = other.white;
    ownership = other.ownership;
    reserved = other.reserved;
    return *this;
}

int CKRImage::GetHeight(int* out) { *out = height; return 0; }
int CKRImage::GetWidth(int* out) { *out = width; return 0; }
int CKRImage::GetWhite(int* out) { *out = white; return 0; }
int CKRImage::SetHeight(int value) { height = value; return 0; }
int CKRImage::SetWidth(int value) { width = value; return 0; }
int CKRImage::SetWhite(int value) { white = static_cast<unsigned short>(value); return 0; }
int CKRImage::GetImage(unsigned short*** out) { *out = rows; return 0; }

int CKRImage::GetRGBVector(unsigned char** out) {
    if (rgb == nullptr) {
        if (height == 0 || width == 0) {
            *out = nullptr;
            return -1;
        }
        // Negative sizes and overflowing products are refused like exhausted memory.
        const std::int64_t pixels = static_cast<std::int64_t>(height) * width;
        rgb = static_cast<unsigned char*>(height < 0 || width < 0 ? nullptr : krf::zalloc(pixels, 3));
        if (rgb == nullptr) {
            *out = nullptr;
            return -2;
        }
    }
    *out = rgb;
    return 0;
}
