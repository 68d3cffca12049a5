// "median2D": the exact median of a square window of odd side.
//
// 3 × 3 and 5 × 5 run fixed min/max networks over whole rows of 16-bit lanes;
// the 5 × 5 path sorts each window column once and shares it between the
// five windows that contain it. Larger windows slide a histogram of all 65536 grey levels over the
// image (Huang's method), so a step costs one window column in and one out
// instead of a selection over the whole window; from 25 × 25 on, images of at
// most 4096 grey levels use per-column counts in buckets instead, whose cost
// does not grow with the window. Every method yields the exact median.
#include "neighbourhood/median.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "neighbourhood/median_lanes.h"
#include "platform/memory.h"
#include "platform/platform.h"

namespace krf {

MedianIsa best_median_isa() noexcept {
    const platform::CpuFeatures& cpu = platform::cpu_features();
    if (cpu.avx512bw) return MedianIsa::avx512bw;
    if (cpu.avx2) return MedianIsa::avx2;
    return MedianIsa::portable;
}

bool median_isa_available(MedianIsa isa) noexcept {
    const platform::CpuFeatures& cpu = platform::cpu_features();
    switch (isa) {
        case MedianIsa::avx512bw: return cpu.avx512bw;
        case MedianIsa::avx2: return cpu.avx2;
        case MedianIsa::portable: return true;
    }
    return false;
}

namespace {

using namespace lanes;

void copy_samples(Sample* dst, const Sample* src, std::int64_t count) {
    // memmove: a host may pass the same rows as input and output.
    if (count > 0) std::memmove(dst, src, static_cast<std::size_t>(count) * sizeof(Sample));
}

// ---------------------------------------------------------------------------
// 3 × 3: sort the three samples of each window column, then the median of
// the nine is the median of (largest minimum, median of medians, smallest
// maximum). The AVX2 and AVX-512 kernels sort each column once and hand it to
// the neighbouring windows with shuffles of two registers (below); the
// portable kernel redoes the three column sorts for every vector of outputs,
// since SSE2 has no such shuffle and its emulation measured twice as slow.
// Sharing the sorts through a buffer, or between two output rows, measured
// slower on every width.

template <class V>
KRF_ALWAYS_INLINE V median_3x3_at(const Sample* up, const Sample* mid, const Sample* down) {
    V lo0 = load<V>(up - 1), md0 = load<V>(mid - 1), hi0 = load<V>(down - 1);
    V lo1 = load<V>(up), md1 = load<V>(mid), hi1 = load<V>(down);
    V lo2 = load<V>(up + 1), md2 = load<V>(mid + 1), hi2 = load<V>(down + 1);
    sort3(lo0, md0, hi0);
    sort3(lo1, md1, hi1);
    sort3(lo2, md2, hi2);
    return median3(vmax(vmax(lo0, lo1), lo2), median3(md0, md1, md2), vmin(vmin(hi0, hi1), hi2));
}

// out[i] = median of the 3 × 3 block centred on column i of `mid`, for i in [0, count).
template <int Bytes>
KRF_ALWAYS_INLINE void median_3x3_row(const Sample* up, const Sample* mid, const Sample* down, Sample* out,
                                      int count) {
    using V = typename lanes::Vector<Bytes>::type;
    for_blocks<lanes::Vector<Bytes>::count>(
        count,
        [&](int i) KRF_INLINE_LAMBDA { store(out + i, median_3x3_at<V>(up + i, mid + i, down + i)); },
        [&](int i) KRF_INLINE_LAMBDA { out[i] = median_3x3_at<Sample>(up + i, mid + i, down + i); });
}

// Lanes Shift ... Shift + count - 1 of the lanes of `here` followed by those
// of `next`. Written as a generic shuffle, so that it compiles for whatever
// width the caller's target has (a two-register word permute on AVX-512).
template <int Shift, class V, std::size_t... I>
KRF_ALWAYS_INLINE V lanes_from(const V& here, const V& next, std::index_sequence<I...>) {
#if defined(__clang__)
    return __builtin_shufflevector(here, next, (static_cast<int>(I) + Shift)...);
#else
    return __builtin_shuffle(here, next, V{static_cast<Sample>(I + Shift)...});
#endif
}

// The three rows' samples from column `at` on, sorted column by column.
template <class V>
struct SortedColumns {
    V lo, md, hi;
    KRF_ALWAYS_INLINE SortedColumns(const Sample* u, const Sample* m, const Sample* d, int at)
        : lo(load<V>(u + at)), md(load<V>(m + at)), hi(load<V>(d + at)) {
        sort3(lo, md, hi);
    }
};

// With 16 or 32 lanes the nine loads and thirty min/max operations per vector
// are the cost, so each column of three is sorted once and handed to its two
// neighbouring windows by a shuffle of two registers instead of being loaded
// and sorted again. The loop stops where the next vector of columns would
// pass the row's end; the rest goes through the plain kernel.
template <int Bytes>
KRF_ALWAYS_INLINE void median_3x3_row_shared(const Sample* u, const Sample* m, const Sample* d, Sample* o, int n) {
    using V = typename lanes::Vector<Bytes>::type;
    constexpr int kLanes = lanes::Vector<Bytes>::count;
    constexpr auto each_lane = std::make_index_sequence<kLanes>{};
    // Block i needs columns i - 1 … i + 2·kLanes - 2 of the outputs'
    // numbering, and column n is the last one the row has (the right border).
    int i = 0;
    if (2 * kLanes - 1 <= n) {
        SortedColumns<V> here(u, m, d, -1);
        for (; i + 2 * kLanes - 1 <= n; i += kLanes) {
            const SortedColumns<V> next(u, m, d, i + kLanes - 1);
            const V lo1 = lanes_from<1>(here.lo, next.lo, each_lane), lo2 = lanes_from<2>(here.lo, next.lo, each_lane);
            const V md1 = lanes_from<1>(here.md, next.md, each_lane), md2 = lanes_from<2>(here.md, next.md, each_lane);
            const V hi1 = lanes_from<1>(here.hi, next.hi, each_lane), hi2 = lanes_from<2>(here.hi, next.hi, each_lane);
            const V middle = median3(here.md, md1, md2);
            store(o + i, median3(vmax(vmax(here.lo, lo1), lo2), middle, vmin(vmin(here.hi, hi1), hi2)));
            here = next;
        }
    }
    if (i < n) median_3x3_row<Bytes>(u + i, m + i, d + i, o + i, n - i);
}

using Row3Kernel = void (*)(const Sample*, const Sample*, const Sample*, Sample*, int);
void median_3x3_row_portable(const Sample* u, const Sample* m, const Sample* d, Sample* o, int n) {
    median_3x3_row<16>(u, m, d, o, n);
}
KRF_TARGET_AVX2 void median_3x3_row_avx2(const Sample* u, const Sample* m, const Sample* d, Sample* o, int n) {
    median_3x3_row_shared<32>(u, m, d, o, n);
}
KRF_TARGET_AVX512BW void median_3x3_row_avx512(const Sample* u, const Sample* m, const Sample* d, Sample* o, int n) {
    median_3x3_row_shared<64>(u, m, d, o, n);
}

// ---------------------------------------------------------------------------
// 5 × 5: each window column is sorted once (shared by the five windows that
// contain it). With sorted columns, sorting the 5 × 5 block's rows as well
// would leave the median among 13 candidates; only the parts of the row
// sorts that reach those candidates are computed, then a network picks the
// median of the 13. The networks were found by pruning merge networks
// against every 0/1 input consistent with the sorted columns, so by the 0/1
// principle they are exact for all inputs; the tests check them against a
// brute-force median as well.

// Five values sorted in place (nine exchanges).
template <class V>
KRF_ALWAYS_INLINE void sort5(V* v) {
    constexpr int pairs[9][2] = {{0, 1}, {3, 4}, {2, 4}, {2, 3}, {1, 4}, {0, 3}, {0, 2}, {1, 3}, {1, 2}};
    for (const auto& p : pairs) {
        const V a = v[p[0]], b = v[p[1]];
        v[p[0]] = vmin(a, b);
        v[p[1]] = vmax(a, b);
    }
}

// 4th and 5th smallest of five.
template <class V>
KRF_ALWAYS_INLINE void top_two_of_five(const V* v, V& s3, V& s4) {
    const V t0 = vmin(v[3], v[4]), t1 = vmax(v[3], v[4]);
    const V t2 = vmin(v[1], v[2]), t3 = vmax(v[1], v[2]);
    const V t4 = vmin(v[0], t3), t5 = vmax(v[0], t3);
    const V t7 = vmin(t5, t1);
    s4 = vmax(t5, t1);
    s3 = vmax(vmax(t4, t2), vmax(t7, t0));
}

// 3rd, 4th and 5th smallest of five.
template <class V>
KRF_ALWAYS_INLINE void top_three_of_five(const V* v, V& s2, V& s3, V& s4) {
    const V t0 = vmin(v[0], v[2]), t1 = vmax(v[0], v[2]);
    const V t2 = vmin(v[1], v[4]), t3 = vmax(v[1], v[4]);
    const V t4 = vmax(t0, t2);
    const V t5 = vmin(t4, v[3]), t6 = vmax(t4, v[3]);
    const V t7 = vmin(t6, t3), t8 = vmax(t6, t3);
    const V t9 = vmin(t1, t7), t10 = vmax(t1, t7);
    s2 = vmax(t5, t9);
    s3 = vmin(t10, t8);
    s4 = vmax(t10, t8);
}

// 2nd, 3rd and 4th smallest of five.
template <class V>
KRF_ALWAYS_INLINE void middle_three_of_five(const V* v, V& s1, V& s2, V& s3) {
    const V t0 = vmin(v[2], v[4]), t1 = vmax(v[2], v[4]);
    const V t2 = vmin(v[3], t1), t3 = vmax(v[3], t1);
    const V t4 = vmin(v[0], v[1]), t5 = vmax(v[0], v[1]);
    const V t6 = vmin(t4, t3), t7 = vmax(t4, t3);
    const V t8 = vmin(t0, t2), t9 = vmax(t0, t2);
    const V t10 = vmin(t5, t7);
    const V t11 = vmax(t6, t8);
    const V t12 = vmin(t10, t9);
    s3 = vmax(t10, t9);
    s1 = vmin(t12, t11);
    s2 = vmax(t12, t11);
}

// 1st, 2nd and 3rd smallest of five.
template <class V>
KRF_ALWAYS_INLINE void bottom_three_of_five(const V* v, V& s0, V& s1, V& s2) {
    const V t0 = vmin(v[0], v[4]), t1 = vmax(v[0], v[4]);
    const V t2 = vmin(v[2], v[3]), t3 = vmax(v[2], v[3]);
    const V t4 = vmin(v[1], t2), t5 = vmax(v[1], t2);
    const V t6 = vmin(t0, t3), t7 = vmax(t0, t3);
    const V t8 = vmin(t7, t1);
    const V t10 = vmax(t6, t4);
    const V t11 = vmin(t5, t8);
    s0 = vmin(t6, t4);
    s1 = vmin(t10, t11);
    s2 = vmax(t10, t11);
}

// 1st and 2nd smallest of five.
template <class V>
KRF_ALWAYS_INLINE void bottom_two_of_five(const V* v, V& s0, V& s1) {
    const V t0 = vmin(v[0], v[4]), t1 = vmax(v[0], v[4]);
    const V t2 = vmin(v[2], v[3]), t3 = vmax(v[2], v[3]);
    const V t4 = vmin(v[1], t2), t5 = vmax(v[1], t2);
    const V t6 = vmin(t5, t3);
    s0 = vmin(t0, t4);
    s1 = vmin(vmax(t0, t4), vmin(t6, t1));
}

// Median of 25 from five sorted columns: column[k][i] is the i-th smallest
// of window column k. With the rows sorted too, candidate m<i><j> is row i's
// j-th smallest; the six entries above and to the left of the candidates are
// below the median, the six below and to the right above it, so the median is
// the 7th smallest of the 13.
template <class V>
KRF_ALWAYS_INLINE V median_of_sorted_columns(const V (&column)[5][5]) {
    V row[5][5];
    for (int i = 0; i < 5; ++i)
        for (int k = 0; k < 5; ++k) row[i][k] = column[k][i];
    V m03, m04, m12, m13, m14, m21, m22, m23, m30, m31, m32, m40, m41;
    top_two_of_five(row[0], m03, m04);
    top_three_of_five(row[1], m12, m13, m14);
    middle_three_of_five(row[2], m21, m22, m23);
    bottom_three_of_five(row[3], m30, m31, m32);
    bottom_two_of_five(row[4], m40, m41);

    const V t0 = vmin(m03, m12), t1 = vmax(m03, m12);
    const V t2 = vmin(m21, m30), t3 = vmax(m21, m30);
    const V t4 = vmax(t0, t2);
    const V t5 = vmin(t1, t3), t6 = vmax(t1, t3);
    const V t7 = vmax(t5, t4);
    const V t8 = vmin(m04, m13), t9 = vmax(m04, m13);
    const V t10 = vmin(m31, m40), t11 = vmax(m31, m40);
    const V t12 = vmin(m22, t11), t13 = vmax(m22, t11);
    const V t14 = vmin(t12, t10), t15 = vmax(t12, t10);
    const V t16 = vmin(t9, t13);
    const V t17 = vmin(t8, t15), t18 = vmax(t8, t15);
    const V t19 = vmax(t17, t14);
    const V t20 = vmin(t16, t18);
    const V t21 = vmin(t20, t19), t22 = vmax(t20, t19);
    const V t25 = vmin(vmin(m14, m23), vmin(m32, m41));
    const V t26 = vmin(t22, t6), t27 = vmax(t22, t6);
    const V t28 = vmin(t21, t7), t29 = vmax(t21, t7);
    const V t30 = vmax(t26, t28);
    const V t31 = vmin(t27, t29), t32 = vmax(t27, t29);
    const V t33 = vmin(t31, t30), t34 = vmax(t31, t30);
    return vmax(vmax(vmin(t25, t32), t33), t34);
}

// Window columns are sorted a chunk at a time into a small stack buffer that
// stays in the first-level cache; the 5 × 5 path then needs no allocation
// beyond its scratch raster.
constexpr int kChunk = 512;

// out[i] = median of the 5 × 5 block centred on column i of rows[2], i in [0, count);
// the rows point at the first centre column.
template <int Bytes>
KRF_ALWAYS_INLINE void median_5x5_row(const Sample* const* rows, Sample* out, int count) {
    using V = typename lanes::Vector<Bytes>::type;
    constexpr int kLanes = lanes::Vector<Bytes>::count;
    alignas(64) Sample sorted[5][kChunk + 4];
    for (int done = 0; done < count; done += kChunk) {
        const int len = std::min(kChunk, count - done);
        const int first_column = done - 2;  // relative to the first centre column
        const auto sort_column = [&]<class T>(int i) KRF_INLINE_LAMBDA {
            T v[5];
            for (int k = 0; k < 5; ++k) v[k] = load<T>(rows[k] + first_column + i);
            sort5(v);
            for (int k = 0; k < 5; ++k) store(sorted[k] + i, v[k]);
        };
        for_blocks<kLanes>(
            len + 4, [&](int i) KRF_INLINE_LAMBDA { sort_column.template operator()<V>(i); },
            [&](int i) KRF_INLINE_LAMBDA { sort_column.template operator()<Sample>(i); });
        const auto median_at = [&]<class T>(int i) KRF_INLINE_LAMBDA {
            T column[5][5];
            for (int k = 0; k < 5; ++k)
                for (int rank = 0; rank < 5; ++rank) column[k][rank] = load<T>(sorted[rank] + i + k);
            store(out + done + i, median_of_sorted_columns(column));
        };
        for_blocks<kLanes>(
            len, [&](int i) KRF_INLINE_LAMBDA { median_at.template operator()<V>(i); },
            [&](int i) KRF_INLINE_LAMBDA { median_at.template operator()<Sample>(i); });
    }
}

using Row5Kernel = void (*)(const Sample* const*, Sample*, int);
void median_5x5_row_portable(const Sample* const* rows, Sample* out, int n) { median_5x5_row<16>(rows, out, n); }
KRF_TARGET_AVX2 void median_5x5_row_avx2(const Sample* const* rows, Sample* out, int n) {
    median_5x5_row<32>(rows, out, n);
}
KRF_TARGET_AVX512BW void median_5x5_row_avx512(const Sample* const* rows, Sample* out, int n) {
    median_5x5_row<64>(rows, out, n);
}

// ---------------------------------------------------------------------------
// Larger windows: Huang's sliding histogram over the full 16-bit range (the
// handler does not know the white level, and samples may exceed it anyway).
// A step updates one counter per sample that enters or leaves the window;
// the tracked median then walks level by level and skips runs of kRun empty
// levels with one test, so long empty stretches of the 16-bit range are
// crossed kRun levels at a time. Counts per block of kBlockSize levels let
// the walk pass whole blocks, empty or not; they cost a second counter
// update per sample, which queues on the few block counters that smooth
// data hits, so they are kept only where the levels are many for the
// window's samples.

constexpr int kLevels = 65536;
constexpr int kRun = 16;
constexpr int kBlockBits = 6;
constexpr int kBlockSize = 1 << kBlockBits;
constexpr int kBlocks = kLevels / kBlockSize;
constexpr int kLevelsPerSampleForBlocks = 100;

template <class Count, bool kWithBlocks>
class SlidingHistogram {
public:
    // `counts`: zero-filled, one per grey level, followed by one per block of
    // kBlockSize levels when kWithBlocks.
    SlidingHistogram(Count* counts, std::int64_t rank) : counts_(counts), blocks_(counts + kLevels), rank_(rank) {}

