#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "corrections/contrast_correction.h"
#include "support/radiographs.h"

namespace krf::test {
namespace {

using corrections::clip_count;
using corrections::kContrastInvalidArgument;

struct Settings {
    int tile_width = 64;
    int tile_height = 64;
    float clip_limit = 0.5f;
    int bins = 1024;
    int distribution = 1;
};

Params parameters(const Settings& s) {
    Params params;
    params.add_int(s.tile_width).add_int(s.tile_height).add_float(s.clip_limit).add_int(s.bins).add_int(s.distribution);
    return params;
}

Image contrast(const Image& in, int white, const Settings& s, int expected_code = 0) {
    return filtered("ContrastCorrection", in, white, parameters(s).data(), expected_code);
}

// ---- The filter written out plainly, step by step, on a padded float plane ----

struct Axis {
    int tiles, tile, before, after;
};

Axis plain_axis(int extent, int nominal) {
    Axis a{};
    a.tiles = static_cast<int>(std::ceil(static_cast<float>(extent) / static_cast<float>(nominal)));
    a.tile = extent / a.tiles;
    if (extent % a.tiles != 0) a.tile += 1;
    if (a.tile % 2 == 1) a.tile += 1;
    const int pad = a.tile * a.tiles - extent;
    a.before = pad / 2;
    a.after = pad - a.before;
    return a;
}

std::vector<float> plain_mapping(std::vector<int> h, int B, int P, int clip, int distribution) {
    int excess = 0;
    for (int b = 0; b < B; ++b) excess += std::max(h[b] - clip, 0);
    const int incr = excess / B, upper = clip - incr;
    for (int b = 0; b < B; ++b) {
        if (h[b] > clip) h[b] = clip;
        else if (h[b] > upper) excess -= clip - h[b], h[b] = clip;
        else excess -= incr, h[b] += incr;
    }
    int start = 0;
    while (excess > 0) {
        const int step = std::max(B / excess, 1);
        for (int b = start; b < B; b += step) {
            if (h[b] < clip) {
                h[b] += 1;
                excess -= 1;
                if (excess < 1) break;
            }
        }
        start = (start + 1) % B;
    }
    std::vector<int> H(B);
    for (int i = 0; i < B; ++i) H[i] = h[i] + (i > 0 ? H[i - 1] : 0);

    std::vector<float> map(B, 0.0f);
    const double invP = 1.0f / static_cast<float>(P);
    const float alpha = 0.4f;
    if (distribution == 0) {
        for (int i = 0; i < B; ++i) map[i] = static_cast<float>(H[i] * invP);
    } else if (distribution == 1) {
        const float s = 2 * alpha * alpha;
        const double scale = 1 - std::exp(-1.0 / s);
        for (int i = 0; i < B; ++i) {
            double p = H[i] * invP * scale;
            if (p >= 1) p = 0.999999;
            map[i] = static_cast<float>(std::sqrt(-s * std::log(1 - p)));
        }
    } else if (distribution == 2) {
        const double scale = 1 - std::exp(-static_cast<double>(alpha));
        for (int i = 0; i < B; ++i) {
            double p = H[i] * invP * scale;
            if (p >= 1) p = 0.9999989867210388;
            map[i] = static_cast<float>((-1.0 / alpha) * std::log(1 - p));
        }
    } else if (distribution >= 3 && distribution <= 17) {
        const auto& K = corrections::kKnotBins;
        float w[11], slope[11] = {};
        for (int j = 0; j < 11; ++j) w[j] = 500 * corrections::kShapeWeights[distribution - 3][j];
        for (int j = 1; j < 11; ++j) slope[j] = (w[j] - w[j - 1]) / (K[j] - K[j - 1]);
        std::vector<float> D(B);
        D[0] = w[0];
        int j = 1;
        for (int i = 1; i < B; ++i) {
            if (j <= 10 && i % K[j] == 0) D[i] = w[j], j += 1;
            else D[i] = D[i - 1] + (j <= 10 ? slope[j] : slope[10]);  // past the last knot: its slope goes on
        }
        int T = 0;
        for (int i = 1; i < B; ++i) {
            T = static_cast<int>(D[i] + T);
            D[i] = D[i - 1] + D[i];
        }
        std::vector<float> C(B);
        C[0] = D[0];
        for (int i = 1; i < B; ++i) C[i] = D[i] * (static_cast<float>(P) / static_cast<float>(T));
        int k = 0;
        j = 1;
        while (k < B) {
            if (j == B) map[k] = 1.0f, k += 1;
            else if (H[k] <= C[j]) map[k] = ((H[k] - C[j - 1]) / (C[j] - C[j - 1]) + j) / B, k += 1;
            else j += 1;
        }
    }
    return map;
}

Image plain_contrast(const Image& in, int white, const Settings& s) {
    const int H = in.height(), W = in.width(), B = s.bins;
    const Axis ax = plain_axis(W, s.tile_width), ay = plain_axis(H, s.tile_height);
    const int PH = H + ay.before + ay.after, PW = W + ax.before + ax.after;
    std::vector<float> plane(static_cast<std::size_t>(PH) * PW);
    auto at = [&](int y, int x) -> float& { return plane[static_cast<std::size_t>(y) * PW + x]; };
    // Margins mirror the image without repeating its edge sample.
    auto mirror = [](int p, int before, int n) {
        const int j = p - before;
        return j < 0 ? -1 - j : j >= n ? 2 * n - 1 - j : j;
    };
    for (int y = 0; y < PH; ++y)
        for (int x = 0; x < PW; ++x) at(y, x) = in.at(mirror(y, ay.before, H), mirror(x, ax.before, W));

    const float mn = *std::min_element(plane.begin(), plane.end()), mx = *std::max_element(plane.begin(), plane.end());
    for (float& x : plane) x = (mn > 0 || mx < white) ? (x - mn) / (mx - mn) : x / mx;

    const int P = ax.tile * ay.tile;
    const float c = std::ceil(static_cast<float>(P) / static_cast<float>(B));
    const int clip = static_cast<int>(c + std::round((P - c) * s.clip_limit));
    std::vector<std::vector<float>> maps;
    for (int ty = 0; ty < ay.tiles; ++ty)
        for (int tx = 0; tx < ax.tiles; ++tx) {
            std::vector<int> hist(B, 0);
            for (int y = ty * ay.tile; y < (ty + 1) * ay.tile; ++y)
                for (int x = tx * ax.tile; x < (tx + 1) * ax.tile; ++x)
                    hist[static_cast<int>(std::round((B - 1) * at(y, x)))] += 1;
            maps.push_back(plain_mapping(hist, B, P, clip, s.distribution));
        }

    std::vector<float> F(plane.size());
    int y0 = 0;
    for (int ry = 0; ry <= ay.tiles; ++ry) {
        const int h = (ry == 0 || ry == ay.tiles) ? ay.tile / 2 : ay.tile;
        const int top = std::max(ry - 1, 0), bottom = std::min(ry, ay.tiles - 1);
        int x0 = 0;
        for (int rx = 0; rx <= ax.tiles; ++rx) {
            const int w = (rx == 0 || rx == ax.tiles) ? ax.tile / 2 : ax.tile;
            const int left = std::max(rx - 1, 0), right = std::min(rx, ax.tiles - 1);
            const std::vector<float>& TL = maps[top * ax.tiles + left];
            const std::vector<float>& TR = maps[top * ax.tiles + right];
            const std::vector<float>& BL = maps[bottom * ax.tiles + left];
            const std::vector<float>& BR = maps[bottom * ax.tiles + right];
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    const int b = static_cast<int>(at(y0 + y, x0 + x) * (B - 1) + 0.5f);
                    F[static_cast<std::size_t>(y0 + y) * PW + x0 + x] =
                        ((TL[b] * (w - x) + TR[b] * x) * (h - y) + (BL[b] * (w - x) + BR[b] * x) * y) *
                        (1.0f / static_cast<float>(w * h));
                }
            x0 += w;
        }
        y0 += h;
    }
    Image out(H, W);
    for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c)
            out.at(r, c) = static_cast<Sample>(
                static_cast<int>(white * F[static_cast<std::size_t>(ay.before + r) * PW + ax.before + c]));
    return out;
}

