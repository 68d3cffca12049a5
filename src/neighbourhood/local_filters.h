// Neighbourhood filters built on local sums and small kernels: the box mean
// and the filters that reuse it (despeckle, unsharp mask), emboss, anisotropic
// diffusion and the bilateral filter. Every handler reads `src`, writes `dst`
// (the same rows may be passed for both) and returns 0 or an allocation code.
#pragma once

#include <cstdint>
#include <cstring>

#include "interface/rows.h"

namespace krf {

// Which inner loops run: `fastest` takes the widest vector code the processor
// offers, `portable` the plain loops. `avx2` stops at AVX2 where a filter has
// wider kernels too (so that a test reaches those AVX2 kernels on a processor
// with AVX-512); a filter without wider kernels treats it as `portable`. All
// give the same samples; the tests hold them to that.
enum class KernelPath { fastest, portable, avx2 };

// "mean2D": mean of the `side` x `side` window around every sample over an
// edge-replicated copy of the image (even sides grow by one).
int box_mean(Rows src, Rows dst, int height, int width, int white, int side,
             KernelPath path = KernelPath::fastest) noexcept;

// Receives the rows of a box mean from top to bottom.
class MeanRowSink {
public:
    // Where mean row r (width samples) is to be written.
    virtual Sample* row(int r) noexcept = 0;
    // Mean row r is complete. From now on the box mean reads only image rows
    // below r, so the sink may write output row r even over image row r.
    virtual void done(int r) noexcept = 0;

protected:
    ~MeanRowSink() = default;
};

// The box mean as a building block for the filters that compare with it: the
// same means as box_mean, delivered row by row. Returns 0 or the allocation
// code of its padded rows or column sums; nothing is delivered on failure.
int box_mean_rows(Rows src, int height, int width, int white, int side, MeanRowSink& sink,
                  KernelPath path = KernelPath::fastest) noexcept;

// "despeckle": the box mean of side `side` wherever a sample differs from it by
// more than |threshold|, the sample itself elsewhere.
int despeckle(Rows src, Rows dst, int height, int width, int white, int side, int threshold,
              KernelPath path = KernelPath::fastest) noexcept;

// "unsharp": (1 + intensity) * sample - intensity * box mean of side `radius`.
int unsharp_mask(Rows src, Rows dst, int height, int width, int white, int radius, double intensity,
                 KernelPath path = KernelPath::fastest) noexcept;

// "emboss": 3 x 3 directional relief whose taps grow with `hardness`.
int emboss(Rows src, Rows dst, int height, int width, int white, int hardness,
           KernelPath path = KernelPath::fastest) noexcept;

// "ADF": `iterations` explicit four-neighbour diffusion passes with the
// conduction exp(-(d / k)^2).
int anisotropic_diffusion(Rows src, Rows dst, int height, int width, int white, int iterations,
                          double lambda, double k_devstd, KernelPath path = KernelPath::fastest) noexcept;

// "bilateral_filter": window mean weighted by grey-level and city-block distance.
int bilateral_filter(Rows src, Rows dst, int height, int width, int white, double spatial_sigma,
                     double luminance_sigma, KernelPath path = KernelPath::fastest) noexcept;

// Copies rows first ... last - 1 of `from` into `to`.
inline void copy_rows(Rows from, Rows to, int first, int last, int width) noexcept {
    if (width < 1) return;
    for (int r = first; r < last; ++r)
        std::memcpy(to[r], from[r], static_cast<std::size_t>(width) * sizeof(Sample));
}

}  // namespace krf
