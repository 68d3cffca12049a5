// Benchmark driver: runs every registered case and its peer, then prints one
// summary line per filter: ms, Mpixel/s, the peer's ms, and the ratios to the
// peer and to a memcpy of the same raster.
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "image_io.h"

#include "phantom.h"
#include "workload.h"

namespace krf::bench {

Raster::Raster(int h, int w) : height(h), width(w), samples(static_cast<std::size_t>(h) * w), rows(h) {
    for (int r = 0; r < h; ++r) rows[r] = samples.data() + static_cast<std::size_t>(r) * w;
}

Raster& Raster::operator=(Raster&& other) noexcept {
    height = other.height;
    width = other.width;
    samples = std::move(other.samples);
    rows.assign(static_cast<std::size_t>(height), nullptr);
    for (int r = 0; r < height; ++r) rows[r] = samples.data() + static_cast<std::size_t>(r) * width;
    return *this;
}

namespace {

struct Workload {
    std::string name = "phantom";
    Raster raster{0, 0};
    int white = 0;
};

Workload& chosen_workload() {
    static Workload workload;
    return workload;
}

// Builds the named input; an empty string on success, else what went wrong.
std::string load_workload(const std::string& name) {
    Workload& w = chosen_workload();
    w.name = name;
    if (name == "radiograph") {
        tools::GreyImage image;
        const std::string path = std::string(KRFILTER_DATA_DIR) + "/cr-leg-10bit.png";
        if (std::string error = tools::read_grey_image(path, image); !error.empty()) return path + ": " + error;
        w.raster = Raster(image.height, image.width);
        std::copy(image.samples.begin(), image.samples.end(), w.raster.samples.begin());
        // The file carries no significant-bits chunk; its samples are 10-bit.
        w.white = 1023;
        return {};
    }
    constexpr int kStandardHeight = 2500, kStandardWidth = 3000;
    w.raster = Raster(kStandardHeight, kStandardWidth);
    if (name == "phantom") {
        w.white = 4095;
        tools::synthesize_phantom(w.raster.samples.data(), kStandardHeight, kStandardWidth, w.white, 1);
    } else if (name == "random12" || name == "random16") {
        w.white = name == "random12" ? 4095 : 65535;
        std::mt19937 generator(12345);
        std::uniform_int_distribution<int> level(0, w.white);
        for (std::uint16_t& s : w.raster.samples) s = static_cast<std::uint16_t>(level(generator));
    } else {
        return "unknown workload \"" + name + "\" (phantom, radiograph, random12, random16)";
    }
    return {};
}

}  // namespace

const Raster& standard_input() { return chosen_workload().raster; }
int input_height() { return chosen_workload().raster.height; }
int input_width() { return chosen_workload().raster.width; }
int input_white() { return chosen_workload().white; }

int run_standard(const char* name, Raster& out, void** params) {
    Raster& in = const_cast<Raster&>(standard_input());
    CKRImage input(in.rows.data(), in.height, in.width, input_white());
    CKRImage output(out.rows.data(), out.height, out.width, input_white());
    return DoFilter(&input, &output, const_cast<char*>(name), params);
}

void time_standard(benchmark::State& state, const char* name, void** params) {
    Raster out(input_height(), input_width());
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
    Raster out(input_height(), input_width());
    for (auto _ : state) {
        std::memcpy(out.samples.data(), in.samples.data(), in.samples.size() * sizeof(std::uint16_t));
        benchmark::ClobberMemory();
    }
}

// Keeps the best (minimum) time of every benchmark, by name: wall-clock
// time, or with --time=cpu the process's processor time. Everything measured
// here runs on one thread, so on a shared, loaded machine the processor time
// leaves out the waits for a core that distort the wall-clock ratios; the
// PyWavelets peer runs in a child process, so its processor time is not seen
// and it needs wall-clock time.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    explicit SummaryReporter(bool cpu_time) : cpu_time_(cpu_time) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            // Single runs count, and so does the median aggregate when only
            // aggregates are reported (--benchmark_report_aggregates_only).
            const bool single = run.run_type == Run::RT_Iteration;
            if (run.error_occurred || !(single || run.aggregate_name == "median")) continue;
            const double time = cpu_time_ ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
            const double ms = time / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e3;
            auto [it, inserted] = best_ms.emplace(run.run_name.function_name, ms);
            if (!inserted && ms < it->second) it->second = ms;
        }
    }
    std::map<std::string, double> best_ms;

