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
