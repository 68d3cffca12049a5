#include <gtest/gtest.h>

#include <array>
#include <string>

#include "tone/tone.h"
#include "tone/tone_testing.h"

namespace {

using namespace krf::test;

TEST(Reverse, NegativeWrapsAboveWhite) {
    EXPECT_TRUE(filtered("reverse", row_of({0, 4095, 1000, 5000}), 4095) == row_of({4095, 0, 3095, 64631}));
}

TEST(Flip, EveryFlagCombinationAlsoInPlace) {
    for (auto [height, width] : {std::pair{2, 3}, std::pair{3, 5}}) {
        Image in(height, width);
        for (int i = 0; i < height * width; ++i) in.at(i / width, i % width) = static_cast<krf::Sample>(i);
        for (auto [horizontal, vertical] : {std::pair{0, 0}, std::pair{7, 0}, std::pair{0, -1}, std::pair{1, 1}}) {
            Params p;
            const Image out = filtered("flip", in, 4095, p.add_int(horizontal).add_int(vertical));  // non-zero is set
            Image same = in;
            krf::tone::flip(same.rows(), same.rows(), height, width, 0, horizontal != 0, vertical != 0);
            for (int r = 0; r < height; ++r)
                for (int c = 0; c < width; ++c) {
                    const int mirrored = in.at(vertical ? height - 1 - r : r, horizontal ? width - 1 - c : c);
                    ASSERT_EQ(out.at(r, c), mirrored) << horizontal << vertical << r << c;
                    ASSERT_EQ(same.at(r, c), mirrored) << "in place " << horizontal << vertical << r << c;
                }
        }
    }
}

using Rgb = std::vector<std::array<int, 3>>;

// "colorize" through DoFilter, which must succeed: the RGB triples the input image holds afterwards.
Rgb colours(Image in, int white) {
    Image out(in.height(), in.width(), kMarker);
    CKRImage input(in.rows(), in.height(), in.width(), white), output(out.rows(), out.height(), out.width(), white);
    std::string name = "colorize";
    EXPECT_EQ(DoFilter(&input, &output, name.data(), nullptr), 0);
    EXPECT_TRUE(out == Image(in.height(), in.width(), kMarker));  // never written
    Rgb rgb;
    for (int i = 0; input.rgb && i < in.height() * in.width(); ++i)
        rgb.push_back({input.rgb[3 * i], input.rgb[3 * i + 1], input.rgb[3 * i + 2]});
    return rgb;
}

TEST(Colorize, PaletteRowsScalingAndFailures) {
    // White 255: samples are palette indices; 300 lies above white.
    const Rgb telling = {{0, 0, 131},     {0, 0, 255},     {0, 4, 255},   {0, 128, 255}, {0, 131, 255}, {0, 255, 255},
                         {128, 255, 128}, {131, 255, 124}, {255, 255, 0}, {255, 0, 0},   {128, 0, 0},   {128, 0, 0}};
    EXPECT_EQ(colours(row_of({0, 31, 32, 63, 64, 95, 127, 128, 159, 223, 255, 300}), 255), telling);
    // Other white levels: trunc(i × 255 / white), so 2048 is level 127; white 0 has no range.
    EXPECT_EQ(colours(row_of({4095, 2048, 5000, 0}), 4095),
              (Rgb{{128, 0, 0}, {128, 255, 128}, {128, 0, 0}, {0, 0, 131}}));
    EXPECT_EQ(colours(row_of({0, 9, 65535}), 0), (Rgb(3, {0, 0, 131})));
    EXPECT_TRUE(colours(Image(0, 5), 4095).empty());
    Image in(2, 2, 5);
    EXPECT_EQ(krf::tone::colorize(in.rows(), nullptr, 2, 2, 4095), krf::kNoBuffer);
}

}  // namespace
