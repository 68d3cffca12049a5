// "RUM" and "testRUM" through the dispatcher, against a reference built from
// the stated stages on small images.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "primitives/primitives.h"
#include "support/radiographs.h"

namespace {

using namespace krf::prim;
using krf::test::Image;
using krf::test::Params;

struct Settings {
    float intensity = 31;
    int smoothing = 1, deviation = 1, peak = 1, offset = 0, gauss_size = 31;
    float gauss_sigma = 7;
};

// "testRUM" takes the same parameters without the intensity.
Params rum_params(const Settings& s, bool with_intensity = true) {
    Params p;
    if (with_intensity) p.add_float(s.intensity);
    p.add_int(s.smoothing).add_int(s.deviation).add_int(s.peak).add_int(s.offset).add_int(s.gauss_size)
        .add_float(s.gauss_sigma);
    return p;
}

int odd(int k) { return k % 2 == 0 ? k + 1 : k; }

// The smoothed deviation map: the window deviation of every replicated-edge
// block, scaled, then the zero-bordered Gaussian.
std::vector<float> smoothed_deviation(const Image& in, const Settings& s, float scale) {
    const int w = in.width(), h = in.height(), k = odd(s.deviation), r = k / 2;
    std::vector<float> dev(w * h), smooth(w * h);
    std::vector<std::uint16_t> block(k * k);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            for (int j = 0; j < k; ++j)
                for (int i = 0; i < k; ++i)
                    block[j * k + i] = in.at(std::clamp(y - r + j, 0, h - 1), std::clamp(x - r + i, 0, w - 1));
            double sd = 0;
            EXPECT_EQ(WindowStdDevU16(block.data(), k * 2, k, &sd), kOk);
            dev[y * w + x] = static_cast<float>(sd) * scale;
        }
    EXPECT_EQ(GaussianFilterF32(dev.data(), w * 4, smooth.data(), w * 4, {w, h}, s.gauss_size, s.gauss_sigma), kOk);
    return smooth;
}

Image reference_rum(const Image& in, int white, const Settings& s) {
    const int w = in.width(), h = in.height(), k = odd(s.smoothing), r = k / 2;
    const auto g = smoothed_deviation(in, s, 65535.0f / static_cast<float>(white));
    const float p = static_cast<float>(s.peak), t = static_cast<float>(s.offset);
    const float q = 1.0f / (p * 2.0f), half = p * 0.5f;
    Image out(h, w);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            long sum = 0;
            for (int j = -r; j <= r; ++j)
                for (int i = -r; i <= r; ++i) sum += in.at(std::clamp(y + j, 0, h - 1), std::clamp(x + i, 0, w - 1));
            const float mean = std::floor(static_cast<double>(sum) / (k * k) + 0.5);
            const float v = g[y * w + x] + t, gain = v / (v * v * q + half);
            const float X = in.at(y, x);
            const float mixed = (mean - X) * (gain * -s.intensity) + X;
            const float rounded = std::clamp(std::nearbyint(mixed), 0.0f, 65535.0f);
            out.at(y, x) = static_cast<krf::Sample>(std::min<float>(rounded, white));
        }
    return out;
}

Image run(const char* name, const Image& in, int white, Params params, int code = 0) {
    return krf::test::filtered(name, in, white, params.data(), code);
}

TEST(Rum, FollowsTheStagesOnPhantomsAndRealData) {
    Image in = krf::test::phantom(29, 34, 4095);
    // A smoothing side of 6 is made odd: 7.
    Settings s{.intensity = 2, .smoothing = 6, .deviation = 5, .peak = 2000, .offset = 40, .gauss_size = 9,
               .gauss_sigma = 2.5f};
    const Image out = run("RUM", in, 4095, rum_params(s));
    EXPECT_TRUE(out == reference_rum(in, 4095, s));
    EXPECT_FALSE(out == in);  // the settings do enhance
    // White 1023 scales the deviation by 65535 / 1023 and clamps the result to 1023.
    Image in10 = krf::test::phantom(17, 21, 1023);
    in10.at(3, 3) = 4000;  // above white
    EXPECT_TRUE(run("RUM", in10, 1023, rum_params(s)) == reference_rum(in10, 1023, s));

    int white = 0;
    const Image chest = krf::test::radiograph("cr-15bit.png", &white);
    Image crop = krf::test::crop(chest, chest.height() / 2, chest.width() / 2, 40, 50);
    s.intensity = 31;
    s.peak = 300;
    EXPECT_TRUE(run("RUM", crop, white, rum_params(s)) == reference_rum(crop, white, s));
}

