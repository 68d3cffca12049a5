// Regional corrections on the standard workload. "rain" corrects its input in
// place, so it runs on a private copy restored before every run; its one
// summary line per run is kept off the benchmark's output. The spine filters
// have no peer; the memcpy floor of the summary is their comparison.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "workload.h"

namespace krf::bench {
namespace {

// Standard output goes to /dev/null while it lives.
class QuietStdout {
public:
    QuietStdout() {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            close(null);
        }
    }
    ~QuietStdout() {
        std::fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
    }

private:
    int saved_ = -1;
};

void rain(benchmark::State& state) {
    const Raster& standard = standard_input();
    Raster image(input_height(), input_width()), unused(input_height(), input_width());
    double g0 = 0.02, ppoiss0 = 0.98;
    int estimation = 0;
    void* params[] = {&g0, &ppoiss0, &estimation};
    char name[] = "rain";
    QuietStdout quiet;
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(image.samples.data(), standard.samples.data(), standard.samples.size() * sizeof(std::uint16_t));
        state.ResumeTiming();
        CKRImage input(image.rows.data(), input_height(), input_width(), input_white());
        CKRImage output(unused.rows.data(), input_height(), input_width(), input_white());
        if (DoFilter(&input, &output, name, params) != 0) {
            state.SkipWithError("the filter returned an error");
            break;
        }
        benchmark::ClobberMemory();
    }
}

// The 3 × 3 median is one stage of "rain"; the rest is the model.
void opencv_median3(benchmark::State& state) {
    const Raster& in = standard_input();
    const cv::Mat src(input_height(), input_width(), CV_16U, const_cast<std::uint16_t*>(in.samples.data()));
    cv::Mat dst(input_height(), input_width(), CV_16U);
    const int threads = cv::getNumThreads();
    cv::setNumThreads(1);
    for (auto _ : state) {
        cv::medianBlur(src, dst, 3);
        benchmark::ClobberMemory();
    }
    cv::setNumThreads(threads);
}

void spine(benchmark::State& state, const char* name) {
    Raster out(input_height(), input_width());
    int half_size = 0, strength = 60;
    float metal_threshold = 0.98f;
    void* params[] = {&half_size, std::strcmp(name, "SpineCompensation3") == 0 ? static_cast<void*>(&metal_threshold)
                                                                               : static_cast<void*>(&strength)};
    for (auto _ : state) {
        if (run_standard(name, out, params) != 0) {
            state.SkipWithError("the filter returned an error");
            break;
        }
        benchmark::ClobberMemory();
    }
}

const bool registered = [] {
    add({"rain", rain, "cv::medianBlur 3 (16U, its median stage)", opencv_median3});
    add({"SpineCompensation", [](benchmark::State& s) { spine(s, "SpineCompensation"); }, "", nullptr});
    add({"SpineCompensation2 60%", [](benchmark::State& s) { spine(s, "SpineCompensation2"); }, "", nullptr});
    add({"SpineCompensation3", [](benchmark::State& s) { spine(s, "SpineCompensation3"); }, "", nullptr});
    return true;
}();

}  // namespace
}  // namespace krf::bench
