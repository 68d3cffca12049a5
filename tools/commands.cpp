// What the subcommands share: messages, exit statuses, filter lookup and
// strict whole numbers.
#include "commands.h"

#include <charconv>
#include <cstdio>

#include "filter_params.h"

namespace krf::tools {

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

std::string parse_white(const std::string& text, int& white) {
    white = 0;
    if (text.empty()) return {};
    if (!parse_int(text, 1, 65535, white)) return "--white takes a whole number from 1 to 65535, not \"" + text + "\"";
    return {};
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

}  // namespace krf::tools
