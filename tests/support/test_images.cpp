#include "support/test_images.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "phantom.h"
#include "platform/memory.h"

namespace krf::test {

Image::Image(int height, int width, Sample fill)
    : height_(height), width_(width),
      samples_(static_cast<std::size_t>(std::max(height, 0)) * std::max(width, 0), fill) {
    link_rows();
}

Image::Image(const Image& other) : height_(other.height_), width_(other.width_), samples_(other.samples_) {
    link_rows();
}

Image& Image::operator=(const Image& other) {
    height_ = other.height_;
    width_ = other.width_;
    samples_ = other.samples_;
    link_rows();
    return *this;
}

void Image::link_rows() {
    row_pointers_.assign(static_cast<std::size_t>(std::max(height_, 0)) + 1, nullptr);
    // A negative width gives rows of no samples; they all start at the (empty) block.
    const std::size_t stride = static_cast<std::size_t>(std::max(width_, 0));
    for (int r = 0; r < height_; ++r) row_pointers_[r] = samples_.data() + r * stride;
}

bool Image::operator==(const Image& other) const {
    return height_ == other.height_ && width_ == other.width_ && samples_ == other.samples_;
}

Image phantom(int height, int width, int white, std::uint32_t seed) {
    Image image(height, width);
    tools::synthesize_phantom(&image.at(0, 0), height, width, white, seed);
    return image;
}

Image random_image(int height, int width, int lowest, int highest, std::uint32_t seed) {
    Image image(height, width);
    std::mt19937 generator(seed);
    std::uniform_int_distribution<int> level(lowest, highest);
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c) image.at(r, c) = static_cast<Sample>(level(generator));
    return image;
}

Image inverted(const Image& image, int white) {
    Image result = image;
    for (int r = 0; r < image.height(); ++r)
        for (int c = 0; c < image.width(); ++c) result.at(r, c) = static_cast<Sample>(white - image.at(r, c));
    return result;
}

Image crop(const Image& image, int top, int left, int height, int width) {
    Image window(height, width);
    // An image that could not be read comes here empty; its reader has recorded the failure.
    if (top < 0 || left < 0 || top + height > image.height() || left + width > image.width()) {
        ADD_FAILURE() << "no " << height << "x" << width << " window at " << top << "," << left << " of a "
                      << image.height() << "x" << image.width() << " image";
        return window;
    }
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c) window.at(r, c) = image.at(top + r, left + c);
    return window;
}

Params& Params::append(const void* value, std::size_t size) {
    storage_.emplace_back(size);
    std::memcpy(storage_.back().data(), value, size);
    return *this;
}

void** Params::data() {
    pointers_.clear();
    for (auto& value : storage_) pointers_.push_back(value.data());
    return pointers_.data();
}

int run_filter(const char* name, Image& in, Image& out, int white, void** params) {
    CKRImage input(in.rows(), in.height(), in.width(), white);
    CKRImage output(out.rows(), out.height(), out.width(), white);
    std::string copy(name);
    return DoFilter(&input, &output, copy.data(), params);
}

Image filtered(const char* name, Image in, int white, void** params, int code) {
    Image out(in.height(), in.width(), kMarker);
    EXPECT_EQ(run_filter(name, in, out, white, params), code) << name;
    return out;
}

int expect_clean_allocation_failures(const std::function<int(Image& out)>& run, int height, int width,
                                     std::initializer_list<int> codes) {
    const Image untouched(height, width, kMarker);
    for (int nth = 1; nth < 10000; ++nth) {
        Image out = untouched;
        testing::fail_allocation(nth);
        const int code = run(out);
        const bool fault_met = !testing::allocation_fault_pending();
        testing::fail_allocation(0);
        if (!fault_met) {
            EXPECT_EQ(code, 0) << "complete run after " << nth - 1 << " allocations";
            return nth - 1;
        }
        EXPECT_NE(std::find(codes.begin(), codes.end(), code), codes.end())
            << "allocation " << nth << " failed and the filter returned " << code;
        EXPECT_TRUE(out == untouched) << "allocation " << nth << " failed but the output was written";
    }
    ADD_FAILURE() << "the run never completed";
    return -1;
}

}  // namespace krf::test
