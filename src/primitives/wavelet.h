// Wavelet primitives on contiguous float buffers: 16-tap row and column
// filters, and one level of the separable, critically sampled two-channel
// wavelet analysis and its synthesis.
//
// Phase convention, shared by every operation here: tap k of a filter with
// anchor A meets the source sample at offset A − k from the output sample
// (a true convolution), so an output reads the samples from A − 15 to A
// around it and the caller supplies the rows or columns on both sides.
//
// Each output sample is one sum of its products taken in ascending tap order
// (for synthesis: the low-pass products, then the high-pass products), started
// from the first product rather than from zero. The order is a free choice of
// this implementation; keeping it per output sample lets every vector path
// give the portable path's samples bit for bit.
#pragma once

#include <cstdint>

#include "primitives/primitives.h"

namespace krf::prim {

constexpr int kWaveletTaps = 16;

// dst[i] = Σ_t weights[t] · terms[t][i] for i in 0 .. count − 1, summed in
// ascending t. The workhorse of every filter here; it picks the widest vector
// path the processor offers (chosen once at load).
void WeightedSumF32(const float* const* terms, const float* weights, int termCount, float* dst,
                    std::int64_t count) noexcept;

// Convolution of each column (each row) with 16 taps; see the phase
// convention above. The source rows (columns) from anchor − 15 to
// height − 1 + anchor (width − 1 + anchor) relative to src must exist.
PrimitiveStatus FilterColumnF32(const float* src, int srcStep, float* dst, int dstStep, Size size, const float* taps,
                                int tapCount, int anchor) noexcept;
PrimitiveStatus FilterRowF32(const float* src, int srcStep, float* dst, int dstStep, Size size, const float* taps,
                             int tapCount, int anchor) noexcept;

// The preparation record of one analysis or synthesis direction: the two
// filters and their anchors. Obtained from PrepareWaveletF32 (which allocates
// it with AllocBytes) and released with FreeBuffer.
struct WaveletFilterPair {
    float low[kWaveletTaps];
    float high[kWaveletTaps];
    int low_anchor;
    int high_anchor;
};

// Taps must number 16 and anchors lie in 0 .. 15 (-5 otherwise).
PrimitiveStatus PrepareWaveletF32(const float* low, int lowLength, int lowAnchor, const float* high, int highLength,
                                  int highAnchor, WaveletFilterPair** record) noexcept;

// Analysis of a 2W × 2H source into four W × H bands (bandSize = W × H).
// Rows are filtered first, then columns; the even samples are kept, so band
// sample j comes from source sample 2j. With anchor 7 the source needs 8
// samples before and 7 after in both directions.
PrimitiveStatus WaveletAnalysisWorkSizeF32(const WaveletFilterPair* record, Size bandSize,
                                           std::int64_t* bytes) noexcept;
PrimitiveStatus WaveletAnalysisF32(const float* src, int srcStep, float* approx, int approxStep, float* detailX,
                                   int detailXStep, float* detailY, int detailYStep, float* detailXY,
                                   int detailXYStep, Size bandSize, const WaveletFilterPair* record,
                                   unsigned char* work) noexcept;

// Synthesis of four W × H bands into a 2W × 2H destination: the bands are
// up-sampled with band sample j at position 2j (zeros between), the columns
// are filtered, then the rows. With anchor 8 the bands need 3 samples before
// and 4 after in both directions; with anchor 7, 4 on each side.
// detailX is low-pass along the rows and high-pass along the columns,
// detailY the reverse, as the analysis produces them.
PrimitiveStatus WaveletSynthesisWorkSizeF32(const WaveletFilterPair* record, Size bandSize,
                                            std::int64_t* bytes) noexcept;
PrimitiveStatus WaveletSynthesisF32(const float* approx, int approxStep, const float* detailX, int detailXStep,
                                    const float* detailY, int detailYStep, const float* detailXY, int detailXYStep,
                                    float* dst, int dstStep, Size bandSize, const WaveletFilterPair* record,
                                    unsigned char* work) noexcept;

// The symlet of order 8: analysis low-pass a[k]; the other three filters
// derive from it (analysis high-pass (−1)^(k+1)·a[15−k], synthesis filters
// the analysis filters reversed). Stored in double, used as float.
extern const double kSymlet8Low[kWaveletTaps];
void Symlet8AnalysisTaps(float low[kWaveletTaps], float high[kWaveletTaps]) noexcept;
void Symlet8SynthesisTaps(float low[kWaveletTaps], float high[kWaveletTaps]) noexcept;

// One level of a decomposition: its size and four float bands of that size,
// owned by the record and released by release() or the destructor.
struct WaveletLevel {
    int width = 0;
    int height = 0;
    float* approx = nullptr;
    float* detail_x = nullptr;
    float* detail_y = nullptr;
    float* detail_xy = nullptr;

    WaveletLevel() = default;
    WaveletLevel(const WaveletLevel&) = delete;
    WaveletLevel& operator=(const WaveletLevel&) = delete;
    ~WaveletLevel() { release(); }
    void release() noexcept;
    // Releases the old bands, then obtains four zero-filled width × height
    // bands; false (with nothing held) when any could not be obtained.
    bool allocate(int bandWidth, int bandHeight) noexcept;
};

namespace testing {
// Which vector path WeightedSumF32 takes: the one chosen at load, or forced
// for the equality tests (a path the processor lacks must not be forced).
enum class SumPath { portable, avx2, avx512 };
void weighted_sum_on_path(SumPath path, const float* const* terms, const float* weights, int termCount, float* dst,
                          std::int64_t count) noexcept;
}  // namespace testing

}  // namespace krf::prim
