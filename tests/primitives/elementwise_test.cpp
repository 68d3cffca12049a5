// Scratch memory, row copies, conversions, element-wise arithmetic and padding.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "primitives/primitives.h"
#include "support/test_images.h"

namespace {

using namespace krf::prim;

// Zero filling and the overflow check are the platform allocator's, tested there.
TEST(PrimitiveScratch, RefusesEmptyAndNegativeCounts) {
    EXPECT_EQ(AllocU16(0), nullptr);
    EXPECT_EQ(AllocF32(-1), nullptr);
    EXPECT_EQ(AllocBytes(std::numeric_limits<std::int64_t>::min()), nullptr);
    FreeBuffer(nullptr);
}

TEST(PrimitiveConversions, RoundAndSaturateToSixteenBits) {
    const float values[] = {-0.4f, 65535.6f, 70000.0f, 2.5f, 3.5f, -2.5f, 0.5f, 1.5f, 65534.5f, NAN, INFINITY, -INFINITY};
    const std::uint16_t even[] = {0, 65535, 65535, 2, 4, 0, 0, 2, 65534, 0, 65535, 0};
    const std::uint16_t away[] = {0, 65535, 65535, 3, 4, 0, 1, 2, 65535, 0, 65535, 0};
    const int n = 12;
    std::uint16_t out[n];
    ASSERT_EQ(ConvertF32ToU16(values, n * 4, out, n * 2, {n, 1}, Rounding::ties_to_even), kOk);
    for (int i = 0; i < n; ++i) EXPECT_EQ(out[i], even[i]) << values[i];
    ASSERT_EQ(ConvertF32ToU16(values, n * 4, out, n * 2, {n, 1}, Rounding::ties_away_from_zero), kOk);
    for (int i = 0; i < n; ++i) EXPECT_EQ(out[i], away[i]) << values[i];

    const std::uint16_t samples[] = {0, 1, 4095, 65535};
    float widened[4];
    ASSERT_EQ(ConvertU16ToF32(samples, 8, widened, 16, {4, 1}), kOk);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(widened[i], static_cast<float>(samples[i]));
}

TEST(PrimitiveRowCopies, TruncateAndWrapFloatsAndRoundTripSamples) {
    const float values[] = {65536.9f, 1.9f, 70000.0f, -1.0f, -0.9f, 65535.99f};
    const std::uint16_t expected[] = {0, 1, 4464, 65535, 0, 65535};
    krf::test::Image out(2, 3, krf::test::kMarker);
    CopyF32BufferToRowsTruncated(values, out.rows(), 3, 2);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(out.at(i / 3, i % 3), expected[i]) << values[i];

    krf::test::Image image = krf::test::phantom(7, 5, 4095);
    std::vector<std::uint16_t> buffer(35);
    CopyRowsToBuffer(image.rows(), buffer.data(), 5, 7);
    EXPECT_EQ(buffer, image.samples());
    krf::test::Image back(7, 5);
    CopyBufferToRows(buffer.data(), back.rows(), 5, 7);
    EXPECT_TRUE(back == image);
}

// Region 3 x 2 inside buffers whose rows are longer: the extra samples must stay.
TEST(PrimitiveArithmetic, ComputesOnTheRegionAndHonoursRowSteps) {
    const Size size{3, 2};
    const int step = 5 * 4;
    std::vector<float> a = {1, 2, 3, -7, -7, 4, 5, 6, -7, -7};
    auto fresh = [] { return std::vector<float>{10, 20, 30, -9, -9, 40, 50, 60, -9, -9}; };
    std::vector<float> d = fresh();
    ASSERT_EQ(SubF32InPlace(a.data(), step, d.data(), step, size), kOk);
    EXPECT_EQ(d, (std::vector<float>{9, 18, 27, -9, -9, 36, 45, 54, -9, -9}));
    d = fresh();
    ASSERT_EQ(AddF32InPlace(a.data(), step, d.data(), step, size), kOk);
    EXPECT_EQ(d, (std::vector<float>{11, 22, 33, -9, -9, 44, 55, 66, -9, -9}));
    d = fresh();
    ASSERT_EQ(MulF32InPlace(a.data(), step, d.data(), step, size), kOk);
    EXPECT_EQ(d, (std::vector<float>{10, 40, 90, -9, -9, 160, 250, 360, -9, -9}));
    d = fresh();
    ASSERT_EQ(MulConstF32InPlace(-0.5f, d.data(), step, size), kOk);
    EXPECT_EQ(d, (std::vector<float>{-5, -10, -15, -9, -9, -20, -25, -30, -9, -9}));
    ASSERT_EQ(ScaleF32Vector(2.0f, d.data(), 3), kOk);
    EXPECT_EQ(d[2], -30.0f);
    EXPECT_EQ(d[3], -9.0f);
    float max = 0;
    a[1] = NAN;
    ASSERT_EQ(MaxF32(a.data(), step, size, &max), kOk);
    EXPECT_EQ(max, 6.0f);  // -7 lies outside the region, NaN is passed over

    std::vector<std::uint16_t> samples = {5, 4095, 4096, 65535, 9};
    ASSERT_EQ(ClampAboveU16InPlace(samples.data(), 10, {4, 1}, 4095, 4095), kOk);
    EXPECT_EQ(samples, (std::vector<std::uint16_t>{5, 4095, 4095, 4095, 9}));
}

// The operations share their guards, so each guard is probed through one or two of them.
TEST(PrimitiveStatus, ElementWiseOperationsCheckPointersThenSizes) {
    float f[4] = {};
    std::uint16_t u[4] = {};
    const Size empty{0, 1}, negative{2, -1}, ok{2, 2};
    EXPECT_EQ(ConvertU16ToF32(nullptr, 4, f, 8, empty), kNullPointer);
    EXPECT_EQ(MulF32InPlace(nullptr, 8, f, 8, negative), kNullPointer);
    EXPECT_EQ(ConvertF32ToU16(f, 8, u, 4, empty, Rounding::ties_to_even), kBadSize);
    EXPECT_EQ(AddF32InPlace(f, 8, f, 8, negative), kBadSize);
    EXPECT_EQ(ScaleF32Vector(2, nullptr, 0), kNullPointer);
    EXPECT_EQ(ScaleF32Vector(2, f, 0), kBadSize);
    EXPECT_EQ(MaxF32(f, 8, ok, nullptr), kNullPointer);
    EXPECT_EQ(PadReplicateU16(u, 4, ok, nullptr, 4, ok, 0, 0), kNullPointer);
    EXPECT_EQ(PadReplicateU16(u, 4, ok, u, 4, {1, 2}, 0, 0), kBadSize);  // destination too small
    EXPECT_EQ(PadWrapF32(f, 8, ok, f, 8, ok, -1, 0), kBadSize);
    EXPECT_EQ(PadWrapF32(f, 4, ok, f, 8, ok, 0, 0), kBadSize);  // source step shorter than a row
}

// Every destination sample against its definition: replicate clamps the
// source coordinate, wrap takes it modulo the source size.
TEST(PrimitivePadding, ReplicatesEdgesAndWrapsEvenBordersWiderThanTheSource) {
    const Size src_size{3, 2};
    const std::uint16_t src16[] = {1, 2, 3, 4, 5, 6};
    const float src32[] = {1, 2, 3, 4, 5, 6};
    const int top = 5, left = 7;
    const Size dst_size{3 + left + 4, 2 + top + 6};
    std::vector<std::uint16_t> d16(dst_size.width * dst_size.height);
    std::vector<float> d32(d16.size());
    ASSERT_EQ(PadReplicateU16(src16, 6, src_size, d16.data(), dst_size.width * 2, dst_size, top, left), kOk);
    ASSERT_EQ(PadWrapF32(src32, 12, src_size, d32.data(), dst_size.width * 4, dst_size, top, left), kOk);
    for (int y = 0; y < dst_size.height; ++y)
        for (int x = 0; x < dst_size.width; ++x) {
            const int sy = y - top, sx = x - left;
            const int cy = std::clamp(sy, 0, 1), cx = std::clamp(sx, 0, 2);
            const int wy = ((sy % 2) + 2) % 2, wx = ((sx % 3) + 3) % 3;
            EXPECT_EQ(d16[y * dst_size.width + x], src16[cy * 3 + cx]) << x << "," << y;
            EXPECT_EQ(d32[y * dst_size.width + x], src32[wy * 3 + wx]) << x << "," << y;
        }
}

}  // namespace
