#include "corrections/rain.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "interface/truncation.h"
#include "neighbourhood/median.h"
#include "platform/platform.h"

namespace krf {
namespace {

constexpr double kPi = 3.14159265358979323846;
// Both parameters moving by less than this ends the estimation.
constexpr double kConvergence = 0.00001;
constexpr int kMaxIterations = 100;

// Progress of a run for a developer: formatted like every trace of the
// library into a short line and sent to the debug channel, which drops it
// unless debugging is switched on.
[[gnu::format(printf, 1, 2)]] void trace(const char* format, ...) {
    char line[260];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    platform::debug_output(line);
}

// exp(±0) is exactly 1; samples equal to their median and every sample
// outside the ranges have a zero deviation, so most calls are skipped.
inline double exp_of(double q) { return q == 0 ? 1.0 : std::exp(q); }
inline float exp_of(float q) { return q == 0 ? 1.0f : static_cast<float>(std::exp(static_cast<double>(q))); }

// x -> white - x in 16-bit arithmetic; applying it twice restores every
// sample, those above white included.
void invert_in_place(Rows image, int height, int width, int white) {
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c) image[r][c] = static_cast<Sample>(white - image[r][c]);
}

}  // namespace

int RainClass::Init(unsigned short** image_rows, int nLevels, int nRows, int nCols, const int* first,
                    const int* length) {
    if (const int code = FilterClass::Init(image_rows, nLevels, nRows, nCols, first, length); code != 0) return code;
    for (float*** plane : {&Values, &Median, &HalfDev, &Stirling, &Mixture, &Likelihood})
        if (const int code = allocate_float_plane(plane, NRows, NCols); code != 0) return code;
    return 0;
}

int RainClass::Release() {
    for (float*** plane : {&Values, &Median, &HalfDev, &Stirling, &Mixture, &Likelihood})
        if (const int code = free_plane(plane, NRows); code != 0) return code;
    return FilterClass::Release();
}

// The grid of the estimation: every 4th row from row 1 and every 4th column
// from the start of the row's range, one pixel in sixteen, never on the frame.
template <class Visit>
static void for_each_grid_pixel(int rows, int cols, const int* first, const int* last, Visit visit) {
    for (int r = 1; r < rows - 1; r += 4) {
        const int end = std::min(last[r], cols - 2);
        for (int c = std::max(first[r], 1); c <= end; c += 4) visit(r, c);
    }
}

// 1 / (number of grey levels the inside samples use), the count taken as
// 2 to the power of their entropy in bits.
int RainClass::count_valid_levels() {
    const int levels = std::max(NLevels, 1);
    ScratchArray<double> histogram;
    if (!histogram.allocate(levels)) return kNoBuffer;
    std::int64_t n = 0;
    for (int r = 0; r < NRows; ++r) {
        for (int c = RowFirst[r]; c <= RowLast[r]; ++c) {
            // A sample above white counts as white: the histogram has no bin beyond it.
            histogram[std::min<int>(image[r][c], levels - 1)] += 1.0;
            ++n;
        }
    }
    double entropy = 0.0;
    for (int v = 0; v < levels && n > 0; ++v) {
        const double p = histogram[v] / static_cast<double>(n);
        if (p > 0) entropy += -p * (std::log10(p) / std::log10(2.0));
    }
    InvLevels = static_cast<float>(1.0 / std::pow(2.0, entropy));
    trace("Number of valid grey levels (Shannon): %lf.\n", 1.0 / InvLevels);
    return 0;
}

// Median of each range sample's 3 × 3 neighbourhood; the image's frame keeps
// its own values and the rest of the plane stays 0. The samples are still
// whole numbers here, so the exact median of the image rows is the median of
// the values converted back to integers.
int RainClass::take_medians() {
    for (const int r : {0, NRows - 1})
        for (int c = 0; r >= 0 && r < NRows && c < NCols; ++c) Median[r][c] = Values[r][c];
    for (int r = 0; r < NRows && NCols > 0; ++r) {
        Median[r][0] = Values[r][0];
        Median[r][NCols - 1] = Values[r][NCols - 1];
    }
    ScratchArray<Sample> band;
    if (!band.allocate(3 * static_cast<std::int64_t>(std::max(NCols, 0)))) return kNoBuffer;
    Sample* band_rows[3] = {band.get(), band.get() + NCols, band.get() + 2 * static_cast<std::int64_t>(NCols)};
    const MedianIsa isa = best_median_isa();
    for (int r = 1; r < NRows - 1; ++r) {
        const int from = std::max(RowFirst[r], 1), to = std::min(RowLast[r], NCols - 2);
        if (from > to) continue;
        median_3x3(image + (r - 1), band_rows, 3, NCols, isa);
        for (int c = from; c <= to; ++c) Median[r][c] = band_rows[1][c];
    }
    return 0;
}

