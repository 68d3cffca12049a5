#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "neighbourhood/median.h"
#include "neighbourhood/neighbourhood_testing.h"

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

// The switching median written out step by step from its definition: the 3 × 3
// median, per-level stores of doubles filled by the phase walk, quartiles by
// sorting, the line fit and the thresholds. Inputs stay within white. Returns
// the filter's code and, on success, its output.
std::pair<int, Image> reference_smf(const Image& in, int white) {
    const int height = in.height(), width = in.width(), first_level = white == 255 ? 5 : 80;
    Image m = in;
    for (int r = 1; r < height - 1; ++r)
        for (int c = 1; c < width - 1; ++c) m.at(r, c) = window_median(in, r, c, 1);
    const int r0 = static_cast<int>(height * 0.1 - 1 + 0.5), r1 = static_cast<int>(0.9 * height + 0.5);
    const int c0 = static_cast<int>(width * 0.1 - 1 + 0.5), c1 = static_cast<int>(0.9 * width + 0.5);
    std::vector<long long> histogram(white + 1);
    for (int r = r0; r < r1; ++r)
        for (int c = c0; c < c1; ++c) ++histogram[m.at(r, c)];
    struct Store {
        std::vector<double> values;
        int count = 0;
        double step = 0.0, phase = 0.0;
    };
    std::vector<Store> stores(white + 1);
    for (int level = first_level; level < white; ++level) {
        const int capacity = static_cast<int>(std::min<long long>(histogram[level], 500));
        if (capacity <= 250) continue;
        stores[level].values.assign(capacity, 0.0);
        stores[level].step = static_cast<double>(capacity) / histogram[level];
    }
    for (int r = r0; r < r1; ++r) {
        for (int c = c0; c < c1; ++c) {
            Store& s = stores[m.at(r, c)];
            const int capacity = static_cast<int>(s.values.size());
            if (capacity == 0) continue;
            const double next = s.phase + s.step;
            if (s.count < capacity && (static_cast<long long>(s.phase) != static_cast<long long>(next) ||
                                       s.count == capacity - 1))
                s.values[s.count++] = in.at(r, c) - m.at(r, c);
            s.phase = next;
        }
    }
    double n = 0, sum_l = 0, sum_l2 = 0, sum_v = 0, sum_lv = 0;
    for (int level = first_level; level < white; ++level) {
        const std::vector<double>& values = stores[level].values;
        if (values.empty()) continue;
        std::vector<double> sorted = values;
        std::sort(sorted.begin(), sorted.end());
        const int q = static_cast<int>(values.size() * 0.25 + 0.5);
        const double q1 = sorted[q - 1], q3 = sorted[3 * q - 1], fence = (q3 - q1) * 3.0;
        double sum = 0;
        int kept = 0;
        for (const double v : values)
            if (q1 - fence <= v && v <= q3 + fence) sum += v * v, ++kept;
        if (sum == 0) continue;
        const double variance = sum / kept;
        n += 1;
        sum_l += level;
        sum_l2 += static_cast<double>(static_cast<std::int32_t>(static_cast<std::uint32_t>(level) * level));
        sum_v += variance;
        sum_lv += level * variance;
    }
    const double b = (n * sum_lv - sum_l * sum_v) / (n * sum_l2 - sum_l * sum_l);
    const double x0 = (sum_v * sum_l2 - sum_l * sum_lv) / (sum_l * sum_v - n * sum_lv);
    Image out = in;
    long long replaced = 0;
    for (int r = 0; r < height; ++r) {
        for (int c = 0; c < width; ++c) {
            const int median = m.at(r, c);
            const double ratio = (median - x0) / b;
            const double noise = 6.0 * (-b * std::sqrt(ratio < 0 ? 0.0 : ratio));
            const double threshold = 0.03 * median > noise ? 0.03 * median : noise;
            if (std::abs(in.at(r, c) - median) > threshold) out.at(r, c) = static_cast<Sample>(median), ++replaced;
        }
    }
    if (!(static_cast<double>(replaced) / (static_cast<double>(height) * width) * 100.0 < 2.0))
        return {kSmfRefused, Image(height, width, kMarker)};
    return {0, out};
}

