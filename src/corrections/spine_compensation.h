// "SpineCompensation", "SpineCompensation2", "SpineCompensation3": column-wise
// brightness equalisation inside the exposed field. The field's borders are
// found from the mean profiles near the image edges; every column's mean level
// inside an elliptical region gives a gain towards the overall mean, ramped to
// 1 outside the field, smoothed across columns and applied to the inverted
// image.
#pragma once

#include "interface/rows.h"

namespace krf {

constexpr int kSpineNoProfile = 1117100;  // the border finder's arrays
constexpr int kSpineNoWorkMemory = 1117101;

// Field borders in image coordinates: rows top ... bottom, columns left ... right.
struct SpineBorders {
    int top = 0;
    int bottom = 0;
    int left = 0;
    int right = 0;
};

// The smoothing half-width: "FilterHalfSize", or for 0 one that grows with the
// width (20 at 2814 columns, at least 1).
int spine_half_size(int half_size, int width) noexcept;

// 0 or kSpineNoProfile.
int find_spine_borders(Rows src, int height, int width, SpineBorders* borders) noexcept;

enum class SpineVariant {
    fixed_threshold,     // "SpineCompensation": level threshold at 95 % of white
    strength,            // "SpineCompensation2": the gain weakened to a percentage
    metal_threshold,     // "SpineCompensation3": level threshold as a fraction of white
};

struct SpineSettings {
    SpineVariant variant = SpineVariant::fixed_threshold;
    int half_size = 0;            // "FilterHalfSize"; 0 picks one from the width
    int strength_percent = 100;   // "PercentoForzaFiltro" (strength variant only)
    float metal_threshold = 0.95f;  // "MetalThreshold" (metal-threshold variant only)
};

// Reads src, writes every sample of dst. Returns 0, kSpineNoProfile or
// kSpineNoWorkMemory (dst untouched on failure).
int spine_compensation(Rows src, Rows dst, int height, int width, int white, const SpineSettings& settings) noexcept;

}  // namespace krf
