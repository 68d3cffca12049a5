#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "interface/dispatch.h"
#include "support/test_images.h"

namespace {

using krf::test::Image;
using krf::test::kMarker;

char* name_of(std::string& s) { return s.data(); }

TEST(Dispatcher, ArgumentCodes) {
    Image in(4, 5, 100), out(4, 5, kMarker);
    krf::test::Params p;
    p.add_double(1.0);
    EXPECT_EQ(krf::test::run_filter("Gamma", in, out, 4095, p.data()), -3);  // names are case-sensitive
    EXPECT_EQ(krf::test::run_filter("no-such-filter", in, out, 4095, nullptr), -3);
    CKRImage a(in.rows(), 4, 5, 4095), b(out.rows(), 4, 5, 4095);
    EXPECT_EQ(DoFilter(&a, &b, nullptr, p.data()), -1);
    std::string iso = "IsoDensity";
    EXPECT_EQ(DoFilter(nullptr, &b, name_of(iso), p.data()), -1);
    EXPECT_EQ(DoFilter(&a, &b, name_of(iso), nullptr), -2);
    EXPECT_TRUE(out == Image(4, 5, kMarker));
}

TEST(Dispatcher, IsoDensityMakesAnRgbBufferAndReturnsOne) {
    Image in(3, 4, 7), out(3, 4, kMarker);
    CKRImage input(in.rows(), 3, 4, 4095), output(out.rows(), 3, 4, 4095);
    std::string name = "IsoDensity";
    krf::test::Params p;
    p.add_int(0).add_int(0).add_int(0).add_int(0);
    EXPECT_EQ(DoFilter(&input, &output, name_of(name), p.data()), 1);
    EXPECT_NE(input.rgb, nullptr);
    EXPECT_EQ(output.rgb, nullptr);
    EXPECT_TRUE(out == Image(3, 4, kMarker));
    EXPECT_TRUE(in == Image(3, 4, 7));
}

TEST(Dispatcher, EveryEntryIsACatalogueFilterAndNamesAreDistinct) {
    std::set<std::string> catalogue;
    for (const FILTERLIST* f = filterlist; std::strcmp(f->name, "#") != 0; ++f) catalogue.insert(f->name);
    std::set<std::string> seen;
    for (std::size_t i = 0; i < krf::dispatch_table_size; ++i) {
        const std::string name = krf::dispatch_table[i].name;
        EXPECT_TRUE(catalogue.count(name)) << name;
        EXPECT_TRUE(seen.insert(name).second) << name;
    }
}

TEST(Dispatcher, EntriesKeepTheComparisonOrder) {
    const char* order[] = {"gamma", "gammalog", "gammaporion", "sigma", "LL-UL", "linear", "gammalin",
                           "ShannonStretching", "ECE", "ECE2", "rain", "equalize", "mean2D", "advancedsmoothing",
                           "advancedsmoothing2", "ContrastCorrection", "despeckle", "median2D", "pseudo-median2D",
                           "SMF", "ADF", "bilateral_filter", "unsharp", "RUM", "testRUM", "emboss", "reverse",
                           "colorize", "SpineCompensation", "SpineCompensation2", "SpineCompensation3",
                           "IsoDensity", "flip", "supereq", "supereq_pre", "gaussian"};
    int last = -1;
    for (std::size_t i = 0; i < krf::dispatch_table_size; ++i) {
        int position = -1;
        for (int k = 0; k < 36; ++k)
            if (std::strcmp(order[k], krf::dispatch_table[i].name) == 0) position = k;
        EXPECT_GT(position, last) << krf::dispatch_table[i].name;
        last = position;
    }
}

TEST(Dispatcher, FilterProcessingTakesWidthBeforeHeight) {
    Image in(2, 3, 5), out(2, 3, kMarker);
    std::string iso = "IsoDensity";
    krf::test::Params p;
    p.add_int(0);
    EXPECT_EQ(FilterProcessing(in.rows(), 3, 2, 16, 4095, out.rows(), name_of(iso), p.data()), 1);
    EXPECT_EQ(FilterProcessing(in.rows(), 3, 2, 16, 4095, out.rows(), nullptr, nullptr), -1);
}

}  // namespace
