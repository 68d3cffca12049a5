// "gammaporion": the template search finds a planted marker, and the curve
// keeps the marker's level while spreading the levels around it.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <string>

#include "support/radiographs.h"
#include "tone/tone.h"
#include "tone/tone_testing.h"

namespace {

using namespace krf::test;
using krf::Sample;
using krf::tone::Landmark;
using krf::tone::LandmarkTemplate;

// A round marker: a disc at one level inside a ring at another, with its own
// noise (none when spread is 0).
void plant_marker(Image& image, int row, int col, LandmarkTemplate shape, int disc_level, int ring_level,
                  double spread, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0.0, spread > 0 ? spread : 1.0);
    for (int r = row - static_cast<int>(shape.outer); r <= row + shape.outer; ++r)
        for (int c = col - static_cast<int>(shape.outer); c <= col + shape.outer; ++c) {
            const long d2 = static_cast<long>(r - row) * (r - row) + static_cast<long>(c - col) * (c - col);
            if (d2 > shape.outer * shape.outer) continue;
            const double level = (d2 <= shape.inner * shape.inner ? disc_level : ring_level) +
                                 (spread > 0 ? noise(random) : 0.0);
            image.at(r, c) = static_cast<Sample>(std::clamp(level, 0.0, 65535.0));
        }
}

Landmark located(Image& image, int white, LandmarkTemplate shape) {
    Landmark found{-1, -1, -1};
    EXPECT_EQ(krf::tone::locate_landmark(image.rows(), image.height(), image.width(), white, shape, &found), 0);
    return found;
}

Params gammaporion(double gamma, double radius, double radius_ext) { return doubles({gamma, radius, radius_ext}); }

TEST(LandmarkGamma, FindsAPlantedMarkerWithinAPixel) {
    // Template sizes that search at full resolution and on block sums, and
    // centres inside the field and as close to the edges as the ring allows.
    for (auto [radius, radius_ext] : {std::pair{0, 0}, std::pair{1, 1}, std::pair{2, 0}, std::pair{2, 2}}) {
        const LandmarkTemplate shape = krf::tone::landmark_template(512, 640, radius, radius_ext);
        const int o = static_cast<int>(shape.outer);
        for (auto [row, col] : {std::pair{200, 181}, std::pair{o, o}, std::pair{511 - o, 639 - o}}) {
            Image image = phantom(512, 640, 4095, 5);
            plant_marker(image, row, col, shape, 3700, 300, 40.0, static_cast<std::uint32_t>(row + col));
            const Landmark found = located(image, 4095, shape);
            EXPECT_LE(std::max(std::abs(found.row - row), std::abs(found.column - col)), 1)
                << radius << "," << radius_ext << " at " << row << "," << col;
            EXPECT_NEAR(found.level, 3700, 60);
        }
    }
    // A real radiograph, whose own lead letter is a landmark too: the planted
    // marker has the stronger contrast and wins.
    Image leg = radiograph("cr-leg-10bit.png");
    const LandmarkTemplate shape = krf::tone::landmark_template(leg.height(), leg.width(), 0, 0);
    plant_marker(leg, 523, 811, shape, 1000, 40, 10.0, 1);
    const Landmark found = located(leg, 1023, shape);
    EXPECT_LE(std::max(std::abs(found.row - 523), std::abs(found.column - 811)), 1);
}

TEST(LandmarkGamma, LandmarkKeepsItsLevelAndTheOthersSpreadAwayFromIt) {
    Image in = phantom(256, 256, 4095, 9);
    plant_marker(in, 120, 100, krf::tone::landmark_template(256, 256, 0, 0), 3000, 200, 0.0, 0);
    in.at(250, 10) = 1500;
    in.at(250, 11) = 3500;
    in.at(250, 12) = 65535;  // above white: the entry of white
    const Image out = filtered("gammaporion", in, 4095, gammaporion(0.0, 0.0, 0.0));
    EXPECT_EQ(out.at(120, 100), 3000);
    EXPECT_EQ(out.at(250, 10), 1061);  // 3000 × (1500 / 3000)^1.5
    EXPECT_EQ(out.at(250, 11), 3656);  // 4095 − 1095 × (595 / 1095)^1.5
    EXPECT_EQ(out.at(250, 12), 4095);
    for (int r = 0; r < 256; ++r)
        for (int c = 0; c < 256; ++c) {
            const int v = std::min<int>(in.at(r, c), 4095), o = out.at(r, c);
            ASSERT_TRUE(v < 3000 ? o <= v : o >= v) << r << "," << c;
        }
    // Gamma 1 is the identity (samples above white become white); a gamma
    // that is not a positive number means the default.
    Image held = in;
    held.at(250, 12) = 4095;
    EXPECT_TRUE(filtered("gammaporion", in, 4095, gammaporion(1.0, 0.0, 0.0)) == held);
    for (double gamma : {-1.0, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()})
        EXPECT_TRUE(filtered("gammaporion", in, 4095, gammaporion(gamma, 0.0, 0.0)) == out) << gamma;
}

TEST(LandmarkGamma, TemplateSizesFromTheDecodedParameters) {
    Image in = phantom(300, 300, 4095, 2);
    plant_marker(in, 150, 140, krf::tone::landmark_template(300, 300, 1, 0), 3600, 100, 0.0, 0);
    const Image radius_one = filtered("gammaporion", in, 4095, gammaporion(2.0, 1.0, 0.0));
    EXPECT_EQ(radius_one.at(150, 140), 3600);
    EXPECT_TRUE(filtered("gammaporion", in, 4095, gammaporion(2.0, 1.9, 0.5)) == radius_one);  // truncated
    const Image radius_zero = filtered("gammaporion", in, 4095, gammaporion(2.0, 0.0, 0.0));
    for (double odd : {-5.7, -1e300, std::numeric_limits<double>::quiet_NaN()})  // negative or undecodable: 0
        EXPECT_TRUE(filtered("gammaporion", in, 4095, gammaporion(2.0, odd, odd)) == radius_zero) << odd;

    // A template larger than the image: the input comes back with the code.
    for (auto [height, width, radius] : {std::tuple{8, 100, 0.0}, std::tuple{100, 8, 0.0}, std::tuple{1, 1, 0.0},
                                         std::tuple{64, 64, 2147483647.0}}) {
        Image small = phantom(height, width, 4095, 1);
        EXPECT_TRUE(filtered("gammaporion", small, 4095, gammaporion(1.5, radius, 0.0),
                             krf::tone::kLandmarkTemplateTooLarge) == small)
            << height << "x" << width << " radius " << radius;
    }
    // The smallest image the default template fits: a ring of 4 around the centre.
    filtered("gammaporion", phantom(9, 9, 4095, 1), 4095, gammaporion(0.0, 0.0, 0.0));
}

TEST(LandmarkGamma, AllocationFailuresLeaveTheOutputUntouched) {
    // Radius 2 on 400 × 400 searches on block sums first, then refines.
    Image in = phantom(400, 400, 4095, 4);
    Params p = gammaporion(1.5, 2.0, 2.0);
    const int allocations = expect_clean_allocation_failures(
        [&](Image& out) { return run_filter("gammaporion", in, out, 4095, p.data()); }, 400, 400, {krf::kNoBuffer});
    EXPECT_EQ(allocations, 13);  // two searches (two discs, sums and a band, two accumulators) and the table
}

}  // namespace