void expect_matches_plain(const Image& in, int white, const Settings& s) {
    EXPECT_TRUE(contrast(in, white, s) == plain_contrast(in, white, s))
        << in.height() << "x" << in.width() << " tiles " << s.tile_width << "x" << s.tile_height << " clip "
        << s.clip_limit << " bins " << s.bins << " distribution " << s.distribution;
}

// ---- Tests ----

TEST(ContrastCorrection, ClipCountRunsFromTheFairShareToTheWholeTile) {
    EXPECT_EQ(clip_count(2500, 1024, 0.5f), 3 + 1249);  // ceil(2500 / 1024), and 1248.5 rounds away from zero
    // Limits that would leave surplus nowhere to go clip at the fair share; above the tile nothing is clipped.
    for (float limit : {-0.5f, -INFINITY, NAN}) EXPECT_EQ(clip_count(2500, 1024, limit), 3) << limit;
    for (float limit : {1.5f, INFINITY}) EXPECT_EQ(clip_count(2500, 1024, limit), 2500) << limit;
    // 3 * 2^24 + 1 samples over 3 bins: the single-precision share comes out one below the exact one.
    EXPECT_EQ(clip_count(3 * (1 << 24) + 1, 3, 0.0f), (1 << 24) + 1);
}

TEST(ContrastCorrection, MatchesThePlainStepsForEveryDistribution) {
    const Image in = phantom(70, 90, 4095, 3);
    for (int distribution = 0; distribution <= 17; ++distribution)
        expect_matches_plain(in, 4095, {24, 30, 0.02f, 1024, distribution});
    // Bin counts below 1024 meet only some knots; above it the last segment's slope goes on.
    for (int bins : {256, 300, 1500, 4096})
        for (int distribution : {0, 1, 2, 3, 4, 7, 11, 17})
            expect_matches_plain(in, 4095, {32, 20, 0.1f, bins, distribution});
}

