// The dispatch table reads like the catalogue: name, whether a null params
// array is refused, and how the parameters are decoded for the handler.
// Entries stand in the dispatcher's comparison order, which differs from the
// catalogue's; a filter appears here only once its handler exists, so any
// other name is refused with -3.
#include "interface/dispatch.h"
#include "neighbourhood/median.h"
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
    {"median2D", true, [](const FilterCall& c, void** p) { return median_2d(c.src, c.dst, c.height, c.width, int_param(p, 0)); }},
    {"pseudo-median2D", true, [](const FilterCall& c, void** p) { return pseudo_median_2d(c.src, c.dst, c.height, c.width, int_param(p, 0)); }},
    {"SMF", false, [](const FilterCall& c, void**) { SmfSettings settings; return switching_median(c.src, c.dst, c.height, c.width, c.white, settings); }},
    {"IsoDensity", true, iso_density},
};

const std::size_t dispatch_table_size = sizeof dispatch_table / sizeof dispatch_table[0];

}  // namespace krf
