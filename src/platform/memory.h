// The library's one scratch allocator. Every work buffer of every filter comes
// from here: blocks are zero-filled, sizes are computed with overflow checks
// (an overflowing size is an allocation failure, never a wrapped allocation),
// and test builds can make the N-th allocation fail on purpose.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace krf {

// Zero-filled block of count elements of elem_size bytes. A count of 0 yields a
// valid (empty) block; a negative count, an overflowing size or exhausted
// memory yields nullptr.
void* zalloc(std::int64_t count, std::size_t elem_size) noexcept;
void zfree(void* block) noexcept;

// count * elem_size * ... as a byte count, or false when it does not fit.
bool checked_size(std::int64_t count, std::size_t elem_size, std::size_t* bytes) noexcept;

// Owns one zero-filled array of T; released on every path.
template <class T>
class ScratchArray {
public:
    ScratchArray() = default;
    ScratchArray(const ScratchArray&) = delete;
    ScratchArray& operator=(const ScratchArray&) = delete;
    ScratchArray(ScratchArray&& other) noexcept : data_(std::exchange(other.data_, nullptr)) {}
    ~ScratchArray() { zfree(data_); }

    // False when the block could not be obtained; the old block is released first.
    bool allocate(std::int64_t count) noexcept {
        zfree(data_);
        data_ = static_cast<T*>(zalloc(count, sizeof(T)));
        return data_ != nullptr;
    }
    void release() noexcept { zfree(std::exchange(data_, nullptr)); }

    T* get() const noexcept { return data_; }
    T& operator[](std::int64_t i) const noexcept { return data_[i]; }
    explicit operator bool() const noexcept { return data_ != nullptr; }

private:
    T* data_ = nullptr;
};

#if defined(KRFILTER_FAULT_INJECTION)
// Test builds only. fail_allocation(n): the n-th allocation from now on (1 =
// the next one) fails; 0 disarms. fail_allocations_from(n): the n-th and every
// later one fail until disarmed, as when memory stays exhausted.
// allocation_count(): allocations attempted since the last arming.
// allocation_fault_pending(): armed and the n-th allocation not yet reached.
// live_blocks(): blocks obtained and not yet freed. Per thread, so parallel
// tests do not disturb each other.
namespace testing {
void fail_allocation(std::int64_t nth) noexcept;
void fail_allocations_from(std::int64_t nth) noexcept;
std::int64_t allocation_count() noexcept;
bool allocation_fault_pending() noexcept;
std::int64_t live_blocks() noexcept;
}  // namespace testing
#endif

}  // namespace krf