// The Stirling-form pieces of the Poisson log-likelihood of each inside
// sample given its median; the half-level offset keeps both logarithms finite.
// Both operands are whole levels plus one half, so the logarithms and the
// Stirling factor come from tables over the 65536 levels, computed with the
// same functions on the same arguments.
int RainClass::compute_deviations(std::int64_t* inside) {
    std::int64_t n = 0;
    for (int r = 0; r < NRows; ++r) n += std::max(RowLast[r] - RowFirst[r] + 1, 0);
    *inside = n;
    if (n == 0) return 0;
    ScratchArray<double> log_of;
    ScratchArray<float> stirling_of;
    if (!log_of.allocate(65536) || !stirling_of.allocate(65536)) return kNoBuffer;
    for (int v = 0; v < 65536; ++v) {
        const double x = static_cast<float>(v + 0.5);
        log_of[v] = std::log(x);
        stirling_of[v] = static_cast<float>(1.0 / std::sqrt(x * 2.0 * kPi));
    }
    for (int r = 0; r < NRows; ++r) {
        for (int c = RowFirst[r]; c <= RowLast[r]; ++c) {
            const int value = static_cast<int>(Values[r][c]), median = static_cast<int>(Median[r][c]);
            Values[r][c] = static_cast<float>(static_cast<double>(Values[r][c]) + 0.5);
            Median[r][c] = static_cast<float>(static_cast<double>(Median[r][c]) + 0.5);
            const double x = Values[r][c], m = Median[r][c];
            HalfDev[r][c] = static_cast<float>((log_of[median] - log_of[value]) * x + x - m);
            Stirling[r][c] = stirling_of[value];
        }
    }
    return 0;
}

void RainClass::set_noise_prior(double ppoiss) {
    // The prior travels as sqrt(-ln p), which keeps it inside (0, 1].
    PExp = static_cast<float>(std::sqrt(-std::log(ppoiss)));
    PPoiss = static_cast<float>(std::exp(-(PExp * PExp)));
    PImp = static_cast<float>(1 - PPoiss);
}

// Negative log-likelihood of the mixture over the grid; leaves each grid
// pixel's likelihood and mixture density in the planes for the next update.
float RainClass::negative_log_likelihood() {
    float f = 0;
    const double s = 1.0 / std::sqrt(static_cast<double>(G));
    const double k = static_cast<double>(PImp) * static_cast<double>(InvLevels);
    for_each_grid_pixel(NRows, NCols, RowFirst, RowLast, [&](int r, int c) {
        Likelihood[r][c] = static_cast<float>(exp_of(static_cast<double>(HalfDev[r][c]) / G) *
                                              (static_cast<double>(Stirling[r][c]) * s));
        Mixture[r][c] = static_cast<float>(static_cast<double>(Likelihood[r][c]) * PPoiss + k);
        f += static_cast<float>(-std::log(static_cast<double>(Mixture[r][c])));
    });
    return f;
}

// Expectation-maximisation of the gain and the noise prior on the grid.
void RainClass::estimate_parameters(double g0, double ppoiss0) {
    G = static_cast<float>(g0);
    set_noise_prior(ppoiss0);
    float f = negative_log_likelihood();
    trace("G0: %lf PPoiss0: %lf f: %lf.\n", G, PPoiss, f);
    for (int i = 0; i < kMaxIterations; ++i) {
        const float old_g = G, old_ppoiss = PPoiss;
        double s = 0, t = 0;
        std::int64_t n = 0;
        for_each_grid_pixel(NRows, NCols, RowFirst, RowLast, [&](int r, int c) {
            const double w = Likelihood[r][c] / Mixture[r][c];  // the noise posterior
            s += w;
            t += static_cast<double>(HalfDev[r][c]) * w;
            ++n;
        });
        G = static_cast<float>(-2 * t / s);  // the posterior-weighted mean Poisson deviance
        const float q = static_cast<float>(s / static_cast<double>(n)) * PPoiss;
        set_noise_prior(q);
        f = negative_log_likelihood();
        trace("nIter: %d G: %lf PPoiss: %lf f: %lf.\n", i, G, PPoiss, f);
        if (static_cast<double>(std::fabs(G - old_g)) < kConvergence ||
            static_cast<double>(std::fabs(PPoiss - old_ppoiss)) < kConvergence) {
            break;
        }
    }
}

