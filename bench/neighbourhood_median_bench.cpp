// Median filters on the standard workload, against OpenCV's medianBlur.
// OpenCV runs on one thread, like the library. It filters 16-bit images only
// with windows of 3 and 5; larger windows are compared with its 8-bit filter
// on the same image reduced to 8 bits, labelled as such.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdint>
#include <string>

#include "workload.h"

namespace krf::bench {
namespace {

void run_filter(benchmark::State& state, const char* name, int window) {
    Raster out(input_height(), input_width());
    int value = window;
    void* params[] = {&value};
    for (auto _ : state) {
        if (run_standard(name, out, params) != 0) {
            state.SkipWithError("the filter returned an error");
            break;
        }
        benchmark::ClobberMemory();
    }
}

// The phantom's noise falls with the level, as the switching median's noise
// model expects, so the filter does its full work and replaces the specks.
void run_switching_median(benchmark::State& state) {
    Raster out(input_height(), input_width());
    char name[] = "SMF";
    for (auto _ : state) {
        if (run_standard(name, out, nullptr) != 0) {
            state.SkipWithError("the filter returned an error");
            break;
        }
        benchmark::ClobberMemory();
    }
}

class SingleThreadedOpenCv {
public:
    SingleThreadedOpenCv() : threads_(cv::getNumThreads()) { cv::setNumThreads(1); }
    ~SingleThreadedOpenCv() { cv::setNumThreads(threads_); }

private:
    int threads_;
};

void opencv_median_16u(benchmark::State& state, int window) {
    const Raster& in = standard_input();
    const cv::Mat src(input_height(), input_width(), CV_16U, const_cast<std::uint16_t*>(in.samples.data()));
    cv::Mat dst(input_height(), input_width(), CV_16U);
    SingleThreadedOpenCv one_thread;
    for (auto _ : state) {
        cv::medianBlur(src, dst, window);
        benchmark::ClobberMemory();
    }
}

void opencv_median_8u(benchmark::State& state, int window) {
    const Raster& in = standard_input();
    const cv::Mat src16(input_height(), input_width(), CV_16U, const_cast<std::uint16_t*>(in.samples.data()));
    cv::Mat src;
    src16.convertTo(src, CV_8U, 1.0 / 16.0);
    cv::Mat dst(input_height(), input_width(), CV_8U);
    SingleThreadedOpenCv one_thread;
    for (auto _ : state) {
        cv::medianBlur(src, dst, window);
        benchmark::ClobberMemory();
    }
}

Case median_case(int window) {
    const std::string side = std::to_string(window);
    const bool sixteen_bit_peer = window <= 5;
    return {"median2D " + side + "x" + side,
            [window](benchmark::State& s) { run_filter(s, "median2D", window); },
            "cv::medianBlur " + side + (sixteen_bit_peer ? " (16U)" : " (8U data)"),
            [window, sixteen_bit_peer](benchmark::State& s) {
                if (sixteen_bit_peer) opencv_median_16u(s, window);
                else opencv_median_8u(s, window);
            }};
}

const bool registered = [] {
    for (const int window : {3, 5, 7, 15, 31}) add(median_case(window));
    add({"pseudo-median2D 5", [](benchmark::State& s) { run_filter(s, "pseudo-median2D", 5); },
         "cv::medianBlur 5 (16U, exact)", [](benchmark::State& s) { opencv_median_16u(s, 5); }});
    add({"SMF", run_switching_median,
         "cv::medianBlur 3 (16U, its median stage)", [](benchmark::State& s) { opencv_median_16u(s, 3); }});
    return true;
}();

}  // namespace
}  // namespace krf::bench
