// Grey image files: what goes in comes back out, and every damaged or
// unsuitable file is refused cleanly (no crash, no leak, nothing half-read).
#include "image_io.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "file_test_folder.h"
#include "phantom.h"

namespace krf::tools {
namespace {

namespace fs = std::filesystem;

using ImageFiles = FileTestFolder;

GreyImage phantom_image(int height, int width, int bit_depth, int white) {
    GreyImage image{height, width, bit_depth, white, std::vector<std::uint16_t>(std::size_t(height) * width)};
    synthesize_phantom(image.samples.data(), height, width, white, 7);
    return image;
}

TEST_F(ImageFiles, EightBitFilesClampSamplesAboveTheirRange) {
    const GreyImage image{2, 3, 8, 255, {0, 254, 255, 256, 4095, 65535}};
    for (const char* name : {"clamp.png", "clamp.tif"}) {
        GreyImage read;
        ASSERT_EQ(write_grey_image(path(name), image), "");
        ASSERT_EQ(read_grey_image(path(name), read), "");
        EXPECT_EQ(read.samples, (std::vector<std::uint16_t>{0, 254, 255, 255, 255, 255})) << name;
    }
}

// Every cut of a valid file, from the empty file to one byte short, must be
// refused with a message and an empty image; the sanitizer build checks that
// libpng's and libtiff's error paths leak nothing.
TEST_F(ImageFiles, EveryTruncationIsRefused) {
    const GreyImage image = phantom_image(24, 31, 16, 4095);
    // The demo's and the benchmarks' phantom stays within its white level.
    EXPECT_LE(*std::max_element(image.samples.begin(), image.samples.end()), 4095);
    for (const char* name : {"whole.png", "whole.tif"}) {
        ASSERT_EQ(write_grey_image(path(name), image), "");
        std::ifstream file(path(name), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        const std::size_t step = std::max<std::size_t>(1, bytes.size() / 150);
        for (std::size_t length = 0; length < bytes.size(); length += (length < 64 ? 1 : step)) {
            std::ofstream(path("cut"), std::ios::binary | std::ios::trunc) << bytes.substr(0, length);
            GreyImage read;
            EXPECT_NE(read_grey_image(path("cut"), read), "") << name << " cut to " << length << " bytes was accepted";
            EXPECT_TRUE(read.samples.empty());
        }
    }
}

// The command-line test covers a write that fails half way; here the image is
// encoded and only the final rename fails, or the folder is missing.
TEST_F(ImageFiles, FailedWritesLeaveNoTemporaries) {
    const GreyImage image = phantom_image(8, 8, 16, 4095);
    fs::create_directories(path("taken.png") + "/inside");
    EXPECT_NE(write_grey_image(path("taken.png"), image), "");
    EXPECT_TRUE(fs::is_directory(path("taken.png") + "/inside"));
    EXPECT_NE(write_grey_image(path("missing-folder/out.png"), image).find("missing-folder"), std::string::npos);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 1);
}

TEST(DisplayVersion, MapsZeroToWhiteOntoEightBits) {
    const GreyImage display = display_version(GreyImage{1, 6, 16, 1000, {0, 1, 2, 500, 1000, 60000}});
    EXPECT_EQ(std::tie(display.bit_depth, display.white), std::make_tuple(8, 255));
    // v × 255 / 1000, rounded half up; above white counts as white.
    EXPECT_EQ(display.samples, (std::vector<std::uint16_t>{0, 0, 1, 128, 255, 255}));
}

}  // namespace
}  // namespace krf::tools
