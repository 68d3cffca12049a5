// The real radiographs of the data folder, for tests where a synthetic
// phantom would be too kind. Only the main test program knows the folder.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "image_io.h"
#include "support/test_images.h"

namespace krf::test {

// A file of the data folder as stored; `white`, when given, receives the
// white level the file declares.
inline Image radiograph(const std::string& file, int* white = nullptr) {
    tools::GreyImage grey;
    EXPECT_EQ(tools::read_grey_image(std::string(KRFILTER_DATA_DIR) + "/" + file, grey), "") << file;
    Image image(grey.height, grey.width);
    for (int r = 0; r < grey.height; ++r)
        for (int c = 0; c < grey.width; ++c) image.at(r, c) = grey.row(r)[c];
    if (white != nullptr) *white = grey.white;
    return image;
}

// Both sample files store their values with low meaning bright (unexposed
// areas near 0); a host hands the library the displayed sense, where the
// collimated border is bright.
inline Image presented_radiograph(const char* file, int white) { return inverted(radiograph(file), white); }

}  // namespace krf::test