    KRF_ALWAYS_INLINE void add(Sample v) {
        ++counts_[v];
        if constexpr (kWithBlocks) ++blocks_[v >> kBlockBits];
        below_ += v < median_;
        if (static_cast<unsigned>(v - gap_low_) < static_cast<unsigned>(gap_high_ - gap_low_)) gap_high_ = gap_low_;
    }
    KRF_ALWAYS_INLINE void remove(Sample v) {
        --counts_[v];
        if constexpr (kWithBlocks) --blocks_[v >> kBlockBits];
        below_ -= v < median_;
    }

    // The value of 0-based rank `rank` among the samples held. below_ counts
    // the samples under median_, so median_ is right when
    // below_ <= rank < below_ + counts_[median_]. The rank lies inside the
    // samples held, so neither walk leaves 0 ... 65535.
    Sample median() {
        int v = median_;
        if (below_ > rank_) {
            do {
                if ((v & (kRun - 1)) == 0) v = skip_empty_runs_down(v);
                below_ -= counts_[--v];
            } while (below_ > rank_);
        } else {
            while (below_ + static_cast<std::int64_t>(counts_[v]) <= rank_) {
                below_ += counts_[v++];
                if ((v & (kRun - 1)) == 0) v = skip_empty_runs_up(v);
            }
        }
        median_ = v;
        return static_cast<Sample>(median_);
    }

private:
    KRF_ALWAYS_INLINE bool run_is_empty(int first) const {
        Count any = 0;
        for (int i = 0; i < kRun; ++i) any |= counts_[first + i];
        return any == 0;
    }

