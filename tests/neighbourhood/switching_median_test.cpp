#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "neighbourhood/median.h"
#include "neighbourhood/neighbourhood_testing.h"
#include "platform/memory.h"

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

// The input with the samples at `specks` replaced by their 3 × 3 medians.
Image with_medians_at(const Image& in, std::vector<std::pair<int, int>> specks) {
    Image out = in;
    for (const auto [r, c] : specks) out.at(r, c) = window_median(in, r, c, 1);
    return out;
}

Image smf(const Image& in, int white, int code = 0) { return filtered("SMF", in, white, nullptr, code); }

// The tuning values shape every output, yet most of them would slip past the
// behavioural cases below. Whatever the host left in the record must not matter.
TEST(SwitchingMedian, FillsEverySettingOnEntry) {
    for (const auto [white, first_level] : {std::pair{255, 5}, {4095, 80}}) {
        SmfSettings s;
        std::memset(&s, 0xA5, sizeof s);
        ASSERT_EQ(switching_median(nullptr, nullptr, 0, 0, white, s), 0);
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
    EXPECT_TRUE(smf(in, 255) == with_medians_at(in, specks));
    EXPECT_TRUE(smf(in, 4095) == in);
}

TEST(SwitchingMedian, WithoutANoiseModelTheOutputEqualsTheInput) {
    // Too few samples per level to analyse any (small and tiny images), or
    // plenty on a few flat levels but no spread to measure. Specks stay.
    EXPECT_TRUE(smf(Image(0, 0), 4095) == Image(0, 0));
    for (Image in : {bands(20, {{100, 3}}, 3), bands(100, {{200, 0}, {600, 0}, {1000, 0}}, 4), bands(1, {{7, 0}}, 1),
                     bands(2, {{300, 0}, {2000, 0}}, 1), bands(3, {{3000, 1}}, 2)}) {
        in.at(in.height() / 2, in.width() / 3) = 4000;
        EXPECT_TRUE(smf(in, 4095) == in) << in.height();
    }
}

// Exactly the impulses are replaced, each by its 3 × 3 median; at 5 % noise
// the filter refuses and leaves the output alone.
TEST(SwitchingMedian, LightImpulseNoiseIsReplacedHeavyNoiseRefused) {
    const Image light = salted(0.01, 7), out = smf(light, 4095);
    for (int r = 1; r < 149; ++r) {
        for (int c = 1; c < 149; ++c) {
            const bool impulse = light.at(r, c) == 0 || light.at(r, c) == 4095;
            EXPECT_EQ(out.at(r, c), impulse ? window_median(light, r, c, 1) : light.at(r, c)) << r << "," << c;
        }
    }
    EXPECT_TRUE(smf(salted(0.05, 7), 4095, kSmfRefused) == Image(150, 150, kMarker));
}

TEST(SwitchingMedian, SamplesAboveWhiteAreHandled) {
    Image in = bands(120, {{300, 8}, {900, 3}}, 5);
    // A stripe above white from top to bottom inside the first band (corners
    // or junctions would be eroded by the 3 × 3 median), and one speck far
    // above it.
    for (int r = 0; r < 120; ++r)
        for (int c = 10; c < 30; ++c) in.at(r, c) = static_cast<Sample>(5000 + (r + c) % 3);
    in.at(60, 45) = 60000;
    in.at(60, 20) = 5100;  // 99 above its median: within 3 % of that median, which lies above white
    EXPECT_TRUE(smf(in, 1000) == with_medians_at(in, {{60, 45}}));
}

TEST(SwitchingMedian, AllocationFailuresLeaveTheOutputUntouched) {
    const Image in = salted(0.01, 9);
    EXPECT_GT(expect_clean_failures("SMF", in, nullptr, {kSmfNoRaster, kNoBuffer}), 0);
    // Which code comes from where: the rasters (two row arrays, 150 rows
    // each), then the noise estimation's first buffer.
    for (const auto [nth, code] : {std::pair{1, kSmfNoRaster}, {152, kSmfNoRaster}, {303, kNoBuffer}}) {
        krf::testing::fail_allocation(nth);
        EXPECT_TRUE(smf(in, 4095, code) == Image(150, 150, kMarker)) << nth;
        krf::testing::fail_allocation(0);
    }
}

}  // namespace
}  // namespace krf::test
