#include "filter_params.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace krf::tools {

namespace {

bool is_terminator(const char* name) { return std::strcmp(name, "#") == 0; }

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    const std::size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

std::string lowercase(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

template <typename T>
std::string shortest(T value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

// Redirects standard output to /dev/null for its lifetime.
class SilencedStdout {
public:
    SilencedStdout() {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        if (saved_ >= 0 && null >= 0) dup2(null, STDOUT_FILENO);
        if (null >= 0) close(null);
    }
    ~SilencedStdout() {
        std::fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
    }
    SilencedStdout(const SilencedStdout&) = delete;
    SilencedStdout& operator=(const SilencedStdout&) = delete;

private:
    int saved_ = -1;
};

}  // namespace

std::vector<const FILTERLIST*> catalogued_filters() {
    std::vector<const FILTERLIST*> filters;
    for (const FILTERLIST* f = filterlist; !is_terminator(f->name); ++f) filters.push_back(f);
    return filters;
}

const FILTERLIST* find_filter(const std::string& name) {
    for (const FILTERLIST* f : catalogued_filters()) {
        if (name == f->name) return f;
    }
    return nullptr;
}

std::vector<std::string> similar_filter_names(const std::string& name) {
    std::vector<std::string> similar;
    for (const FILTERLIST* f : catalogued_filters()) {
        if (lowercase(trimmed(name)) == lowercase(f->name)) similar.emplace_back(f->name);
    }
    return similar;
}

const char* type_name(ParamType type) {
    switch (type) {
    case PARAM_INT: return "int";
    case PARAM_FLOAT: return "float";
    case PARAM_DOUBLE: return "double";
    default: return "?";
    }
}

std::string format_number(double value) {
    if (std::isfinite(value) && value == std::trunc(value) && std::fabs(value) < 1e15) {
        return std::to_string(static_cast<long long>(value));
    }
    const auto narrow = static_cast<float>(value);
    if (static_cast<double>(narrow) == value) return shortest(narrow);
    return shortest(value);
}

std::string shown_name(const char* name) {
    const std::string text = name;
    if (text.empty() || trimmed(text) != text) return "\"" + text + "\"";
    return text;
}

ParameterSet::ParameterSet(const FILTERLIST& filter) : filter_(filter) {
    for (const FILTERPARAM* p = filter.params; p != nullptr && !is_terminator(p->name); ++p) params_.push_back(p);
    values_.resize(params_.size());
    pointers_.resize(params_.size());
    for (std::size_t k = 0; k < params_.size(); ++k) {
        set(k, params_[k]->def);
        pointers_[k] = &values_[k];
    }
}

void ParameterSet::set(std::size_t index, double value) {
    Value& v = values_[index];
    switch (params_[index]->type) {
    case PARAM_INT: v.i = static_cast<int>(value); break;
    case PARAM_FLOAT: v.f = static_cast<float>(value); break;
    default: v.d = value; break;
    }
}

std::string ParameterSet::value_text(std::size_t index) const {
    const Value& v = values_[index];
    switch (params_[index]->type) {
    case PARAM_INT: return std::to_string(v.i);
    case PARAM_FLOAT: return format_number(v.f);
    default: return format_number(v.d);
    }
}

std::string ParameterSet::summary() const {
    std::string text;
    for (std::size_t k = 0; k < params_.size(); ++k) {
        if (k > 0) text += ", ";
        text += shown_name(params_[k]->name) + "=" + value_text(k);
    }
    return text.empty() ? "(no parameters)" : text;
}

std::string ParameterSet::valid_names() const {
    if (params_.empty()) return std::string(filter_.name) + " takes no parameters";
    std::string text = "valid parameters of " + std::string(filter_.name) + ":";
    for (std::size_t k = 0; k < params_.size(); ++k) {
        text += (k == 0 ? " " : ", ") + std::string("\"") + params_[k]->name + "\" (#" + std::to_string(k + 1) + ")";
    }
    return text;
}

std::string ParameterSet::assign(const std::vector<std::string>& assignments) {
    std::vector<bool> given(params_.size(), false);
    for (const std::string& assignment : assignments) {
        const std::size_t equals = assignment.find('=');
        if (equals == std::string::npos) {
            return "expected NAME=VALUE, got \"" + assignment + "\"; " + valid_names();
        }
        const std::string key = assignment.substr(0, equals);
        const std::string text = assignment.substr(equals + 1);
        std::size_t index = 0;
        if (key.size() > 1 && key[0] == '#') {
            int position = 0;
            const auto [end, error] = std::from_chars(key.data() + 1, key.data() + key.size(), position);
            if (error != std::errc{} || end != key.data() + key.size() || position < 1 ||
                static_cast<std::size_t>(position) > params_.size()) {
                return "no parameter " + key + "; " + valid_names();
            }
            index = static_cast<std::size_t>(position - 1);
        } else {
            std::vector<std::size_t> candidates;
            for (std::size_t k = 0; k < params_.size(); ++k) {
                if (key == params_[k]->name) candidates.push_back(k);
            }
            if (candidates.empty()) {
                for (std::size_t k = 0; k < params_.size(); ++k) {
                    if (trimmed(key) == trimmed(params_[k]->name)) candidates.push_back(k);
                }
            }
            if (candidates.empty()) return "unknown parameter \"" + key + "\"; " + valid_names();
            std::size_t free = 0;
            while (free < candidates.size() && given[candidates[free]]) ++free;
            if (free == candidates.size()) {
                if (candidates.size() == 1) return "parameter \"" + key + "\" is given twice";
                return "parameter \"" + key + "\" is given more than " + std::to_string(candidates.size()) +
                       " times; " + valid_names();
            }
            index = candidates[free];
        }
        if (given[index]) {
            return "parameter #" + std::to_string(index + 1) + " (\"" + params_[index]->name + "\") is given twice";
        }
        given[index] = true;
        if (std::string problem = parse_into(index, text); !problem.empty()) return problem;
    }
    return {};
}

std::string ParameterSet::parse_into(std::size_t index, const std::string& text) {
    const FILTERPARAM& p = *params_[index];
    const std::string what = "value \"" + text + "\" for \"" + p.name + "\" (" + type_name(p.type) +
                             ", catalogue range " + format_number(p.min) + " to " + format_number(p.max) + ")";
    // An explicit plus sign is fine; blanks, trailing characters and hex are not.
    const char* begin = text.data() + (text.size() > 1 && text[0] == '+' && text[1] != '-' ? 1 : 0);
    const char* end = text.data() + text.size();
    if (begin == end) return "missing " + what;
    if (p.type == PARAM_INT) {
        int value = 0;
        const auto [stop, error] = std::from_chars(begin, end, value);
        if (error == std::errc::result_out_of_range) return what + " is out of range for an int";
        if (error != std::errc{} || stop != end) return what + " is not a whole number";
        values_[index].i = value;
        return {};
    }
    double value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value, std::chars_format::general);
    if (error == std::errc::result_out_of_range) return what + " is out of range";
    if (error != std::errc{} || stop != end) return what + " is not a number";
    if (!std::isfinite(value)) return what + " is not a finite number";
    if (p.type == PARAM_FLOAT) {
        if (std::fabs(value) > FLT_MAX) return what + " is out of range for a float";
        values_[index].f = static_cast<float>(value);
    } else {
        values_[index].d = value;
    }
    return {};
}

bool filter_is_built(const FILTERLIST& filter) {
    constexpr int kSide = 16;
    std::uint16_t in[kSide][kSide];
    std::uint16_t out[kSide][kSide] = {};
    std::uint16_t* in_rows[kSide];
    std::uint16_t* out_rows[kSide];
    for (int r = 0; r < kSide; ++r) {
        for (int c = 0; c < kSide; ++c) in[r][c] = static_cast<std::uint16_t>((r * 251 + c * 17) % 4096);
        in_rows[r] = in[r];
        out_rows[r] = out[r];
    }
    CKRImage input(in_rows, kSide, kSide, 4095);
    CKRImage output(out_rows, kSide, kSide, 4095);
    ParameterSet params(filter);
    std::string name = filter.name;
    const SilencedStdout quiet;
    return DoFilter(&input, &output, name.data(), params.data()) != -3;
}

std::string describe_result(int code, bool built) {
    switch (code) {
    case 0: return "success";
    case -1: return "no filter name was given";
    case -2: return "the filter reads parameters and none were passed";
    case -3:
        return built ? "the filter refused its parameters (a window whose lower level lies above its upper level)"
                     : "this build of the library does not run the filter";
    case -4: return "ContrastCorrection refused a tile size or bin count below 1; the output was not written";
    case 1: return "no pixel work done (IsoDensity only prepares a colour buffer and always reports 1)";
    case 1007100: return "out of memory: a work buffer could not be allocated";
    case 1007200: return "out of memory: the row array of a work image could not be allocated";
    case 1007160: return "out of memory: a row of a 4-byte work plane could not be allocated";
    case 1007210: return "out of memory: the row array of a 4-byte work plane could not be allocated";
    case 1115100: return "refused by SMF: 2 percent or more of the samples would be replaced";
    case 1115110: return "out of memory: SMF could not allocate its scratch images";
    case 1117100: return "out of memory: spine compensation could not allocate its border finder";
    case 1117101: return "out of memory: spine compensation could not allocate its work memory";
    case 1121100: return "the defective line is not a row of the image; the input was copied";
    case 1121110: return "no rows to compare the defective line with; the input was copied";
    case 1122100: return "the landmark template does not fit inside the image; the input was copied";
    case 363500: return "internal error: a filter object received parameters of the wrong kind";
    case -5: return "an image operation refused its kernel (size below 3 or even, or sigma not above 0)";
    case -6: return "an image operation refused the image size";
    case -8: return "an image operation received a null buffer";
    case -9: return "out of memory: an image operation could not obtain scratch memory";
    case -12: return "an image operation met an unsupported sample type";
    case -47: return "an image operation met an unsupported channel count";
    case -225: return "an image operation met an unsupported border kind";
    default: return code < 0 ? "the filter refused its arguments" : "the filter failed";
    }
}

}  // namespace krf::tools
