// Runs one catalogued filter on a grey image through the public interface.
#pragma once

#include <vector>

#include "filter_params.h"
#include "image_io.h"

namespace krf::tools {

// Where a filter leaves its result.
enum class ResultPlace {
    output,          // the output image (almost every filter)
    input_in_place,  // "rain" corrects the input image itself
    input_rgb,       // "colorize" fills the input image's 8-bit RGB buffer
};
ResultPlace result_place(const FILTERLIST& filter);

struct FilterRun {
    int code = 0;
    double milliseconds = 0;
    GreyImage grey;                  // the grey result, with the white level of the run
    std::vector<unsigned char> rgb;  // the RGB result, when result_place is input_rgb
};

// Runs the filter once on a copy of `input` with `white` as its white level.
// The input image is never changed; on a non-zero code only `code` and
// `milliseconds` are meaningful.
FilterRun run_filter(const FILTERLIST& filter, ParameterSet& params, const GreyImage& input, int white);

}  // namespace krf::tools
