// Real radiographs for the correction tests.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "image_io.h"
#include "support/test_images.h"

namespace krf::test {

// Both sample files store their values with low meaning bright (unexposed
// areas near 0); a host hands the library the displayed sense, where the
// collimated border is bright. This gives that: white - value.
inline Image presented_radiograph(const char* file, int white) {
    tools::GreyImage grey;
    const std::string problem = tools::read_grey_image(std::string(KRFILTER_DATA_DIR) + "/" + file, grey);
    EXPECT_EQ(problem, "") << file;
    Image image(grey.height, grey.width);
    for (int r = 0; r < grey.height; ++r)
        for (int c = 0; c < grey.width; ++c) image.at(r, c) = static_cast<Sample>(white - grey.row(r)[c]);
    return image;
}

}  // namespace krf::test
