// The dispatch table reads like the catalogue: name, whether a null params
// array is refused, and how the parameters are decoded for the handler.
// Entries stand in the dispatcher's comparison order, which differs from the
// catalogue's; a filter appears here only once its handler exists, so any
// other name is refused with -3.
#include "corrections/contrast_correction.h"
#include "corrections/rain.h"
#include "corrections/spine_compensation.h"
#include "enhancement/enhancement.h"
#include "interface/dispatch.h"
#include "interface/truncation.h"
#include "neighbourhood/local_filters.h"
#include "neighbourhood/line_defect.h"
#include "neighbourhood/median.h"
#include "platform/platform.h"
#include "tone/tone.h"

namespace krf {
namespace {

// No pixel work: the host gets an RGB buffer in the input image and the code 1.
int iso_density(const FilterCall& call, void**) {
    unsigned char* rgb = nullptr;
    call.in->GetRGBVector(&rgb);
    return 1;
}

// "ECE" and "ECE2" decode alike and differ only in the weighting flag.
int entropy_contrast_entry(const FilterCall& c, void** p, int gaussian_weights) {
    const tone::EntropyContrastParams params{
        {int_param(p, 6), int_param(p, 7), int_param(p, 8), int_param(p, 9)},
        double_param(p, 0), double_param(p, 1), double_param(p, 2), double_param(p, 3),
        double_param(p, 4), double_param(p, 5)};
    return tone::entropy_contrast(c.src, c.dst, c.height, c.width, c.white, gaussian_weights, params);
}

// "RUM" reads its parameters after "intensity" from params[1], "testRUM" from params[0].
RumSettings rum_settings(void** p, int first) {
    return {int_param(p, first), int_param(p, first + 1), int_param(p, first + 2), int_param(p, first + 3),
            int_param(p, first + 4), float_param(p, first + 5)};
}

}  // namespace

const DispatchEntry dispatch_table[] = {
    {"gamma", true, [](const FilterCall& c, void** p) { return tone::gamma_curve(c.src, c.dst, c.height, c.width, c.white, double_param(p, 0)); }},
    {"gammalog", true, [](const FilterCall& c, void** p) { return tone::gammalog_curve(c.src, c.dst, c.height, c.width, c.white, double_param(p, 0)); }},
    // Radius and RadiusExt arrive as doubles and are truncated like every other fraction.
    {"gammaporion", true, [](const FilterCall& c, void** p) {
         return tone::landmark_gamma(c.src, c.dst, c.height, c.width, c.white, truncate_to_int32(double_param(p, 1)),
                                     truncate_to_int32(double_param(p, 2)), double_param(p, 0));
     }},
    {"sigma", true, [](const FilterCall& c, void** p) { return tone::sigma_curve(c.src, c.dst, c.height, c.width, c.white, double_param(p, 0), double_param(p, 1)); }},
    {"LL-UL", true, [](const FilterCall& c, void** p) { return tone::ll_ul_window(c.src, c.dst, c.height, c.width, c.white, double_param(p, 0), double_param(p, 1)); }},
    {"linear", true, [](const FilterCall& c, void** p) { return tone::linear_window(c.src, c.dst, c.height, c.width, c.white, double_param(p, 0), double_param(p, 1)); }},
    {"gammalin", true, [](const FilterCall& c, void** p) { return tone::gammalin_window(c.src, c.dst, c.height, c.width, c.white, double_param(p, 0), double_param(p, 1), double_param(p, 2)); }},
    {"ShannonStretching", true, [](const FilterCall& c, void** p) { return tone::shannon_stretching(c.src, c.dst, c.height, c.width, c.white, {int_param(p, 2), int_param(p, 3), int_param(p, 4), int_param(p, 5)}, double_param(p, 0), double_param(p, 1)); }},
    {"ECE", true, [](const FilterCall& c, void** p) { return entropy_contrast_entry(c, p, 0); }},
    {"ECE2", true, [](const FilterCall& c, void** p) { return entropy_contrast_entry(c, p, 1); }},
    // "rain" corrects the input in place and never writes the output. Its
    // "EstimationEnabled" is not read: the estimation always runs. A null
    // params array is refused with -2 like every filter that reads values,
    // rather than read through, so a careless host gets a code, not a crash.
    {"rain", true, [](const FilterCall& c, void** p) {
         return rain(c.src, c.height, c.width, c.white, double_param(p, 0), double_param(p, 1));
     }},
    {"equalize", false, [](const FilterCall& c, void**) { return tone::equalize(c.src, c.dst, c.height, c.width, c.white); }},
    {"mean2D", true, [](const FilterCall& c, void** p) {
         return box_mean(c.src, c.dst, c.height, c.width, c.white, int_param(p, 0));
     }},
    // The wavelet filters report no failure to the host: a run that cannot
    // finish leaves the output untouched and still answers 0.
    {"advancedsmoothing", true, [](const FilterCall& c, void** p) {
         advanced_smoothing(c.src, c.dst, c.height, c.width, float_param(p, 0), float_param(p, 1), float_param(p, 2),
                            float_param(p, 3));
         return 0;
     }},
    // Runs of the undecimated variant need hundreds of megabytes each; the
    // named slot bounds how many run at once across all processes.
    {"advancedsmoothing2", true, [](const FilterCall& c, void** p) {
         const platform::NamedSlot slot("advancedsmoothing2");
         advanced_smoothing_2(c.src, c.dst, c.height, c.width, float_param(p, 0), float_param(p, 1),
                              float_param(p, 2), float_param(p, 3));
         return 0;
     }},
    {"ContrastCorrection", true, [](const FilterCall& c, void** p) {
         return corrections::contrast_correction(c.src, c.dst, c.height, c.width, c.white, int_param(p, 0),
                                                 int_param(p, 1), float_param(p, 2), int_param(p, 3), int_param(p, 4));
     }},
    {"despeckle", true, [](const FilterCall& c, void** p) {
         return despeckle(c.src, c.dst, c.height, c.width, c.white, int_param(p, 0), int_param(p, 1));
     }},
    {"median2D", true, [](const FilterCall& c, void** p) { return median_2d(c.src, c.dst, c.height, c.width, int_param(p, 0)); }},
    {"pseudo-median2D", true, [](const FilterCall& c, void** p) { return pseudo_median_2d(c.src, c.dst, c.height, c.width, int_param(p, 0)); }},
    {"SMF", false, [](const FilterCall& c, void**) { SmfSettings settings; return switching_median(c.src, c.dst, c.height, c.width, c.white, settings); }},
    {"ADF", true, [](const FilterCall& c, void** p) {
         return anisotropic_diffusion(c.src, c.dst, c.height, c.width, c.white, int_param(p, 2), double_param(p, 0),
                                      double_param(p, 1));
     }},
    // "LuminanceSigma" is read as a double although the catalogue declares an int.
    {"bilateral_filter", true, [](const FilterCall& c, void** p) {
         return bilateral_filter(c.src, c.dst, c.height, c.width, c.white, double_param(p, 0), double_param(p, 1));
     }},
    {"unsharp", true, [](const FilterCall& c, void** p) {
         return timed(" Time unsharp:%d millisec  \n", c, p, [](const FilterCall& call, void** params) {
             return unsharp_mask(call.src, call.dst, call.height, call.width, call.white, int_param(params, 1),
                                 double_param(params, 0));
         });
     }},
    {"RUM", true, [](const FilterCall& c, void** p) {
         return timed(nullptr, c, p, [](const FilterCall& call, void** params) {
             return rum_enhancement(call.src, call.dst, call.height, call.width, call.white, float_param(params, 0),
                                    rum_settings(params, 1));
         });
     }},
    // The test variant reports no status: a failed run leaves the output unwritten and still returns 0.
    {"testRUM", true, [](const FilterCall& c, void** p) {
         return timed(" Time Test Function:%d millisec  \n", c, p, [](const FilterCall& call, void** params) {
             test_rum(call.src, call.dst, call.height, call.width, rum_settings(params, 0));
             return 0;
         });
     }},
    {"emboss", true, [](const FilterCall& c, void** p) {
         return emboss(c.src, c.dst, c.height, c.width, c.white, int_param(p, 0));
     }},
    {"reverse", false, [](const FilterCall& c, void**) { return tone::reverse(c.src, c.dst, c.height, c.width, c.white); }},
    {"colorize", false, [](const FilterCall& c, void**) {
        // The buffer's own code is not consulted: a missing buffer reaches the handler as null.
        unsigned char* rgb = nullptr;
        c.in->GetRGBVector(&rgb);
        return tone::colorize(c.src, rgb, c.height, c.width, c.white);
    }},
    {"SpineCompensation", true, [](const FilterCall& c, void** p) {
         return spine_compensation(c.src, c.dst, c.height, c.width, c.white,
                                   {SpineVariant::fixed_threshold, int_param(p, 0)});
     }},
    {"SpineCompensation2", true, [](const FilterCall& c, void** p) {
         return spine_compensation(c.src, c.dst, c.height, c.width, c.white,
                                   {SpineVariant::strength, int_param(p, 0), int_param(p, 1)});
     }},
    {"SpineCompensation3", true, [](const FilterCall& c, void** p) {
         return spine_compensation(c.src, c.dst, c.height, c.width, c.white,
                                   {SpineVariant::metal_threshold, int_param(p, 0), 100, float_param(p, 1)});
     }},
    {"IsoDensity", true, iso_density},
    {"flip", true, [](const FilterCall& c, void** p) { return tone::flip(c.src, c.dst, c.height, c.width, 0, int_param(p, 0) != 0 ? 1 : 0, int_param(p, 1) != 0 ? 1 : 0); }},
    // One handler: "supereq" measures with means over the whole image and
    // always looks below the line; "supereq_pre" adds the region, the
    // percentile and the choice of looking below.
    {"supereq", true, [](const FilterCall& c, void** p) {
         return line_defect_correction(c.src, c.dst, c.height, c.width, c.white, int_param(p, 0), int_param(p, 1),
                                       int_param(p, 2), int_param(p, 3), 1, 0, 0, 0, 0, 0, 0, double_param(p, 4));
     }},
    {"supereq_pre", true, [](const FilterCall& c, void** p) {
         return line_defect_correction(c.src, c.dst, c.height, c.width, c.white, int_param(p, 0), int_param(p, 1),
                                       int_param(p, 2), int_param(p, 3), int_param(p, 10), 1, int_param(p, 5),
                                       int_param(p, 6), int_param(p, 7), int_param(p, 8), int_param(p, 9),
                                       double_param(p, 4));
     }},
    {"gaussian", true, [](const FilterCall& c, void** p) {
         return gaussian_filter(c.src, c.dst, c.height, c.width, int_param(p, 0), float_param(p, 1));
     }},
};

const std::size_t dispatch_table_size = sizeof dispatch_table / sizeof dispatch_table[0];

}  // namespace krf
