#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "krfilter/krfilter.h"
#include "support/filter_sweep.h"

namespace {

const FILTERLIST* find(const char* name) { return krf::test::catalogue_entry_named(name); }

std::vector<const FILTERPARAM*> params_of(const char* name) {
    std::vector<const FILTERPARAM*> out;
    for (const FILTERPARAM* p = find(name)->params; std::strcmp(p->name, "#") != 0; ++p) out.push_back(p);
    return out;
}

TEST(Catalogue, ListsThirtySixFiltersInOrderThenTerminator) {
    const std::vector<std::string> expected = {
        "gamma", "gammalog", "gammaporion", "sigma", "equalize", "mean2D", "despeckle", "median2D",
        "pseudo-median2D", "SMF", "ADF", "bilateral_filter", "unsharp", "emboss", "reverse", "colorize",
        "linear", "gammalin", "SpineCompensation", "SpineCompensation2", "SpineCompensation3", "IsoDensity",
        "LL-UL", "ShannonStretching", "ECE", "ECE2", "rain", "flip", "advancedsmoothing", "advancedsmoothing2",
        "ContrastCorrection", "testRUM", "RUM", "supereq", "supereq_pre", "gaussian"};
    std::vector<std::string> names;
    const FILTERLIST* f = filterlist;
    for (; std::strcmp(f->name, "#") != 0; ++f) {
        names.push_back(f->name);
        EXPECT_EQ(f->reserved, 0u);
        ASSERT_NE(f->params, nullptr) << f->name;
    }
    EXPECT_EQ(names, expected);
    EXPECT_EQ(f->params, nullptr);
    EXPECT_EQ(f->reserved, 0u);
    EXPECT_EQ(find("ECE")->params, find("ECE2")->params);  // shared descriptor arrays
    EXPECT_EQ(find("advancedsmoothing")->params, find("advancedsmoothing2")->params);
}

TEST(Catalogue, TypesSizesPeculiarNamesAndBoundsWidenedFromFloat) {
    for (const FILTERLIST* f = filterlist; std::strcmp(f->name, "#") != 0; ++f)
        for (const FILTERPARAM* p : params_of(f->name))
            EXPECT_TRUE(p->type != PARAM_END && p->size == (p->type == PARAM_DOUBLE ? 8 : 4)) << f->name << p->name;
    EXPECT_EQ(params_of("gamma")[0]->min, 0.20000000298023224);  // not 0.2
    EXPECT_EQ(params_of("median2D")[0]->max, static_cast<double>(987.987f));
    EXPECT_EQ(params_of("SpineCompensation3")[1]->def, static_cast<double>(0.98f));
    const auto unsharp = params_of("unsharp"), sigma = params_of("sigma");
    ASSERT_EQ(unsharp.size(), 2u);
    EXPECT_STREQ(unsharp[0]->name, "Intensity ");
    EXPECT_EQ(std::pair(unsharp[0]->type, unsharp[1]->type), std::pair(PARAM_DOUBLE, PARAM_INT));
    ASSERT_EQ(sigma.size(), 2u);
    EXPECT_STREQ(sigma[0]->name, "Sigma");
    EXPECT_STREQ(sigma[1]->name, "Sigma");
    EXPECT_EQ(params_of("bilateral_filter")[1]->type, PARAM_INT);
    EXPECT_EQ(params_of("advancedsmoothing")[0]->type, PARAM_FLOAT);
    EXPECT_EQ(params_of("supereq_pre").size(), 11u);
    EXPECT_TRUE(params_of("equalize").empty());
    const FILTERPARAM* end = find("gamma")->params + 1;
    EXPECT_STREQ(end->name, "#");
    EXPECT_EQ(end->type, PARAM_END);
    EXPECT_EQ(end->size, 0);
}

}  // namespace
