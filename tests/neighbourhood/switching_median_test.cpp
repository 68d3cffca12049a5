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

// Vertical bands of equal width, each a grey level with uniform noise of
// the given spread: {level, spread} pairs.
Image bands(int size, std::vector<std::pair<int, int>> list, std::uint32_t seed) {
    std::mt19937 random(seed);
    Image image(size, size);
    for (int r = 0; r < size; ++r) {
        for (int c = 0; c < size; ++c) {
            const auto [level, spread] = list[c * list.size() / size];
            image.at(r, c) = static_cast<Sample>(level - spread + static_cast<int>(random() % (2 * spread + 1)));
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
    Image in(8, 8, 100), out(8, 8, kMarker);
    for (const auto [white, first_level] : {std::pair{255, 5}, {4095, 80}}) {
        SmfSettings s;
        std::memset(&s, 0xA5, sizeof s);
        ASSERT_EQ(switching_median(in.rows(), out.rows(), 8, 8, white, s), 0);
        EXPECT_TRUE(s.marginLow == 0.1 && s.marginHigh == 0.9 && s.relThreshold == 0.03 && s.noiseFactor == 6.0 &&
                    s.maxReplacedPercent == 2.0 && s.fenceFactor == 3.0 && s.minSamples == 250 &&
                    s.maxSamples == 500 && s.firstLevel == first_level && s.firstFitLevel == first_level);
    }
}

TEST(SwitchingMedian, WhiteLevel255AnalysesLevelsFromFiveOthersFromEighty) {
    // Two grey levels below 80 whose noise falls with the level. Only a
    // 255-white analysis sees them; without a noise model nothing is replaced.
    Image in = bands(120, {{20, 4}, {60, 1}}, 1);
    const std::vector<std::pair<int, int>> specks = {{30, 20}, {50, 90}, {70, 40}, {90, 100}};
    for (const auto [r, c] : specks) in.at(r, c) = static_cast<Sample>(in.at(r, c) + 60);
    Image out(120, 120, kMarker);
    ASSERT_EQ(smf(in, out, 255), 0);
    EXPECT_EQ(changed_samples(in, out), specks);
    for (const auto [r, c] : specks) EXPECT_EQ(out.at(r, c), median_3x3_at(in, r, c));

    Image out_4095(120, 120, kMarker);
    ASSERT_EQ(smf(in, out_4095, 4095), 0);
    EXPECT_TRUE(out_4095 == in);
}

TEST(SwitchingMedian, WithoutANoiseModelTheOutputEqualsTheInput) {
    // Too few samples per level to analyse any (small and tiny images), or
    // plenty on a few flat levels but no spread to measure. Specks stay.
    Image empty(0, 0);
    EXPECT_EQ(smf(empty, empty, 4095), 0);
    for (Image in : {bands(20, {{100, 3}}, 3), bands(100, {{200, 0}, {600, 0}, {1000, 0}}, 4), bands(1, {{7, 0}}, 1),
                     bands(2, {{300, 0}, {2000, 0}}, 1), bands(3, {{3000, 1}}, 2)}) {
        in.at(in.height() / 2, in.width() / 3) = 4000;
        Image out(in.height(), in.width(), kMarker);
        ASSERT_EQ(smf(in, out, 4095), 0);
        EXPECT_TRUE(out == in) << in.height();
    }
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

TEST(SwitchingMedian, LightImpulseNoiseIsReplacedHeavyNoiseRefused) {
    Image light = salted(0.01, 7);
    Image out(150, 150, kMarker);
    ASSERT_EQ(smf(light, out, 4095), 0);
    for (int r = 1; r < 149; ++r) {
        for (int c = 1; c < 149; ++c) {
            const bool impulse = light.at(r, c) == 0 || light.at(r, c) == 4095;
            EXPECT_EQ(out.at(r, c), impulse ? median_3x3_at(light, r, c) : light.at(r, c)) << r << "," << c;
        }
    }
    Image heavy = salted(0.05, 7);
    Image untouched(150, 150, kMarker);
    EXPECT_EQ(smf(heavy, untouched, 4095), kSmfRefused);
    EXPECT_TRUE(untouched == Image(150, 150, kMarker));
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
    EXPECT_EQ(changed_samples(in, out), (std::vector<std::pair<int, int>>{{60, 45}}));
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
