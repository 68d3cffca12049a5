#include "filter_runner.h"

#include <chrono>
#include <cstring>
#include <string>

namespace krf::tools {

ResultPlace result_place(const FILTERLIST& filter) {
    if (std::strcmp(filter.name, "rain") == 0) return ResultPlace::input_in_place;
    if (std::strcmp(filter.name, "colorize") == 0) return ResultPlace::input_rgb;
    return ResultPlace::output;
}

FilterRun run_filter(const FILTERLIST& filter, ParameterSet& params, const GreyImage& input, int white) {
    FilterRun run;
    GreyImage source = input;
    // The output starts as a copy of the input. Several neighbourhood filters
    // leave a border of their output unwritten and the library never clears
    // the output, so those samples would otherwise keep whatever the buffer
    // held; with the copy they show the input, which is what a viewer expects.
    run.grey = input;
    std::vector<std::uint16_t*> in_rows = source.row_pointers();
    std::vector<std::uint16_t*> out_rows = run.grey.row_pointers();
    CKRImage in(in_rows.data(), input.height, input.width, white);
    CKRImage out(out_rows.data(), input.height, input.width, white);
    std::string name = filter.name;

    const auto start = std::chrono::steady_clock::now();
    run.code = DoFilter(&in, &out, name.data(), params.data());
    run.milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (run.code != 0) return run;

    switch (result_place(filter)) {
    case ResultPlace::input_in_place: run.grey = std::move(source); break;
    case ResultPlace::input_rgb: {
        unsigned char* rgb = nullptr;
        if (in.GetRGBVector(&rgb) == 0 && rgb != nullptr) {
            run.rgb.assign(rgb, rgb + static_cast<std::size_t>(input.height) * input.width * 3);
        }
        break;
    }
    case ResultPlace::output: break;
    }
    run.grey.white = white;
    run.grey.derivation = "krfilter ";
    run.grey.derivation += name;
    if (params.size() > 0) run.grey.derivation.append(" ").append(params.summary());
    return run;
}

}  // namespace krf::tools
