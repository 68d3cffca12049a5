// Small helpers shared by the tone tests.
#pragma once

#include <initializer_list>
#include <utility>
#include <vector>

#include "support/test_images.h"

namespace krf::test {

using Levels = std::vector<int>;

inline Params doubles(std::initializer_list<double> values) {
    Params p;
    for (double v : values) p.add_double(v);
    return p;
}

inline Image row_of(const Levels& levels) {
    Image image(1, static_cast<int>(levels.size()));
    for (std::size_t c = 0; c < levels.size(); ++c) image.at(0, static_cast<int>(c)) = static_cast<Sample>(levels[c]);
    return image;
}

// The shared helper, taking the parameter sets these tests build by value.
inline Image filtered(const char* name, Image in, int white, Params params = Params(), int code = 0) {
    return filtered(name, std::move(in), white, params.data(), code);
}

// The outputs of a point operation for every level 0 ... white + extra; the call must answer `code`.
inline Levels curve(const char* name, int white, Params params, int extra = 0, int code = 0) {
    Levels levels(white + 1 + extra);
    for (std::size_t i = 0; i < levels.size(); ++i) levels[i] = static_cast<int>(i);
    const Image out = filtered(name, row_of(levels), white, params, code);
    return Levels(out.samples().begin(), out.samples().end());
}

inline Levels at(const Levels& values, std::initializer_list<int> indices) {
    Levels picked;
    for (int i : indices) picked.push_back(values[i]);
    return picked;
}

}  // namespace krf::test
