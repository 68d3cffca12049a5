// Grey-level transforms: tone curves through lookup tables, histogram-driven
// stretching and the display transforms. What the family shares lives here:
// the conversion every curve value goes through, the table applier, the
// histogram counter, and the handlers that other handlers of the family call.
#pragma once

#include <cstdint>

#include "interface/rows.h"
#include "interface/truncation.h"
#include "platform/memory.h"

namespace krf::tone {

// Curve values become integers through the processor's truncating
// conversion (interface/truncation.h), so degenerate parameters (NaN, a zero
// divisor, gamma <= 0, white levels that make a logarithm negative) give one
// reproducible result instead of a corrected one. A table entry keeps the low
// 16 bits of that conversion (so out-of-range and non-finite values store 0).
using krf::truncate_to_int32;
constexpr Sample to_table_entry(double value) noexcept { return truncate_to_low16(value); }

// height × width as a 32-bit integer product, the pixel count the histogram
// filters divide by. Beyond 2^31 samples it wraps instead of overflowing.
constexpr std::int32_t pixel_count_32(int height, int width) noexcept {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(height) * static_cast<std::uint32_t>(width));
}

// ---- Lookup tables (lookup_table.cpp) ----

// output[r][c] = table[min(input[r][c], white)] for the whole raster; the
// table holds white + 1 entries. Returns 0; writes nothing when height < 1.
// Input and output may be the same rows.
int apply_table(Rows src, Rows dst, int height, int width, int white, const Sample* table) noexcept;

// One row of the applier. The portable kernel is the reference; the active
// kernel is the fastest one this processor runs. Both are reachable so that
// a test can prove they agree sample for sample.
using TableRowKernel = void (*)(const Sample* src, Sample* dst, std::int64_t width, Sample white,
                                const Sample* table) noexcept;
void apply_table_row_portable(const Sample* src, Sample* dst, std::int64_t width, Sample white,
                              const Sample* table) noexcept;
TableRowKernel active_table_row_kernel() noexcept;

// Histogram counters: signed 32-bit, one per level 0 ... white.
using Count = std::int32_t;

// Clears counters 0 ... white, then counts every sample of the first `height`
// rows and `width` columns at min(sample, white). Returns 0.
int count_histogram(Rows rows, int height, int width, int white, Count* hist) noexcept;

// The same over rows first_row ... first_row + row_count - 1 and columns
// first_col ... first_col + col_count - 1 only (none when a count is below 1).
int count_histogram_region(Rows rows, int first_row, int row_count, int first_col, int col_count, int white,
                           Count* hist) noexcept;
// As count_histogram_region, but adds to the counters as they are.
int add_to_histogram(Rows rows, int first_row, int row_count, int first_col, int col_count, int white,
                     Count* hist) noexcept;

// The common shape of a point operation: allocate a zero-filled table of
// white + 1 entries (1007100 when that fails), let `fill` compute it (a
// non-zero code from fill stops the run with that code), apply it, release
// it and return the applier's result.
template <class Fill>
int run_table(Rows src, Rows dst, int height, int width, int white, Fill&& fill) noexcept {
    // A negative white level has no table; it is refused like a failed allocation.
    ScratchArray<Sample> table;
    if (white < 0 || !table.allocate(std::int64_t{white} + 1)) return kNoBuffer;
    if (const int code = fill(table.get()); code != 0) return code;
    return apply_table(src, dst, height, width, white, table.get());
}

// ---- Gamma curves (gamma_curves.cpp) ----
// The table of "gamma" for levels 0 ... white (white >= 0).
void gamma_table(int white, double gamma, Sample* table) noexcept;
int gamma_curve(Rows src, Rows dst, int height, int width, int white, double gamma) noexcept;
int sigma_curve(Rows src, Rows dst, int height, int width, int white, double steepness, double shift) noexcept;
int gammalog_curve(Rows src, Rows dst, int height, int width, int white, double g) noexcept;

// ---- Landmark gamma (landmark_gamma.cpp) ----

// The template does not fit inside the image; the output is a copy of the input.
constexpr int kLandmarkTemplateTooLarge = 1122100;
// Exponent used when "Gamma" is 0, negative or not finite.
constexpr double kDefaultLandmarkGamma = 1.5;

