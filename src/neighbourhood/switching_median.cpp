// "SMF": a switching median. The image's own noise is measured per grey level
// (the spread of samples around their 3 × 3 median in the central region),
// a straight line models how the variance changes with the level, and only
// samples farther from their median than both a relative threshold and a
// multiple of the modelled noise are replaced by that median. If that would
// touch too many samples the image is not impulse-noise-like and the filter
// refuses, leaving the output alone.
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "neighbourhood/median.h"
#include "platform/memory.h"
#include "platform/vector_targets.h"
#include "tone/tone.h"

namespace krf {
namespace {

// The noise samples of one grey level: at most `capacity` of the level's
// central-region samples, spread evenly over the region by a phase walk.
struct LevelStore {
    double step;             // capacity / samples at this level
    std::int64_t words;      // first word of the level's kept-occurrence bits, then the next to read
    std::int32_t capacity;   // 0 when the level is not analysed
    std::int32_t first;      // first slot of the level's values
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

// Q1 and Q3 of a level's values: the values of 0-based sorted ranks q − 1 and
// 3q − 1. Noise differences mostly span a short range, and then counting them
// finds both ranks in two passes; a wide spread falls back to selection. Both
// give the same two values.
constexpr int kCountedSpan = 4096;
// `counts`: kCountedSpan zeros, left as zeros.
void quartiles(std::int32_t* values, int n, int q, int* counts, double* q1, double* q3) {
    std::int32_t low = values[0], high = values[0];
    for (int j = 1; j < n; ++j) {
        low = values[j] < low ? values[j] : low;
        high = values[j] > high ? values[j] : high;
    }
    if (static_cast<std::int64_t>(high) - low < kCountedSpan) {
        for (int j = 0; j < n; ++j) ++counts[values[j] - low];
        int below = 0;
        int value = 0;
        while (below + counts[value] <= q - 1) below += counts[value++];
        *q1 = static_cast<double>(low + value);
        while (below + counts[value] <= 3 * q - 1) below += counts[value++];
        *q3 = static_cast<double>(low + value);
        std::memset(counts, 0, static_cast<std::size_t>(high - low + 1) * sizeof(int));
        return;
    }
    // Q3 first; the q-th smallest then lies among the 3q − 1 values left of it.
    *q3 = select_smallest(values, n, 3 * q);
    *q1 = select_smallest(values, 3 * q - 1, q);
}

// The phase walk of one level over its central occurrences, run per level
// ahead of the image pass so that the pass itself needs no floating point and
// no branch per sample: bit k of `bits` is set when the k-th occurrence is
// kept. The walk stops when the store is full; later occurrences are not kept.
void mark_kept_occurrences(const LevelStore& store, std::int64_t seen, std::uint64_t* bits) {
    double phase = 0.0;
    std::int32_t count = 0;
    std::uint64_t word = 0;
    std::int64_t k = 0;
    for (; k < seen && count < store.capacity; ++k) {
        const double next = phase + store.step;
        const bool kept =
            static_cast<std::int64_t>(phase) != static_cast<std::int64_t>(next) || count == store.capacity - 1;
        word |= static_cast<std::uint64_t>(kept) << (k & 63);
        count += kept;
        phase = next;
        if ((k & 63) == 63) {
            bits[k >> 6] = word;
            word = 0;
        }
    }
    if ((k & 63) != 0) bits[k >> 6] = word;
}

#if KRF_X86
// The same walks eight levels at a time, one per lane: the same additions and
// truncations per level, so the same bits. The phase stays below 2^31 (it
// ends near the capacity), so truncating it to 32 bits is exact. The lanes
// step through 64 occurrences together, so that each lane's word of bits
// fills at the same pace; a lane whose walk has ended takes the next level
// at the end of the block. Each level's chain of additions is as long as
// before, but eight chains run side by side.
__attribute__((target("avx512f,avx512vl"))) void mark_kept_in_lanes_avx512(const LevelStore* stores,
                                                                         const std::int64_t* seen, int levels,
                                                                         std::uint64_t* bits) {
    constexpr int kLanes = 8;
    alignas(64) double phase[kLanes] = {}, step[kLanes] = {};
    alignas(32) std::int32_t truncated[kLanes] = {}, count[kLanes] = {}, capacity[kLanes] = {},
                             in_block[kLanes] = {};
    alignas(64) std::uint64_t word[kLanes];
    std::int64_t remaining[kLanes] = {}, next_word[kLanes] = {};
    bool busy[kLanes] = {};
    int next_level = 0;
    const auto refill = [&](int lane) {
        while (next_level < levels && stores[next_level].capacity == 0) ++next_level;
        busy[lane] = next_level < levels;
        capacity[lane] = 0;  // an idle lane is never active
        if (!busy[lane]) return;
        const LevelStore& store = stores[next_level];
        phase[lane] = 0.0;
        step[lane] = store.step;
        truncated[lane] = 0;
        count[lane] = 0;
        capacity[lane] = store.capacity;
        remaining[lane] = seen[next_level];
        next_word[lane] = store.words;
        ++next_level;
    };
    for (int lane = 0; lane < kLanes; ++lane) refill(lane);
    const __m256i one = _mm256_set1_epi32(1);
    for (;;) {
        bool any = false;
        for (int lane = 0; lane < kLanes; ++lane) {
            any |= busy[lane];
            in_block[lane] = static_cast<std::int32_t>(remaining[lane] < 64 ? remaining[lane] : 64);
        }
        if (!any) return;
        __m512d phase_v = _mm512_load_pd(phase);
        const __m512d step_v = _mm512_load_pd(step);
        __m256i truncated_v = _mm256_load_si256(reinterpret_cast<const __m256i*>(truncated));
        __m256i count_v = _mm256_load_si256(reinterpret_cast<const __m256i*>(count));
        const __m256i capacity_v = _mm256_load_si256(reinterpret_cast<const __m256i*>(capacity));
        const __m256i last_slot_v = _mm256_sub_epi32(capacity_v, one);
        const __m256i in_block_v = _mm256_load_si256(reinterpret_cast<const __m256i*>(in_block));
        __m256i j_v = _mm256_setzero_si256();
        __m512i word_v = _mm512_setzero_si512();
        __m512i bit_v = _mm512_set1_epi64(1);
        for (int j = 0; j < 64; ++j) {
            const __m512d next = _mm512_add_pd(phase_v, step_v);
            const __m256i next_truncated = _mm512_maskz_cvttpd_epi32(0xFF, next);
            const __mmask8 active =
                _mm256_cmplt_epi32_mask(count_v, capacity_v) & _mm256_cmplt_epi32_mask(j_v, in_block_v);
            const __mmask8 kept = (_mm256_cmpneq_epi32_mask(next_truncated, truncated_v) |
                                   _mm256_cmpeq_epi32_mask(count_v, last_slot_v)) &
                                  active;
            count_v = _mm256_mask_add_epi32(count_v, kept, count_v, one);
            word_v = _mm512_mask_or_epi64(word_v, kept, word_v, bit_v);
            bit_v = _mm512_add_epi64(bit_v, bit_v);
            j_v = _mm256_add_epi32(j_v, one);
            phase_v = next;
            truncated_v = next_truncated;
        }
        _mm512_store_pd(phase, phase_v);
        _mm256_store_si256(reinterpret_cast<__m256i*>(truncated), truncated_v);
        _mm256_store_si256(reinterpret_cast<__m256i*>(count), count_v);
        _mm512_store_si512(word, word_v);
        for (int lane = 0; lane < kLanes; ++lane) {
            if (!busy[lane]) continue;
            bits[next_word[lane]++] = word[lane];
            remaining[lane] -= 64;
            if (remaining[lane] <= 0 || count[lane] >= capacity[lane]) refill(lane);
        }
    }
}
#endif

// Measures the noise of `input` around `median` and fits the variance line.
// Returns 0 or kNoBuffer.
int estimate_noise(Rows median, Rows input, int height, int width, int white, const SmfSettings& s,
                   MedianIsa isa, NoiseModel* model) {
    const int levels = white + 1;
    const int r0 = static_cast<int>(height * s.marginLow - 1 + 0.5);
    const int r1 = static_cast<int>(s.marginHigh * height + 0.5);
    const int c0 = static_cast<int>(width * s.marginLow - 1 + 0.5);
    const int c1 = static_cast<int>(s.marginHigh * width + 0.5);
    // Samples above the white level count as white, a level never analysed.
    const auto level_of = [white](Sample v) { return v > white ? white : static_cast<int>(v); };

    // Counted in two halves, even and odd columns, then added: neighbouring
    // samples often share a level, and one counter per level would make each
    // count wait for the one before.
    ScratchArray<std::int64_t> histogram;
    if (!histogram.allocate(2 * static_cast<std::int64_t>(levels))) return kNoBuffer;
    std::int64_t* odd_columns = histogram.get() + levels;
    for (int r = r0; r < r1; ++r) {
        const Sample* m_row = median[r];
        int c = c0;
        for (; c + 1 < c1; c += 2) {
            ++histogram[level_of(m_row[c])];
            ++odd_columns[level_of(m_row[c + 1])];
        }
        if (c < c1) ++histogram[level_of(m_row[c])];
    }
    for (int level = 0; level < levels; ++level) histogram[level] += odd_columns[level];

    // Every analysed level gets its slots plus one spare, which takes the
    // values the sampling pass writes once the level's store is full.
    ScratchArray<LevelStore> stores;
    if (!stores.allocate(levels)) return kNoBuffer;
    std::int64_t slots = 0;
    std::int64_t words = 0;
    for (int level = s.firstLevel; level < white; ++level) {
        const std::int64_t seen = histogram[level];
        const int capacity = static_cast<int>(seen < s.maxSamples ? seen : s.maxSamples);
        if (capacity <= s.minSamples) continue;
        LevelStore& store = stores[level];
        store.capacity = capacity;
        store.step = static_cast<double>(capacity) / static_cast<double>(seen);
        store.first = static_cast<std::int32_t>(slots);
        store.words = words;
        slots += capacity + 1;
        words += (seen + 63) / 64;
    }
    // The kept samples are held as their 16-bit values, a quarter of the
    // memory of doubles, so that the pass's scattered writes touch fewer cache
    // lines; an analysed level lies below white, so the median of each is the
    // level itself and the noise difference is the value less the level.
    ScratchArray<Sample> values;
    ScratchArray<std::uint64_t> kept;
    if (!values.allocate(slots) || !kept.allocate(words + 1)) return kNoBuffer;
#if KRF_X86
    if (isa == MedianIsa::avx512bw) {
        mark_kept_in_lanes_avx512(stores.get(), histogram.get(), levels, kept.get());
    } else
#endif
    {
        for (int level = 0; level < levels; ++level)
            if (stores[level].capacity != 0)
                mark_kept_occurrences(stores[level], histogram[level], kept.get() + stores[level].words);
    }

    // What the pass over the samples reads and writes per level, 16 bytes
    // apart: the kept-bits of the level's next occurrences (the rest of the
    // current word), how many of them are left, and the next slot (-1 when
    // the level is not analysed). Neighbouring samples touch many levels, and
    // the level record plus a separate word of bits would spread them over
    // more cache lines.
    struct Cursor {
        std::uint64_t bits;
        std::int32_t left;
        std::int32_t slot;
    };
    ScratchArray<Cursor> cursors;
    if (!cursors.allocate(levels)) return kNoBuffer;
    for (int level = 0; level < levels; ++level) {
        LevelStore& store = stores[level];
        cursors[level] = store.capacity == 0 ? Cursor{0, 0, -1} : Cursor{kept[store.words++], 64, store.first};
    }
    for (int r = r0; r < r1; ++r) {
        const Sample* m_row = median[r];
        const Sample* v_row = input[r];
        for (int c = c0; c < c1; ++c) {
            const int level = level_of(m_row[c]);
            Cursor& cursor = cursors[level];
            if (cursor.slot < 0) continue;
            // Written either way, without a branch: a value not kept is
            // overwritten by the next kept one, or lies past the level's
            // filled slots.
            values[cursor.slot] = v_row[c];
            cursor.slot += static_cast<std::int32_t>(cursor.bits & 1);
            cursor.bits >>= 1;
            // The word after a level's last one may be read (one word is
            // spare at the end), never used.
            if (--cursor.left == 0) cursor = Cursor{kept[stores[level].words++], 64, cursor.slot};
        }
    }

    // The differences are integers: held as 32-bit integers, their order
    // statistics, fences and squares come out exactly as from double copies.
    ScratchArray<double> variance;
    ScratchArray<int> counts;
    ScratchArray<std::int32_t> differences;
    if (!variance.allocate(levels) || !counts.allocate(kCountedSpan) || !differences.allocate(s.maxSamples))
        return kNoBuffer;
    for (int level = 0; level < white; ++level) {
        const LevelStore& store = stores[level];
        if (store.capacity == 0) continue;
        // All slots count, including any the walk left unfilled: those hold
        // a difference of 0.
        std::int32_t* level_values = differences.get();
        const int n = store.capacity;
        const auto filled = static_cast<int>(cursors[level].slot - store.first);
        for (int j = 0; j < n; ++j) level_values[j] = j < filled ? values[store.first + j] - level : 0;
        const int q = static_cast<int>(n * 0.25 + 0.5);
        double q1, q3;
        quartiles(level_values, n, q, counts.get(), &q1, &q3);
        const double fence = (q3 - q1) * s.fenceFactor;
        // The squares are integers far below 2^53, so the sum is exact in any
        // order and the reordering done by the selection does not matter.
        double sum = 0.0;
        int count = 0;
        for (int j = 0; j < n; ++j) {
            const double v = level_values[j];
            const bool inside = q1 - fence <= v && v <= q3 + fence;
            sum += inside ? v * v : 0.0;
            count += inside;
        }
        if (sum != 0.0) variance[level] = sum / count;
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
// max(relThreshold·m, noiseFactor·T). d is an integer, so that is d > the
// returned tolerance, trunc(threshold). The relative term is never negative,
// so neither is the threshold; a NaN threshold (degenerate fit) or one of
// 65535 and above never triggers, which the tolerance 65535 expresses.
std::uint16_t replacement_tolerance(const SmfSettings& s, int m, double noise) {
    const double relative = s.relThreshold * m;
    const double scaled = s.noiseFactor * noise;
    const double threshold = relative > scaled ? relative : scaled;
    if (!(threshold < 65535.0)) return 65535;
    return static_cast<std::uint16_t>(threshold < 0.0 ? 0.0 : threshold);
}

// The judgement of one row: bit k of word j of `replaced` is set when sample
// 32 j + k is to be replaced by its median. `limit` holds the row's
// tolerances as looked up by the table applier (clamped to white); medians
// above white (rare) take their own tolerance, computed in place. Returns
// the row's number of replacements.
struct RowJudgement {
    const Sample* median;
    const Sample* value;
    Sample* limit;
    int width;
    int white;
    const SmfSettings* settings;
    double noise_at_white;
};

void fix_tolerances_above_white(const RowJudgement& row, int first, int end) {
    for (int c = first; c < end; ++c)
        if (row.median[c] > row.white)
            row.limit[c] = replacement_tolerance(*row.settings, row.median[c], row.noise_at_white);
}

// Samples [first, width) of the row, word by word from first (a multiple of 32).
std::int64_t judge_samples_portable(const RowJudgement& row, int first, std::uint32_t* replaced) {
    fix_tolerances_above_white(row, first, row.width);
    std::int64_t count = 0;
    for (int c = first; c < row.width; c += 32) {
        const int end = c + 32 < row.width ? c + 32 : row.width;
        std::uint32_t word = 0;
        for (int k = c; k < end; ++k) {
            const Sample m = row.median[k], v = row.value[k];
            const Sample difference = v > m ? v - m : m - v;
            word |= static_cast<std::uint32_t>(difference > row.limit[k]) << (k - c);
        }
        replaced[c / 32] = word;
        count += std::popcount(word);
    }
    return count;
}

// out = median where the bit is set, the value elsewhere, from sample `first`.
void select_samples_portable(const Sample* median, const Sample* value, Sample* out, int first, int width,
                             const std::uint32_t* replaced) {
    for (int c = first; c < width; ++c) out[c] = (replaced[c / 32] >> (c % 32)) & 1 ? median[c] : value[c];
}

using JudgeRowKernel = std::int64_t (*)(const RowJudgement&, std::uint32_t*);
using SelectRowKernel = void (*)(const Sample*, const Sample*, Sample*, int, const std::uint32_t*);

std::int64_t judge_row_portable(const RowJudgement& row, std::uint32_t* replaced) {
    return judge_samples_portable(row, 0, replaced);
}
void select_row_portable(const Sample* median, const Sample* value, Sample* out, int width,
                         const std::uint32_t* replaced) {
    select_samples_portable(median, value, out, 0, width, replaced);
}

#if KRF_X86
// 32 samples per step: the comparison's mask register is the word of bits.
__attribute__((target("avx512bw,avx512vl"))) std::int64_t judge_row_avx512(const RowJudgement& row,
                                                                         std::uint32_t* replaced) {
    const __m512i white = _mm512_set1_epi16(static_cast<short>(row.white));
    std::int64_t count = 0;
    int c = 0;
    for (; c + 32 <= row.width; c += 32) {
        const __m512i m = _mm512_loadu_si512(row.median + c);
        const __m512i v = _mm512_loadu_si512(row.value + c);
        if (_mm512_cmpgt_epu16_mask(m, white) != 0) fix_tolerances_above_white(row, c, c + 32);
        const __m512i difference = _mm512_sub_epi16(_mm512_max_epu16(m, v), _mm512_min_epu16(m, v));
        const __mmask32 word = _mm512_cmpgt_epu16_mask(difference, _mm512_loadu_si512(row.limit + c));
        replaced[c / 32] = word;
        count += std::popcount(static_cast<std::uint32_t>(word));
    }
    return count + judge_samples_portable(row, c, replaced);
}

__attribute__((target("avx512bw,avx512vl"))) void select_row_avx512(const Sample* median, const Sample* value,
                                                                  Sample* out, int width,
                                                                  const std::uint32_t* replaced) {
    int c = 0;
    for (; c + 32 <= width; c += 32) {
        // Both are read before the output is written, so in-place calls stay exact.
        const __m512i m = _mm512_loadu_si512(median + c);
        const __m512i v = _mm512_loadu_si512(value + c);
        _mm512_storeu_si512(out + c, _mm512_mask_blend_epi16(replaced[c / 32], v, m));
    }
    select_samples_portable(median, value, out, c, width, replaced);
}
#endif

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

    // The result differs from the input only where a sample is replaced by
    // its median, so no working copy is kept: the replacements are counted
    // first, and the output is written in a second pass only when the share
    // is accepted. The input is read, never written, until then, which keeps
    // in-place calls exact.
    Raster median;
    if (median.allocate(height, width) != 0) return kSmfNoRaster;
    median_3x3(src, median.rows(), height, width, isa);

    // Without a finished estimation there is no noise model to apply: stop
    // with the estimation's code.
    NoiseModel model{};
    if (const int code = estimate_noise(median.rows(), src, height, width, white, settings, isa, &model); code != 0)
        return code;

    // Per-level tolerances; samples above the white level take the white
    // level's noise (their relative threshold still uses their own value).
    ScratchArray<Sample> tolerance;
    ScratchArray<Sample> limit;
    if (!tolerance.allocate(static_cast<std::int64_t>(white) + 1) || !limit.allocate(width)) return kNoBuffer;
    for (int level = 0; level <= white; ++level)
        tolerance[level] = replacement_tolerance(settings, level, noise_threshold(model, level));
    const double noise_at_white = noise_threshold(model, white);

    // One bit per sample says whether it is replaced: the judgement is made
    // once, in the counting pass, and the writing pass only selects.
    const std::int64_t words_per_row = (static_cast<std::int64_t>(width) + 31) / 32;
    ScratchArray<std::uint32_t> replaced_bits;
    if (!replaced_bits.allocate(words_per_row * height)) return kNoBuffer;
    const tone::TableRowKernel look_up = isa == MedianIsa::portable ? tone::apply_table_row_portable
                                                                     : tone::active_table_row_kernel();
    JudgeRowKernel judge_row = judge_row_portable;
    SelectRowKernel select_row = select_row_portable;
#if KRF_X86
    if (isa == MedianIsa::avx512bw) {
        judge_row = judge_row_avx512;
        select_row = select_row_avx512;
    }
#endif
    std::int64_t replaced = 0;
    for (int r = 0; r < height; ++r) {
        look_up(median[r], limit.get(), width, static_cast<Sample>(white), tolerance.get());
        const RowJudgement row{median[r], src[r], limit.get(), width, white, &settings, noise_at_white};
        replaced += judge_row(row, replaced_bits.get() + r * words_per_row);
    }
    const double percent =
        static_cast<double>(replaced) / static_cast<double>(static_cast<std::int64_t>(height) * width) * 100.0;
    if (!(percent < settings.maxReplacedPercent)) return kSmfRefused;
    for (int r = 0; r < height; ++r)
        select_row(median[r], src[r], dst[r], width, replaced_bits.get() + r * words_per_row);
    return 0;
}

}  // namespace krf
