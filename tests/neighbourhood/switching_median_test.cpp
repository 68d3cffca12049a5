#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "neighbourhood/median.h"
#include "platform/memory.h"
#include "support/test_images.h"

namespace krf::test {
namespace {

struct Band {
    int level;
    int spread;  // uniform noise in [level - spread, level + spread]
};

// Vertical bands of equal width, each a grey level with its own noise.
Image bands(int size, std::vector<Band> list, std::uint32_t seed) {
    std::mt19937 random(seed);
    Image image(size, size);
    const int band_width = size / static_cast<int>(list.size());
    for (int r = 0; r < size; ++r) {
        for (int c = 0; c < size; ++c) {
            const Band& b = list[std::min(c / band_width, static_cast<int>(list.size()) - 1)];
            image.at(r, c) = static_cast<Sample>(b.level - b.spread + static_cast<int>(random() % (2 * b.spread + 1)));
        }
    }
    return image;
}

Sample median_3x3_at(const Image& in, int r, int c) {
    std::vector<Sample> window;
    for (int y = r - 1; y <= r + 1; ++y)
        for (int x = c - 1; x <= c + 1; ++x) window.push_back(in.at(y, x));
    std::nth_element(window.begin(), window.begin() + 4, window.end());
    return window[4];
}

std::vector<std::pair<int, int>> changed_samples(const Image& in, const Image& out) {
    std::vector<std::pair<int, int>> changed;
    for (int r = 0; r < in.height(); ++r)
        for (int c = 0; c < in.width(); ++c)
            if (out.at(r, c) != in.at(r, c)) changed.emplace_back(r, c);
    return changed;
}

int smf(Image& in, Image& out, int white) { return run_filter("SMF", in, out, white, nullptr); }

TEST(SwitchingMedian, FillsEverySettingOnEntry) {
    Image in(8, 8, 100);
    for (const auto [white, first_level] : {std::pair{255, 5}, {4095, 80}, {65535, 80}}) {
        Image out(8, 8, kMarker);
        SmfSettings settings;
        std::memset(&settings, 0xA5, sizeof settings);
        ASSERT_EQ(switching_median(in.rows(), out.rows(), 8, 8, white, settings), 0);
        EXPECT_EQ(settings.marginLow, 0.1);
        EXPECT_EQ(settings.marginHigh, 0.9);
        EXPECT_EQ(settings.relThreshold, 0.03);
        EXPECT_EQ(settings.noiseFactor, 6.0);
        EXPECT_EQ(settings.maxReplacedPercent, 2.0);
        EXPECT_EQ(settings.fenceFactor, 3.0);
        EXPECT_EQ(settings.minSamples, 250);
        EXPECT_EQ(settings.maxSamples, 500);
        EXPECT_EQ(settings.firstLevel, first_level);
        EXPECT_EQ(settings.firstFitLevel, first_level);
    }
}

TEST(SwitchingMedian, WhiteLevel255AnalysesLevelsFromFiveOthersFromEighty) {
    // Two grey levels below 80 whose noise falls with the level. Only a
    // 255-white analysis sees them; without a noise model nothing is replaced.
    Image in = bands(120, {{20, 4}, {60, 1}}, 1);
    const std::pair<int, int> specks[] = {{30, 20}, {50, 90}, {70, 40}, {90, 100}};
    for (const auto [r, c] : specks) in.at(r, c) = static_cast<Sample>(in.at(r, c) + 60);

    Image out(120, 120, kMarker);
    ASSERT_EQ(smf(in, out, 255), 0);
    const auto changed = changed_samples(in, out);
    ASSERT_EQ(changed.size(), 4u);
    for (const auto [r, c] : specks) {
        EXPECT_NE(std::find(changed.begin(), changed.end(), std::pair{r, c}), changed.end()) << r << "," << c;
        EXPECT_EQ(out.at(r, c), median_3x3_at(in, r, c));
    }

    Image out_4095(120, 120, kMarker);
    ASSERT_EQ(smf(in, out_4095, 4095), 0);
    EXPECT_TRUE(out_4095 == in);
}

TEST(SwitchingMedian, WithoutANoiseModelTheOutputEqualsTheInput) {
    // Too few samples per level to analyse any.
    Image small(20, 20);
    std::mt19937 random(3);
    for (int r = 0; r < 20; ++r)
        for (int c = 0; c < 20; ++c) small.at(r, c) = static_cast<Sample>(100 + random() % 4 + (random() % 50 == 0 ? 3000 : 0));
    Image out(20, 20, kMarker);
    ASSERT_EQ(smf(small, out, 4095), 0);
    EXPECT_TRUE(out == small);

    // Plenty of samples on a few flat levels, but no spread to measure.
    Image flat = bands(100, {{200, 0}, {600, 0}, {1000, 0}}, 4);
    flat.at(50, 10) = 4000;
    flat.at(20, 80) = 0;
    Image flat_out(100, 100, kMarker);
    ASSERT_EQ(smf(flat, flat_out, 4095), 0);
    EXPECT_TRUE(flat_out == flat);
}

// Salt and pepper on a fraction of the samples of a two-level image whose
// noise falls with the level.
Image salted(double fraction, std::uint32_t seed) {
    Image image = bands(150, {{300, 8}, {900, 3}}, seed);
    std::mt19937 random(seed + 1);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int r = 0; r < 150; ++r)
        for (int c = 0; c < 150; ++c)
            if (unit(random) < fraction) image.at(r, c) = (random() & 1) ? 4095 : 0;
    return image;
}

TEST(SwitchingMedian, LightImpulseNoiseIsReplacedByTheMedian) {
    Image in = salted(0.01, 7);
    Image out(150, 150, kMarker);
    ASSERT_EQ(smf(in, out, 4095), 0);
    for (int r = 0; r < 150; ++r) {
        for (int c = 0; c < 150; ++c) {
            const bool impulse = in.at(r, c) == 0 || in.at(r, c) == 4095;
            const bool interior = r > 0 && r < 149 && c > 0 && c < 149;
            if (impulse && interior) EXPECT_EQ(out.at(r, c), median_3x3_at(in, r, c)) << r << "," << c;
            if (!impulse) EXPECT_EQ(out.at(r, c), in.at(r, c)) << r << "," << c;
        }
    }
}

TEST(SwitchingMedian, HeavyImpulseNoiseIsRefusedAndNothingWritten) {
    Image in = salted(0.05, 7);
    Image out(150, 150, kMarker);
    EXPECT_EQ(smf(in, out, 4095), kSmfRefused);
    EXPECT_TRUE(out == Image(150, 150, kMarker));
}

TEST(SwitchingMedian, ReplacesTheSpecksOfARadiograph) {
    // The phantom's noise grows with the signal; shown inverted, as a
    // radiograph stored with bone dark, its variance falls with the level as
    // the noise model expects.
    Image in = phantom(600, 600, 4095, 3);
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c) in.at(r, c) = static_cast<Sample>(4095 - in.at(r, c));
    Image out(600, 600, kMarker);
    ASSERT_EQ(smf(in, out, 4095), 0);

