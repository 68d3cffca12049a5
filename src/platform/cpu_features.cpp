#include "platform/platform.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace krf::platform {

namespace {
// Written once by the load hook before any filter can run, read-only after.
CpuFeatures detected;
}  // namespace

const CpuFeatures& cpu_features() noexcept { return detected; }

void detect_cpu_features() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    detected.sse41 = __builtin_cpu_supports("sse4.1");
    detected.avx2 = __builtin_cpu_supports("avx2");
    detected.avx512bw = __builtin_cpu_supports("avx512bw");
#endif
}

#if defined(_WIN32)
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) detect_cpu_features();
    return TRUE;
}
#else
namespace {
__attribute__((constructor)) void on_load() { detect_cpu_features(); }
}  // namespace
#endif

}  // namespace krf::platform
