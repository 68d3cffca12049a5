// Operating-system services the library uses. Everything that touches the
// operating system lives in this folder; the rest of the library is portable.
#pragma once

#include <cstdint>

namespace krf::platform {

// Milliseconds from an arbitrary origin; wraps like a 32-bit tick counter.
std::uint32_t tick_count() noexcept;

// One diagnostic line for a developer. On Windows it goes to the debugger;
// elsewhere to standard error, and only when KRFILTER_DEBUG is set and non-empty.
void debug_output(const char* line) noexcept;

// Cross-process counting semaphore, opened per use and given back on scope
// exit. Bounds how many memory-hungry runs proceed at once across all threads
// and processes. A semaphore that cannot be created or opened does not
// throttle (the guarded work still runs).
class NamedSlot {
public:
    explicit NamedSlot(const char* name) noexcept;
    // For tests: a semaphore that this call creates gets `slotsIfCreated`
    // slots instead of the count the free memory allows; one that exists
    // keeps its own count.
    NamedSlot(const char* name, long slotsIfCreated) noexcept;
    // For tests: deletes the named semaphore, so that the next NamedSlot
    // creates it afresh (a no-op on Windows, where the object disappears with
    // its last handle).
    static void remove(const char* name) noexcept;
    ~NamedSlot();
    NamedSlot(const NamedSlot&) = delete;
    NamedSlot& operator=(const NamedSlot&) = delete;
    bool held() const noexcept { return held_; }

private:
    std::intptr_t handle_ = -1;
    bool held_ = false;
};

// Number of slots a new semaphore is created with: 256 MiB reserved, then one
// slot per 682 MiB of memory available, at least one.
long slot_count_for(std::uint64_t available_bytes) noexcept;

// Processor features, detected once when the library is loaded.
struct CpuFeatures {
    bool sse41 = false;
    bool avx2 = false;
    bool avx512bw = false;
};
const CpuFeatures& cpu_features() noexcept;
void detect_cpu_features() noexcept;

}  // namespace krf::platform
