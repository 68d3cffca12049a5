// "ContrastCorrection": tile-based, contrast-limited histogram equalisation
// towards a chosen target distribution, blended bilinearly between tiles.
#pragma once

#include <cstdint>

#include "interface/rows.h"

namespace krf::corrections {

// A tile size or a bin count below 1 has no tiling or no histogram; the call
// is refused with this code and the output is left untouched.
constexpr int kContrastInvalidArgument = -4;

// Scratch memory one call may ask for (mapping table, one row of tile
// histograms, per-level tables). A request beyond it is refused with
// kNoBuffer before anything is allocated: tiles × bins grows without bound
// for tiny tiles and huge bin counts, and an overcommitting system would
// otherwise grant the table and kill the process when it is touched.
constexpr std::int64_t kContrastScratchBudget = std::int64_t{1} << 30;

// Target distributions: 0 uniform, 1 Rayleigh, 2 exponential, 3 ... 17
// piecewise-linear shapes; any other value maps every tile to 0.
inline constexpr int kDistributions = 18;
inline constexpr int kFirstShape = 3;
inline constexpr int kKnots = 11;
// Knot positions of the piecewise shapes, in bins of a 1024-bin histogram
// whatever the actual bin count.
inline constexpr int kKnotBins[kKnots] = {0, 102, 205, 307, 410, 512, 614, 717, 819, 922, 1024};
// Weights of the piecewise target shapes 3 ... 17 at the knots.
inline constexpr float kShapeWeights[kDistributions - kFirstShape][kKnots] = {
    {0.0f, 0.12f, 0.22f, 0.24f, 0.24f, 0.23f, 0.22f, 0.2f, 0.17f, 0.12f, 0.0f},
    {0.041f, 0.049f, 0.086f, 0.095f, 0.099f, 0.103f, 0.107f, 0.107f, 0.107f, 0.091f, 0.115f},
    {0.073f, 0.076f, 0.08f, 0.084f, 0.087f, 0.091f, 0.095f, 0.098f, 0.102f, 0.105f, 0.109f},
    {0.045f, 0.055f, 0.064f, 0.073f, 0.082f, 0.091f, 0.1f, 0.109f, 0.118f, 0.127f, 0.136f},
    {0.011f, 0.046f, 0.182f, 0.164f, 0.118f, 0.091f, 0.082f, 0.118f, 0.082f, 0.064f, 0.041f},
    {0.033f, 0.043f, 0.054f, 0.087f, 0.12f, 0.152f, 0.12f, 0.098f, 0.098f, 0.098f, 0.098f},
    {0.061f, 0.087f, 0.1f, 0.109f, 0.113f, 0.115f, 0.109f, 0.098f, 0.087f, 0.07f, 0.052f},
    {0.0f, 0.046f, 0.128f, 0.124f, 0.119f, 0.115f, 0.11f, 0.106f, 0.101f, 0.083f, 0.069f},
    {0.0f, 0.067f, 0.123f, 0.134f, 0.134f, 0.128f, 0.112f, 0.101f, 0.089f, 0.067f, 0.045f},
    {0.015f, 0.06f, 0.15f, 0.12f, 0.108f, 0.096f, 0.108f, 0.12f, 0.108f, 0.072f, 0.042f},
    {0.121f, 0.115f, 0.109f, 0.103f, 0.097f, 0.091f, 0.085f, 0.079f, 0.073f, 0.067f, 0.061f},
    {0.109f, 0.105f, 0.102f, 0.098f, 0.095f, 0.091f, 0.087f, 0.084f, 0.08f, 0.076f, 0.073f},
    {0.091f, 0.091f, 0.091f, 0.091f, 0.091f, 0.091f, 0.091f, 0.091f, 0.091f, 0.091f, 0.091f},
    {0.073f, 0.076f, 0.08f, 0.084f, 0.087f, 0.091f, 0.095f, 0.098f, 0.102f, 0.105f, 0.109f},
    {0.061f, 0.067f, 0.073f, 0.079f, 0.085f, 0.091f, 0.097f, 0.103f, 0.109f, 0.115f, 0.121f},
};

// How one axis is cut into tiles: `tiles` tiles of the even size `tile`,
// with `before` + `after` mirrored samples around the image.
struct TileAxis {
    std::int64_t tiles = 0;
    std::int64_t tile = 0;
    std::int64_t before = 0;
    std::int64_t after = 0;
};

// The tiling of an axis of `extent` >= 1 samples for a nominal tile size
// `nominal` >= 1.
TileAxis split_axis(std::int64_t extent, int nominal) noexcept;

// The largest count a bin of a tile of `tile_samples` samples keeps before its
// surplus is handed on, for `bins` >= 1 bins. A limit that NaN, a negative
// "ClipLimit" or single-precision rounding would put below the fair share
// ceil(tile_samples / bins) is raised to it: below that the surplus could
// never be placed. A limit above tile_samples clips nothing and is returned
// as tile_samples.
std::int64_t clip_count(std::int64_t tile_samples, std::int64_t bins, float clip_limit) noexcept;

// Runs the filter. The same rows may be passed as src and dst. Returns 0,
// kContrastInvalidArgument, or kNoBuffer (output untouched) when the scratch
// memory is beyond kContrastScratchBudget or cannot be allocated.
int contrast_correction(Rows src, Rows dst, int height, int width, int white, int tile_width, int tile_height,
                        float clip_limit, int bins, int distribution) noexcept;

}  // namespace krf::corrections
