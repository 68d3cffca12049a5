// A host may run filters on several threads at once, each on its own images.
// Every dispatched filter runs on two threads over different images at the
// same time and must give exactly what it gives when run alone; the
// ThreadSanitizer build (KRFILTER_TSAN) also sees any shared state the
// filters touch. And the named semaphore keeps its count when many threads
// ask for it together.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "support/filter_sweep.h"
#include "support/test_images.h"

namespace {

using krf::test::Image;
using krf::test::ParameterChoice;

// What one call leaves behind: its code, the output, the input ("rain"
// corrects it in place) and the RGB buffer ("colorize" writes into the input
// image object).
struct Outcome {
    int code = 0;
    Image in{0, 0};
    Image out{0, 0};
    std::vector<unsigned char> rgb;
    bool operator==(const Outcome& other) const {
        return code == other.code && in == other.in && out == other.out && rgb == other.rgb;
    }
};

constexpr int kWhite = 4095;

Outcome run_once(const char* name, ParameterChoice choice, const Image& source) {
    Outcome result;
    result.in = source;
    result.out = Image(source.height(), source.width(), krf::test::kMarker);
    krf::test::CatalogueParameters params(*krf::test::catalogue_entry_named(name), choice);
    CKRImage input(result.in.rows(), result.in.height(), result.in.width(), kWhite);
    CKRImage output(result.out.rows(), result.out.height(), result.out.width(), kWhite);
    std::string copy(name);
    result.code = DoFilter(&input, &output, copy.data(), params.data());
    if (input.rgb != nullptr)
        result.rgb.assign(input.rgb, input.rgb + 3 * static_cast<std::size_t>(source.height()) * source.width());
    return result;
}

struct Job {
    const char* name;
    ParameterChoice choice;
};

std::vector<Job> all_jobs() {
    std::vector<Job> jobs;
    for (const char* name : krf::test::dispatched_filters())
        for (const ParameterChoice choice : {ParameterChoice::defaults, ParameterChoice::maximum})
            jobs.push_back({name, choice});
    return jobs;
}

TEST(Threads, TwoThreadsGiveWhatSerialRunsGive) {
    const Image first = krf::test::phantom(48, 40, kWhite, 11);
    const Image second = krf::test::phantom(37, 53, kWhite, 12);
    const std::vector<Job> jobs = all_jobs();
    std::vector<Outcome> serial_first, serial_second;
    for (const Job& job : jobs) {
        serial_first.push_back(run_once(job.name, job.choice, first));
        serial_second.push_back(run_once(job.name, job.choice, second));
    }
    // Both threads walk the same list of filters, so the same filter mostly
    // runs on both at once.
    std::vector<Outcome> parallel_first(jobs.size()), parallel_second(jobs.size());
    std::atomic<int> ready{0};
    auto walk = [&](const Image& source, std::vector<Outcome>& results) {
        ++ready;
        while (ready.load() < 2) std::this_thread::yield();
        for (std::size_t i = 0; i < jobs.size(); ++i) results[i] = run_once(jobs[i].name, jobs[i].choice, source);
    };
    std::thread a(walk, std::cref(first), std::ref(parallel_first));
    std::thread b(walk, std::cref(second), std::ref(parallel_second));
    a.join();
    b.join();
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        const std::string where = std::string(jobs[i].name) + " (" + krf::test::describe(jobs[i].choice) + ")";
        EXPECT_TRUE(parallel_first[i] == serial_first[i]) << where << " differs on the first thread";
        EXPECT_TRUE(parallel_second[i] == serial_second[i]) << where << " differs on the second thread";
    }
}

TEST(Threads, NamedSlotKeepsItsCountUnderManyThreads) {
    const std::string name = "krfilter-threads-" + std::to_string(getpid());
    krf::platform::NamedSlot::remove(name.c_str());
    constexpr int kThreads = 24, kSlots = 3, kRounds = 20;
    std::atomic<int> holders{0}, most{0}, granted{0}, ready{0};
    auto contend = [&] {
        ++ready;
        while (ready.load() < kThreads) std::this_thread::yield();
        for (int round = 0; round < kRounds; ++round) {
            const krf::platform::NamedSlot slot(name.c_str(), kSlots);
            if (!slot.held()) continue;
            ++granted;
            const int now = ++holders;
            int seen = most.load();
            while (now > seen && !most.compare_exchange_weak(seen, now)) {
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            --holders;
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(contend);
    for (std::thread& t : threads) t.join();
    krf::platform::NamedSlot::remove(name.c_str());
    EXPECT_EQ(granted.load(), kThreads * kRounds);
    EXPECT_LE(most.load(), kSlots);
    EXPECT_GE(most.load(), 2) << "the slots never overlapped: the test proves nothing";
}

}  // namespace
