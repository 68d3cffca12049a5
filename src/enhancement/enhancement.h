// Multi-scale enhancement filters: each copies the input into contiguous
// float buffers, works there with the image primitives and writes the output
// rows only when every step succeeded.
#pragma once

#include "interface/rows.h"
#include "primitives/primitives.h"

namespace krf {

// ---- Wavelet shrinkage ("advancedsmoothing", "advancedsmoothing2").
// The thresholds are those of levels 1 (finest) to 4 on a 0 ... 255 scale of
// the image's range (4095, or 65535 when the maximum is at least 4096). The
// result is the first failing primitive status (kBadSize for images of no
// samples or too large to pad, kNoMemory for exhausted memory), with the
// output rows then left untouched, or kOk.

// Four levels of the decimated transform, image padded at the bottom right.
prim::PrimitiveStatus advanced_smoothing(Rows src, Rows dst, int height, int width, float threshLv1, float threshLv2,
                                         float threshLv3, float threshLv4) noexcept;

// The undecimated transform with one to four levels (a threshold of exactly
// 1.0 at the coarse end of the list switches those levels off), image centred.
prim::PrimitiveStatus advanced_smoothing_2(Rows src, Rows dst, int height, int width, float threshLv1,
                                           float threshLv2, float threshLv3, float threshLv4) noexcept;

}  // namespace krf
