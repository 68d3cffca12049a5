// "gaussian" through the dispatcher: the stated weights, the sigma clamp, the
// refusals and an untouched output on every failure.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <vector>

#include "primitives/primitives.h"
#include "support/test_images.h"

namespace {

using krf::test::Image;
using krf::test::Params;

Image blurred(const Image& in, int kernel, float sigma, int code = 0) {
    return krf::test::filtered("gaussian", in, 4095, Params().add_int(kernel).add_float(sigma).data(), code);
}

// The filter is the 16-bit primitive (whose weights and borders its own tests
// hold to the definition) between the host's rows. Each row is read before its
// own output row is written, so filtering an image onto itself is safe.
TEST(GaussianFilter, BlursTheRowsAsThePrimitiveBlursABufferInPlaceToo) {
    for (const auto& [height, width] : {std::pair{30, 41}, {9, 1}, {1, 9}}) {
        Image in = krf::test::phantom(height, width, 4095);
        std::vector<std::uint16_t> expected(in.samples().size());
        ASSERT_EQ(krf::prim::GaussianFilterU16(in.samples().data(), width * 2, expected.data(), width * 2,
                                               {width, height}, 5, 0.75f),
                  krf::prim::kOk);
        EXPECT_EQ(blurred(in, 5, 0.75f).samples(), expected) << height << "x" << width;
    }
    for (const int kernel : {3, 7, 31}) {
        Image in = krf::test::phantom(40, 27, 4095);
        const Image expected = blurred(in, kernel, 3.0f);
        ASSERT_EQ(krf::test::run_filter("gaussian", in, in, 4095, Params().add_int(kernel).add_float(3.0f).data()), 0);
        EXPECT_TRUE(in == expected) << kernel;
    }
}

TEST(GaussianFilter, SigmaIsHeldBetweenATenthAndFive) {
    Image in = krf::test::phantom(20, 23, 4095);
    const Image tenth = blurred(in, 7, 0.1f);
    EXPECT_TRUE(blurred(in, 7, 0.0f) == tenth);
    EXPECT_TRUE(blurred(in, 7, -3.0f) == tenth);
    const Image five = blurred(in, 7, 5.0f);
    EXPECT_TRUE(blurred(in, 7, 7.0f) == five);
    EXPECT_TRUE(blurred(in, 7, INFINITY) == five);
    EXPECT_FALSE(blurred(in, 7, 4.9f) == five);
    EXPECT_FALSE(blurred(in, 7, 0.4f) == tenth);
}

// Allocation failures (-9, output untouched) are covered by the library-wide sweep.
TEST(GaussianFilter, RefusalsLeaveTheOutputUntouched) {
    Image in = krf::test::phantom(6, 5, 4095);
    const Image untouched(6, 5, krf::test::kMarker);
    // The primitive's own tests hold every refused kernel; these show its status comes through.
    for (const auto& [kernel, sigma] : {std::pair{4, 1.0f}, {1, 1.0f}, {INT_MAX, 1.0f}, {5, NAN}})
        EXPECT_TRUE(blurred(in, kernel, sigma, -5) == untouched) << kernel;
    blurred(Image(0, 5), 5, 1.0f, -6);
}

}  // namespace
