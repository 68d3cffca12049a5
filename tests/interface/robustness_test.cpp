// Every dispatched filter on tiny and degenerate images with extreme
// parameter values: it must return, stay inside its arrays (the sanitizer
// build checks that) and give the same result twice.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "interface/dispatch.h"
#include "support/filter_sweep.h"
#include "support/test_images.h"

namespace {

using krf::test::Image;

std::vector<double> extremes_for(const FILTERPARAM& p) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    if (p.type == PARAM_INT) {
        // Iteration counts run as often as asked; keep them finite in time.
        const double huge = std::strcmp(p.name, "numIter") == 0 ? 2000.0 : static_cast<double>(INT_MAX);
        return {static_cast<double>(INT_MIN), -7, -1, 0, 1, 2, 3, 4, 6, 8, 10, 65535, huge};
    }
    return {nan, inf, -inf, -1e9, -1.0, -0.5, 0.0, 1e-300, 0.1, 0.5, 1.0, 1.5, 2.0, 7.0, 1e9};
}

void run_twice_and_compare(const char* name, int height, int width, int white, void** params, std::mt19937& random) {
    Image in(height, width);
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c) {
            const unsigned pick = random() % 4;
            in.at(r, c) = static_cast<krf::Sample>(pick == 0 ? random() & 0xffff : pick == 1 ? white : random() % (white + 1));
        }
    Image in2 = in;
    Image out1(height, width, krf::test::kMarker), out2(height, width, krf::test::kMarker);
    const int code1 = krf::test::run_filter(name, in, out1, white, params);
    const int code2 = krf::test::run_filter(name, in2, out2, white, params);
    EXPECT_EQ(code1, code2) << name << " " << height << "x" << width << " white " << white;
    EXPECT_TRUE(out1 == out2) << name << " is not deterministic on " << height << "x" << width;
    EXPECT_TRUE(in == in2) << name;
}

TEST(Robustness, EveryFilterSurvivesDegenerateImagesAndExtremeParameters) {
    std::mt19937 random(7);
    const int sizes[][2] = {{0, 0}, {0, 5}, {5, 0}, {-3, 4}, {4, -3}, {1, 1}, {1, 9}, {9, 1},
                            {2, 2}, {2, 7}, {3, 3}, {6, 5}, {11, 13}};
    const int whites[] = {0, 1, 255, 4095, 65535};
    for (std::size_t i = 0; i < krf::dispatch_table_size; ++i) {
        const char* name = krf::dispatch_table[i].name;
        const FILTERLIST* entry = krf::test::catalogue_entry_named(name);
        ASSERT_NE(entry, nullptr);
        std::vector<const FILTERPARAM*> params;
        for (const FILTERPARAM* p = entry->params; std::strcmp(p->name, "#") != 0; ++p) params.push_back(p);
        krf::test::CatalogueParameters defaults(*entry, krf::test::ParameterChoice::defaults);
        for (const auto& size : sizes)
            for (const int white : whites)
                run_twice_and_compare(name, size[0], size[1], white, defaults.data(), random);
        // One parameter at a time at its extremes, the others at their defaults.
        for (std::size_t k = 0; k < params.size(); ++k) {
            for (const double value : extremes_for(*params[k])) {
                krf::test::CatalogueParameters slots(*entry, krf::test::ParameterChoice::defaults);
                slots.set(k, value);
                // Sizes paired with white levels, including the degenerate 0 and 1.
                for (const auto& [height, width, white] :
                     {std::tuple{1, 1, 4095}, {2, 2, 0}, {6, 5, 1}, {11, 13, 4095}})
                    run_twice_and_compare(name, height, width, white, slots.data(), random);
            }
        }
    }
}

}  // namespace