private:
    bool cpu_time_;
};

}  // namespace

bool add(Case c) {
    cases().push_back(std::move(c));
    return true;
}


namespace {

struct TableRow {
    std::string filter;
    double ms;
    double megapixels_per_second;
    std::string peer;  // empty without a peer
    double peer_ms;    // negative without a peer
    double ratio_to_peer;
    double ratio_to_memcpy;
};

std::string json_string(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted + "\"";
}

// CSV unless the name ends in .json.
bool write_table(const std::string& path, const std::string& workload, const std::string& clock, double floor_ms,
                 const std::vector<TableRow>& rows) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (!file) return false;
    const bool json = path.size() >= 5 && path.compare(path.size() - 5, 5, ".json") == 0;
    if (json) {
        std::fprintf(file, "{\n  \"workload\": %s,\n  \"height\": %d,\n  \"width\": %d,\n  \"white\": %d,\n",
                     json_string(workload).c_str(), input_height(), input_width(), input_white());
        std::fprintf(file, "  \"clock\": %s,\n  \"memcpy_ms\": %.4f,\n  \"filters\": [", json_string(clock).c_str(),
                     floor_ms);
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const TableRow& r = rows[i];
            std::fprintf(file, "%s\n    {\"filter\": %s, \"ms\": %.4f, \"mpixel_per_s\": %.2f, ", i ? "," : "",
                         json_string(r.filter).c_str(), r.ms, r.megapixels_per_second);
            if (r.peer_ms > 0)
                std::fprintf(file, "\"peer\": %s, \"peer_ms\": %.4f, \"ratio_to_peer\": %.4f, ",
                             json_string(r.peer).c_str(), r.peer_ms, r.ratio_to_peer);
            else std::fprintf(file, "\"peer\": null, \"peer_ms\": null, \"ratio_to_peer\": null, ");
            std::fprintf(file, "\"ratio_to_memcpy\": %.4f}", r.ratio_to_memcpy);
        }
        std::fprintf(file, "\n  ]\n}\n");
    } else {
        std::fprintf(file, "workload,clock,filter,ms,mpixel_per_s,peer,peer_ms,ratio_to_peer,ratio_to_memcpy\n");
        std::fprintf(file, "%s,%s,memcpy,%.4f,,,,,1\n", workload.c_str(), clock.c_str(), floor_ms);
        for (const TableRow& r : rows) {
            std::fprintf(file, "%s,%s,\"%s\",%.4f,%.2f,", workload.c_str(), clock.c_str(), r.filter.c_str(), r.ms,
                         r.megapixels_per_second);
            if (r.peer_ms > 0) std::fprintf(file, "\"%s\",%.4f,%.4f,", r.peer.c_str(), r.peer_ms, r.ratio_to_peer);
            else std::fprintf(file, ",,,");
            std::fprintf(file, "%.4f\n", r.ratio_to_memcpy);
        }
    }
    return std::fclose(file) == 0;
}

// Takes --NAME=VALUE out of argv (Google Benchmark refuses flags it does not know).
std::string take_flag(int& argc, char** argv, const std::string& name, const std::string& fallback) {
    const std::string prefix = "--" + name + "=";
    std::string value = fallback;
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], prefix.c_str(), prefix.size()) == 0) value = argv[i] + prefix.size();
        else argv[kept++] = argv[i];
    }
    argc = kept;
    return value;
}

}  // namespace
}  // namespace krf::bench

