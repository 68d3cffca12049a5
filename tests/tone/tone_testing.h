// Small helpers shared by the tone tests.
#pragma once

#include <vector>

#include "support/test_images.h"

namespace krf::test {

// A one-row image holding the given levels.
inline Image levels_row(const std::vector<Sample>& levels) {
    Image image(1, static_cast<int>(levels.size()));
    for (std::size_t c = 0; c < levels.size(); ++c) image.at(0, static_cast<int>(c)) = levels[c];
    return image;
}

// Every level 0 ... last, then `extra` levels above it: the whole curve of a
// point operation in one row.
inline Image ramp_row(int last, int extra = 0) {
    Image image(1, last + 1 + extra);
    for (int c = 0; c <= last + extra; ++c) image.at(0, c) = static_cast<Sample>(c);
    return image;
}

// Runs a filter on a copy of `in` into a fresh output and returns the output.
inline Image filtered(const char* name, Image in, int white, Params* params = nullptr, int* code = nullptr) {
    Image out(in.height(), in.width(), kMarker);
    const int result = run_filter(name, in, out, white, params ? params->data() : nullptr);
    if (code) *code = result;
    return out;
}

}  // namespace krf::test
