#include "platform/memory.h"

#include <cstdlib>
#include <limits>

namespace krf {

#if defined(KRFILTER_FAULT_INJECTION)
namespace {
thread_local std::int64_t attempts = 0;
thread_local std::int64_t fail_at = 0;
thread_local bool keep_failing = false;
thread_local std::int64_t live = 0;

bool injected_fault() noexcept {
    ++attempts;
    if (fail_at > 0 && attempts >= fail_at && (keep_failing || attempts == fail_at)) {
        if (!keep_failing) fail_at = 0;
        return true;
    }
    return false;
}
}  // namespace

namespace testing {
void fail_allocation(std::int64_t nth) noexcept {
    attempts = 0;
    fail_at = nth;
    keep_failing = false;
}
void fail_allocations_from(std::int64_t nth) noexcept {
    attempts = 0;
    fail_at = nth;
    keep_failing = nth > 0;
}
std::int64_t allocation_count() noexcept { return attempts; }
bool allocation_fault_pending() noexcept { return fail_at > 0 && attempts < fail_at; }
std::int64_t live_blocks() noexcept { return live; }
}  // namespace testing
#else
namespace {
constexpr bool injected_fault() noexcept { return false; }
}  // namespace
#endif

bool checked_size(std::int64_t count, std::size_t elem_size, std::size_t* bytes) noexcept {
    if (count < 0) return false;
    const auto n = static_cast<std::uint64_t>(count);
    if (elem_size != 0 && n > std::numeric_limits<std::size_t>::max() / elem_size) return false;
    *bytes = static_cast<std::size_t>(n) * elem_size;
    return true;
}

void* zalloc(std::int64_t count, std::size_t elem_size) noexcept {
    if (injected_fault()) return nullptr;
    std::size_t bytes = 0;
    if (!checked_size(count, elem_size, &bytes)) return nullptr;
    // calloc(0) may legally return nullptr; an empty request is not a failure.
    void* block = std::calloc(bytes == 0 ? 1 : bytes, 1);
#if defined(KRFILTER_FAULT_INJECTION)
    if (block != nullptr) ++live;
#endif
    return block;
}

void zfree(void* block) noexcept {
#if defined(KRFILTER_FAULT_INJECTION)
    if (block != nullptr) --live;
#endif
    std::free(block);
}

}  // namespace krf
