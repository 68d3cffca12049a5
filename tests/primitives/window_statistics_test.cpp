// Box mean and window standard deviation against brute-force statements of
// their definitions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "primitives/primitives.h"

namespace {

using namespace krf::prim;

std::vector<std::uint16_t> random_samples(int count, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<std::uint16_t> v(count);
    for (auto& s : v) s = static_cast<std::uint16_t>(random() % 3 == 0 ? 65535 : random() & 0xffff);
    return v;
}

// The mean of the k x k window with clamped coordinates, rounded half up
// (k odd: never exactly halfway).
std::uint16_t brute_mean(const std::vector<std::uint16_t>& img, int w, int h, int x, int y, int k) {
    long double sum = 0;
    for (int dy = -k / 2; dy <= k / 2; ++dy)
        for (int dx = -k / 2; dx <= k / 2; ++dx)
            sum += img[std::clamp(y + dy, 0, h - 1) * w + std::clamp(x + dx, 0, w - 1)];
    return static_cast<std::uint16_t>(std::floor(sum / (static_cast<long double>(k) * k) + 0.5L));
}

int box_mean(const std::uint16_t* origin, int srcStep, Size size, int k, BorderKind border,
             std::vector<std::uint16_t>& out) {
    std::int64_t bytes = 0;
    if (const int s = BoxMeanGetBufferSize(size, k, &bytes); s != kOk) return s;
    const Buffer<unsigned char> work(AllocBytes(bytes));
    out.assign(static_cast<std::size_t>(size.width) * size.height, 0xBEEF);
    return BoxMeanU16(origin, srcStep, out.data(), size.width * 2, size, k, border, work.get());
}

TEST(BoxMeanPrimitive, MatchesTheClampedWindowMeanWithEitherBorder) {
    const int sizes[][2] = {{1, 1}, {1, 9}, {9, 1}, {7, 5}, {40, 23}};
    for (const auto& wh : sizes) {
        const int w = wh[0], h = wh[1];
        const auto img = random_samples(w * h, w * 31 + h);
        for (const int k : {1, 3, 5, 11, 41, 1001}) {
            if (k > 100 && w * h > 10) continue;  // the brute force costs k² per sample
            std::vector<std::uint16_t> replicated, from_memory;
            ASSERT_EQ(box_mean(img.data(), w * 2, {w, h}, k, BorderKind::replicate, replicated), kOk);
            // The same window over a buffer that carries the replicated border.
            const int r = k / 2, pw = w + k - 1, ph = h + k - 1;
            std::vector<std::uint16_t> padded(static_cast<std::size_t>(pw) * ph);
            ASSERT_EQ(PadReplicateU16(img.data(), w * 2, {w, h}, padded.data(), pw * 2, {pw, ph}, r, r), kOk);
            ASSERT_EQ(box_mean(padded.data() + static_cast<std::size_t>(r) * pw + r, pw * 2, {w, h}, k,
                               BorderKind::in_memory, from_memory),
                      kOk);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    ASSERT_EQ(replicated[y * w + x], brute_mean(img, w, h, x, y, k))
                        << w << "x" << h << " k " << k << " at " << x << "," << y;
            EXPECT_EQ(from_memory, replicated) << w << "x" << h << " k " << k;
            if (k == 1) EXPECT_EQ(replicated, img);
        }
    }
}

TEST(BoxMeanPrimitive, RefusesEvenOrHugeWindowsAndOtherBorders) {
    std::uint16_t a[4] = {}, b[4] = {};
    unsigned char work[64] = {};
    std::int64_t bytes = 0;
    for (const int k : {0, -1, 2, 4, kLargestBoxSide + 2, 2147483647})
        EXPECT_EQ(BoxMeanGetBufferSize({2, 2}, k, &bytes), kBadArgument) << k;
    EXPECT_EQ(BoxMeanGetBufferSize({2, 2}, 3, nullptr), kNullPointer);
    EXPECT_EQ(BoxMeanGetBufferSize({0, 2}, 3, &bytes), kBadSize);
    EXPECT_EQ(BoxMeanU16(a, 4, b, 4, {2, 2}, 3, BorderKind::replicate, nullptr), kNullPointer);
    EXPECT_EQ(BoxMeanU16(a, 4, b, 4, {2, -2}, 3, BorderKind::replicate, work), kBadSize);
    EXPECT_EQ(BoxMeanU16(a, 2, b, 4, {2, 2}, 3, BorderKind::replicate, work), kBadSize);
    EXPECT_EQ(BoxMeanU16(a, 4, b, 4, {2, 2}, 4, BorderKind::replicate, work), kBadArgument);
    EXPECT_EQ(BoxMeanU16(a, 4, b, 4, {2, 2}, 3, BorderKind::wrap, work), kBadBorder);
    EXPECT_EQ(BoxMeanU16(a, 4, b, 4, {2, 2}, 3, BorderKind::constant, work), kBadBorder);
}

// Two-pass deviation in long double: the statement the primitive is held to.
double brute_std_dev(const std::uint16_t* block, int step_samples, int k) {
    long double sum = 0;
    for (int y = 0; y < k; ++y)
        for (int x = 0; x < k; ++x) sum += block[y * step_samples + x];
    const long double mean = sum / (static_cast<long double>(k) * k);
    long double squares = 0;
    for (int y = 0; y < k; ++y)
        for (int x = 0; x < k; ++x) squares += (block[y * step_samples + x] - mean) * (block[y * step_samples + x] - mean);
    return static_cast<double>(std::sqrt(squares / (static_cast<long double>(k) * k)));
}

TEST(WindowStdDev, IsThePopulationDeviationAndTheMapRepeatsItExactly) {
    const std::uint16_t two_levels[] = {0, 65535, 65535, 0};
    double sd = -1;
    ASSERT_EQ(WindowStdDevU16(two_levels, 4, 2, &sd), kOk);
    EXPECT_EQ(sd, 32767.5);  // divisor k · k, not k · k − 1
    ASSERT_EQ(WindowStdDevU16(two_levels + 1, 4, 1, &sd), kOk);
    EXPECT_EQ(sd, 0.0);

    for (const int k : {1, 3, 7, 31, 257}) {  // beyond 255 the sums need 128 bits
        const int w = k > 100 ? 3 : 37, h = k > 100 ? 2 : 11;
        const int pw = w + k - 1, ph = h + k - 1;
        const auto padded = random_samples(pw * ph, 77 + k);
        std::vector<float> map(w * h, -1.0f);
        ASSERT_EQ(WindowStdDevMapU16(padded.data(), pw * 2, map.data(), w * 4, {w, h}, k), kOk);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const std::uint16_t* block = padded.data() + y * pw + x;
                ASSERT_EQ(WindowStdDevU16(block, pw * 2, k, &sd), kOk);
                EXPECT_NEAR(sd, brute_std_dev(block, pw, k), 1e-9 * (1 + sd)) << k << " at " << x << "," << y;
                ASSERT_EQ(map[y * w + x], static_cast<float>(sd)) << k << " at " << x << "," << y;
                if (k == 1) ASSERT_EQ(sd, 0.0);
            }
    }
}