    // From a run boundary, past the empty runs above (below) it. The last
    // long stretch found empty is remembered as the gap [gap_low_,
    // gap_high_) until a sample lands in it: the median of two-valued
    // images (masks) jumps across the same stretch again and again.
    // With block counts, a walk standing at a block boundary also passes
    // whole blocks that the rank lies beyond, empty or not; a stretch so
    // passed is remembered as a gap only if it held no sample.
    int skip_empty_runs_up(int v) {
        if (v == gap_low_) return gap_high_;
        const int start = v;
        bool empty = true;
        for (;;) {
            if constexpr (kWithBlocks) {
                if ((v & (kBlockSize - 1)) == 0 && v < kLevels &&
                    below_ + static_cast<std::int64_t>(blocks_[v >> kBlockBits]) <= rank_) {
                    empty = empty && blocks_[v >> kBlockBits] == 0;
                    below_ += blocks_[v >> kBlockBits];
                    v += kBlockSize;
                    continue;
                }
            }
            if (!run_is_empty(v)) break;
            v += kRun;
        }
        if (empty) remember_gap(start, v);
        return v;
    }
    int skip_empty_runs_down(int v) {
        if (v == gap_high_) return gap_low_;
        const int start = v;
        bool empty = true;
        for (;;) {
            if constexpr (kWithBlocks) {
                if ((v & (kBlockSize - 1)) == 0 && v > 0 &&
                    below_ - static_cast<std::int64_t>(blocks_[(v >> kBlockBits) - 1]) > rank_) {
                    empty = empty && blocks_[(v >> kBlockBits) - 1] == 0;
                    below_ -= blocks_[(v >> kBlockBits) - 1];
                    v -= kBlockSize;
                    continue;
                }
            }
            if (!run_is_empty(v - kRun)) break;
            v -= kRun;
        }
        if (empty) remember_gap(v, start);
        return v;
    }
    void remember_gap(int low, int high) {
        if (high - low >= kLongGap) {
            gap_low_ = low;
            gap_high_ = high;
        }
    }

