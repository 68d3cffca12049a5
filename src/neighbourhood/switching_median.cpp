// "SMF": a switching median. The image's own noise is measured per grey level
// (the spread of samples around their 3 × 3 median in the central region),
// a straight line models how the variance changes with the level, and only
// samples farther from their median than both a relative threshold and a
// multiple of the modelled noise are replaced by that median. If that would
// touch too many samples the image is not impulse-noise-like and the filter
// refuses, leaving the output alone.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "neighbourhood/median.h"
#include "platform/memory.h"

namespace krf {
namespace {

// The noise samples of one grey level: at most `capacity` of the level's
// central-region samples, spread evenly over the region by the phase walk.
struct LevelStore {
    double phase;
    double step;
    int count;
    int capacity;          // 0 when the level is not analysed
    std::int32_t* values;  // sample minus its median
    unsigned char* keep;   // 1 while the value lies inside the outlier fences
};

// The k-th smallest (1-based) of a[0 .. n), by Hoare-partition selection. The
// values are reordered; every value left of the result is not larger than it.
template <class T>
T select_smallest(T* a, int n, int k) {
    int left = 0;
    int right = n - 1;
    while (left < right) {
        const T pivot = a[left];
        int i = left - 1;
        int j = right + 1;
        for (;;) {
            do --j;
            while (a[j] > pivot);
            do ++i;
            while (a[i] < pivot);
            if (i >= j) break;
            const T swap = a[i];
            a[i] = a[j];
            a[j] = swap;
        }
        const int lower = j - left + 1;
        if (k > lower) {
            k -= lower;
            left = j + 1;
        } else {
            right = j;
        }
    }
    return a[left];
}

// L·L as a 32-bit signed product: above level 46340 it wraps, and the fit
// deliberately keeps the wrapped value. Unsigned arithmetic makes the wrap
// well defined.
double wrapped_square(int level) {
    const auto square = static_cast<std::uint32_t>(level) * static_cast<std::uint32_t>(level);
    return static_cast<double>(static_cast<std::int32_t>(square));
}

struct NoiseModel {
    double slope;   // b of V ≈ a + b·L
    double level;   // x0 = −a / b, where the modelled variance reaches zero
};

// Measures the noise of `copy` around `median` and fits the variance line.
// Returns 0 or kNoBuffer.
int estimate_noise(Rows median, Rows copy, int height, int width, int white, const SmfSettings& s,
                   NoiseModel* model) {
    const int levels = white + 1;
    const int r0 = static_cast<int>(height * s.marginLow - 1 + 0.5);
    const int r1 = static_cast<int>(s.marginHigh * height + 0.5);
    const int c0 = static_cast<int>(width * s.marginLow - 1 + 0.5);
    const int c1 = static_cast<int>(s.marginHigh * width + 0.5);
    // Samples above the white level count as white, a level never analysed.
    const auto level_of = [white](Sample v) { return v > white ? white : static_cast<int>(v); };

    ScratchArray<std::int64_t> histogram;
    if (!histogram.allocate(levels)) return kNoBuffer;
    for (int r = r0; r < r1; ++r)
        for (int c = c0; c < c1; ++c) ++histogram[level_of(median[r][c])];

    ScratchArray<LevelStore> stores;
    if (!stores.allocate(levels)) return kNoBuffer;
    std::int64_t pooled = 0;
    for (int level = s.firstLevel; level < white; ++level) {
        const std::int64_t seen = histogram[level];
        const int capacity = static_cast<int>(seen < s.maxSamples ? seen : s.maxSamples);
        if (capacity <= s.minSamples) continue;
        stores[level].capacity = capacity;
        stores[level].step = static_cast<double>(capacity) / static_cast<double>(seen);
        pooled += capacity;
    }
    // One block for the values of all analysed levels and one for their flags.
    // The differences are integers: held as 32-bit integers they take half
    // the memory of doubles, and their order statistics, fences and squares
    // come out exactly as from double copies.
    ScratchArray<std::int32_t> values;
    ScratchArray<unsigned char> keep;
    if (!values.allocate(pooled) || !keep.allocate(pooled)) return kNoBuffer;
    for (std::int64_t level = 0, next = 0; level < levels; ++level) {
        if (stores[level].capacity == 0) continue;
        stores[level].values = values.get() + next;
        stores[level].keep = keep.get() + next;
        next += stores[level].capacity;
    }

    for (int r = r0; r < r1; ++r) {
        for (int c = c0; c < c1; ++c) {
            const Sample m = median[r][c];
            LevelStore& store = stores[level_of(m)];
            // A full store keeps nothing more, so its phase no longer matters.
            if (store.count >= store.capacity) continue;
            const double next = store.phase + store.step;
            if (static_cast<std::int64_t>(store.phase) != static_cast<std::int64_t>(next) ||
                store.count == store.capacity - 1)
                store.values[store.count++] = static_cast<int>(copy[r][c]) - static_cast<int>(m);
            store.phase = next;
        }
    }

    ScratchArray<double> variance;
    if (!variance.allocate(levels)) return kNoBuffer;
    for (int level = 0; level < white; ++level) {
        LevelStore& store = stores[level];
        if (store.capacity == 0) continue;
        // All slots count, including any the walk left at zero.
        const int n = store.capacity;
        const int q = static_cast<int>(n * 0.25 + 0.5);
        // Q3 first; the q-th smallest then lies among the 3q − 1 values left of it.
        const double q3 = select_smallest(store.values, n, 3 * q);
        const double q1 = select_smallest(store.values, 3 * q - 1, q);
        const double fence = (q3 - q1) * s.fenceFactor;
        // The squares are integers far below 2^53, so the sum is exact in any
        // order and the reordering done by the selection does not matter.
        double sum = 0.0;
        int kept = 0;
        for (int j = 0; j < n; ++j) {
            const double v = store.values[j];
            store.keep[j] = (q1 - fence <= v && v <= q3 + fence) ? 1 : 0;
            if (store.keep[j]) {
                sum += v * v;
                ++kept;
            }
        }
        if (sum != 0.0) variance[level] = sum / kept;
    }

    double n = 0.0, sum_l = 0.0, sum_l2 = 0.0, sum_v = 0.0, sum_lv = 0.0;
    for (int level = s.firstFitLevel; level < white; ++level) {
        if (variance[level] == 0.0) continue;
        n += 1.0;
        sum_l += level;
        sum_l2 += wrapped_square(level);
        sum_v += variance[level];
        sum_lv += level * variance[level];
    }
    model->slope = (n * sum_lv - sum_l * sum_v) / (n * sum_l2 - sum_l * sum_l);
    model->level = (sum_v * sum_l2 - sum_l * sum_lv) / (sum_l * sum_v - n * sum_lv);
    return 0;
}

// Modelled noise standard deviation at a level: sqrt(a + b·L) below x0 for a
// falling variance, never positive for a rising one. A degenerate fit gives
// NaN here (the comparison keeps a NaN ratio), and NaN replaces nothing.
double noise_threshold(const NoiseModel& model, int level) {
    const double ratio = (level - model.level) / model.slope;
    return -model.slope * std::sqrt(ratio < 0.0 ? 0.0 : ratio);
}

// A sample differing from its median m by d is replaced when d exceeds
// max(relThreshold·m, noiseFactor·T). d is an integer, so that is d >= the
// returned limit; a limit above 65535 never triggers.
constexpr int kNeverReplaced = 65536;
int replacement_limit(const SmfSettings& s, int m, double noise) {
    const double relative = s.relThreshold * m;
    const double scaled = s.noiseFactor * noise;
    const double threshold = relative > scaled ? relative : scaled;
    if (std::isnan(threshold) || threshold >= 65535.0) return kNeverReplaced;
    if (threshold < 0.0) return 0;
    return static_cast<int>(threshold) + 1;
}

}  // namespace

int switching_median(Rows src, Rows dst, int height, int width, int white, SmfSettings& settings,
                     MedianIsa isa) noexcept {
    // Images carry 16-bit white levels; anything else is held to that range.
    white = white < 0 ? 0 : white > 65535 ? 65535 : white;
    settings.marginLow = 0.1;
    settings.marginHigh = 0.9;
    settings.relThreshold = 0.03;
    settings.noiseFactor = 6.0;
    settings.maxReplacedPercent = 2.0;
    settings.fenceFactor = 3.0;
    settings.minSamples = 250;
    settings.maxSamples = 500;
    settings.firstLevel = white == 255 ? 5 : 80;
    settings.firstFitLevel = white == 255 ? 5 : 80;

    // An empty image has nothing to replace (its share of replaced samples
    // would be 0 / 0).
    if (height <= 0 || width <= 0) return 0;

    Raster median;
    Raster copy;
    if (median.allocate(height, width) != 0 || copy.allocate(height, width) != 0) return kSmfNoRaster;
    for (int r = 0; r < height; ++r) std::memcpy(copy[r], src[r], static_cast<std::size_t>(width) * sizeof(Sample));
    median_3x3(copy.rows(), median.rows(), height, width, isa);

    // Without a finished estimation there is no noise model to apply: stop
    // with the estimation's code.
    NoiseModel model{};
    if (const int code = estimate_noise(median.rows(), copy.rows(), height, width, white, settings, &model); code != 0)
        return code;

    // Per-level limits; samples above the white level take the white level's
    // noise (their relative threshold still uses their own value).
    ScratchArray<int> limits;
    if (!limits.allocate(static_cast<std::int64_t>(white) + 1)) return kNoBuffer;
    for (int level = 0; level <= white; ++level)
        limits[level] = replacement_limit(settings, level, noise_threshold(model, level));
    const double noise_at_white = noise_threshold(model, white);

    std::int64_t replaced = 0;
    for (int r = 0; r < height; ++r) {
        const Sample* m_row = median[r];
        Sample* c_row = copy[r];
        for (int c = 0; c < width; ++c) {
            const int m = m_row[c];
            const int limit = m <= white ? limits[m] : replacement_limit(settings, m, noise_at_white);
            if (std::abs(c_row[c] - m) >= limit) {
                c_row[c] = static_cast<Sample>(m);
                ++replaced;
            }
        }
    }

    const double percent =
        static_cast<double>(replaced) / static_cast<double>(static_cast<std::int64_t>(height) * width) * 100.0;
    if (!(percent < settings.maxReplacedPercent)) return kSmfRefused;
    for (int r = 0; r < height; ++r) std::memcpy(dst[r], copy[r], static_cast<std::size_t>(width) * sizeof(Sample));
    return 0;
}

}  // namespace krf