TEST(ContrastCorrection, MatchesThePlainStepsAcrossGeometriesAndClipLimits) {
    const Image noise = random_image(37, 53, 0, 4095, 11), narrow = random_image(41, 29, 1200, 1260, 12);
    for (const Settings& s : {Settings{16, 16, 0.0f, 256, 0}, Settings{16, 16, 1.0f, 256, 1},
                              Settings{10, 14, 0.5f, 1024, 2}, Settings{1000, 7, 0.3f, 512, 5},
                              Settings{3, 5, 0.0f, 64, 1}, Settings{8, 8, 0.0f, 4096, 0}}) {
        expect_matches_plain(noise, 4095, s);
        expect_matches_plain(narrow, 4095, s);
    }
    // Few levels with many more bins than samples per tile: most passes that hand out the surplus
    // meet only full bins.
    const Image steps = random_image(48, 48, 7, 9, 13);
    for (float limit : {0.0f, 0.001f, 0.05f})
        for (int bins : {1000, 4099}) expect_matches_plain(steps, 4095, {16, 16, limit, bins, 0});
    expect_matches_plain(steps, 4095, {12, 12, 0.0f, 2, 1});
    expect_matches_plain(steps, 4095, {12, 12, 0.0f, 1, 3});
}

TEST(ContrastCorrection, MatchesThePlainStepsOnARealRadiograph) {
    const Image leg = crop(presented_radiograph("cr-leg-10bit.png", 1023), 700, 100, 300, 260);
    for (int distribution : {1, 6}) expect_matches_plain(leg, 1023, {64, 64, 0.5f, 1024, distribution});
}

// Normalisation by the range is the plain steps' check on the narrow images above.
TEST(ContrastCorrection, NormalisesByTheMaximumWhenTheImageSpansZeroToWhite) {
    // Spanning 0 ... white, and beyond white: by the maximum.
    Image spanning = random_image(40, 40, 0, 900, 21);
    spanning.at(0, 0) = 0;
    spanning.at(5, 5) = 4095;
    expect_matches_plain(spanning, 4095, {16, 16, 0.5f, 1024, 0});
    spanning.at(5, 5) = 60000;
    expect_matches_plain(spanning, 4095, {16, 16, 0.5f, 1024, 1});
    // Every 16-bit level once: the tables by level reach the top of the range.
    Image every(256, 256);
    std::vector<int> levels(65536);
    for (int i = 0; i < 65536; ++i) levels[i] = i;
    std::shuffle(levels.begin(), levels.end(), std::mt19937(22));
    for (int i = 0; i < 65536; ++i) every.at(i / 256, i % 256) = static_cast<Sample>(levels[i]);
    expect_matches_plain(every, 65535, {64, 64, 0.5f, 1024, 0});
}

TEST(ContrastCorrection, UnknownDistributionsAndConstantImagesGiveZero) {
    const Image in = phantom(30, 40, 4095, 5), zeros(30, 40, 0);
    for (int distribution : {18, -1, INT_MIN, INT_MAX})
        EXPECT_TRUE(contrast(in, 4095, {16, 16, 0.5f, 1024, distribution}) == zeros) << distribution;
    for (Sample level : {0, 1000, 4095, 65535})
        EXPECT_TRUE(contrast(Image(30, 40, level), 4095, {}) == zeros) << level;
    EXPECT_TRUE(contrast(Image(1, 1, 77), 4095, {}) == Image(1, 1, 0));
}

TEST(ContrastCorrection, RefusesParametersWithoutTilesOrBins) {
    const Image in = phantom(20, 20, 4095, 6), untouched(20, 20, kMarker);
    for (const Settings& s : {Settings{0, 64}, Settings{64, 0}, Settings{-5, 64}, Settings{INT_MIN, INT_MIN},
                              Settings{64, 64, 0.5f, 0}, Settings{64, 64, 0.5f, -1024}})
        EXPECT_TRUE(contrast(in, 4095, s, kContrastInvalidArgument) == untouched);
    // A table beyond the budget is refused before anything is allocated or written.
    EXPECT_TRUE(contrast(in, 4095, {64, 64, 0.5f, INT_MAX, 1}, kNoBuffer) == untouched);
    EXPECT_TRUE(contrast(phantom(400, 400, 4095), 4095, {1, 1, 0.5f, 65536, 1}, kNoBuffer) == Image(400, 400, kMarker));
}

// Allocation failures are covered by the library-wide sweep.
TEST(ContrastCorrection, RunsInPlace) {
    const Image in = phantom(50, 60, 4095, 8);
    const Settings s{16, 24, 0.3f, 1024, 9};
    Image image = in;
    ASSERT_EQ(run_filter("ContrastCorrection", image, image, 4095, parameters(s).data()), 0);
    EXPECT_TRUE(image == contrast(in, 4095, s));
}

}  // namespace
}  // namespace krf::test