    static constexpr int kLongGap = 16 * kRun;

    Count* counts_;
    Count* blocks_;
    std::int64_t rank_;
    std::int64_t below_ = 0;
    int median_ = 0;
    int gap_low_ = 0;   // a stretch of levels known to be empty; none while equal
    int gap_high_ = 0;
};

// Medians of the n × n windows (n = 2h + 1) centred on rows [h, height - h)
// and columns [h, width - h), written to dst; the window must fit. The walk
// snakes through the image (left to right, one row down, right to left, ...)
// so that every step exchanges one window column or one window row.
template <class Count, bool kWithBlocks>
void sliding_median(Rows src, Rows dst, int height, int width, int h, Count* counts) {
    const int n = 2 * h + 1;
    SlidingHistogram<Count, kWithBlocks> histogram(counts, (static_cast<std::int64_t>(n) * n - 1) / 2);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) histogram.add(src[y][x]);
    int c = h;
    for (int r = h; r < height - h; ++r) {
        if (r > h) {
            const Sample* leaving = src[r - h - 1] + c - h;
            const Sample* entering = src[r + h] + c - h;
            for (int x = 0; x < n; ++x) {
                histogram.remove(leaving[x]);
                histogram.add(entering[x]);
            }
        }
        dst[r][c] = histogram.median();
        const bool rightwards = ((r - h) & 1) == 0;
        const int end = rightwards ? width - h - 1 : h;
        while (c != end) {
            const int leaving = rightwards ? c - h : c + h;
            const int entering = rightwards ? c + h + 1 : c - h - 1;
            for (int y = r - h; y <= r + h; ++y) {
                histogram.remove(src[y][leaving]);
                histogram.add(src[y][entering]);
            }
            c += rightwards ? 1 : -1;
            dst[r][c] = histogram.median();
        }
    }
}

// ---------------------------------------------------------------------------
// Larger windows over at most 4096 grey levels, counted from the image's
// darkest level: Perreault and Hébert's constant-time median. Every image
// column keeps the counts of its n samples in the window's rows, in 64
// buckets of 64 levels; the window's bucket counts move one column right by
// adding one column's counts and subtracting another's, which costs the same
// for every window size. The level counts of a bucket are summed over the
// window only when the median falls into it, and carried along column by
// column while it stays there. The median's bucket and level are tracked
// from window to window with the count below them, as the sliding histogram
// of the wider range does, so finding them is a short walk. The image is
// taken in vertical stripes whose column counts stay within the L2 cache.

constexpr int kBucketLevels = 64;
constexpr int kBuckets = 64;
constexpr int kBucketedLevels = kBucketLevels * kBuckets;
// The same count helpers serve a window's buckets and a bucket's levels.
constexpr int kBins = kBuckets;
static_assert(kBucketLevels == kBins, "buckets and their levels share the count helpers");
// Window counts reach n·n, which fits 16 bits up to n = 255. Below 25 × 25
// the sliding histogram's per-sample updates cost less than the bucket
// bookkeeping (measured: 7 × 7 176 against 350 ms on the phantom, 15 × 15
// 216 against 297; 31 × 31 346 against 246, and 143 against 94 on the
// radiograph).
constexpr int kMinBucketedSide = 25;
constexpr int kMaxBucketedSide = 255;
// Columns per stripe, window margins included: their counts take about
// 390 KB.
constexpr int kStripeColumns = 94;

// A column's counts reach n, so 8 bits hold them. The level counts are laid
// out bucket by bucket, so that the columns' counts of one bucket, which the
// window's level counts are made of, lie together.
struct StripeCounts {
    std::uint8_t* buckets;  // [column][bucket]
    std::uint8_t* levels;   // [bucket][column][level within the bucket]
    int columns;
    const std::uint8_t* bucket_counts(int column) const { return buckets + column * kBuckets; }
    std::uint8_t* level_counts(int bucket, int column) const {
        return levels + (static_cast<std::int64_t>(bucket) * columns + column) * kBucketLevels;
    }
};

// A tracked position among kBins counts: the bin and the count of the bins below it.
struct TrackedBin {
    int bin = 0;
    int below = 0;
};

struct WindowCounts {
    std::uint16_t buckets[kBuckets];
    TrackedBin bucket;
    std::uint16_t levels[kBuckets][kBucketLevels];
    TrackedBin level[kBuckets];
    int levels_at[kBuckets];  // the window position the level counts of a bucket belong to
};

// to += plus - minus over kBins counters, and the change of the count below
// `bin`; 16-bit wrap-around is harmless since every true count fits.
KRF_ALWAYS_INLINE int move_counts(std::uint16_t* to, const std::uint8_t* plus, const std::uint8_t* minus,
                                  int bin) {
    // 16-bit lanes throughout: a change lies within ±255 and the 64 of them
    // within ±16320.
    std::int16_t change_below = 0;
    for (int i = 0; i < kBins; ++i) {
        const auto change = static_cast<std::int16_t>(plus[i] - minus[i]);
        change_below = static_cast<std::int16_t>(change_below + (i < bin ? change : 0));
        to[i] = static_cast<std::uint16_t>(to[i] + change);
    }
    return change_below;
}
KRF_ALWAYS_INLINE void add_counts(std::uint16_t* to, const std::uint8_t* plus) {
    for (int i = 0; i < kBins; ++i) to[i] = static_cast<std::uint16_t>(to[i] + plus[i]);
}
KRF_ALWAYS_INLINE int count_below(const std::uint16_t* counts, int bin) {
    int below = 0;
    for (int i = 0; i < kBins; ++i) below += i < bin ? counts[i] : 0;
    return below;
}

// Moves `at` to the bin holding 0-based rank `rank` of the counts (the rank
// lies below their total).
KRF_ALWAYS_INLINE void walk_to_rank(const std::uint16_t* counts, int rank, TrackedBin& at) {
    while (at.below > rank) at.below -= counts[--at.bin];
    while (at.below + counts[at.bin] <= rank) at.below += counts[at.bin++];
}

// Medians of the windows centred on rows [h, height - h) and columns
// [first_x, end_x), written to dst. `counts`: for end_x - first_x + 2h
// columns, all zero, and left all zero.
KRF_ALWAYS_INLINE void bucketed_stripe(Rows src, Rows dst, int height, int h, int darkest, int first_x, int end_x,
                                       const StripeCounts& counts, WindowCounts& window) {
    const int n = 2 * h + 1;
    const int rank = (n * n - 1) / 2;
    const int first_column = first_x - h;
    const int column_count = end_x - first_x + 2 * h;
    const auto change_row = [&](int y, int delta) {
        const Sample* row = src[y] + first_column;
        for (int j = 0; j < column_count; ++j) {
            const int level = row[j] - darkest;
            std::uint8_t& bucket = counts.buckets[j * kBuckets + level / kBucketLevels];
            std::uint8_t& count = counts.level_counts(level / kBucketLevels, j)[level % kBucketLevels];
            bucket = static_cast<std::uint8_t>(bucket + delta);
            count = static_cast<std::uint8_t>(count + delta);
        }
    };
    for (int y = 0; y < n; ++y) change_row(y, 1);
    for (int r = h; r < height - h; ++r) {
        if (r > h) {
            change_row(r - h - 1, -1);
            change_row(r + h, 1);
        }
        std::memset(window.buckets, 0, sizeof window.buckets);
        for (int j = 0; j < n; ++j) add_counts(window.buckets, counts.bucket_counts(j));
        window.bucket.below = count_below(window.buckets, window.bucket.bin);
        for (int& at : window.levels_at) at = first_x - n - 1;
        Sample* out = dst[r];
        for (int x = first_x; x < end_x; ++x) {
            const int local = x - first_x;  // the window holds columns local ... local + 2h
            if (x > first_x)
                window.bucket.below += move_counts(window.buckets, counts.bucket_counts(local + 2 * h),
                                                   counts.bucket_counts(local - 1), window.bucket.bin);
            walk_to_rank(window.buckets, rank, window.bucket);
            const int bucket = window.bucket.bin;
            std::uint16_t* levels = window.levels[bucket];
            TrackedBin& level = window.level[bucket];
            int& at = window.levels_at[bucket];
            if (x - at <= h) {
                for (int t = at + 1 - first_x; t <= local; ++t)
                    level.below += move_counts(levels, counts.level_counts(bucket, t + 2 * h),
                                               counts.level_counts(bucket, t - 1), level.bin);
            } else {
                std::memset(levels, 0, kBucketLevels * sizeof(std::uint16_t));
                for (int j = local; j <= local + 2 * h; ++j) add_counts(levels, counts.level_counts(bucket, j));
                level.below = count_below(levels, level.bin);
            }
            at = x;
            walk_to_rank(levels, rank - window.bucket.below, level);
            out[x] = static_cast<Sample>(darkest + bucket * kBucketLevels + level.bin);
        }
    }
    for (int y = height - n; y < height; ++y) change_row(y, -1);
}

int stripe_width(int h) { return std::max(32, kStripeColumns - 2 * h); }

KRF_ALWAYS_INLINE void bucketed_median(Rows src, Rows dst, int height, int width, int h, int darkest,
                                       const StripeCounts& counts) {
    WindowCounts window{};
    const int stripe = stripe_width(h);
    for (int first_x = h; first_x < width - h; first_x += stripe)
        bucketed_stripe(src, dst, height, h, darkest, first_x, std::min(first_x + stripe, width - h), counts,
                        window);
}

void bucketed_median_portable(Rows src, Rows dst, int height, int width, int h, int darkest,
                              const StripeCounts& counts) {
    bucketed_median(src, dst, height, width, h, darkest, counts);
}
KRF_TARGET_AVX512BW void bucketed_median_avx512(Rows src, Rows dst, int height, int width, int h, int darkest,
                                                const StripeCounts& counts) {
    bucketed_median(src, dst, height, width, h, darkest, counts);
}

int median_5x5(Rows src, Rows dst, int height, int width, MedianIsa isa) {
    // The medians go to a scratch raster first so that the output may be the
    // input itself.
    Raster scratch;
    if (const int code = scratch.allocate(height, width); code != 0) return code;
    const Row5Kernel kernel = isa == MedianIsa::avx512bw ? median_5x5_row_avx512
                              : isa == MedianIsa::avx2   ? median_5x5_row_avx2
                                                         : median_5x5_row_portable;
    // Rows 2 ... height-4 and columns 2 ... width-4 only: the filtered area
    // stops one row and one column short of the 5 × 5 interior, and row
    // height-3 and column width-3 keep whatever the output held. That is the
    // filter's established footprint and it is kept as it is.
    const int count = width - 5;
    for (int r = 2; r <= height - 4 && count > 0; ++r) {
        const Sample* const rows[5] = {src[r - 2] + 2, src[r - 1] + 2, src[r] + 2, src[r + 1] + 2, src[r + 2] + 2};
        kernel(rows, scratch[r] + 2, count);
    }
    for (int r = 2; r <= height - 4 && count > 0; ++r) copy_samples(dst[r] + 2, scratch[r] + 2, count);
    copy_median_frame(src, dst, height, width, 2);
    return 0;
}

// The darkest and the brightest sample of the image.
std::pair<int, int> range_of(Rows src, int height, int width) {
    Sample low = 65535, high = 0;
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c) {
            low = std::min(low, src[r][c]);
            high = std::max(high, src[r][c]);
        }
    return {low, high};
}

