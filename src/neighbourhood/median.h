// Median filters: exact window medians ("median2D"), the separable
// pseudo-median ("pseudo-median2D") and the switching median ("SMF") that
// replaces only samples standing out from the noise of their grey level.
#pragma once

#include <cstdint>

#include "interface/rows.h"

namespace krf {

// Vector width of the min/max kernels. The handlers use the widest the
// processor offers; tests run every available width to prove they agree.
enum class MedianIsa { portable, avx2, avx512bw };
MedianIsa best_median_isa() noexcept;
bool median_isa_available(MedianIsa isa) noexcept;

// The 3 × 3 building block: the exact median of every interior sample's
// 3 × 3 neighbourhood goes straight into dst, then the one-sample frame is
// copied from src. Allocates nothing; dst must not share rows with src.
void median_3x3(Rows src, Rows dst, int height, int width, MedianIsa isa) noexcept;

// Copies the frame of width `band` (the first and last band columns of every
// row, the first and last band rows) from src to dst, clipped to the image.
void copy_median_frame(Rows src, Rows dst, int height, int width, std::int64_t band) noexcept;

// "median2D" with window side oddnum (an even side is raised by one).
// Returns 0 or the code of the scratch allocation that failed. From side 5 up
// the medians go through a scratch raster, so dst may then be src itself.
int median_2d(Rows src, Rows dst, int height, int width, int oddnum,
              MedianIsa isa = best_median_isa()) noexcept;

// "pseudo-median2D": a one-dimensional median along each row, then along each
// column, of window dimwnd. The output frame of width (dimwnd - 1) / 2 stays unwritten.
int pseudo_median_2d(Rows src, Rows dst, int height, int width, int dimwnd,
                     MedianIsa isa = best_median_isa()) noexcept;

// Tuning of the switching median. The caller provides the record; the filter
// fills every field on entry, so its previous content never matters.
struct SmfSettings {
    double marginLow;           // start of the central estimation region, fraction of height and width
    double marginHigh;          // end of the central estimation region
    double relThreshold;        // threshold relative to the local median
    double noiseFactor;         // threshold in modelled noise standard deviations
    double maxReplacedPercent;  // largest share of replaced samples still accepted
    double fenceFactor;         // inter-quartile multiple beyond which a noise sample is an outlier
    int minSamples;             // a grey level is analysed only with more samples than this
    int maxSamples;             // at most this many noise samples are kept per grey level
    int firstLevel;             // lowest grey level whose noise is analysed
    int firstFitLevel;          // lowest grey level used in the noise line fit
};

// Codes of the switching median besides 0 and the buffer code 1007100.
constexpr int kSmfRefused = 1115100;      // too many samples would be replaced; output untouched
constexpr int kSmfNoRaster = 1115110;     // a scratch raster could not be allocated

// "SMF": replaces a sample by its 3 × 3 median only when it stands out from
// the noise that the image itself shows at that grey level.
int switching_median(Rows src, Rows dst, int height, int width, int white, SmfSettings& settings,
                     MedianIsa isa = best_median_isa()) noexcept;

}  // namespace krf