TEST(Rum, ZeroDeviationGivesTheConstantGain) {
    Image in = krf::test::phantom(15, 16, 4095);
    in.at(2, 2) = 5000;
    Settings s;
    s.smoothing = 2;  // behaves as 3
    // A deviation window of 1 and no offset: gain 0, the input clamped to white.
    Image clamped = in;
    clamped.at(2, 2) = 4095;
    EXPECT_TRUE(run("RUM", in, 4095, rum_params(s)) == clamped);
    // peak = offset (+ zero deviation) gives gain 1: X + intensity · (X − mean3x3).
    s.peak = s.offset = 2;
    s.intensity = 3;
    EXPECT_TRUE(run("RUM", in, 4095, rum_params(s)) == reference_rum(in, 4095, s));
}

// Allocation failures, for "RUM" and for "testRUM" (which answers 0 and writes
// nothing), are covered by the library-wide sweep.
TEST(Rum, GaussianRefusalsLeaveTheOutputUntouched) {
    Image in = krf::test::phantom(10, 11, 4095);
    const Image untouched(10, 11, krf::test::kMarker);
    // The catalogue's minimum sigma 0, an even Gaussian size, and padding beyond what the filter takes on.
    for (const auto& [refused, expected] :
         {std::pair{Settings{.deviation = 3, .gauss_sigma = 0}, -5},
          {Settings{.deviation = 3, .gauss_size = 4, .gauss_sigma = 2}, -5},
          {Settings{.smoothing = 1 << 20, .deviation = 3, .gauss_size = 5, .gauss_sigma = 2}, -9}})
        EXPECT_TRUE(run("RUM", in, 4095, rum_params(refused), expected) == untouched) << expected;
}

std::string debug_lines(const char* name, Image& in, Params params) {
    setenv("KRFILTER_DEBUG", "1", 1);
    ::testing::internal::CaptureStderr();
    Image out(in.height(), in.width());
    krf::test::run_filter(name, in, out, 4095, params.data());
    const std::string lines = ::testing::internal::GetCapturedStderr();
    unsetenv("KRFILTER_DEBUG");
    return lines;
}

TEST(TestRum, WritesTheTruncatedSmoothedDeviationAndReportsEachStage) {
    Image in = krf::test::phantom(19, 23, 4095);
    Settings s{.deviation = 4, .gauss_size = 7, .gauss_sigma = 1.5f};
    const auto map = smoothed_deviation(in, s, 1.0f);  // no white scaling here
    Image expected(19, 23);
    for (int y = 0; y < 19; ++y)
        for (int x = 0; x < 23; ++x) expected.at(y, x) = static_cast<krf::Sample>(static_cast<int>(map[y * 23 + x]));
    EXPECT_TRUE(run("testRUM", in, 4095, rum_params(s, false)) == expected);

    const std::string stage = " millisec  \n";
    const std::regex lines(" Time mean:\\d+" + stage + " Time devStd:\\d+" + stage + " Time gaussFiltering:\\d+" +
                           stage + " Time rationalCoefficients:\\d+" + stage + "\n Time totale:\\d+" + stage +
                           "\n Time Test Function:\\d+" + stage);
    const std::string sent = debug_lines("testRUM", in, rum_params(s, false));
    EXPECT_TRUE(std::regex_match(sent, lines)) << sent;
    // A failed run sends only the dispatcher's line; "RUM" sends none.
    s.gauss_sigma = 0;
    EXPECT_TRUE(std::regex_match(debug_lines("testRUM", in, rum_params(s, false)),
                                 std::regex(" Time Test Function:\\d+" + stage)));
    EXPECT_EQ(debug_lines("RUM", in, rum_params(Settings{})), "");
}

}  // namespace