// Besides Google Benchmark's own flags:
//   --workload=phantom|radiograph|random12|random16   the input (see workload.h)
//   --table_out=FILE.csv|FILE.json                    the summary table, also as a file
//   --time=real|cpu                                   the clock the summary compares (default real)
int main(int argc, char** argv) {
    using namespace krf::bench;
    const std::string workload = take_flag(argc, argv, "workload", "phantom");
    const std::string table_path = take_flag(argc, argv, "table_out", "");
    const std::string clock = take_flag(argc, argv, "time", "real");
    if (clock != "real" && clock != "cpu") {
        std::fprintf(stderr, "krfilter_bench: --time takes real or cpu\n");
        return 1;
    }
    // The memcpy floor runs whatever the filter, since every ratio needs it.
    std::string filter = take_flag(argc, argv, "benchmark_filter", "");
    if (!filter.empty()) filter = "--benchmark_filter=floor/memcpy|" + filter;
    std::vector<char*> arguments(argv, argv + argc);
    if (!filter.empty()) arguments.push_back(filter.data());
    argc = static_cast<int>(arguments.size());
    argv = arguments.data();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (const std::string error = load_workload(workload); !error.empty()) {
        std::fprintf(stderr, "krfilter_bench: %s\n", error.c_str());
        return 1;
    }
    benchmark::RegisterBenchmark("floor/memcpy", memcpy_floor)->Unit(benchmark::kMillisecond)->UseRealTime();
    for (const Case& c : cases()) {
        benchmark::RegisterBenchmark(("krfilter/" + c.label).c_str(), c.filter)->Unit(benchmark::kMillisecond)->UseRealTime();
        if (c.peer)
            benchmark::RegisterBenchmark(("peer/" + c.label).c_str(), c.peer)->Unit(benchmark::kMillisecond)->UseRealTime();
    }
    SummaryReporter reporter(clock == "cpu");
    benchmark::RunSpecifiedBenchmarks(&reporter);

    if (reporter.best_ms.empty()) {  // listing or filtering ran nothing
        benchmark::Shutdown();
        return 0;
    }
    const double megapixels = static_cast<double>(input_width()) * input_height() / 1e6;
    const auto time_of = [&](const std::string& name) {
        auto it = reporter.best_ms.find(name);
        return it == reporter.best_ms.end() ? -1.0 : it->second;
    };
    const double floor_ms = time_of("floor/memcpy");
    std::vector<TableRow> table;
    for (const Case& c : cases()) {
        const double ms = time_of("krfilter/" + c.label);
        if (ms < 0) continue;
        const double peer_ms = c.peer ? time_of("peer/" + c.label) : -1.0;
        table.push_back({c.label, ms, megapixels / (ms / 1e3), peer_ms > 0 ? c.peer_label : std::string(), peer_ms,
                         peer_ms > 0 ? ms / peer_ms : 0.0, floor_ms > 0 ? ms / floor_ms : 0.0});
    }
    std::printf("\n%s: %dx%d, white %d; memcpy of the raster: %.3f ms (best %s time of the runs)\n",
                workload.c_str(), input_width(), input_height(), input_white(), floor_ms,
                clock == "cpu" ? "processor" : "wall-clock");
    std::printf("%-34s %10s %10s  %-30s %10s %9s %9s\n", "filter", "ms", "Mpixel/s", "peer", "peer ms", "/peer",
                "/memcpy");
    for (const TableRow& r : table) {
        std::printf("%-34s %10.3f %10.1f  %-30s ", r.filter.c_str(), r.ms, r.megapixels_per_second,
                    r.peer.empty() ? "-" : r.peer.c_str());
        if (r.peer_ms > 0) std::printf("%10.3f %9.2f ", r.peer_ms, r.ratio_to_peer);
        else std::printf("%10s %9s ", "-", "-");
        std::printf("%9.2f\n", r.ratio_to_memcpy);
    }
    if (!table_path.empty() && !write_table(table_path, workload, clock, floor_ms, table)) {
        std::fprintf(stderr, "krfilter_bench: cannot write %s\n", table_path.c_str());
        benchmark::Shutdown();
        return 1;
    }
    benchmark::Shutdown();
    return 0;
}
