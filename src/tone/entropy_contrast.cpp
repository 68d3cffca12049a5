// "ECE" and "ECE2": "ShannonStretching", then "gamma" with an exponent chosen
// from the stretched histogram inside a band of levels, each level weighted by
// a function of its distance from mu.
//
// Both stages are point operations, so the stretched image is never made:
// its histogram follows from the input's histogram pushed through the
// stretching table, and the output is the input through the two tables
// composed. One count of the image and one pass of the applier do the work
// of a scratch image, two counts and two passes, with the same samples.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>

#include "tone/tone.h"

namespace krf::tone {

namespace {

constexpr int kExponentIterations = 50;
constexpr double kLargestExponent = 4.0;

// The levels of the band whose terms the exponent search must form. A level
// that holds no sample adds exactly zero to both sums (and adding a zero
// changes no sum that started at +0), provided every factor of its terms is
// finite: a weight, ln t (t > 0) and pow(t, e). Those levels are left out;
// whether pow can overflow for them is checked on every round.
struct BandTerms {
    const int* visited;  // levels to sum, in ascending order
    std::int64_t visited_count;
    int first_skipped;  // lowest level left out, or -1 when none is
};

}  // namespace

int entropy_contrast(Rows src, Rows dst, int height, int width, int white, int gaussian_weights,
                     const EntropyContrastParams& params) noexcept {
    if (white < 0) return kNoBuffer;
    const std::int64_t levels = std::int64_t{white} + 1;
    ScratchArray<Count> input_hist;
    ScratchArray<Count> hist;
    ScratchArray<double> weight;
    ScratchArray<double> log_level;
    ScratchArray<int> visited;
    ScratchArray<Sample> stretch;
    ScratchArray<Sample> gamma;
    ScratchArray<Sample> composed;
    if (!input_hist.allocate(levels) || !hist.allocate(levels) || !weight.allocate(levels) ||
        !log_level.allocate(levels) || !visited.allocate(levels) || !stretch.allocate(levels) ||
        !gamma.allocate(levels) || !composed.allocate(levels))
        return kNoBuffer;

    // The stretching stage's window. An inverted one makes that stage refuse
    // to write, which leaves the stretched image black: the zero-filled
    // stretching table gives exactly that. Running out of memory stops the
    // filter, with the output untouched, as everywhere else in the library.
    LevelCuts cuts{};
    if (const int code = shannon_cuts(src, height, width, white, params.borders, params.low_th, params.high_th,
                                      &cuts, input_hist.get()))
        return code;
    const double w = white;
    ll_ul_table(white, cuts.lo / w, cuts.hi / w, stretch.get());

    // The stretched image's histogram, its samples clamped to white like
    // every counted sample; the counters wrap alike.
    auto* counters = reinterpret_cast<std::uint32_t*>(hist.get());
    const auto* input_counters = reinterpret_cast<const std::uint32_t*>(input_hist.get());
    for (int v = 0; v <= white; ++v) counters[std::min<int>(stretch[v], white)] += input_counters[v];

    const double n = static_cast<double>(levels);
    const std::int32_t band_lo = truncate_to_int32(n * params.din_low_th + 0.5);
    const std::int32_t band_hi = truncate_to_int32(n * params.din_high_th + 0.5);
    // Levels outside 0 ... white hold no samples; the band is cut to the
    // histogram rather than read past it (which also pulls an end of N,
    // from din_high_th = 1, back to white).
    const int first = std::max(band_lo, 0);
    const int last = std::min(band_hi, white);

    // "ECE" weights with exp(+x), growing away from mu; "ECE2" with the bell
    // exp(-x). The two are different filters on purpose. ln t does not
    // change between rounds, so it is taken once per level.
    BandTerms terms{visited.get(), 0, -1};
    for (int i = first; i <= last; ++i) {
        const double d = (i / w - params.mu) / params.sigma;
        const double x = gaussian_weights ? -(d * d) : d * d;
        weight[i] = std::exp(x);
        log_level[i] = std::log(i / w);
        const bool skippable = hist[i] == 0 && i > 0 && std::isfinite(weight[i]);
        if (!skippable)
            visited[terms.visited_count++] = i;
        else if (terms.first_skipped < 0)
            terms.first_skipped = i;
    }

    // A fixed number of rounds, no convergence test: the exponent must not
    // depend on a tolerance. An empty band gives 0 / 0 and a NaN exponent,
    // and a band with level 0 takes ln(0); both go to the gamma stage as
    // they are.
    const auto next_exponent = [&](double g) {
        const double e = g - 1.0;
        // For t <= 1 pow(t, e) is largest at the lowest level; 1e300 keeps a
        // margin below overflow for the rounding of every other level.
        const bool leave_out_empty =
            terms.first_skipped < 0 || (std::isfinite(e) && std::pow(terms.first_skipped / w, e) <= 1e300);
        double s1 = 0.0, s2 = 0.0;
        const auto add_level = [&](int i) {
            const double t = i / w;
            const double p = std::pow(t, e);
            const double count = hist[i];
            s1 += p * count * weight[i];
            s2 += count * log_level[i] * p * weight[i];
        };
        if (leave_out_empty) {
            for (std::int64_t k = 0; k < terms.visited_count; ++k) add_level(terms.visited[k]);
        } else {
            for (int i = first; i <= last; ++i) add_level(i);
        }
        return -(s1 / s2);
    };
    // Each round is a function of the previous exponent alone, so once an
    // exponent repeats (bit for bit) the rounds cycle, and the last one
    // follows from the cycle without computing the rest.
    double exponents[kExponentIterations + 1];
    exponents[0] = 1.0;
    double g = 1.0;
    for (int round = 1; round <= kExponentIterations; ++round) {
        g = exponents[round] = next_exponent(exponents[round - 1]);
        const auto bits = std::bit_cast<std::uint64_t>(g);
        int earlier = round - 1;
        while (earlier >= 0 && std::bit_cast<std::uint64_t>(exponents[earlier]) != bits) --earlier;
        if (earlier >= 0) {
            const int period = round - earlier;
            g = exponents[earlier + (kExponentIterations - earlier) % period];
            break;
        }
    }
    if (g > kLargestExponent) g = kLargestExponent;

    gamma_table(white, g, gamma.get());
    for (int v = 0; v <= white; ++v) composed[v] = gamma[std::min<int>(stretch[v], white)];
    return apply_table(src, dst, height, width, white, composed.get());
}

}  // namespace krf::tone
