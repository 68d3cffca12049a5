#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/radiographs.h"
#include "corrections/rain.h"
#include "platform/memory.h"

namespace krf::test {
namespace {

// The filter's one line on standard output, kept out of the test log.
int run_rain(Image& image, Image& out, int white, double g0 = 0.02, double ppoiss0 = 0.98,
             std::string* printed = nullptr) {
    Params p;
    p.add_double(g0).add_double(ppoiss0).add_int(0);
    ::testing::internal::CaptureStdout();
    const int code = run_filter("rain", image, out, white, p.data());
    const std::string line = ::testing::internal::GetCapturedStdout();
    if (printed != nullptr) *printed = line;
    return code;
}

// A crop of the chest radiograph: real quantum noise and anatomy, small
// enough to run in a blink.
Image chest_crop(int height = 120, int width = 600) {
    static const Image chest = presented_radiograph("cr-15bit.png", 32767);
    return crop(chest, 900, 600, height, width);
}

Sample median_of_neighbourhood(const Image& image, int r, int c) {
    Sample window[9];
    for (int k = 0; k < 9; ++k) window[k] = image.at(r - 1 + k / 3, c - 1 + k % 3);
    std::nth_element(window, window + 4, window + 9);
    return window[4];
}

TEST(Rain, ImagesWithoutAProcessingRangeComeBackUnchanged) {
    for (const auto [height, width] : {std::pair{40, 600}, std::pair{120, 350}}) {
        const Image source = chest_crop(height, width);
        Image corrected = source, out(height, width, kMarker);
        std::string printed;
        EXPECT_EQ(run_rain(corrected, out, 32767, 0.02, 0.98, &printed), 0);
        EXPECT_TRUE(corrected == source);
        EXPECT_TRUE(out == Image(height, width, kMarker));
        // No pixel to estimate from: the model's parameters are not numbers.
        EXPECT_EQ(std::count(printed.begin(), printed.end(), 'n'), 4) << printed;  // "nan" twice
    }
}

TEST(Rain, ReplacesAnImpulseInsideTheRangeOnlyByItsMedian) {
    const Image clean = chest_crop();
    Image out(120, 600, kMarker);
    // Rows 20 ... 99 and columns 250 ... 499 are processed; 60 is mid-height.
    for (const int column : {300, 100, 550}) {
        Image speck = clean;
        speck.at(60, column) = 32767;
        Image corrected = speck;
        ASSERT_EQ(run_rain(corrected, out, 32767), 0);
        if (column == 300) {
            EXPECT_EQ(corrected.at(60, column), median_of_neighbourhood(speck, 60, column));
        } else {
            EXPECT_EQ(corrected.at(60, column), 32767) << "column " << column << " lies in a margin";
        }
        // Margins are never touched; elsewhere a sample keeps its value or takes its median.
        for (int r = 0; r < 120; ++r) {
            for (int c = 0; c < 600; ++c) {
                const bool inside = r >= 20 && r < 100 && c >= 250 && c <= 499;
                if (!inside) ASSERT_EQ(corrected.at(r, c), speck.at(r, c)) << r << "," << c;
                else if (corrected.at(r, c) != speck.at(r, c))
                    ASSERT_EQ(corrected.at(r, c), median_of_neighbourhood(speck, r, c)) << r << "," << c;
            }
        }
    }
    EXPECT_TRUE(out == Image(120, 600, kMarker));  // the output image is never written
}

TEST(Rain, RefusesAnotherParameterClass) {
    struct OtherParameters : FilterParametersClass {
        void SetDefaults() override {}
    } other;
    Image image = chest_crop();
    const Image before = image;
    RainClass filter;
    ASSERT_EQ(filter.Init(image.rows(), 32768, image.height(), image.width(), nullptr, nullptr), 0);
    EXPECT_EQ(filter.Apply(&other), 363500);
    EXPECT_EQ(filter.Release(), 0);
    EXPECT_TRUE(image == before);
}

TEST(Rain, AllocationFailuresLeaveTheOutputAloneAndTheImageAsDocumented) {
    const Image small = chest_crop(45, 360), small_inverted = inverted(small, 32767);
    int attempt = 0;
    expect_clean_allocation_failures(
        [&](Image& out) {
            ++attempt;
            Image image = small;
            const int code = run_rain(image, out, 32767);
            // The two range arrays come before the inversion; after it, a
            // failure leaves the image inverted.
            if (code != 0) EXPECT_TRUE(image == (attempt <= 2 ? small : small_inverted)) << "allocation " << attempt;
            return code;
        },
        45, 360, {1007100, 1007160, 1007210});
}

}  // namespace
}  // namespace krf::test