int median_large(Rows src, Rows dst, int height, int width, int n, MedianIsa isa) {
    // The working memory does not grow with the window, so no side, however
    // large (n·n overflows 32 bits from n = 46341), asks for an absurd
    // buffer; a window that does not fit the image leaves a copy of it (after
    // the same allocations as any other window, so that running short of
    // memory answers the same whatever the window).
    const int h = (n - 1) / 2;
    const bool window_fits = 2 * static_cast<std::int64_t>(h) < height && 2 * static_cast<std::int64_t>(h) < width;
    Raster scratch;
    const auto [darkest, brightest] = window_fits ? range_of(src, height, width) : std::pair{0, 65535};
    if (window_fits && n >= kMinBucketedSide && n <= kMaxBucketedSide && brightest - darkest < kBucketedLevels) {
        const int columns = stripe_width(h) + 2 * h;
        ScratchArray<std::uint8_t> bucket_counts;
        ScratchArray<std::uint8_t> level_counts;
        if (!bucket_counts.allocate(static_cast<std::int64_t>(columns) * kBuckets) ||
            !level_counts.allocate(static_cast<std::int64_t>(columns) * kBucketedLevels))
            return kNoBuffer;
        const StripeCounts counts{bucket_counts.get(), level_counts.get(), columns};
        if (const int code = scratch.allocate(height, width); code != 0) return code;
        if (isa == MedianIsa::avx512bw)
            bucketed_median_avx512(src, scratch.rows(), height, width, h, darkest, counts);
        else
            bucketed_median_portable(src, scratch.rows(), height, width, h, darkest, counts);
    } else {
        // Counts reach n·n, which fits 32 bits up to n = 65535.
        const bool wide_counts = n > 65535;
        ScratchArray<std::uint32_t> narrow;
        ScratchArray<std::uint64_t> wide;
        if (!(wide_counts ? wide.allocate(kLevels + kBlocks) : narrow.allocate(kLevels + kBlocks))) return kNoBuffer;
        if (const int code = scratch.allocate(height, width); code != 0) return code;
        if (!window_fits) {
            copy_median_frame(src, dst, height, width, h);
            return 0;
        }
        // Block counts cost a second counter update per sample and pay only
        // when the median walks far between neighbouring windows: when the
        // image's grey levels are many for the window's samples (random
        // 16-bit data: 2.6 times faster in 7 × 7 windows, 1.4 times in
        // 15 × 15; 12-bit data in windows from 15 × 15 on: 1.2 to 1.4 times
        // slower, so those keep the plain walk).
        const std::int64_t samples = static_cast<std::int64_t>(n) * n;
        const bool blocks = brightest - darkest > kLevelsPerSampleForBlocks * samples;
        if (wide_counts) {
            if (blocks) sliding_median<std::uint64_t, true>(src, scratch.rows(), height, width, h, wide.get());
            else sliding_median<std::uint64_t, false>(src, scratch.rows(), height, width, h, wide.get());
        } else {
            if (blocks) sliding_median<std::uint32_t, true>(src, scratch.rows(), height, width, h, narrow.get());
            else sliding_median<std::uint32_t, false>(src, scratch.rows(), height, width, h, narrow.get());
        }
    }
    for (int r = h; r < height - h; ++r) copy_samples(dst[r] + h, scratch[r] + h, width - 2 * h);
    copy_median_frame(src, dst, height, width, h);
    return 0;
}

}  // namespace

