// "supereq" and "supereq_pre": a row with a wrong gain is rescaled from the
// rows beside it; every other row passes unchanged.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "neighbourhood/line_defect.h"
#include "support/radiographs.h"

namespace {

using namespace krf::test;
using krf::Sample;

struct Settings {
    int line = 0, prev = 0, post = 0, tile = 0;
    double factor = 0;
    int roi_width = 0, roi_height = 0, roi_v = 0, roi_h = 0, percentile = 0, enable_post = 0;
};

Image run(const char* name, const Image& in, int white, const Settings& s, int code = 0) {
    Params p;
    p.add_int(s.line).add_int(s.prev).add_int(s.post).add_int(s.tile).add_double(s.factor);
    if (std::string(name) == "supereq_pre") {
        for (int v : {s.roi_width, s.roi_height, s.roi_v, s.roi_h, s.percentile, s.enable_post}) p.add_int(v);
    }
    return filtered(name, in, white, p.data(), code);
}

// Smooth anatomy-like ramps with noise, so that a gain error stands out
// against truth but the rows are not identical.
Image ramps(int height, int width, int base, std::uint32_t seed) {
    Image image(height, width);
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0.0, 6.0);
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c)
            image.at(r, c) = static_cast<Sample>(base + 3 * c + r + 200 * std::sin(c / 9.0) + noise(random));
    return image;
}

void scale_row(Image& image, int row, double gain, int first = 0, int last = INT_MAX) {
    for (int c = first; c < std::min(last, image.width()); ++c)
        image.at(row, c) = static_cast<Sample>(image.at(row, c) * gain + 0.5);
}

// Mean absolute difference of one row between two images.
double row_error(const Image& a, const Image& b, int row, int first = 0, int last = INT_MAX) {
    double sum = 0;
    last = std::min(last, a.width());
    for (int c = first; c < last; ++c) sum += std::fabs(static_cast<double>(a.at(row, c)) - b.at(row, c));
    return sum / (last - first);
}

bool other_rows_equal(const Image& a, const Image& b, int row) {
    for (int r = 0; r < a.height(); ++r)
        for (int c = 0; c < a.width(); ++c)
            if (r != row && a.at(r, c) != b.at(r, c)) return false;
    return true;
}

// Real radiographs with the fault inside, and a phantom with it on the first
// and the last row, where only one side has neighbours ("supereq_pre" without
// the rows below still corrects the first row from them).
TEST(LineDefect, FaultyRowsGetTheirLineBackAndNothingElseChanges) {
    std::vector<std::tuple<std::string, Image, int, int, int, std::vector<const char*>>> cases;
    for (auto [file, white] : {std::pair{"cr-leg-10bit.png", 1023}, std::pair{"cr-15bit.png", 32767}}) {
        const Image truth = radiograph(file);
        for (int tile : {0, 64})
            cases.emplace_back(file, truth, white, truth.height() * 2 / 5, tile, std::vector{"supereq"});
    }
    for (int line : {0, 39})
        cases.emplace_back("ramps", ramps(40, 96, 600, 1), 4095, line, 16, std::vector{"supereq", "supereq_pre"});
    for (const auto& [label, truth, white, line, tile, names] : cases) {
        Image damaged = truth;
        scale_row(damaged, line, 0.8);
        const double damage = row_error(damaged, truth, line);
        for (const char* name : names) {
            const Image out = run(name, damaged, white, {.line = line, .tile = tile});
            EXPECT_LE(row_error(out, truth, line), 0.1 * damage) << name << " " << label << " " << line << " " << tile;
            EXPECT_TRUE(other_rows_equal(out, damaged, line)) << name << " " << label;
        }
    }
}

// Exact results on a small image whose rows brighten by 50 each: row 10
// should read 1000 and reads 800 on its left half, 1200 on its right.
TEST(LineDefect, GainPerTileFromBothSidesWithinTheBound) {
    Image in(21, 12);
    for (int r = 0; r < 21; ++r)
        for (int c = 0; c < 12; ++c) in.at(r, c) = static_cast<Sample>(r != 10 ? 500 + 50 * r : c < 6 ? 800 : 1200);
    in.at(3, 4) = 60000;  // above white on a copied row: passes unchanged
    auto line = [&](const char* name, const Settings& s) {
        const Image out = run(name, in, 4095, s);
        EXPECT_TRUE(other_rows_equal(out, in, 10));
        return std::vector<int>{out.at(10, 0), out.at(10, 3), out.at(10, 11)};
    };
    using Row = std::vector<int>;
    EXPECT_EQ(line("supereq", {.line = 10, .tile = 6}), (Row{1000, 1000, 1000}));
    EXPECT_EQ(line("supereq", {.line = 10}), (Row{800, 800, 1200}));  // one tile: the halves cancel
    EXPECT_EQ(line("supereq", {.line = 10, .tile = 6, .factor = 1.1}), (Row{880, 880, 1091}));
    for (double unbounded : {1.0, -3.0, std::numeric_limits<double>::quiet_NaN()})
        EXPECT_EQ(line("supereq", {.line = 10, .tile = 6, .factor = unbounded}), (Row{1000, 1000, 1000}));
    // Medians of an even count meet in the middle, so the two sides still
    // average to 1000; the row above alone says 950.
    EXPECT_EQ(line("supereq_pre", {.line = 10, .tile = 6, .enable_post = 1}), (Row{1000, 1000, 1000}));
    EXPECT_EQ(line("supereq_pre", {.line = 10, .prev = 1, .tile = 6}), (Row{950, 950, 950}));
    // A sample above white on the line counts as white and stays within it.
    in.at(10, 3) = 65535;
    EXPECT_EQ(line("supereq_pre", {.line = 10, .tile = 6, .enable_post = 1}), (Row{1000, 4095, 1000}));
    Image same = in;
    EXPECT_EQ(krf::line_defect_correction(same.rows(), same.rows(), 21, 12, 4095, 10, 0, 0, 6, 1, 0, 0, 0, 0, 0, 0, 0),
              0);
    EXPECT_TRUE(same == run("supereq", in, 4095, {.line = 10, .tile = 6}));  // in place
}

