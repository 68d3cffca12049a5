// The command-line tool's view of the catalogue: finding filters, turning
// typed NAME=VALUE assignments into the parameter array DoFilter takes, and
// telling which catalogued filters this build of the library runs.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "krfilter/krfilter.h"

namespace krf::tools {

// The catalogue's filters, in catalogue order.
std::vector<const FILTERLIST*> catalogued_filters();
// Exact, case-sensitive lookup, as DoFilter matches names; null when absent.
const FILTERLIST* find_filter(const std::string& name);
// Catalogued names equal to `name` apart from letter case (for a suggestion).
std::vector<std::string> similar_filter_names(const std::string& name);

const char* type_name(ParamType type);
// A catalogue number as a person would write it: integers plainly, values
// stored as widened floats (0.2, 987.987) in their short float form.
std::string format_number(double value);
// A parameter name, quoted when blanks around it would otherwise be invisible.
std::string shown_name(const char* name);

// One value per catalogue parameter, each of its catalogue type, behind
// stable pointers: exactly the parameter array DoFilter expects.
class ParameterSet {
public:
    // Starts from the catalogue defaults.
    explicit ParameterSet(const FILTERLIST& filter);
    ParameterSet(const ParameterSet&) = delete;
    ParameterSet& operator=(const ParameterSet&) = delete;

    // Applies "NAME=VALUE" or "#INDEX=VALUE" (1-based) assignments in order.
    // A name matches as typed, or else ignoring surrounding blanks; a name
    // that several parameters share ("Sigma") sets the first of them not yet
    // given. Returns an empty string, or one line saying what is wrong and
    // which names are valid.
    std::string assign(const std::vector<std::string>& assignments);
    // Sets parameter `index` (0-based) from a number, converted to its type.
    void set(std::size_t index, double value);

    std::size_t size() const { return params_.size(); }
    const FILTERPARAM& descriptor(std::size_t index) const { return *params_[index]; }
    std::string value_text(std::size_t index) const;
    // "Gamma"=0.6 style list of every value, for messages and the demo page.
    std::string summary() const;
    void** data() { return pointers_.data(); }

private:
    std::string parse_into(std::size_t index, const std::string& text);
    std::string valid_names() const;

    union Value {
        int i;
        float f;
        double d;
    };
    const FILTERLIST& filter_;
    std::vector<const FILTERPARAM*> params_;
    std::vector<Value> values_;
    std::vector<void*> pointers_;
};

// Whether this build of the library runs the filter. The library has no
// query for that, so the filter is tried once with its catalogue defaults on
// a 16 × 16 image: an unknown name gives -3, any other result means the
// dispatcher has it. Whatever the filter prints to standard output during
// the try is discarded.
bool filter_is_built(const FILTERLIST& filter);

// A result code of DoFilter in words. `built` decides what -3 means: an
// unknown name, or a filter refusing its parameters (an inverted window).
std::string describe_result(int code, bool built);

}  // namespace krf::tools
