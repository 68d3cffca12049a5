// Every dispatched filter meets an allocation failure at each of its
// allocations in turn, once as a single failure and once as memory that
// stays exhausted from that allocation on. Each failing call must return a
// code that means missing memory, leave the output as it was, leave the
// input as it was (or, for "rain", exactly inverted, since it works on the
// inverted image in place), and give back every block it obtained.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "platform/memory.h"
#include "primitives/primitives.h"
#include "support/filter_sweep.h"
#include "support/test_images.h"

namespace {

using krf::test::Image;
using krf::test::ParameterChoice;

// The codes a failing call may return: each filter's own where it has them,
// otherwise those of the allocators. The wavelet filters and "testRUM" report
// no status, so 0 is their only answer; "IsoDensity" always says 1.
std::set<int> allowed_codes(const std::string& name) {
    if (name == "advancedsmoothing" || name == "advancedsmoothing2" || name == "testRUM") return {0};
    if (name == "IsoDensity") return {1};
    if (name == "RUM" || name == "gaussian") return {krf::prim::kNoMemory};
    if (name == "SMF") return {1115110, 1007100};
    if (name.rfind("SpineCompensation", 0) == 0) return {1117100, 1117101};
    if (name == "ContrastCorrection") return {1007100};
    if (name == "rain") return {1007100, 1007160, 1007210};
    return {1007100, 1007160, 1007200, 1007210};
}

enum class Mode { single, from_then_on };

// Fails allocation 1, 2, ... of one call until a call completes without
// reaching the armed allocation. Returns the allocations of a complete call.
int sweep(const char* name, ParameterChoice choice, Mode mode) {
    constexpr int kHeight = 40, kWidth = 36, kWhite = 4095;
    const Image input = krf::test::phantom(kHeight, kWidth, kWhite, 3);
    const Image input_inverted = krf::test::inverted(input, kWhite);
    const Image untouched(kHeight, kWidth, krf::test::kMarker);
    const std::set<int> codes = allowed_codes(name);
    krf::test::CatalogueParameters params(*krf::test::catalogue_entry_named(name), choice);
    const std::string where = std::string(name) + " (" + krf::test::describe(choice) + ", " +
                              (mode == Mode::single ? "single failure" : "failing from then on") + ")";

    // The result of a call that meets no failure: a filter may refuse these
    // parameters outright, and then says so whatever memory does.
    Image reference_in = input, reference_out = untouched;
    const int complete_code = krf::test::run_filter(name, reference_in, reference_out, kWhite, params.data());

    for (int nth = 1; nth < 20000; ++nth) {
        Image in = input, out = untouched;
        const std::int64_t live_before = krf::testing::live_blocks();
        if (mode == Mode::single) {
            krf::testing::fail_allocation(nth);
        } else {
            krf::testing::fail_allocations_from(nth);
        }
        const int code = krf::test::run_filter(name, in, out, kWhite, params.data());
        const bool fault_met = !krf::testing::allocation_fault_pending();
        krf::testing::fail_allocation(0);
        const bool freed = krf::testing::live_blocks() == live_before;
        if (!fault_met) {
            EXPECT_TRUE(freed) << where << ": a complete call kept blocks";
            EXPECT_EQ(code, complete_code) << where;
            EXPECT_TRUE(out == reference_out && in == reference_in) << where << ": a complete call differs";
            return nth - 1;
        }
        if (freed && code == complete_code && out == reference_out && in == reference_in) continue;  // absorbed
        const bool input_kept = in == input || (std::strcmp(name, "rain") == 0 && in == input_inverted);
        // One report per filter and parameter set: the first failing allocation says it all.
        if (!freed || codes.count(code) == 0 || !(out == untouched) || !input_kept) {
            ADD_FAILURE() << where << ": allocation " << nth << " failed; code " << code
                          << (freed ? "" : ", blocks kept") << (out == untouched ? "" : ", output written")
                          << (input_kept ? "" : ", input changed");
            return -1;
        }
    }
    ADD_FAILURE() << where << ": no call completed";
    return -1;
}

void sweep_all(Mode mode) {
    long failing_calls = 0;
    std::string counts;
    for (const char* name : krf::test::dispatched_filters()) {
        counts += std::string(" ") + name;
        for (const ParameterChoice choice : krf::test::kParameterChoices) {
            const int allocations = sweep(name, choice, mode);
            failing_calls += std::max(allocations, 0);
            counts += (choice == ParameterChoice::defaults ? " " : "/") + std::to_string(allocations);
        }
    }
    // How many allocations each filter makes (defaults/minimum/maximum): a
    // filter that suddenly makes none is worth a look.
    std::printf("%ld failing calls;%s\n", failing_calls, counts.c_str());
}

TEST(AllocationFailure, EveryFilterFailsCleanlyAtEachAllocation) { sweep_all(Mode::single); }

TEST(AllocationFailure, EveryFilterFailsCleanlyWhenMemoryStaysExhausted) { sweep_all(Mode::from_then_on); }

}  // namespace