TEST(WindowStdDev, ChecksPointersWindowsAndSteps) {
    std::uint16_t a[16] = {};
    float f[16] = {};
    double sd = 0;
    EXPECT_EQ(WindowStdDevU16(nullptr, 8, 3, &sd), kNullPointer);
    EXPECT_EQ(WindowStdDevU16(a, 8, 3, nullptr), kNullPointer);
    EXPECT_EQ(WindowStdDevU16(a, 8, 0, &sd), kBadArgument);
    EXPECT_EQ(WindowStdDevU16(a, 8, kLargestDeviationSide + 1, &sd), kBadArgument);
    EXPECT_EQ(WindowStdDevU16(a, 4, 3, &sd), kBadSize);
    EXPECT_EQ(WindowStdDevMapU16(a, 8, nullptr, 4, {1, 1}, 3), kNullPointer);
    EXPECT_EQ(WindowStdDevMapU16(a, 8, f, 4, {0, 1}, 3), kBadSize);
    EXPECT_EQ(WindowStdDevMapU16(a, 8, f, 4, {1, 1}, -3), kBadArgument);
    EXPECT_EQ(WindowStdDevMapU16(a, 4, f, 4, {1, 1}, 3), kBadSize);  // source row shorter than 1 + 2 samples
}

}  // namespace
