// The published catalogue that hosts read to build their parameter dialogs.
// The dispatcher never reads it; it is data for the host only. Names, order,
// ranges and oddities ("Intensity " with its blank, two parameters both named
// "Sigma", thresholds whose defaults lie outside their ranges) are part of the
// published interface and are kept exactly.
#include "krfilter/krfilter.h"

namespace {

// Bounds and defaults are single-precision constants widened to double, as
// hosts have always read them (0.2 is stored as 0.20000000298023224).
#define KRF_F(x) static_cast<double>(x##f)
#define KRF_INT(name, lo, hi, def) {name, PARAM_INT, 0, 4, KRF_F(lo), KRF_F(hi), KRF_F(def)}
#define KRF_FLOAT(name, lo, hi, def) {name, PARAM_FLOAT, 0, 4, KRF_F(lo), KRF_F(hi), KRF_F(def)}
#define KRF_DOUBLE(name, lo, hi, def) {name, PARAM_DOUBLE, 0, 8, KRF_F(lo), KRF_F(hi), KRF_F(def)}
// The line-defect filters offer the whole int range; as a float the upper
// bound would read 2147483648, so it is kept as the exact int maximum.
#define KRF_INT_FULL(name) {name, PARAM_INT, 0, 4, 0.0, 2147483647.0, 0.0}
#define KRF_END {"#", PARAM_END, 0, 0, 0.0, 0.0, 0.0}

FILTERPARAM gamma_params[] = {KRF_DOUBLE("Gamma", 0.2, 2.0, 1.0), KRF_END};
FILTERPARAM gammalog_params[] = {KRF_DOUBLE("gammalog", 0.2, 1000.0, 1.0), KRF_END};
FILTERPARAM gammaporion_params[] = {KRF_DOUBLE("Gamma", 0.2, 2.0, 0.0), KRF_DOUBLE("Radius", 0.2, 2.0, 0.0),
                                    KRF_DOUBLE("RadiusExt", 0.2, 2.0, 0.0), KRF_END};
FILTERPARAM sigma_params[] = {KRF_DOUBLE("Sigma", 0.2, 2.0, 0.0), KRF_DOUBLE("Sigma", 0.2, 2.0, 0.0), KRF_END};
// Shared by every filter without parameters: only the terminator.
FILTERPARAM no_params[] = {KRF_END};
FILTERPARAM mean2d_params[] = {KRF_INT("mean", 0.2, 2.0, 0.0), KRF_END};
FILTERPARAM despeckle_params[] = {KRF_INT("desp1", 0.2, 2.0, 0.0), KRF_INT("desp2", 0.2, 2.0, 0.0), KRF_END};
FILTERPARAM median2d_params[] = {KRF_INT("oddnum", 1.0, 987.987, 1.0), KRF_END};
FILTERPARAM pseudo_median2d_params[] = {KRF_INT("dimwnd", 1.0, 9.0, 1.0), KRF_END};
FILTERPARAM adf_params[] = {KRF_DOUBLE("lambda", 0.0, 0.25, 0.1), KRF_DOUBLE("k_devstd", 0.0, 1.0, 0.0),
                            KRF_INT("numIter", 1.0, 987.987, 10.0), KRF_END};
FILTERPARAM bilateral_params[] = {KRF_DOUBLE("SpatialSigma", 0.0, 0.8, 0.0),
                                  KRF_INT("LuminanceSigma", 0.0, 65535.0, 1300.0), KRF_END};
FILTERPARAM unsharp_params[] = {KRF_DOUBLE("Intensity ", 0.1, 987.987, 3.0), KRF_INT("Radius", 1.0, 987.987, 1.0),
                                KRF_END};
FILTERPARAM emboss_params[] = {KRF_INT("hardness", 1.0, 987.987, 5.0), KRF_END};
FILTERPARAM linear_params[] = {KRF_DOUBLE("Bri", -1.0, 1.0, 0.0), KRF_DOUBLE("Contr", -1.0, 1.0, 0.0), KRF_END};
FILTERPARAM gammalin_params[] = {KRF_DOUBLE("Gamma", 0.2, 2.0, 1.0), KRF_DOUBLE("LowL", 0.0, 1.0, 0.0),
                                 KRF_DOUBLE("HiL", 0.0, 1.0, 1.0), KRF_END};
FILTERPARAM spine_params[] = {KRF_INT("FilterHalfSize", 0.0, 65535.0, 0.0), KRF_END};
FILTERPARAM spine2_params[] = {KRF_INT("FilterHalfSize", 0.0, 65535.0, 0.0),
                               KRF_INT("PercentoForzaFiltro", 0.0, 65535.0, 0.0), KRF_END};
FILTERPARAM spine3_params[] = {KRF_INT("FilterHalfSize", 0.0, 65535.0, 0.0),
                               KRF_FLOAT("MetalThreshold", 0.0, 1.0, 0.98), KRF_END};
FILTERPARAM isodensity_params[] = {KRF_INT("GrayLevel", 0.0, 255.0, 0.0), KRF_INT("Red", 0.0, 255.0, 0.0),
                                   KRF_INT("Green", 0.0, 255.0, 0.0), KRF_INT("Blue", 0.0, 255.0, 0.0), KRF_END};
FILTERPARAM llul_params[] = {KRF_DOUBLE("LowL", 0.0, 1.0, 0.1), KRF_DOUBLE("HiL", 0.0, 1.0, 0.9), KRF_END};
FILTERPARAM shannon_params[] = {KRF_DOUBLE("low_th", 0.2, 2.0, 0.05),      KRF_DOUBLE("high_th", 0.2, 2.0, 0.95),
                                KRF_INT("Up Border", 0.0, 65535.0, 100.0),   KRF_INT("Down Border", 0.0, 65535.0, 100.0),
                                KRF_INT("Left Border", 0.0, 65535.0, 100.0), KRF_INT("Right Border", 0.0, 65535.0, 100.0),
                                KRF_END};
FILTERPARAM ece_params[] = {KRF_DOUBLE("low_th", 0.2, 2.0, 0.005),       KRF_DOUBLE("high_th", 0.2, 2.0, 0.99),
                            KRF_DOUBLE("din_low_th", 0.2, 2.0, 0.25),    KRF_DOUBLE("din_high_th", 0.2, 2.0, 0.75),
                            KRF_DOUBLE("mu", 0.2, 2.0, 0.5),             KRF_DOUBLE("sigma", 0.2, 2.0, 0.3),
                            KRF_INT("Up Border", 0.0, 65535.0, 6.0),     KRF_INT("Down Border", 0.0, 65535.0, 18.0),
                            KRF_INT("Left Border", 0.0, 65535.0, 107.0), KRF_INT("Right Border", 0.0, 65535.0, 118.0),
                            KRF_END};
FILTERPARAM rain_params[] = {KRF_DOUBLE("G0", 0.0, 1000.0, 0.02), KRF_DOUBLE("PPoiss0", 0.0, 1000.0, 0.98),
                             KRF_INT("EstimationEnabled", 0.0, 1.0, 0.0), KRF_END};
FILTERPARAM flip_params[] = {KRF_INT("FlipHorz", 0.0, 1.0, 0.0), KRF_INT("FlipVert", 0.0, 1.0, 0.0), KRF_END};
FILTERPARAM smoothing_params[] = {KRF_FLOAT("ThreshLv1", 0.0, 10.0, 0.2), KRF_FLOAT("ThreshLv2", 0.0, 10.0, 0.5),
                                  KRF_FLOAT("ThreshLv3", 0.0, 10.0, 2.0), KRF_FLOAT("ThreshLv4", 0.0, 10.0, 4.0),
                                  KRF_END};
FILTERPARAM contrast_params[] = {KRF_INT("NumPixel_H", 16.0, 1024.0, 64.0), KRF_INT("NumPixel_V", 16.0, 1024.0, 64.0),
                                 KRF_FLOAT("ClipLimit", 0.0, 1.0, 0.5),     KRF_INT("NBins", 256.0, 65536.0, 1024.0),
                                 KRF_INT("Distribution", 0.0, 17.0, 1.0),   KRF_END};
FILTERPARAM test_rum_params[] = {KRF_INT("dimSmoothingKernel", 1.0, 999.0, 1.0), KRF_INT("dimStdDevKernel", 1.0, 31.0, 1.0),
                                 KRF_INT("peak", 1.0, 9999.0, 1.0),             KRF_INT("traslCurve", 0.0, 9999.0, 0.0),
                                 KRF_INT("kernelGaussSize", 3.0, 999.0, 31.0),  KRF_FLOAT("kernelGaussSigma", 0.0, 99.0, 7.0),
                                 KRF_END};
FILTERPARAM rum_params[] = {KRF_FLOAT("intensity", 1.0, 51.0, 31.0),
                            KRF_INT("dimSmoothingKernel", 1.0, 999.0, 1.0),
                            KRF_INT("dimStdDevKernel", 1.0, 31.0, 1.0),
                            KRF_INT("peak", 1.0, 9999.0, 1.0),
                            KRF_INT("traslCurve", 0.0, 9999.0, 0.0),
                            KRF_INT("kernelGaussSize", 3.0, 999.0, 31.0),
                            KRF_FLOAT("kernelGaussSigma", 0.0, 99.0, 7.0),
                            KRF_END};
FILTERPARAM supereq_params[] = {KRF_INT_FULL("defectLine"), KRF_INT_FULL("prevLines"), KRF_INT_FULL("postLines"),
                                KRF_INT_FULL("tileSize"),
                                {"maxCorrectionFactor", PARAM_DOUBLE, 0, 8, 0.0, 2147483647.0, 0.0},
                                KRF_END};
FILTERPARAM supereq_pre_params[] = {KRF_INT_FULL("defectLine"), KRF_INT_FULL("prevLines"), KRF_INT_FULL("postLines"),
                                    KRF_INT_FULL("tileSize"),
                                    {"maxCorrectionFactor", PARAM_DOUBLE, 0, 8, 0.0, 2147483647.0, 0.0},
                                    KRF_INT_FULL("roiWidth"),   KRF_INT_FULL("roiHeight"),  KRF_INT_FULL("roiOffsetV"),
                                    KRF_INT_FULL("roiOffsetH"), KRF_INT_FULL("percentile"), KRF_INT_FULL("enablePost"),
                                    KRF_END};
FILTERPARAM gaussian_params[] = {{"kernelSize", PARAM_INT, 0, 4, 0.0, 2147483647.0, 5.0}, KRF_FLOAT("sigma", 0.0, 5.0, 0.75), KRF_END};

}  // namespace

