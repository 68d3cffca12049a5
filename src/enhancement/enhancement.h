// The multi-scale enhancement filters: each works on contiguous buffers with
// the image primitives and writes the output rows only when every step
// succeeded.
#pragma once

#include "interface/rows.h"
#include "primitives/primitives.h"

namespace krf {

// ---- Gaussian blur and the locally adaptive unsharp mask.

// "gaussian": blur with a K-tap Gaussian, edges replicated. sigma is held to
// 0.1 ... 5.0 first. Returns 0, the first failing primitive's status (-5 for a
// K below 3, even or above 65535, -6 for an empty image) or -9 when scratch
// memory cannot be obtained; on failure the output rows are not written.
int gaussian_filter(Rows src, Rows dst, int height, int width, int kernelSize, float sigma);

// The parameters "RUM" and "testRUM" share, in catalogue order.
struct RumSettings {
    int smoothing_side;   // "dimSmoothingKernel", made odd
    int deviation_side;   // "dimStdDevKernel", made odd
    int peak;             // "peak"
    int offset;           // "traslCurve"
    int gauss_size;       // "kernelGaussSize"
    float gauss_sigma;    // "kernelGaussSigma"
};

// "RUM": every sample pushed away from its local mean by intensity times a
// gain that peaks where the smoothed local deviation (in 65535 full scale)
// plus the offset equals the peak. Returns 0 or the first failing status
// (-9 when a buffer cannot be obtained); on failure the output is not written.
int rum_enhancement(Rows src, Rows dst, int height, int width, int white, float intensity,
                    const RumSettings& settings);

// "testRUM": the same analysis without the mixing; writes the smoothed
// deviation map (truncated, low 16 bits) and sends five stage timings to the
// debug channel. Returns the status as "RUM" would; the host never sees it.
int test_rum(Rows src, Rows dst, int height, int width, const RumSettings& settings);

// ---- end of Gaussian blur and unsharp mask.

// ---- Wavelet shrinkage ("advancedsmoothing", "advancedsmoothing2").
// The thresholds are those of levels 1 (finest) to 4 on a 0 ... 255 scale of
// the image's range (4095, or 65535 when the maximum is at least 4096). The
// result is the first failing primitive status (kBadSize for images of no
// samples or too large to pad, kNoMemory for exhausted memory), with the
// output rows then left untouched, or kOk.

// Four levels of the decimated transform, image padded at the bottom right.
prim::PrimitiveStatus advanced_smoothing(Rows src, Rows dst, int height, int width, float threshLv1, float threshLv2,
                                         float threshLv3, float threshLv4) noexcept;

// The undecimated transform with one to four levels (a threshold of exactly
// 1.0 at the coarse end of the list switches those levels off), image centred.
prim::PrimitiveStatus advanced_smoothing_2(Rows src, Rows dst, int height, int width, float threshLv1,
                                           float threshLv2, float threshLv3, float threshLv4) noexcept;

}  // namespace krf
