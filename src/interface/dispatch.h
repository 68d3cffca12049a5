// The dispatcher's table: one entry per filter, in comparison order.
#pragma once

#include <cstddef>
#include <cstdint>

#include "interface/rows.h"
#include "krfilter/krfilter.h"

namespace krf {

// What every handler receives before its own parameters.
struct FilterCall {
    CKRImage* in;
    Rows src;
    Rows dst;
    int height;
    int width;
    int white;
};

// Decodes the filter's parameters from the host's pointer array and runs it.
using RunFilter = int (*)(const FilterCall& call, void** params);

struct DispatchEntry {
    const char* name;
    bool reads_params;  // a null params array is refused with -2
    RunFilter run;
};

// params[k] points at a value of the type the dispatcher fixes for that
// filter; the value is read at call time and never range-checked.
inline int int_param(void** params, int k) { return *static_cast<const int*>(params[k]); }
inline float float_param(void** params, int k) { return *static_cast<const float*>(params[k]); }
inline double double_param(void** params, int k) { return *static_cast<const double*>(params[k]); }

// Runs `run` between two tick readings and, when `format` is given, sends the
// elapsed milliseconds to the debug channel. The run's result is returned.
int timed(const char* format, const FilterCall& call, void** params, RunFilter run);

extern const DispatchEntry dispatch_table[];
extern const std::size_t dispatch_table_size;

}  // namespace krf
