#include "platform/platform.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <cstdio>
#include <cstdlib>
#include <ctime>
#endif

namespace krf::platform {

#if defined(_WIN32)
std::uint32_t tick_count() noexcept { return GetTickCount(); }

void debug_output(const char* line) noexcept { OutputDebugStringA(line); }
#else
std::uint32_t tick_count() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto ms = static_cast<std::uint64_t>(now.tv_sec) * 1000u +
                    static_cast<std::uint64_t>(now.tv_nsec) / 1000000u;
    return static_cast<std::uint32_t>(ms);
}

void debug_output(const char* line) noexcept {
    const char* enabled = std::getenv("KRFILTER_DEBUG");
    if (enabled != nullptr && enabled[0] != '\0') std::fputs(line, stderr);
}
#endif

}  // namespace krf::platform
