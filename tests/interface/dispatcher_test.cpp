#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "interface/dispatch.h"
#include "support/test_images.h"

namespace {

using krf::test::Image;
using krf::test::kMarker;

TEST(Dispatcher, ArgumentCodesAndTheCEntryPoint) {
    Image in(2, 3), out(2, 3, kMarker);
    for (int i = 0; i < 6; ++i) in.at(i / 3, i % 3) = static_cast<krf::Sample>(100 * i);
    krf::test::Params p;
    p.add_double(1.0);
    EXPECT_EQ(krf::test::run_filter("Gamma", in, out, 4095, p.data()), -3);  // names are case-sensitive
    EXPECT_EQ(krf::test::run_filter("no-such-filter", in, out, 4095, nullptr), -3);
    CKRImage a(in.rows(), 2, 3, 4095), b(out.rows(), 2, 3, 4095);
    std::string iso = "IsoDensity", reverse = "reverse";
    EXPECT_EQ(DoFilter(&a, &b, nullptr, p.data()), -1);
    EXPECT_EQ(DoFilter(nullptr, &b, iso.data(), p.data()), -1);
    EXPECT_EQ(DoFilter(&a, &b, iso.data(), nullptr), -2);
    EXPECT_EQ(FilterProcessing(in.rows(), 3, 2, 16, 4095, out.rows(), nullptr, nullptr), -1);
    EXPECT_TRUE(out == Image(2, 3, kMarker));
    // FilterProcessing takes the width before the height: every one of the six samples is reversed.
    ASSERT_EQ(FilterProcessing(in.rows(), 3, 2, 16, 4095, out.rows(), reverse.data(), nullptr), 0);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(out.at(i / 3, i % 3), 4095 - 100 * i) << i;
}

TEST(Dispatcher, IsoDensityMakesAnRgbBufferAndReturnsOne) {
    Image in(3, 4, 7), out(3, 4, kMarker);
    CKRImage input(in.rows(), 3, 4, 4095), output(out.rows(), 3, 4, 4095);
    std::string name = "IsoDensity";
    krf::test::Params p;
    p.add_int(0).add_int(0).add_int(0).add_int(0);
    EXPECT_EQ(DoFilter(&input, &output, name.data(), p.data()), 1);
    EXPECT_NE(input.rgb, nullptr);
    EXPECT_EQ(output.rgb, nullptr);
    EXPECT_TRUE(out == Image(3, 4, kMarker));
    EXPECT_TRUE(in == Image(3, 4, 7));
}

// The order list is a permutation of the catalogue, so a strictly rising
// position also proves every entry is a catalogue filter dispatched once.
TEST(Dispatcher, EntriesAreDistinctCatalogueFiltersInTheComparisonOrder) {
    const char* order[] = {"gamma", "gammalog", "gammaporion", "sigma", "LL-UL", "linear", "gammalin",
                           "ShannonStretching", "ECE", "ECE2", "rain", "equalize", "mean2D", "advancedsmoothing",
                           "advancedsmoothing2", "ContrastCorrection", "despeckle", "median2D", "pseudo-median2D",
                           "SMF", "ADF", "bilateral_filter", "unsharp", "RUM", "testRUM", "emboss", "reverse",
                           "colorize", "SpineCompensation", "SpineCompensation2", "SpineCompensation3",
                           "IsoDensity", "flip", "supereq", "supereq_pre", "gaussian"};
    std::vector<std::string> catalogue;
    for (const FILTERLIST* f = filterlist; std::strcmp(f->name, "#") != 0; ++f) catalogue.push_back(f->name);
    ASSERT_TRUE(std::is_permutation(catalogue.begin(), catalogue.end(), std::begin(order), std::end(order)));
    int last = -1;
    for (std::size_t i = 0; i < krf::dispatch_table_size; ++i) {
        int position = -1;
        for (int k = 0; k < 36; ++k)
            if (std::strcmp(order[k], krf::dispatch_table[i].name) == 0) position = k;
        EXPECT_GT(position, last) << krf::dispatch_table[i].name;
        last = position;
    }
}

}  // namespace
