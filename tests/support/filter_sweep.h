// Runs over every dispatched filter with parameter sets taken from its
// catalogue entry, for the tests that sweep the whole library (allocation
// failures, threads, long runs).
#pragma once

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "interface/dispatch.h"
#include "krfilter/krfilter.h"

namespace krf::test {

inline const FILTERLIST* catalogue_entry_named(const char* name) {
    for (const FILTERLIST* f = filterlist; std::strcmp(f->name, "#") != 0; ++f)
        if (std::strcmp(f->name, name) == 0) return f;
    return nullptr;
}

// The catalogue's default, lowest and highest values of every parameter.
enum class ParameterChoice { defaults, minimum, maximum };
inline const char* describe(ParameterChoice choice) {
    return choice == ParameterChoice::defaults ? "defaults" : choice == ParameterChoice::minimum ? "minimum" : "maximum";
}

// One 8-byte slot per parameter, so a value read with a wider type than the
// catalogue declares stays inside its slot.
class CatalogueParameters {
public:
    CatalogueParameters(const FILTERLIST& entry, ParameterChoice choice) {
        for (const FILTERPARAM* p = entry.params; std::strcmp(p->name, "#") != 0; ++p) {
            double value = choice == ParameterChoice::defaults ? p->def : choice == ParameterChoice::minimum ? p->min : p->max;
            // An iteration count costs time, not coverage: the highest one would
            // only make the sweeps slow.
            if (std::strcmp(p->name, "numIter") == 0) value = std::min(value, 12.0);
            types_.push_back(p->type);
            slots_.push_back(0.0);
            set(slots_.size() - 1, value);
        }
        slots_.push_back(0.0);
        for (double& slot : slots_) pointers_.push_back(&slot);
    }
    CatalogueParameters(const CatalogueParameters&) = delete;
    CatalogueParameters& operator=(const CatalogueParameters&) = delete;
    void** data() { return pointers_.data(); }

    // Parameter k as its catalogue type holds `value`: integers saturate, and
    // NaN, which no integer holds, becomes 0.
    void set(std::size_t k, double value) {
        slots_[k] = 0.0;
        if (types_[k] == PARAM_INT) {
            const double saturated = std::fmax(INT_MIN, std::fmin(INT_MAX, value));
            const int v = std::isnan(value) ? 0 : static_cast<int>(saturated);
            std::memcpy(&slots_[k], &v, sizeof v);
        } else if (types_[k] == PARAM_FLOAT) {
            const float v = static_cast<float>(value);
            std::memcpy(&slots_[k], &v, sizeof v);
        } else {
            slots_[k] = value;
        }
    }

private:
    std::vector<ParamType> types_;
    std::vector<double> slots_;
    std::vector<void*> pointers_;
};

inline std::vector<const char*> dispatched_filters() {
    std::vector<const char*> names;
    for (std::size_t i = 0; i < dispatch_table_size; ++i) names.push_back(dispatch_table[i].name);
    return names;
}

constexpr ParameterChoice kParameterChoices[] = {ParameterChoice::defaults, ParameterChoice::minimum,
                                                 ParameterChoice::maximum};

}  // namespace krf::test