int RainClass::Apply(FilterParametersClass* params) {
    const auto* rain_params = dynamic_cast<const RainParametersClass*>(params);
    if (rain_params == nullptr) return kWrongParameterClass;
    const double g0 = rain_params->G0, ppoiss0 = rain_params->PPoiss0;
    const bool estimation = rain_params->EstimationEnabled;
    trace("NRows: %d NCols: %d.\n", NRows, NCols);

    for (int r = 0; r < NRows; ++r)
        for (int c = 0; c < NCols; ++c) Values[r][c] = image[r][c];
    if (const int code = count_valid_levels(); code != 0) return code;
    if (const int code = take_medians(); code != 0) return code;
    std::int64_t n = 0;
    if (const int code = compute_deviations(&n); code != 0) return code;

    if (estimation) {
        trace("Parameter estimation enabled\n");
        estimate_parameters(g0, ppoiss0);
    } else {
        G = static_cast<float>(g0);
        set_noise_prior(ppoiss0);
        trace("Parameter estimation disabled\nUser defined parameters: G0: %lf PPoiss0: %lf\n", G, PPoiss);
    }

    // Single precision from here on.
    const float s = 1.0f / std::sqrt(G);
    const float impulse = PImp * InvLevels;
    for (int r = 0; r < NRows; ++r) {
        for (int c = 0; c < NCols; ++c) {
            Likelihood[r][c] = exp_of(HalfDev[r][c] / G) * Stirling[r][c] * s;
            Mixture[r][c] = Likelihood[r][c] * PPoiss + impulse;
        }
    }
    // An impulse wins only strictly; a NaN on either side keeps the sample.
    std::int64_t corrected = 0;
    for (int r = 0; r < NRows; ++r) {
        for (int c = RowFirst[r]; c <= RowLast[r]; ++c) {
            if (impulse > Likelihood[r][c] * PPoiss) {
                Values[r][c] = Median[r][c];
                ++corrected;
            }
        }
    }
    trace("NCorrectedPixels:\n  Expected: %d (%2.4lf%%);\n  Measured: %d (%2.4lf%%).\n",
          truncate_to_int32(static_cast<float>(n) * PImp), PImp * 100.0, static_cast<int>(corrected),
          static_cast<double>(corrected) * 100 / static_cast<double>(n));

    // Truncation drops the half-level offset: inside samples get back their
    // own value or their median exactly.
    for (int r = 0; r < NRows; ++r)
        for (int c = 0; c < NCols; ++c) image[r][c] = truncate_to_low16(Values[r][c]);
    std::printf("G: %1.4lf PImp: %2.4lf\n", static_cast<double>(G), static_cast<double>(PImp));
    return 0;
}

int rain(Rows image, int height, int width, int white, double g0, double ppoiss0) noexcept {
    // The ranges come first so that running out of memory for them leaves the
    // image as it was.
    const int rows = std::max(height, 0);
    ScratchArray<int> first, length;
    if (!first.allocate(rows) || !length.allocate(rows)) return kNoBuffer;
    invert_in_place(image, height, width, white);
    // Unequal margins: 20 rows at the top and bottom, 250 columns on the left
    // and 100 on the right, where detector labels and markers usually sit.
    const int range_length = static_cast<int>(std::max<std::int64_t>(static_cast<std::int64_t>(width) - 350, 0));
    for (int r = 20; r < height - 20; ++r) {
        first[r] = 250;
        length[r] = range_length;
    }

    RainParametersClass params;
    params.G0 = g0;
    params.PPoiss0 = ppoiss0;
    params.EstimationEnabled = true;  // the host's "EstimationEnabled" is not consulted
    // The objects and ranges live only for this call; Release runs on every
    // path, also after a failed Init, so a host running many images does not grow.
    RainClass filter;
    int code = filter.Init(image, white + 1, height, width, first.get(), length.get());
    if (code <= 0) code = filter.Apply(&params);
    if (code > 0) {
        filter.Release();
        return code;  // the image stays inverted
    }
    if (code = filter.Release(); code > 0) return code;
    invert_in_place(image, height, width, white);
    return code;
}

}  // namespace krf
