// "gaussian" beside single-threaded cv::GaussianBlur on the same 16-bit
// workload with replicated edges, and "RUM" on its own (it has no peer).
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdint>

#include "workload.h"

namespace krf::bench {
namespace {

std::function<void(benchmark::State&)> gaussian_case(int kernel, float sigma) {
    return [kernel, sigma](benchmark::State& state) {
        Raster out(input_height(), input_width());
        int k = kernel;
        float s = sigma;
        void* params[] = {&k, &s};
        for (auto _ : state) {
            if (run_standard("gaussian", out, params) != 0) state.SkipWithError("filter failed");
            benchmark::ClobberMemory();
        }
    };
}

std::function<void(benchmark::State&)> gaussian_peer(int kernel, double sigma) {
    return [kernel, sigma](benchmark::State& state) {
        cv::setNumThreads(1);
        const Raster& in = standard_input();
        const cv::Mat src(input_height(), input_width(), CV_16U, const_cast<std::uint16_t*>(in.samples.data()));
        cv::Mat out(input_height(), input_width(), CV_16U);
        for (auto _ : state) {
            cv::GaussianBlur(src, out, cv::Size(kernel, kernel), sigma, sigma, cv::BORDER_REPLICATE);
            benchmark::ClobberMemory();
        }
    };
}

// The demo's settings: mean window 15, deviation window 7, the catalogue's
// Gaussian (31 taps, sigma 7).
void rum_case(benchmark::State& state) {
    Raster out(input_height(), input_width());
    float intensity = 2, sigma = 7;
    int smoothing = 15, deviation = 7, peak = 2000, offset = 0, gauss = 31;
    void* params[] = {&intensity, &smoothing, &deviation, &peak, &offset, &gauss, &sigma};
    for (auto _ : state) {
        if (run_standard("RUM", out, params) != 0) state.SkipWithError("filter failed");
        benchmark::ClobberMemory();
    }
}

const bool registered = [] {
    add({"gaussian 5, 0.75", gaussian_case(5, 0.75f), "cv::GaussianBlur 5 replicate (16U)", gaussian_peer(5, 0.75)});
    add({"gaussian 7, 1.5", gaussian_case(7, 1.5f), "cv::GaussianBlur 7 replicate (16U)", gaussian_peer(7, 1.5)});
    add({"gaussian 15, 3", gaussian_case(15, 3.0f), "cv::GaussianBlur 15 replicate (16U)", gaussian_peer(15, 3.0)});
    add({"RUM 15/7/31", rum_case, "", nullptr});
    return true;
}();

}  // namespace
}  // namespace krf::bench
