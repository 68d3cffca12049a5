// Benchmark driver: runs every registered case and its peer, then prints one
// summary line per filter: ms, Mpixel/s, the peer's ms, and the ratios to the
// peer and to a memcpy of the same raster.
#include <cstdio>
#include <cstring>
#include <map>

#include "phantom.h"
#include "workload.h"

namespace krf::bench {

Raster::Raster(int h, int w) : height(h), width(w), samples(static_cast<std::size_t>(h) * w), rows(h) {
    for (int r = 0; r < h; ++r) rows[r] = samples.data() + static_cast<std::size_t>(r) * w;
}

const Raster& standard_input() {
    static const Raster input = [] {
        Raster r(kHeight, kWidth);
        tools::synthesize_phantom(r.samples.data(), kHeight, kWidth, kWhite, 1);
        return r;
    }();
    return input;
}

int run_standard(const char* name, Raster& out, void** params) {
    Raster& in = const_cast<Raster&>(standard_input());
    CKRImage input(in.rows.data(), in.height, in.width, kWhite);
    CKRImage output(out.rows.data(), out.height, out.width, kWhite);
    return DoFilter(&input, &output, const_cast<char*>(name), params);
}

void time_standard(benchmark::State& state, const char* name, void** params) {
    Raster out(kHeight, kWidth);
    for (auto _ : state) {
        if (run_standard(name, out, params) != 0) state.SkipWithError("filter failed");
        benchmark::ClobberMemory();
    }
}

namespace {

std::vector<Case>& cases() {
    static std::vector<Case> all;
    return all;
}

void memcpy_floor(benchmark::State& state) {
    const Raster& in = standard_input();
    Raster out(kHeight, kWidth);
    for (auto _ : state) {
        std::memcpy(out.samples.data(), in.samples.data(), in.samples.size() * sizeof(std::uint16_t));
        benchmark::ClobberMemory();
    }
}

// Keeps the best (minimum) real time of every benchmark, by name.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            // Single runs count, and so does the median aggregate when only
            // aggregates are reported (--benchmark_report_aggregates_only).
            const bool single = run.run_type == Run::RT_Iteration;
            if (run.error_occurred || !(single || run.aggregate_name == "median")) continue;
            const double ms = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e3;
            auto [it, inserted] = best_ms.emplace(run.run_name.function_name, ms);
            if (!inserted && ms < it->second) it->second = ms;
        }
    }
    std::map<std::string, double> best_ms;
};

}  // namespace

bool add(Case c) {
    cases().push_back(std::move(c));
    return true;
}

}  // namespace krf::bench

int main(int argc, char** argv) {
    using namespace krf::bench;
    benchmark::Initialize(&argc, argv);
    benchmark::RegisterBenchmark("floor/memcpy", memcpy_floor)->Unit(benchmark::kMillisecond)->UseRealTime();
    for (const Case& c : cases()) {
        benchmark::RegisterBenchmark(("krfilter/" + c.label).c_str(), c.filter)->Unit(benchmark::kMillisecond)->UseRealTime();
        if (c.peer)
            benchmark::RegisterBenchmark(("peer/" + c.label).c_str(), c.peer)->Unit(benchmark::kMillisecond)->UseRealTime();
    }
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    if (reporter.best_ms.empty()) {  // listing or filtering ran nothing
        benchmark::Shutdown();
        return 0;
    }
    const double megapixels = static_cast<double>(kWidth) * kHeight / 1e6;
    const auto time_of = [&](const std::string& name) {
        auto it = reporter.best_ms.find(name);
        return it == reporter.best_ms.end() ? -1.0 : it->second;
    };
    const double floor_ms = time_of("floor/memcpy");
    std::printf("\n%dx%d, white %d; memcpy of the raster: %.3f ms (best of the runs)\n", kWidth, kHeight, kWhite,
                floor_ms);
    std::printf("%-34s %10s %10s  %-30s %10s %9s %9s\n", "filter", "ms", "Mpixel/s", "peer", "peer ms", "/peer",
                "/memcpy");
    for (const Case& c : cases()) {
        const double ms = time_of("krfilter/" + c.label);
        if (ms < 0) continue;
        const double peer_ms = c.peer ? time_of("peer/" + c.label) : -1.0;
        std::printf("%-34s %10.3f %10.1f  %-30s ", c.label.c_str(), ms, megapixels / (ms / 1e3),
                    c.peer ? c.peer_label.c_str() : "-");
        if (peer_ms > 0) std::printf("%10.3f %9.2f ", peer_ms, ms / peer_ms);
        else std::printf("%10s %9s ", "-", "-");
        std::printf("%9.2f\n", floor_ms > 0 ? ms / floor_ms : 0.0);
    }
    benchmark::Shutdown();
    return 0;
}
