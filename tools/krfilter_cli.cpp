// krfilter: the library's catalogue and filters from the command line.
//
// Exit status: 0 success; 1 a file could not be read or written, or the
// filter returned a non-zero code; 2 the command line was wrong.
#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "demo.h"
#include "filter_params.h"
#include "filter_runner.h"
#include "image_io.h"
#include "krfilter/krfilter.h"

namespace {

using namespace krf::tools;

constexpr int kFailed = 1;
constexpr int kUsage = 2;

const char* const kUsageText =
    "usage: krfilter list\n"
    "       krfilter info NAME\n"
    "       krfilter run NAME INPUT OUTPUT [PARAM=VALUE ...] [--white N] [--dry-run]\n"
    "       krfilter demo [DIR] [--size N]\n"
    "\n"
    "list     the filter catalogue, and which filters this build of the library runs\n"
    "info     one filter's parameters: types, ranges, defaults, how to set them\n"
    "run      reads an 8- or 16-bit greyscale PNG or TIFF, runs the filter, writes\n"
    "         OUTPUT (.png, .tif or .tiff) with the input's bit depth. Parameters not\n"
    "         given keep their catalogue defaults; #N=VALUE sets the N-th parameter.\n"
    "         --white N   white level (default: PNG sBIT, TIFF MaxSampleValue, or the bit depth)\n"
    "         --dry-run   check the command and the input, print what would run, write nothing\n"
    "demo     runs every filter of this build on a synthetic radiograph and writes\n"
    "         pictures, a contact sheet and index.html into DIR (default ./demo-out)\n";

int usage_error(const std::string& message) {
    std::fprintf(stderr, "krfilter: %s\n%s", message.c_str(), kUsageText);
    return kUsage;
}

// A wrong filter name or parameter: the message says what is valid.
int argument_error(const std::string& message) {
    std::fprintf(stderr, "krfilter: %s\n", message.c_str());
    return kUsage;
}

int failure(const std::string& message) {
    std::fprintf(stderr, "krfilter: %s\n", message.c_str());
    return kFailed;
}

bool parse_int(const std::string& text, int low, int high, int& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} && end == text.data() + text.size() && !text.empty() && value >= low && value <= high;
}

// A filter name, or a message naming the closest catalogue entries.
const FILTERLIST* lookup(const std::string& name, std::string& problem) {
    if (const FILTERLIST* filter = find_filter(name)) return filter;
    problem = "no filter named \"" + name + "\" in the catalogue";
    const std::vector<std::string> similar = similar_filter_names(name);
    if (!similar.empty()) problem += " (did you mean \"" + similar.front() + "\"?)";
    problem += "; krfilter list shows them all";
    return nullptr;
}

int list_filters() {
    const std::vector<const FILTERLIST*> filters = catalogued_filters();
    int built = 0;
    std::printf("%-3s %-20s %-6s %s\n", "#", "filter", "built", "parameters");
    for (std::size_t i = 0; i < filters.size(); ++i) {
        const ParameterSet params(*filters[i]);
        std::string names;
        for (std::size_t k = 0; k < params.size(); ++k) {
            names += (k > 0 ? ", " : "") + shown_name(params.descriptor(k).name);
        }
        const bool runs = filter_is_built(*filters[i]);
        built += runs ? 1 : 0;
        std::printf("%-3zu %-20s %-6s %s\n", i, filters[i]->name, runs ? "yes" : "no", names.empty() ? "-" : names.c_str());
    }
    std::printf("%zu filters in the catalogue, %d run by this build.\n", filters.size(), built);
    return 0;
}