extern "C" {
FILTERLIST filterlist[] = {
    {"gamma", gamma_params, 0},
    {"gammalog", gammalog_params, 0},
    {"gammaporion", gammaporion_params, 0},
    {"sigma", sigma_params, 0},
    {"equalize", no_params, 0},
    {"mean2D", mean2d_params, 0},
    {"despeckle", despeckle_params, 0},
    {"median2D", median2d_params, 0},
    {"pseudo-median2D", pseudo_median2d_params, 0},
    {"SMF", no_params, 0},
    {"ADF", adf_params, 0},
    {"bilateral_filter", bilateral_params, 0},
    {"unsharp", unsharp_params, 0},
    {"emboss", emboss_params, 0},
    {"reverse", no_params, 0},
    {"colorize", no_params, 0},
    {"linear", linear_params, 0},
    {"gammalin", gammalin_params, 0},
    {"SpineCompensation", spine_params, 0},
    {"SpineCompensation2", spine2_params, 0},
    {"SpineCompensation3", spine3_params, 0},
    {"IsoDensity", isodensity_params, 0},
    {"LL-UL", llul_params, 0},
    {"ShannonStretching", shannon_params, 0},
    {"ECE", ece_params, 0},
    {"ECE2", ece_params, 0},
    {"rain", rain_params, 0},
    {"flip", flip_params, 0},
    {"advancedsmoothing", smoothing_params, 0},
    {"advancedsmoothing2", smoothing_params, 0},
    {"ContrastCorrection", contrast_params, 0},
    {"testRUM", test_rum_params, 0},
    {"RUM", rum_params, 0},
    {"supereq", supereq_params, 0},
    {"supereq_pre", supereq_pre_params, 0},
    {"gaussian", gaussian_params, 0},
    {"#", nullptr, 0},
};
}
