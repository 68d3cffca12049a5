#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "support/radiographs.h"
#include "tone/tone_testing.h"

namespace {

using namespace krf::test;

// Catalogue order: six thresholds (mu 0.5, sigma 0.3), then four borders of 0.
Params ece(double low_th, double high_th, double din_low, double din_high) {
    Params p = doubles({low_th, high_th, din_low, din_high, 0.5, 0.3});
    p.add_int(0).add_int(0).add_int(0).add_int(0);
    return p;
}

// Stretching thresholds that make the first stage the identity window.
Params band(double din_low, double din_high) { return ece(-1.0, 2.0, din_low, din_high); }

double gamma_of(int level, double g) { return 4095 * std::pow(level / 4095.0, g); }

Image with_one(int fill, int level) {
    Image image(2, 2, static_cast<krf::Sample>(fill));
    image.at(0, 0) = static_cast<krf::Sample>(level);
    return image;
}

TEST(Ece, BandOfTheDefaultsAndTheExponentCap) {
    // A level t alone in the band gives the exponent -1 / ln(t) whatever the
    // weights, and becomes W × t^(-1/ln t) = W / e. An empty band gives 0/0: all 0.
    for (int level : {1023, 1024, 3072, 3073})
        EXPECT_NEAR(filtered("ECE", Image(2, 3, level), 4095, band(0.25, 0.75)).at(1, 2),
                    level >= 1024 && level <= 3072 ? 4095 / M_E : 0.0, 1)
            << level;
    // din_high_th 1 ends the band at white; -1/ln(3700/4095) = 9.9 is capped.
    EXPECT_NEAR(filtered("ECE2", with_one(100, 3700), 4095, band(0.5, 1.0)).at(0, 0), gamma_of(3700, 4.0), 1);
    // Levels 1 ... 205: -1/ln(146/4095) = 0.3 is kept.
    EXPECT_NEAR(filtered("ECE", with_one(3000, 146), 4095, band(0.0002, 0.05)).at(1, 1),
                gamma_of(3000, -1 / std::log(146 / 4095.0)), 1);
}

// The two stages as written: "ShannonStretching" into a scratch image, its
// histogram, every level of the band in all 50 rounds, then "gamma" on the
// scratch image. The filter never makes that image and skips empty levels and
// repeated rounds; its samples must not differ by one. Both weightings, "ECE" growing away
// from mu and "ECE2" the bell, are held to it.
Image two_stage_reference(const Image& in, int white, bool bell, const std::vector<double>& t,
                          const std::vector<int>& borders) {
    Params stretch = doubles({t[0], t[1]});
    for (int b : borders) stretch.add_int(b);
    const Image scratch = filtered("ShannonStretching", in, white, stretch);
    std::vector<double> hist(white + 1);
    for (krf::Sample v : scratch.samples()) hist[std::min<int>(v, white)] += 1;
    const double n = white + 1.0, w = white;
    const int a = std::max(static_cast<int>(n * t[2] + 0.5), 0), b = std::min(static_cast<int>(n * t[3] + 0.5), white);
    double g = 1.0;
    for (int round = 0; round < 50; ++round) {
        double s1 = 0, s2 = 0;
        for (int i = a; i <= b; ++i) {
            const double d = (i / w - t[4]) / t[5], weight = std::exp(bell ? -(d * d) : d * d);
            const double p = std::pow(i / w, g - 1.0);
            s1 += p * hist[i] * weight;
            s2 += hist[i] * std::log(i / w) * p * weight;
        }
        g = -(s1 / s2);
    }
    return filtered("gamma", scratch, white, doubles({std::min(g, 4.0)}));
}

TEST(Ece, SameSamplesAsTheTwoStagesOnRealAndSparseImages) {
    const Image leg = crop(radiograph("cr-leg-10bit.png"), 700, 600, 300, 400);  // across the leg and the background
    // A 16-bit image whose levels are far apart: most levels of every band are empty.
    Image sparse = phantom(120, 90, 65535, 3);
    for (int r = 0; r < 120; ++r)
        for (int c = 0; c < 90; ++c) sparse.at(r, c) = static_cast<krf::Sample>(sparse.at(r, c) / 97 * 97);
    const std::vector<double> defaults = {0.005, 0.99, 0.25, 0.75, 0.5, 0.3}, wide = {0.05, 0.95, 0.0, 1.0, 0.4, 0.2};
    for (const char* name : {"ECE", "ECE2"})
        for (const auto& [image, white] : {std::pair{leg, 1023}, std::pair{sparse, 65535}})
            for (const auto& t : {defaults, wide}) {
                const std::vector<int> borders = {6, 18, 107, 118};
                Params p = doubles({t[0], t[1], t[2], t[3], t[4], t[5]});
                for (int b : borders) p.add_int(b);
                EXPECT_TRUE(filtered(name, image, white, p) ==
                            two_stage_reference(image, white, std::string(name) == "ECE2", t, borders))
                    << name << " white " << white << " band " << t[2] << "-" << t[3];
            }
}

TEST(Ece, FirstStageResults) {
    // Stage one returns -3 and leaves the scratch black; the gamma stage still runs and answers 0.
    EXPECT_TRUE(filtered("ECE", phantom(5, 5, 4095), 4095, ece(1.5, 0.5, 0.25, 0.75)) == Image(5, 5, 0));
    filtered("ECE", phantom(8, 9, 4095), 4095, ece(0.005, 0.99, -3.0, 7.0));  // band cut to the histogram: 0
}

}  // namespace
