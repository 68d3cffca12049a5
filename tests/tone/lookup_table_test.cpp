#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "tone/tone.h"
#include "tone/tone_testing.h"

namespace {

using krf::Sample;
using krf::test::Image;
using namespace krf::tone;

TEST(TruncatingConversion, BehavesLikeTheProcessorInstruction) {
    EXPECT_EQ(truncate_to_int32(2.99), 2);
    EXPECT_EQ(truncate_to_int32(-2.99), -2);
    EXPECT_EQ(truncate_to_int32(2147483647.9), 2147483647);
    EXPECT_EQ(truncate_to_int32(-2147483648.9), INT32_MIN);
    // Out of range and non-finite: the "integer indefinite" 0x80000000.
    for (double v : {2147483648.0, -2147483649.0, 1e300, std::numeric_limits<double>::infinity(),
                     -std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()})
        EXPECT_EQ(truncate_to_int32(v), INT32_MIN) << v;
    EXPECT_EQ(to_table_entry(std::nan("")), 0);
    EXPECT_EQ(to_table_entry(65536.0 + 7.9), 7);  // low 16 bits
    EXPECT_EQ(to_table_entry(-1.5), 0xFFFF);      // -1 keeps its low 16 bits
    EXPECT_EQ(pixel_count_32(65536, 65537), 65536);  // wraps, no overflow
}

TEST(TableApplier, ClampsAboveWhiteAndHandlesEverySize) {
    std::vector<Sample> table(101);
    for (int i = 0; i <= 100; ++i) table[i] = static_cast<Sample>(1000 + i);
    // Widths around the vector blocks, samples above white among them.
    for (int width : {0, 1, 7, 15, 16, 17, 33}) {
        Image in(2, width), out(2, width, krf::test::kMarker);
        for (int c = 0; c < width; ++c) in.at(0, c) = static_cast<Sample>(c * 37 % 140), in.at(1, c) = 65535;
        EXPECT_EQ(apply_table(in.rows(), out.rows(), 2, width, 100, table.data()), 0);
        for (int c = 0; c < width; ++c) {
            EXPECT_EQ(out.at(0, c), 1000 + std::min(c * 37 % 140, 100)) << width << " " << c;
            EXPECT_EQ(out.at(1, c), 1100);
        }
    }
    Image in(1, 4, 5), out(1, 4, krf::test::kMarker);
    EXPECT_EQ(apply_table(in.rows(), out.rows(), 0, 4, 100, table.data()), 0);
    EXPECT_EQ(apply_table(in.rows(), out.rows(), -3, 4, 100, table.data()), 0);
    EXPECT_TRUE(out == Image(1, 4, krf::test::kMarker));
    // In place: the host may pass one image as input and output.
    apply_table(in.rows(), in.rows(), 1, 4, 100, table.data());
    EXPECT_TRUE(in == Image(1, 4, 1005));
}

TEST(TableApplier, FastKernelAgreesWithThePortableOne) {
    std::mt19937 random(7);
    for (int white : {0, 1, 255, 4095, 65535}) {
        std::vector<Sample> table(static_cast<std::size_t>(white) + 1);
        for (auto& entry : table) entry = static_cast<Sample>(random());
        for (int width = 0; width < 70; ++width) {
            std::vector<Sample> src(width), fast(width), plain(width);
            for (auto& v : src) v = static_cast<Sample>(random() % 2 ? random() : random() % (white + 1));
            active_table_row_kernel()(src.data(), fast.data(), width, static_cast<Sample>(white), table.data());
            apply_table_row_portable(src.data(), plain.data(), width, static_cast<Sample>(white), table.data());
            ASSERT_EQ(fast, plain) << "white " << white << " width " << width;
        }
    }
}

TEST(HistogramCounter, MatchesACountOfEverySample) {
    std::mt19937 random(3);
    for (int white : {0, 9, 4095, 4096, 70000}) {  // both the split and the plain counting
        for (int width : {0, 1, 2, 5}) {
            Image image(3, width);
            std::vector<std::int64_t> expected(static_cast<std::size_t>(white) + 1, 0);
            for (int r = 0; r < 3; ++r)
                for (int c = 0; c < width; ++c) {
                    image.at(r, c) = static_cast<Sample>(random() % 3 == 0 ? 65535 : random() % (white + 1));
                    ++expected[std::min<int>(image.at(r, c), white)];
                }
            std::vector<Count> hist(expected.size(), -7);
            count_histogram(image.rows(), 3, width, white, hist.data());
            for (std::size_t v = 0; v < expected.size(); ++v) ASSERT_EQ(hist[v], expected[v]) << white << " " << v;
        }
    }
    std::vector<Count> hist(5, 9);
    Image image(2, 2, 1);
    count_histogram(image.rows(), 0, 2, 4, hist.data());
    EXPECT_EQ(hist, std::vector<Count>(5, 0));
}

TEST(ToneDispatch, NullParameterArrays) {
    Image in(2, 2, 9);
    for (const char* name : {"gamma", "gammalog", "sigma", "LL-UL", "linear", "gammalin", "ShannonStretching", "ECE",
                             "ECE2", "flip"}) {
        Image out(2, 2, krf::test::kMarker);
        EXPECT_EQ(krf::test::run_filter(name, in, out, 4095, nullptr), -2) << name;
    }
    for (const char* name : {"equalize", "reverse", "colorize"}) {
        Image out(2, 2, krf::test::kMarker);
        EXPECT_EQ(krf::test::run_filter(name, in, out, 4095, nullptr), 0) << name;
    }
}

}  // namespace
