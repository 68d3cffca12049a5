#include <gtest/gtest.h>

#include <array>
#include <string>

#include "tone/tone.h"
#include "tone/tone_testing.h"

namespace {

using krf::Sample;
using krf::test::Image;
using krf::test::Params;
using krf::test::filtered;
using krf::test::kMarker;
using krf::test::levels_row;

TEST(Reverse, NegativeWithWrapAboveWhite) {
    const Image out = filtered("reverse", levels_row({0, 4095, 1000, 5000}), 4095);
    EXPECT_TRUE(out == levels_row({4095, 0, 3095, 64631}));
}

Image numbered(int height, int width) {
    Image image(height, width);
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c) image.at(r, c) = static_cast<Sample>(10 * r + c);
    return image;
}

TEST(Flip, EveryFlagCombinationAndInPlace) {
    const Image in = numbered(2, 3);
    // Flag values other than 0 and 1 mean "set".
    for (auto [horizontal, vertical] : {std::array{0, 0}, std::array{7, 0}, std::array{0, -1}, std::array{1, 1}}) {
        Params p;
        p.add_int(horizontal).add_int(vertical);
        const Image out = filtered("flip", in, 4095, &p);
        Image copy = in;
        krf::tone::flip(copy.rows(), copy.rows(), 2, 3, 0, horizontal != 0, vertical != 0);
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 3; ++c) {
                const Sample expected = in.at(vertical ? 1 - r : r, horizontal ? 2 - c : c);
                EXPECT_EQ(out.at(r, c), expected) << horizontal << vertical << " " << r << c;
                EXPECT_EQ(copy.at(r, c), expected) << "in place " << horizontal << vertical << " " << r << c;
            }
    }
    Params both;
    both.add_int(1).add_int(1);
    EXPECT_EQ(filtered("flip", in, 4095, &both).at(1, 2), in.at(0, 0));
    // Odd sizes in place: the middle row and column stay put.
    Image odd = numbered(3, 5);
    krf::tone::flip(odd.rows(), odd.rows(), 3, 5, 0, 1, 1);
    EXPECT_EQ(odd.at(1, 2), 12);
    EXPECT_EQ(odd.at(0, 0), 24);
}

// Runs "colorize" and returns the RGB bytes of the input image.
std::vector<unsigned char> colours(Image in, int white, int* code = nullptr) {
    Image out(in.height(), in.width(), kMarker);
    CKRImage input(in.rows(), in.height(), in.width(), white);
    CKRImage output(out.rows(), out.height(), out.width(), white);
    std::string name = "colorize";
    const int result = DoFilter(&input, &output, name.data(), nullptr);
    if (code) *code = result;
    EXPECT_TRUE(out == Image(in.height(), in.width(), kMarker));  // the output image is never written
    const std::size_t bytes = static_cast<std::size_t>(in.height()) * in.width() * 3;
    return input.rgb ? std::vector<unsigned char>(input.rgb, input.rgb + bytes) : std::vector<unsigned char>();
}

using Rgb = std::array<int, 3>;
Rgb colour_at(const std::vector<unsigned char>& rgb, int pixel) {
    return {rgb[3 * pixel], rgb[3 * pixel + 1], rgb[3 * pixel + 2]};
}

TEST(Colorize, PaletteRowsAndScaling) {
    // White 255: samples are palette indices (above 255 shown as 255).
    const std::vector<unsigned char> direct = colours(levels_row({0, 31, 95, 127, 128, 159, 223, 255, 300}), 255);
    const Rgb expected[] = {{0, 0, 131},   {0, 0, 255}, {0, 255, 255}, {128, 255, 128}, {131, 255, 124},
                            {255, 255, 0}, {255, 0, 0}, {128, 0, 0},   {128, 0, 0}};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(colour_at(direct, i), expected[i]) << i;
    // The ramps step by 4 (then 4 less one) and stay monotonic inside each band.
    const std::vector<unsigned char> all = colours(krf::test::ramp_row(255), 255);
    for (int i = 1; i < 32; ++i) EXPECT_GT(all[3 * i + 2], all[3 * (i - 1) + 2]);
    EXPECT_EQ(colour_at(all, 32), (Rgb{0, 4, 255}));
    EXPECT_EQ(colour_at(all, 63), (Rgb{0, 128, 255}));
    EXPECT_EQ(colour_at(all, 64), (Rgb{0, 131, 255}));
    // Other white levels go through trunc(i × 255 / white).
    const std::vector<unsigned char> scaled = colours(levels_row({4095, 2048, 5000, 0}), 4095);
    EXPECT_EQ(colour_at(scaled, 0), (Rgb{128, 0, 0}));
    EXPECT_EQ(colour_at(scaled, 1), (Rgb{128, 255, 128}));  // level 127
    EXPECT_EQ(colour_at(scaled, 2), (Rgb{128, 0, 0}));
    EXPECT_EQ(colour_at(scaled, 3), (Rgb{0, 0, 131}));
    // White 0 has no range: every pixel takes the first colour.
    const std::vector<unsigned char> flat = colours(levels_row({0, 9, 65535}), 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(colour_at(flat, i), (Rgb{0, 0, 131}));
}

TEST(Colorize, NoBufferAndAllocationFailures) {
    int code = -99;
    EXPECT_TRUE(colours(Image(0, 5), 4095, &code).empty());
    EXPECT_EQ(code, 0);
    unsigned char* none = nullptr;
    Image in(2, 2, 5);
    EXPECT_EQ(krf::tone::colorize(in.rows(), none, 2, 2, 4095), krf::kNoBuffer);
    // The RGB buffer, the 8-bit copy's rows and its table may each fail.
    const Image phantom = krf::test::phantom(4, 3, 4095);
    krf::test::expect_clean_allocation_failures(
        [&](Image&) {
            int result = 0;
            colours(phantom, 4095, &result);
            return result;
        },
        4, 3, {krf::kNoBuffer, krf::kNoRowArray});
}

}  // namespace
