// `krfilter run NAME INPUT OUTPUT [PARAM=VALUE ...]`: one filter on one file.
#include <cstdio>
#include <string>

#include "commands.h"
#include "filter_params.h"
#include "filter_runner.h"
#include "image_io.h"

namespace krf::tools {

int run_command(const RunRequest& request) {
    std::string problem;
    const FILTERLIST* filter = lookup(request.filter, problem);
    if (filter == nullptr) return argument_error(problem);
    ParameterSet params(*filter);
    if (problem = params.assign(request.assignments); !problem.empty()) return argument_error(problem);
    if (format_for_output(request.output) == FileFormat::unknown) {
        return argument_error("cannot tell the format of " + request.output + " (use .png, .tif or .tiff)");
    }

    GreyImage input;
    WhiteSource source = WhiteSource::bit_depth;
    if (problem = read_grey_image(request.input, input, &source); !problem.empty()) {
        return failure(request.input + ": " + problem);
    }
    const int white = request.white > 0 ? request.white : input.white;
    const std::string white_origin = request.white > 0 ? "--white" : describe(source);
    if (request.dry_run) {
        std::printf("%s: %d x %d, %d-bit, white %d (from %s)%s%s\n", request.input.c_str(), input.width,
                    input.height, input.bit_depth, white, white_origin.c_str(), input.notes.empty() ? "" : ", ",
                    input.notes.c_str());
        std::printf("would run %s with %s\n", filter->name, params.summary().c_str());
        return 0;
    }

    const FilterRun run = run_filter(*filter, params, input, white);
    if (run.code != 0) {
        const bool built = run.code != -3 || filter_is_built(*filter);
        return failure(std::string(filter->name) + " failed with code " + std::to_string(run.code) + ": " +
                       describe_result(run.code, built) + "; " + request.output + " was not written");
    }
    if (result_place(*filter) == ResultPlace::input_rgb) {
        if (run.rgb.empty()) return failure(std::string(filter->name) + " left no RGB buffer; nothing written");
        problem = write_rgb_image(request.output, input.height, input.width, run.rgb.data());
    } else {
        problem = write_grey_image(request.output, run.grey);
    }
    if (!problem.empty()) return failure(request.output + ": " + problem);
    std::printf("%s (%s): %s -> %s (%d x %d, white %d from %s) in %.0f ms\n", filter->name,
                params.summary().c_str(), request.input.c_str(), request.output.c_str(), input.width, input.height,
                white, white_origin.c_str(), run.milliseconds);
    return 0;
}

}  // namespace krf::tools
