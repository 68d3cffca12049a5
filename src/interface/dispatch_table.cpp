// The dispatch table reads like the catalogue: name, whether a null params
// array is refused, and how the parameters are decoded for the handler.
// Entries stand in the dispatcher's comparison order, which differs from the
// catalogue's; a filter appears here only once its handler exists, so any
// other name is refused with -3.
#include "interface/dispatch.h"
#include "neighbourhood/local_filters.h"
#include "platform/platform.h"

namespace krf {
namespace {

// No pixel work: the host gets an RGB buffer in the input image and the code 1.
int iso_density(const FilterCall& call, void**) {
    unsigned char* rgb = nullptr;
    call.in->GetRGBVector(&rgb);
    return 1;
}

}  // namespace

const DispatchEntry dispatch_table[] = {
    {"mean2D", true, [](const FilterCall& c, void** p) {
         return box_mean(c.src, c.dst, c.height, c.width, c.white, int_param(p, 0));
     }},
    {"despeckle", true, [](const FilterCall& c, void** p) {
         return despeckle(c.src, c.dst, c.height, c.width, c.white, int_param(p, 0), int_param(p, 1));
     }},
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
    {"emboss", true, [](const FilterCall& c, void** p) {
         return emboss(c.src, c.dst, c.height, c.width, c.white, int_param(p, 0));
     }},
    {"IsoDensity", true, iso_density},
};

const std::size_t dispatch_table_size = sizeof dispatch_table / sizeof dispatch_table[0];

}  // namespace krf