int show_info(const std::string& name) {
    std::string problem;
    const FILTERLIST* filter = lookup(name, problem);
    if (filter == nullptr) return argument_error(problem);
    const ParameterSet params(*filter);
    std::printf("%s: %zu parameter%s; %s\n", filter->name, params.size(), params.size() == 1 ? "" : "s",
                filter_is_built(*filter) ? "this build runs it" : "not run by this build (it answers -3)");
    if (params.size() > 0) {
        std::printf("  %-3s %-22s %-7s %-12s %-12s %s\n", "#", "name", "type", "min", "max", "default");
    }
    bool shared_name = false, blanks = false;
    for (std::size_t k = 0; k < params.size(); ++k) {
        const FILTERPARAM& p = params.descriptor(k);
        std::string quoted = "\"";
        quoted.append(p.name).push_back('"');
        std::printf("  %-3zu %-22s %-7s %-12s %-12s %s\n", k + 1, quoted.c_str(),
                    type_name(p.type), format_number(p.min).c_str(), format_number(p.max).c_str(),
                    format_number(p.def).c_str());
        for (std::size_t j = 0; j < k; ++j) shared_name |= std::strcmp(params.descriptor(j).name, p.name) == 0;
        blanks |= shown_name(p.name).front() == '"';
    }
    if (params.size() > 0) {
        std::printf("Set a parameter with NAME=VALUE or by position with #N=VALUE; values are passed as typed\n"
                    "(the ranges are hints: the library does not enforce them).\n");
    }
    if (shared_name) {
        std::printf("Several parameters share a name: NAME=VALUE sets the first of them not yet given,\n"
                    "so give it once per parameter in order, or use #N=VALUE.\n");
    }
    if (blanks) std::printf("A quoted name has blanks around it; the name without them is accepted too.\n");
    return 0;
}

struct RunRequest {
    std::string filter;
    std::string input;
    std::string output;
    std::vector<std::string> assignments;
    int white = 0;  // 0: from the file
    bool dry_run = false;
};

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

int parse_run(const std::vector<std::string>& args) {
    RunRequest request;
    std::vector<std::string> positional;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--dry-run") {
            request.dry_run = true;
        } else if (a == "--white" || a.rfind("--white=", 0) == 0) {
            std::string value;
            if (a == "--white") {
                if (i + 1 == args.size()) return usage_error("--white needs a value");
                value = args[++i];
            } else {
                value = a.substr(std::strlen("--white="));
            }
            if (!parse_int(value, 1, 65535, request.white)) {
                return argument_error("--white takes a whole number from 1 to 65535, not \"" + value + "\"");
            }
        } else if (a.rfind("--", 0) == 0) {
            return usage_error("unknown option " + a);
        } else {
            positional.push_back(a);
        }
    }
    if (positional.size() < 3) return usage_error("run needs NAME INPUT OUTPUT");
    request.filter = positional[0];
    request.input = positional[1];
    request.output = positional[2];
    request.assignments.assign(positional.begin() + 3, positional.end());
    return run_command(request);
}

int parse_demo(const std::vector<std::string>& args) {
    DemoOptions options;
    bool have_folder = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--size") {
            if (i + 1 == args.size() || !parse_int(args[i + 1], 16, 8192, options.size)) {
                return usage_error("--size takes a whole number from 16 to 8192");
            }
            ++i;
        } else if (a.rfind("--", 0) == 0) {
            return usage_error("unknown option " + a);
        } else if (!have_folder) {
            options.folder = a;
            have_folder = true;
        } else {
            return usage_error("demo takes one folder");
        }
    }
    return run_demo(options);
}

int dispatch(const std::vector<std::string>& args) {
    if (args.empty()) return usage_error("no command given");
    const std::string& command = args[0];
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    if (command == "help" || command == "--help" || command == "-h") {
        std::fputs(kUsageText, stdout);
        return 0;
    }
    if (command == "list") return rest.empty() ? list_filters() : usage_error("list takes no arguments");
    if (command == "info") return rest.size() == 1 ? show_info(rest[0]) : usage_error("info takes one filter name");
    if (command == "run") return parse_run(rest);
    if (command == "demo") return parse_demo(rest);
    return usage_error("unknown command \"" + command + "\"");
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return dispatch(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::bad_alloc&) {
        return failure("out of memory");
    } catch (const std::exception& e) {
        return failure(e.what());
    }
}