// The template in pixels: a disc of `inner` radius and the ring around it out
// to `outer`. Radii grow with the image: with unit = max(2, shorter side / 128),
// inner = (Radius + 1) × unit and outer = inner + (RadiusExt + 1) × unit
// (negative values count as 0).
struct LandmarkTemplate {
    std::int64_t inner;
    std::int64_t outer;
};
LandmarkTemplate landmark_template(int height, int width, int radius, int radius_ext) noexcept;

struct Landmark {
    int row;
    int column;
    int level;  // mean of the disc's samples (at most white), rounded half up
};

// The centre where the disc's mean differs most from the ring's (the first in
// raster order among equals), over every centre whose ring lies inside the
// image. Returns 0, kNoBuffer or kLandmarkTemplateTooLarge.
int locate_landmark(Rows src, int height, int width, int white, LandmarkTemplate shape, Landmark* found) noexcept;

// "gammaporion": a power curve anchored at the landmark's level L. Levels
// below L follow L × (i / L)^gamma, levels above it
// W − (W − L) × ((W − i) / (W − L))^gamma, so L keeps its value and a gamma
// above 1 spreads the levels around it toward 0 and white.
int landmark_gamma(Rows src, Rows dst, int height, int width, int white, int radius, int radius_ext,
                   double gamma) noexcept;

// ---- Windowing curves (windowing.cpp) ----
// Code of "LL-UL" and "gammalin" for a window whose lower level lies above its upper one.
constexpr int kInvertedWindow = -3;
int ll_ul_window(Rows src, Rows dst, int height, int width, int white, double low, double high) noexcept;
// The table of "LL-UL" for levels 0 ... white, written over a zero-filled
// one; kInvertedWindow, with nothing written, for an inverted window.
int ll_ul_table(int white, double low, double high, Sample* table) noexcept;
int gammalin_window(Rows src, Rows dst, int height, int width, int white, double gamma, double low,
                    double high) noexcept;
int linear_window(Rows src, Rows dst, int height, int width, int white, double brightness, double contrast) noexcept;

// ---- Histogram stretching (histogram_stretching.cpp) ----
int equalize(Rows src, Rows dst, int height, int width, int white) noexcept;

struct Borders {
    int up, down, left, right;
};
int shannon_stretching(Rows src, Rows dst, int height, int width, int white, Borders borders, double low_th,
                       double high_th) noexcept;

// The levels where "ShannonStretching" cuts its window, from the histogram
// of the region inside the borders. When `whole` is given it receives the
// histogram of the entire image (white + 1 counters), from the same pass
// over the samples. Returns 0 or kNoBuffer.
struct LevelCuts {
    int lo, hi;
};
int shannon_cuts(Rows src, int height, int width, int white, Borders borders, double low_th, double high_th,
                 LevelCuts* cuts, Count* whole = nullptr) noexcept;

// ---- Display transforms (display.cpp) ----
int reverse(Rows src, Rows dst, int height, int width, int white) noexcept;
int flip(Rows src, Rows dst, int height, int width, int ignored, int horizontal, int vertical) noexcept;
int colorize(Rows src, unsigned char* rgb, int height, int width, int white) noexcept;

// One row of "colorize": for every sample the colour table's entry at
// min(sample, white), a word with red in the low byte, written out as its
// three bytes red, green, blue.
using PaintRowKernel = void (*)(const Sample* samples, unsigned char* out, std::int64_t width, Sample white,
                                const std::uint32_t* colours) noexcept;
void paint_row_portable(const Sample* samples, unsigned char* out, std::int64_t width, Sample white,
                        const std::uint32_t* colours) noexcept;
// The instruction sets a row kernel can be built for.
enum class VectorPath { portable, avx2, avx512 };
// The kernel for `path`, or null when this processor lacks it (so a test can
// prove every kernel the processor runs equal to the portable one).
PaintRowKernel paint_row_kernel(VectorPath path) noexcept;

// ---- Entropy contrast enhancement (entropy_contrast.cpp) ----
struct EntropyContrastParams {
    Borders borders;
    double low_th, high_th;          // the stretching stage
    double din_low_th, din_high_th;  // the band of levels that chooses the exponent
    double mu, sigma;                // centre and width of the level weighting
};
// gaussian_weights: 0 for "ECE" (weights exp(+x)), 1 for "ECE2" (exp(-x)).
int entropy_contrast(Rows src, Rows dst, int height, int width, int white, int gaussian_weights,
                     const EntropyContrastParams& params) noexcept;

}  // namespace krf::tone