// A bright object on the line (a disc centred on it) covers more of the line
// than of the rows beside it: a mean measures the object, a median does not.
TEST(LineDefect, PercentileKeepsABrightObjectThatTheMeanWouldDim) {
    // A gentle ramp: within a tile the background hardly moves, so what
    // separates the two statistics is the object alone.
    Image truth(64, 128);
    std::mt19937 random(3);
    std::normal_distribution<double> noise(0.0, 6.0);
    for (int r = 0; r < 64; ++r)
        for (int c = 0; c < 128; ++c) truth.at(r, c) = static_cast<Sample>(1000 + c + noise(random));
    for (int r = 26; r <= 34; ++r)
        for (int c = 40; c <= 60; ++c)
            if ((r - 30) * (r - 30) + (c - 50) * (c - 50) <= 16) truth.at(r, c) = 3500;
    Image damaged = truth;
    scale_row(damaged, 30, 0.8);
    auto object_error = [&](const Image& out) {
        double worst = 0;
        for (int c = 46; c <= 54; ++c)
            worst = std::max(worst, std::fabs(out.at(30, c) / static_cast<double>(truth.at(30, c)) - 1));
        return worst;
    };
    const Settings s{.line = 30, .tile = 32, .percentile = 50, .enable_post = 1};
    EXPECT_LE(object_error(run("supereq_pre", damaged, 4095, s)), 0.03);
    EXPECT_LE(object_error(run("supereq_pre", damaged, 4095, {.line = 30, .tile = 32, .enable_post = 1})), 0.03);
    EXPECT_GT(object_error(run("supereq", damaged, 4095, {.line = 30, .tile = 32})), 0.1);
}

TEST(LineDefect, RegionOfInterestChoosesWhereTheGainIsMeasured) {
    // Left of column 40 the line reads at half gain (behind a collimator
    // blade, say); the region starts after it, so the measured gain is that
    // of the exposed part, and the columns left of it take that gain too.
    const Image truth = ramps(32, 128, 800, 4);
    Image damaged = truth;
    scale_row(damaged, 12, 0.5, 0, 40);
    scale_row(damaged, 12, 0.8, 40);
    const Settings roi{.line = 12, .roi_height = 20, .roi_v = 4, .roi_h = 40, .enable_post = 1};
    const Image out = run("supereq_pre", damaged, 4095, roi);
    EXPECT_LE(row_error(out, truth, 12, 40), 0.1 * row_error(damaged, truth, 12, 40));
    for (int c = 0; c < 40; ++c) EXPECT_NEAR(out.at(12, c), damaged.at(12, c) * 1.25, 0.2 * damaged.at(12, c));
    EXPECT_GT(row_error(run("supereq_pre", damaged, 4095, {.line = 12, .enable_post = 1}), truth, 12, 40),
              0.3 * row_error(damaged, truth, 12, 40));  // the whole width: the blade's half gain pulls it off
}

// Nothing to correct or nothing to compare with: the input comes back with a code.
TEST(LineDefect, DegenerateLinesRegionsAndParameters) {
    const Image in = ramps(10, 20, 700, 6);
    for (int line : {-1, 10, INT_MAX, INT_MIN})
        EXPECT_TRUE(run("supereq", in, 4095, {.line = line}, krf::kDefectLineOutsideImage) == in) << line;
    EXPECT_TRUE(run("supereq", ramps(1, 20, 700, 7), 4095, {}, krf::kNoReferenceLines) == ramps(1, 20, 700, 7));
    for (const Settings& s : {Settings{.line = 3, .roi_h = 20}, Settings{.line = 3, .roi_v = INT_MAX},
                              Settings{.line = 3, .roi_height = 2, .roi_v = 8}})
        EXPECT_TRUE(run("supereq_pre", in, 4095, s, krf::kNoReferenceLines) == in);
    // Extremes that still leave rows to compare with: every row but the line
    // is copied and the line stays within white.
    const double inf = std::numeric_limits<double>::infinity();
    for (const Settings& s :
         {Settings{.line = 9, .prev = INT_MAX, .post = INT_MAX, .tile = INT_MAX, .factor = inf},
          Settings{.line = 0, .prev = INT_MIN, .post = -1, .tile = INT_MIN, .factor = -inf, .percentile = INT_MIN},
          Settings{.line = 5, .tile = 1, .factor = 1e300, .roi_width = INT_MAX, .roi_height = INT_MAX,
                   .roi_v = -5, .roi_h = -5, .percentile = INT_MAX, .enable_post = INT_MIN},
          Settings{.line = 5, .prev = 1, .tile = 3, .factor = std::numeric_limits<double>::quiet_NaN(),
                   .roi_width = 1, .roi_h = 19, .percentile = 1}}) {
        for (const char* name : {"supereq", "supereq_pre"}) {
            const Image out = run(name, in, 4095, s);
            EXPECT_TRUE(other_rows_equal(out, in, s.line)) << name << " line " << s.line;
            for (int c = 0; c < 20; ++c) EXPECT_LE(out.at(s.line, c), 4095);
        }
    }
}

}  // namespace
