// Correction of one defective detector line: a row whose gain differs from
// that of its neighbours, brought back to their level tile by tile.
#pragma once

#include "interface/rows.h"

namespace krf {

// The defective line is not a row of the image (or the image is empty); the
// output is a copy of the input.
constexpr int kDefectLineOutsideImage = 1121100;
// No row to compare the line with: the image has one row, the region of
// interest holds no column, or the rows beside the line lie outside it. The
// output is a copy of the input.
constexpr int kNoReferenceLines = 1121110;

// Reference rows taken on a side when the host asks for 0 (or fewer).
constexpr int kDefaultReferenceLines = 4;

// "supereq" and "supereq_pre". Rows other than `defect_line` are copied
// unchanged. Along the defective line, each tile of `tile_size` columns (0 or
// less: one tile over the whole width) gets the gain that brings a statistic
// of its samples to the reference level: the statistic of the `prev_lines`
// rows above, averaged with that of the `post_lines` rows below when
// `enable_post` is non-zero. A `max_correction_factor` above 1 bounds the gain
// to [1 / factor, factor]; anything else leaves it unbounded.
//
// pre_mode 0: the statistic is the mean, over the whole width and height; the
// region and percentile arguments are ignored. pre_mode non-zero: statistics
// come only from the region of interest (width or height 0 or less: up to the
// image's edge) and are the given percentile (0 or less: the median; 100 or
// more: the maximum; between ranks, interpolated); columns left or right of
// the region take the gain of the nearest tile.
//
// Returns 0, kNoBuffer (output untouched), kDefectLineOutsideImage or
// kNoReferenceLines. `src` and `dst` may be the same rows.
int line_defect_correction(Rows src, Rows dst, int height, int width, int white, int defect_line, int prev_lines,
                           int post_lines, int tile_size, int enable_post, int pre_mode, int roi_width,
                           int roi_height, int roi_offset_v, int roi_offset_h, int percentile,
                           double max_correction_factor) noexcept;

}  // namespace krf
