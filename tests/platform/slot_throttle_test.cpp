// The cross-process throttle of "advancedsmoothing2": processes that run the
// filter at once never exceed the slot count, the dispatcher waits for a
// slot, and a holder killed outright gives its slot back.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "enhancement/enhancement.h"
#include "platform/platform.h"
#include "support/test_images.h"

namespace {

using krf::platform::NamedSlot;

struct SharedCounters {
    std::atomic<int> running;
    std::atomic<int> peak;
};

// Waits for a child for at most `seconds`; its exit code, or -1 on time-out
// (the child is then killed) or abnormal end.
int exit_code_within(pid_t child, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(AdvancedSmoothing2Throttle, NoMoreProcessesRunTheFilterThanThereAreSlots) {
    // A name of this test's own, created with two slots and removed again, so
    // that no count persists in the kernel for later runs.
    const std::string name = "krfilter-throttle-test-" + std::to_string(getpid());
    NamedSlot::remove(name.c_str());
    void* shared = mmap(nullptr, sizeof(SharedCounters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    auto* counters = new (shared) SharedCounters{};

    std::vector<pid_t> children;
    for (int i = 0; i < 6; ++i) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            krf::test::Image in = krf::test::phantom(96, 80, 4095, i + 1), out(96, 80);
            // The dispatcher's entry, with this test's semaphore.
            const NamedSlot slot(name.c_str(), 2);
            if (!slot.held()) _exit(2);
            const int now = ++counters->running;
            int peak = counters->peak.load();
            while (now > peak && !counters->peak.compare_exchange_weak(peak, now)) {}
            const auto status = krf::advanced_smoothing_2(in.rows(), out.rows(), 96, 80, 0.2f, 0.5f, 2.0f, 4.0f);
            std::this_thread::sleep_for(std::chrono::milliseconds(150));  // overlap the runs
            --counters->running;
            _exit(status == krf::prim::kOk ? 0 : 3);
        }
        children.push_back(child);
    }
    for (pid_t child : children) EXPECT_EQ(exit_code_within(child, 60.0), 0);
    EXPECT_EQ(counters->peak.load(), 2);
    munmap(shared, sizeof(SharedCounters));
    NamedSlot::remove(name.c_str());
}

TEST(AdvancedSmoothing2Throttle, TheDispatcherWaitsForASlotThatAKilledHolderGivesBack) {
    // The filter's own semaphore, recreated with one slot for the test and
    // removed afterwards: the next run creates it with the count the free
    // memory allows.
    const char* name = "advancedsmoothing2";
    NamedSlot::remove(name);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        const NamedSlot slot(name, 1);
        const char byte = slot.held() ? 1 : 0;
        if (write(ready[1], &byte, 1) != 1) _exit(2);
        pause();
        _exit(0);
    }
    char held = 0;
    ASSERT_EQ(read(ready[0], &held, 1), 1);
    ASSERT_EQ(held, 1);

    std::vector<pid_t> runners;
    for (int i = 0; i < 2; ++i) {
        const pid_t runner = fork();
        ASSERT_GE(runner, 0);
        if (runner == 0) {
            krf::test::Image in = krf::test::phantom(40, 50, 4095, i + 1);
            krf::test::Image out(40, 50, krf::test::kMarker);
            krf::test::Params p;
            p.add_float(0.2f).add_float(0.5f).add_float(2.0f).add_float(4.0f);
            const int code = krf::test::run_filter("advancedsmoothing2", in, out, 4095, p.data());
            _exit(code == 0 && out.at(20, 25) != krf::test::kMarker ? 0 : 1);
        }
        runners.push_back(runner);
    }
    // A run of this size takes milliseconds; both runners are still waiting.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    int status = 0;
    for (pid_t runner : runners) EXPECT_EQ(waitpid(runner, &status, WNOHANG), 0) << "ran without a slot";

    kill(holder, SIGKILL);
    waitpid(holder, &status, 0);
    for (pid_t runner : runners) EXPECT_EQ(exit_code_within(runner, 60.0), 0);
    close(ready[0]);
    close(ready[1]);
    NamedSlot::remove(name);
}

}  // namespace
