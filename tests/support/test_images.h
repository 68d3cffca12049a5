// Small images and helpers shared by the tests.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "interface/rows.h"
#include "krfilter/krfilter.h"

namespace krf::test {

// An image whose samples live in one vector; rows() gives the row pointers a
// filter expects.
class Image {
public:
    Image(int height, int width, Sample fill = 0);
    Image(const Image& other);
    Image& operator=(const Image& other);

    int height() const { return height_; }
    int width() const { return width_; }
    Sample& at(int r, int c) { return samples_[static_cast<std::size_t>(r) * width_ + c]; }
    Sample at(int r, int c) const { return samples_[static_cast<std::size_t>(r) * width_ + c]; }
    Rows rows() { return row_pointers_.data(); }
    const std::vector<Sample>& samples() const { return samples_; }
    bool operator==(const Image& other) const;

private:
    void link_rows();
    int height_;
    int width_;
    std::vector<Sample> samples_;
    std::vector<Sample*> row_pointers_;
};

// The synthetic radiograph of the demo (collimated field, bones, noise,
// specks, a defective column and a defective row), all within 0 ... white.
Image phantom(int height, int width, int white, std::uint32_t seed = 1);

// Samples drawn uniformly from lowest ... highest.
Image random_image(int height, int width, int lowest, int highest, std::uint32_t seed);

// white - sample everywhere, in 16-bit arithmetic.
Image inverted(const Image& image, int white);

// The height x width window of `image` whose top left sample is (top, left);
// a window that does not fit is a test failure and comes back zero.
Image crop(const Image& image, int top, int left, int height, int width);

// Values of mixed types behind stable pointers, in the order they are added.
class Params {
public:
    Params& add_int(int v) { return append(&v, sizeof v); }
    Params& add_float(float v) { return append(&v, sizeof v); }
    Params& add_double(double v) { return append(&v, sizeof v); }
    void** data();

private:
    Params& append(const void* value, std::size_t size);
    std::vector<std::vector<unsigned char>> storage_;
    std::vector<void*> pointers_;
};

// DoFilter on borrowed images built from `in` and `out`.
int run_filter(const char* name, Image& in, Image& out, int white, void** params);

// DoFilter on a copy of `in` into an output pre-filled with kMarker; the call must answer `code`.
Image filtered(const char* name, Image in, int white, void** params, int code = 0);

// Fails the 1st, 2nd, 3rd ... allocation of `run` in turn until it completes
// without meeting the fault. Each failed run must return one of `codes` and
// leave `out` (pre-filled with a marker) untouched; leaks show up under the
// sanitizer build. Returns how many allocations a complete run makes.
int expect_clean_allocation_failures(const std::function<int(Image& out)>& run, int height, int width,
                                     std::initializer_list<int> codes);

constexpr Sample kMarker = 0xBEEF;

}  // namespace krf::test
