#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <unistd.h>

#include "platform/memory.h"
#include "platform/platform.h"

namespace {

TEST(ScratchAllocator, ZeroFilledAndOverflowChecked) {
    auto* block = static_cast<unsigned char*>(krf::zalloc(1000, 4));
    void* empty = krf::zalloc(0, 8);
    ASSERT_NE(block, nullptr);
    EXPECT_NE(empty, nullptr);
    for (int i = 0; i < 4000; ++i) ASSERT_EQ(block[i], 0);
    krf::zfree(block);
    krf::zfree(empty);

    EXPECT_EQ(krf::zalloc(-1, 1), nullptr);
    EXPECT_EQ(krf::zalloc(std::numeric_limits<std::int64_t>::max() / 2, 8), nullptr);
    std::size_t bytes = 0;
    EXPECT_FALSE(krf::checked_size(std::numeric_limits<std::int64_t>::max(), 16, &bytes));
    EXPECT_TRUE(krf::checked_size(3, 8, &bytes));
    EXPECT_EQ(bytes, 24u);
}

TEST(ScratchAllocator, FaultInjectionFailsExactlyTheNthAllocation) {
    krf::testing::fail_allocation(2);
    void* first = krf::zalloc(4, 1);
    void* second = krf::zalloc(4, 1);
    void* third = krf::zalloc(4, 1);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    EXPECT_FALSE(krf::testing::allocation_fault_pending());
    EXPECT_EQ(krf::testing::allocation_count(), 3);
    krf::zfree(first);
    krf::zfree(third);
    krf::testing::fail_allocation(0);
}

// That a holder who dies gives its slot back is shown by the throttle tests.
TEST(NamedSlot, CountKeepsOneAndTheMemoryCountGrantsASlot) {
    EXPECT_EQ(krf::platform::slot_count_for(0), 1);  // the reserve first, then one slot per run's peak
    EXPECT_EQ(krf::platform::slot_count_for(268435456ull + 715128832ull - 1), 1);
    EXPECT_EQ(krf::platform::slot_count_for(268435456ull + 3ull * 715128832ull), 3);
    const krf::platform::NamedSlot slot("krfilter-test-slot");
    EXPECT_TRUE(slot.held());
}

TEST(Platform, TicksAdvanceAndDebugOutputNeedsTheSwitch) {
    const std::uint32_t start = krf::platform::tick_count();
    usleep(20000);
    EXPECT_GE(krf::platform::tick_count() - start, 15u);

    unsetenv("KRFILTER_DEBUG");
    ::testing::internal::CaptureStderr();
    krf::platform::debug_output("hidden\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    setenv("KRFILTER_DEBUG", "1", 1);
    ::testing::internal::CaptureStderr();
    krf::platform::debug_output("shown\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "shown\n");
    unsetenv("KRFILTER_DEBUG");
}

TEST(Platform, CpuFeaturesAreDetectedAtLoad) {
    // Every x86-64 processor has SSE2; AVX-512BW implies AVX2.
    const auto& cpu = krf::platform::cpu_features();
    if (cpu.avx512bw) EXPECT_TRUE(cpu.avx2);
    if (cpu.avx2) EXPECT_TRUE(cpu.sse41);
}

}  // namespace
