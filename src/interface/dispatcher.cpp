#include <cstdio>
#include <cstring>

#include "interface/dispatch.h"
#include "platform/platform.h"

namespace krf {

int timed(const char* format, const FilterCall& call, void** params, RunFilter run) {
    const std::uint32_t start = platform::tick_count();
    const int result = run(call, params);
    const std::uint32_t elapsed = platform::tick_count() - start;
    if (format != nullptr) {
        char line[260];
        std::snprintf(line, sizeof line, format, static_cast<int>(elapsed));
        platform::debug_output(line);
    }
    return result;
}

}  // namespace krf

extern "C" KRFILTER_API int DoFilter(CKRImage* in, CKRImage* out, char* name, void** params) {
    if (name == nullptr) return -1;
    // A missing image is an argument error like a missing name; reading
    // through it would crash the host instead.
    if (in == nullptr || out == nullptr) return -1;
    const krf::FilterCall call{in, in->rows, out->rows, in->height, in->width, in->white};
    for (std::size_t i = 0; i < krf::dispatch_table_size; ++i) {
        const krf::DispatchEntry& entry = krf::dispatch_table[i];
        if (std::strcmp(name, entry.name) != 0) continue;
        if (entry.reads_params && params == nullptr) return -2;
        return entry.run(call, params);
    }
    return -3;
}

extern "C" KRFILTER_API int FilterProcessing(void* inRows, unsigned long width, unsigned long height,
                                             unsigned char /*depth: no meaning in this library*/,
                                             unsigned short white, void* outRows, char* name, void** params) {
    CKRImage input(static_cast<unsigned short**>(inRows), static_cast<int>(height), static_cast<int>(width), white);
    CKRImage output(static_cast<unsigned short**>(outRows), static_cast<int>(height), static_cast<int>(width), white);
    return DoFilter(&input, &output, name, params);
}

extern "C" KRFILTER_API unsigned long GetInformation(unsigned long, void**) { return 0; }