// Four bands whose bell-shaped noise falls with the level, and outliers of 3 to
// 10 standard deviations: many of them lie near the threshold, so a noise
// model built from other samples or other quartiles changes the output.
// `scale` stretches levels and noise; impulses at the 16-bit extremes widen
// a level's spread past what the quartiles are counted over.
Image graded_noise(int scale, bool impulses) {
    std::mt19937 random(21);
    const int levels[4] = {600, 1400, 2200, 3000}, sigmas[4] = {12, 9, 6, 3};
    Image image(400, 400);
    for (int r = 0; r < 400; ++r) {
        for (int c = 0; c < 400; ++c) {
            const int band = c / 100;
            int noise = 0;  // four uniforms: close to a normal spread of sigma
            for (int k = 0; k < 4; ++k) noise += static_cast<int>(random() % (sigmas[band] + 1)) - sigmas[band] / 2;
            if (random() % 1000 < 12)
                noise = static_cast<int>((3 + random() % 8) * sigmas[band]) * ((random() & 1) ? 1 : -1);
            image.at(r, c) = static_cast<Sample>((levels[band] + noise) * scale);
            if (impulses && random() % 1000 < 2) image.at(r, c) = (random() & 1) ? 65535 : 0;
        }
    }
    return image;
}

// The sampling, the quartiles and the replacement take shortcuts (kept
// samples marked per level ahead of the image pass, quartiles by counting
// when the spread is narrow, no working copy); the output must still be the
// definition's, sample for sample.
// Light salt and pepper is corrected; at 5 % the filter refuses and leaves
// the output alone.
TEST(SwitchingMedian, MatchesTheStepByStepDefinition) {
    for (const auto& [in, white] : {std::pair{graded_noise(1, false), 4095}, {graded_noise(10, true), 65535},
                                    {salted(0.01, 7), 4095}, {salted(0.05, 3), 4095}}) {
        const auto [code, expected] = reference_smf(in, white);
        EXPECT_TRUE(smf(in, white, code) == expected) << "white " << white << " code " << code;
        EXPECT_FALSE(code == 0 && expected == in) << "nothing replaced: the case tests nothing";
        // The result is written only after every sample has been judged, so
        // the output may be the input.
        Image image = in;
        EXPECT_EQ(run_filter("SMF", image, image, white, nullptr), code);
        EXPECT_TRUE(image == (code == 0 ? expected : in)) << "in place, white " << white;
    }
}

// The vector paths walk eight levels side by side, refilling lanes as walks
// end; the kept samples shape the noise model, and so the output.
TEST(SwitchingMedian, EveryVectorPathMatchesThePortablePath) {
    for (auto [in, white] : {std::pair{graded_noise(1, false), 4095}, {graded_noise(10, true), 65535},
                             {salted(0.01, 7), 4095}}) {
        const auto run = [&, &in = in, white = white](MedianIsa isa) {
            Image out(in.height(), in.width(), kMarker);
            SmfSettings settings;
            EXPECT_EQ(switching_median(in.rows(), out.rows(), in.height(), in.width(), white, settings, isa), 0);
            return out;
        };
        const Image portable = run(MedianIsa::portable);
        for (const MedianIsa isa : {MedianIsa::avx2, MedianIsa::avx512bw}) {
            if (!median_isa_available(isa)) {
                std::printf("path %d not on this processor: not compared\n", static_cast<int>(isa));
                continue;
            }
            EXPECT_TRUE(run(isa) == portable) << "path " << static_cast<int>(isa) << ", white " << white;
        }
    }
}

// On an image that has a noise model (the library-wide sweep's small phantom
// has none), so that the estimation's own allocations fail too.
TEST(SwitchingMedian, AllocationFailuresLeaveTheOutputUntouched) {
    EXPECT_GT(expect_clean_failures("SMF", salted(0.01, 9), nullptr, {kSmfNoRaster, kNoBuffer}), 0);
}

}  // namespace
}  // namespace krf::test
