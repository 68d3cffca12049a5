// Grey image files: what goes in comes back out, and every damaged or
// unsuitable file is refused cleanly (no crash, no leak, nothing half-read).
#include "image_io.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "phantom.h"

namespace krf::tools {
namespace {

namespace fs = std::filesystem;

class ImageFiles : public ::testing::Test {
protected:
    void SetUp() override {
        // Unique per process: several builds may run their tests at once.
        folder_ = fs::temp_directory_path() /
                  ("krfilter-io-" + std::to_string(getpid()) + "-" +
                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(folder_);
        fs::create_directories(folder_);
    }
    void TearDown() override { fs::remove_all(folder_); }

    std::string path(const std::string& name) const { return (folder_ / name).string(); }

    std::vector<std::string> listing() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder_)) names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    fs::path folder_;
};

GreyImage phantom_image(int height, int width, int bit_depth, int white) {
    GreyImage image;
    image.height = height;
    image.width = width;
    image.bit_depth = bit_depth;
    image.white = white;
    image.samples.resize(static_cast<std::size_t>(height) * width);
    synthesize_phantom(image.samples.data(), height, width, white, 7);
    return image;
}

std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void store(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

TEST_F(ImageFiles, RoundTripKeepsSamplesDepthAndWhiteLevel) {
    struct Case {
        const char* name;
        int bit_depth;
        int white;
        int white_read;  // sBIT can only say "n significant bits"; MaxSampleValue is exact
        WhiteSource source;
    };
    const Case cases[] = {
        {"a.png", 16, 4095, 4095, WhiteSource::png_sbit},
        {"b.png", 16, 1000, 1023, WhiteSource::png_sbit},
        {"c.png", 16, 65535, 65535, WhiteSource::png_sbit},
        {"d.png", 8, 255, 255, WhiteSource::png_sbit},
        {"e.png", 8, 100, 127, WhiteSource::png_sbit},
        {"f.tif", 16, 1000, 1000, WhiteSource::tiff_max_sample_value},
        {"g.tiff", 16, 65535, 65535, WhiteSource::tiff_max_sample_value},
        {"h.TIF", 8, 200, 200, WhiteSource::tiff_max_sample_value},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const GreyImage written = phantom_image(37, 53, c.bit_depth, c.white);
        ASSERT_EQ(write_grey_image(path(c.name), written), "");
        GreyImage read;
        WhiteSource source{};
        ASSERT_EQ(read_grey_image(path(c.name), read, &source), "");
        EXPECT_EQ(read.height, 37);
        EXPECT_EQ(read.width, 53);
        EXPECT_EQ(read.bit_depth, c.bit_depth);
        EXPECT_EQ(read.white, c.white_read);
        EXPECT_EQ(source, c.source);
        EXPECT_EQ(read.samples, written.samples);
    }
}

TEST_F(ImageFiles, EightBitFilesClampSamplesAboveTheirRange) {
    GreyImage image = phantom_image(2, 3, 8, 255);
    image.samples = {0, 254, 255, 256, 4095, 65535};
    for (const char* name : {"clamp.png", "clamp.tif"}) {
        ASSERT_EQ(write_grey_image(path(name), image), "");
        GreyImage read;
        ASSERT_EQ(read_grey_image(path(name), read), "");
        EXPECT_EQ(read.samples, (std::vector<std::uint16_t>{0, 254, 255, 255, 255, 255})) << name;
    }
}

// Every cut of a valid file, from the empty file to one byte short, must be
// refused with a message and an empty image; the sanitizer build checks that
// libpng's and libtiff's error paths leak nothing.
TEST_F(ImageFiles, EveryTruncationIsRefused) {
    const GreyImage image = phantom_image(24, 31, 16, 4095);
    for (const char* name : {"whole.png", "whole.tif"}) {
        ASSERT_EQ(write_grey_image(path(name), image), "");
        const std::string bytes = contents(path(name));
        const std::size_t step = std::max<std::size_t>(1, bytes.size() / 150);
        for (std::size_t length = 0; length < bytes.size(); length += (length < 64 ? 1 : step)) {
            store(path("cut"), bytes.substr(0, length));
            GreyImage read;
            const std::string problem = read_grey_image(path("cut"), read);
            EXPECT_FALSE(problem.empty()) << name << " cut to " << length << " bytes was accepted";
            EXPECT_TRUE(read.samples.empty());
        }
    }
}

TEST_F(ImageFiles, ColourFilesAreNotGreyscale) {
    const std::vector<unsigned char> rgb(4 * 5 * 3, 90);
    for (const char* name : {"colour.png", "colour.tif"}) {
        ASSERT_EQ(write_rgb_image(path(name), 4, 5, rgb.data()), "");
        GreyImage read;
        EXPECT_NE(read_grey_image(path(name), read).find("not a greyscale image"), std::string::npos) << name;
    }
}

TEST_F(ImageFiles, FailedWritesLeaveExistingFilesAndNoTemporaries) {
    const GreyImage image = phantom_image(8, 8, 16, 4095);
    // A folder in the way: the image is encoded, then the final rename fails.
    fs::create_directories(path("taken.png") + "/inside");
    EXPECT_NE(write_grey_image(path("taken.png"), image), "");
    EXPECT_TRUE(fs::is_directory(path("taken.png") + "/inside"));

    store(path("keep.png"), "earlier result");
    EXPECT_NE(write_grey_image(path("keep.jpg"), image).find("use .png, .tif or .tiff"), std::string::npos);
    GreyImage empty = image;
    empty.height = 0;
    EXPECT_NE(write_grey_image(path("keep.png"), empty), "");
    EXPECT_EQ(contents(path("keep.png")), "earlier result");
    EXPECT_NE(write_grey_image(path("missing-folder/out.png"), image).find("missing-folder"), std::string::npos);
    EXPECT_EQ(listing(), (std::vector<std::string>{"keep.png", "taken.png"}));

    ASSERT_EQ(write_grey_image(path("keep.png"), image), "");
    GreyImage read;
    ASSERT_EQ(read_grey_image(path("keep.png"), read), "");
    EXPECT_EQ(read.samples, image.samples);
}

TEST(DisplayVersion, MapsZeroToWhiteOntoEightBits) {
    GreyImage image;
    image.height = 1;
    image.width = 6;
    image.white = 1000;
    image.samples = {0, 1, 2, 500, 1000, 60000};
    const GreyImage display = display_version(image);
    EXPECT_EQ(display.bit_depth, 8);
    EXPECT_EQ(display.white, 255);
    // v × 255 / 1000, rounded half up; above white counts as white.
    EXPECT_EQ(display.samples, (std::vector<std::uint16_t>{0, 0, 1, 128, 255, 255}));
}

TEST_F(ImageFiles, RealRadiographSurvivesARoundTrip) {
    const std::string source = std::string(KRFILTER_DATA_DIR) + "/cr-leg-10bit.png";
    if (!fs::exists(source)) GTEST_SKIP() << source << " is not available";
    GreyImage image;
    WhiteSource origin{};
    ASSERT_EQ(read_grey_image(source, image, &origin), "");
    EXPECT_EQ(image.height, 1760);
    EXPECT_EQ(image.width, 1760);
    EXPECT_EQ(origin, WhiteSource::bit_depth);  // the file carries no sBIT
    EXPECT_LE(*std::max_element(image.samples.begin(), image.samples.end()), 1023);
    image.white = 1023;
    ASSERT_EQ(write_grey_image(path("leg.tif"), image), "");
    GreyImage again;
    ASSERT_EQ(read_grey_image(path("leg.tif"), again), "");
    EXPECT_EQ(again.white, 1023);
    EXPECT_EQ(again.samples, image.samples);
}

}  // namespace
}  // namespace krf::tools