// A band reaching past the middle of the image is clipped to it, so a window
// larger than the image leaves a copy of the input.
void copy_median_frame(Rows src, Rows dst, int height, int width, std::int64_t band) noexcept {
    for (int r = 0; r < height; ++r) {
        if (r < band || r >= height - band || 2 * band >= width) {
            copy_samples(dst[r], src[r], width);
        } else {
            copy_samples(dst[r], src[r], band);
            copy_samples(dst[r] + width - band, src[r] + width - band, band);
        }
    }
}

void median_3x3(Rows src, Rows dst, int height, int width, MedianIsa isa) noexcept {
    const Row3Kernel kernel = isa == MedianIsa::avx512bw ? median_3x3_row_avx512
                              : isa == MedianIsa::avx2   ? median_3x3_row_avx2
                                                         : median_3x3_row_portable;
    for (int r = 1; r < height - 1 && width > 2; ++r) kernel(src[r - 1] + 1, src[r] + 1, src[r + 1] + 1, dst[r] + 1, width - 2);
    copy_median_frame(src, dst, height, width, 1);
}

int median_2d(Rows src, Rows dst, int height, int width, int oddnum, MedianIsa isa) noexcept {
    if (height <= 0 || width <= 0) return 0;
    const int n = oddnum % 2 == 0 ? oddnum + 1 : oddnum;
    if (n == 3) {
        median_3x3(src, dst, height, width, isa);
        return 0;
    }
    if (n == 5) return median_5x5(src, dst, height, width, isa);
    // A window of one sample is the identity. Zero and negative sides have no
    // window to speak of and are treated the same way: a copy of the input.
    if (n <= 1) {
        for (int r = 0; r < height; ++r) copy_samples(dst[r], src[r], width);
        return 0;
    }
    return median_large(src, dst, height, width, n, isa);
}

}  // namespace krf