    int specks = 0;
    for (int r = 1; r < 599; ++r) {
        for (int c = 1; c < 599; ++c) {
            const Sample median = median_3x3_at(in, r, c);
            if (out.at(r, c) != in.at(r, c)) EXPECT_EQ(out.at(r, c), median) << r << "," << c;
            if (std::abs(in.at(r, c) - median) > 1000) {
                ++specks;
                EXPECT_EQ(out.at(r, c), median) << "speck left at " << r << "," << c;
            }
        }
    }
    EXPECT_GT(specks, 20);
    EXPECT_LT(changed_samples(in, out).size(), 2u * static_cast<std::size_t>(specks));
}

TEST(SwitchingMedian, SamplesAboveWhiteAreHandled) {
    Image in = bands(120, {{300, 8}, {900, 3}}, 5);
    // A stripe above white from top to bottom inside the first band (corners
    // or junctions would be eroded by the 3 × 3 median), and one speck far
    // above it.
    for (int r = 0; r < 120; ++r)
        for (int c = 10; c < 30; ++c) in.at(r, c) = static_cast<Sample>(5000 + (r + c) % 3);
    in.at(60, 45) = 60000;
    Image out(120, 120, kMarker);
    ASSERT_EQ(smf(in, out, 1000), 0);
    const auto changed = changed_samples(in, out);
    ASSERT_EQ(changed.size(), 1u);
    EXPECT_EQ(changed[0], (std::pair{60, 45}));
}

TEST(SwitchingMedian, EmptyAndTinyImagesComeBackUnchanged) {
    Image empty(0, 0);
    EXPECT_EQ(smf(empty, empty, 4095), 0);
    for (const auto [height, width] : {std::pair{1, 1}, {1, 6}, {2, 3}, {6, 1}, {2, 2}}) {
        Image in(height, width);
        for (int r = 0; r < height; ++r)
            for (int c = 0; c < width; ++c) in.at(r, c) = static_cast<Sample>(r * 1000 + c * 37);
        Image out(height, width, kMarker);
        ASSERT_EQ(smf(in, out, 4095), 0);
        EXPECT_TRUE(out == in) << height << "x" << width;
    }
}

TEST(SwitchingMedian, AllocationFailuresLeaveTheOutputUntouched) {
    Image in = salted(0.01, 9);
    EXPECT_GT(expect_clean_allocation_failures([&](Image& out) { return smf(in, out, 4095); }, 150, 150,
                                               {kSmfNoRaster, kNoBuffer}),
              0);
    // Which code comes from where: the rasters (two row arrays, 150 rows
    // each), then the noise estimation's first buffer.
    for (const auto [nth, code] : {std::pair{1, kSmfNoRaster}, {152, kSmfNoRaster}, {303, kNoBuffer}}) {
        Image out(150, 150, kMarker);
        krf::testing::fail_allocation(nth);
        EXPECT_EQ(smf(in, out, 4095), code) << nth;
        krf::testing::fail_allocation(0);
        EXPECT_TRUE(out == Image(150, 150, kMarker)) << nth;
    }
}

}  // namespace
}  // namespace krf::test
