// "ECE" and "ECE2": "ShannonStretching" into a scratch image, then "gamma"
// with an exponent chosen from the stretched histogram inside a band of
// levels, each level weighted by a function of its distance from mu.
#include <algorithm>
#include <cmath>

#include "tone/tone.h"

namespace krf::tone {

namespace {

constexpr int kExponentIterations = 50;
constexpr double kLargestExponent = 4.0;

}  // namespace

int entropy_contrast(Rows src, Rows dst, int height, int width, int white, int gaussian_weights,
                     const EntropyContrastParams& params) noexcept {
    if (white < 0) return kNoBuffer;
    const std::int64_t levels = std::int64_t{white} + 1;
    Raster stretched;
    if (const int code = stretched.allocate(height, width); code != 0) return code;
    ScratchArray<Count> hist;
    ScratchArray<double> weight;
    if (!hist.allocate(levels) || !weight.allocate(levels)) return kNoBuffer;

    // The stage's own result does not stop the filter: an inverted window
    // leaves the scratch image black and the gamma stage still runs on it.
    // Running out of memory does stop it, with the output untouched, as
    // everywhere else in the library.
    const int stretch =
        shannon_stretching(src, stretched.rows(), height, width, white, params.borders, params.low_th, params.high_th);
    if (stretch == kNoBuffer || stretch == kNoRowArray) return stretch;
    count_histogram(stretched.rows(), height, width, white, hist.get());

    const double n = static_cast<double>(levels);
    const double w = white;
    const std::int32_t band_lo = truncate_to_int32(n * params.din_low_th + 0.5);
    const std::int32_t band_hi = truncate_to_int32(n * params.din_high_th + 0.5);
    // Levels outside 0 ... white hold no samples; the band is cut to the
    // histogram rather than read past it (which also pulls an end of N,
    // from din_high_th = 1, back to white).
    const int first = std::max(band_lo, 0);
    const int last = std::min(band_hi, white);

    // "ECE" weights with exp(+x), growing away from mu; "ECE2" with the bell
    // exp(-x). The two are different filters on purpose.
    for (int i = first; i <= last; ++i) {
        const double d = (i / w - params.mu) / params.sigma;
        const double x = gaussian_weights ? -(d * d) : d * d;
        weight[i] = std::exp(x);
    }

    // A fixed number of rounds, no convergence test: the exponent must not
    // depend on a tolerance. An empty band gives 0 / 0 and a NaN exponent,
    // and a band with level 0 takes ln(0); both go to the gamma stage as
    // they are.
    double g = 1.0;
    for (int round = 0; round < kExponentIterations; ++round) {
        const double e = g - 1.0;
        double s1 = 0.0, s2 = 0.0;
        for (int i = first; i <= last; ++i) {
            const double t = i / w;
            const double p = std::pow(t, e);
            const double count = hist[i];
            s1 += p * count * weight[i];
            s2 += count * std::log(t) * p * weight[i];
        }
        g = -(s1 / s2);
    }
    if (g > kLargestExponent) g = kLargestExponent;
    return gamma_curve(stretched.rows(), dst, height, width, white, g);
}

}  // namespace krf::tone
