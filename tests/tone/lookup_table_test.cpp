#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>

#include "platform/platform.h"
#include "tone/tone.h"
#include "tone/tone_testing.h"

namespace {

using namespace krf::tone;
using krf::test::Image;

const char* const kToneFilters[] = {"gamma",    "gammalog",          "sigma",   "LL-UL", "linear",
                                    "gammalin", "ShannonStretching", "ECE",     "ECE2",  "flip",
                                    "equalize", "reverse",           "colorize"};

TEST(TruncatingConversion, BehavesLikeTheProcessorInstruction) {
    EXPECT_EQ(truncate_to_int32(-2.99), -2);
    EXPECT_EQ(truncate_to_int32(2147483647.9), 2147483647);
    for (double v : {2147483648.0, -2147483649.0, HUGE_VAL, std::nan("")}) EXPECT_EQ(truncate_to_int32(v), INT32_MIN);
    EXPECT_EQ(to_table_entry(65536.0 + 7.9), 7);  // the low 16 bits
    EXPECT_EQ(to_table_entry(-1.5), 0xFFFF);
    EXPECT_EQ(pixel_count_32(65536, 65537), 65536);  // wraps
}

TEST(TableApplier, ClampsAboveWhiteAndKernelsAgree) {
    std::mt19937 random(7);
    for (int white : {0, 255, 4095, 65535}) {
        std::vector<krf::Sample> table(white + 1), plain(40);
        for (auto& entry : table) entry = static_cast<krf::Sample>(random());
        for (int width = 0; width < 40; ++width) {
            Image in(1, width), out(1, width);
            for (int c = 0; c < width; ++c) in.at(0, c) = random() % 2 ? random() : random() % (white + 1);
            apply_table(in.rows(), out.rows(), 1, width, white, table.data());
            apply_table_row_portable(in.rows()[0], plain.data(), width, static_cast<krf::Sample>(white), table.data());
            for (int c = 0; c < width; ++c) {
                ASSERT_EQ(out.at(0, c), table[std::min<int>(in.at(0, c), white)]) << white << " " << c;
                ASSERT_EQ(plain[c], out.at(0, c));
            }
        }
    }
}

TEST(HistogramCounter, CountsEverySampleAtMinOfSampleAndWhite) {
    for (int white : {9, 4095, 4096}) {  // split and plain counting
        Image image = krf::test::row_of({3, 65535, 65535, 3, 3});
        std::vector<Count> hist(white + 1, -7), expected(white + 1, 0);
        expected[3] = 3, expected[white] = 2;
        count_histogram(image.rows(), 1, 5, white, hist.data());
        EXPECT_EQ(hist, expected);
    }
}

TEST(HistogramCounter, RegionsAndAddingMatchACountOfEverySample) {
    const Image image = krf::test::phantom(23, 31, 4095, 2);
    for (int white : {4095, 9000}) {  // split and plain counting
        std::vector<Count> region(white + 1, -7), expected(white + 1, 0);
        for (int r = 4; r < 4 + 11; ++r)
            for (int c = 5; c < 5 + 17; ++c) ++expected[std::min<int>(image.at(r, c), white)];
        Image copy = image;
        count_histogram_region(copy.rows(), 4, 11, 5, 17, white, region.data());
        EXPECT_EQ(region, expected);
        // Adding the same rectangle again doubles every counter; empty ones add nothing.
        add_to_histogram(copy.rows(), 4, 11, 5, 17, white, region.data());
        add_to_histogram(copy.rows(), 4, 0, 5, 17, white, region.data());
        add_to_histogram(copy.rows(), 4, 11, 5, -3, white, region.data());
        for (auto& count : expected) count *= 2;
        EXPECT_EQ(region, expected);
    }
}

TEST(ColourRows, EveryVectorKernelPaintsLikeThePortableOne) {
    std::mt19937 random(9);
    int kernels = 0;
    for (VectorPath path : {VectorPath::avx2, VectorPath::avx512}) {
        const PaintRowKernel kernel = paint_row_kernel(path);
        if (kernel == nullptr) continue;  // this processor lacks the path
        ++kernels;
        for (int white : {255, 4095, 65535}) {
            std::vector<std::uint32_t> colours(white + 1);
            for (auto& colour : colours) colour = random() & 0xFFFFFF;
            for (int width = 0; width < 70; ++width) {
                std::vector<krf::Sample> samples(width);
                for (auto& s : samples) s = static_cast<krf::Sample>(random() % 2 ? random() : random() % (white + 1));
                // One spare byte past the row shows any write beyond its 3 × width bytes.
                std::vector<unsigned char> expected(3 * width + 1, 0xA5), got(3 * width + 1, 0xA5);
                paint_row_portable(samples.data(), expected.data(), width, static_cast<krf::Sample>(white),
                                   colours.data());
                kernel(samples.data(), got.data(), width, static_cast<krf::Sample>(white), colours.data());
                ASSERT_EQ(got, expected) << "path " << static_cast<int>(path) << " white " << white << " width " << width;
            }
        }
    }
    EXPECT_EQ(kernels, (krf::platform::cpu_features().avx2 ? 1 : 0) + (krf::platform::cpu_features().avx512bw ? 1 : 0));
}

TEST(ToneDispatch, OnlyEqualizeReverseAndColorizeAcceptNullParameters) {
    Image in(2, 2, 9), out(2, 2);
    for (const char* name : kToneFilters) {
        const bool optional =
            std::string(name) == "equalize" || std::string(name) == "reverse" || std::string(name) == "colorize";
        EXPECT_EQ(krf::test::run_filter(name, in, out, 4095, nullptr), optional ? 0 : -2) << name;
    }
}

}  // namespace
