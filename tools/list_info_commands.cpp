// `krfilter list` and `krfilter info NAME`: the catalogue as a host sees it.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "filter_params.h"

namespace krf::tools {

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

}  // namespace krf::tools
