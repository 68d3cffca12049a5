// Grey-level transforms on the standard workload. The table applier has no
// 16-bit peer (cv::LUT takes 8-bit input only); the memcpy floor that the
// summary prints is its comparison.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <vector>

#include "tone/tone.h"
#include "workload.h"

namespace krf::bench {
namespace {

cv::Mat standard_mat() {
    const Raster& in = standard_input();
    return cv::Mat(in.height, in.width, CV_16UC1, const_cast<std::uint16_t*>(in.samples.data()));
}

// The standard input scaled to 8 bits the way "colorize" scales it.
cv::Mat standard_mat_8bit() {
    cv::Mat eight;
    standard_mat().convertTo(eight, CV_8U, 255.0 / input_white());
    return eight;
}

void bare_applier(benchmark::State& state) {
    const Raster& in = standard_input();
    Raster out(input_height(), input_width());
    std::vector<Sample> table(input_white() + 1);
    for (int i = 0; i <= input_white(); ++i) table[i] = static_cast<Sample>(input_white() - i);
    auto src = const_cast<Rows>(in.rows.data());
    for (auto _ : state) {
        tone::apply_table(src, out.rows.data(), input_height(), input_width(), input_white(), table.data());
        benchmark::ClobberMemory();
    }
}

void gamma(benchmark::State& state) {
    double g = 0.5;
    void* p[] = {&g};
    time_standard(state, "gamma", p);
}

// The catalogue defaults of each table filter, so that the summary shows every
// one of them; the table's construction is part of each filter's time.
void gamma_defaults(benchmark::State& state) {
    double g = 1.0;
    void* p[] = {&g};
    time_standard(state, "gamma", p);
}

void sigma_defaults(benchmark::State& state) {
    double steepness = 0.0, shift = 0.0;
    void* p[] = {&steepness, &shift};
    time_standard(state, "sigma", p);
}

void gammalog_defaults(benchmark::State& state) {
    double g = 1.0;
    void* p[] = {&g};
    time_standard(state, "gammalog", p);
}

void ll_ul_defaults(benchmark::State& state) {
    double low = 0.1, high = 0.9;
    void* p[] = {&low, &high};
    time_standard(state, "LL-UL", p);
}

void linear_defaults(benchmark::State& state) {
    double brightness = 0.0, contrast = 0.0;
    void* p[] = {&brightness, &contrast};
    time_standard(state, "linear", p);
}

void gammalin_defaults(benchmark::State& state) {
    double g = 1.0, low = 0.0, high = 1.0;
    void* p[] = {&g, &low, &high};
    time_standard(state, "gammalin", p);
}

void equalize(benchmark::State& state) { time_standard(state, "equalize", nullptr); }

void equalize_peer(benchmark::State& state) {
    const cv::Mat in = standard_mat_8bit();
    cv::Mat out;
    for (auto _ : state) {
        cv::equalizeHist(in, out);
        benchmark::ClobberMemory();
    }
}

void shannon_stretching(benchmark::State& state) {
    double low_th = 0.05, high_th = 0.95;
    int up = 100, down = 100, left = 100, right = 100;
    void* p[] = {&low_th, &high_th, &up, &down, &left, &right};
    time_standard(state, "ShannonStretching", p);
}

// "ECE" and "ECE2" share their catalogue defaults.
void entropy_contrast(benchmark::State& state, const char* name) {
    double low_th = 0.005, high_th = 0.99, din_low = 0.25, din_high = 0.75, mu = 0.5, sigma = 0.3;
    int up = 6, down = 18, left = 107, right = 118;
    void* p[] = {&low_th, &high_th, &din_low, &din_high, &mu, &sigma, &up, &down, &left, &right};
    time_standard(state, name, p);
}

void ece(benchmark::State& state) { entropy_contrast(state, "ECE"); }
void ece2(benchmark::State& state) { entropy_contrast(state, "ECE2"); }

void colorize(benchmark::State& state) {
    Raster& in = const_cast<Raster&>(standard_input());
    // One image across runs: its RGB buffer is made once, like the peer's
    // output matrix, so both sides write into memory that is already mapped.
    CKRImage input(in.rows.data(), in.height, in.width, input_white());
    CKRImage output(in.rows.data(), in.height, in.width, input_white());
    for (auto _ : state) {
        benchmark::DoNotOptimize(DoFilter(&input, &output, const_cast<char*>("colorize"), nullptr));
        benchmark::ClobberMemory();
    }
}

void colorize_peer(benchmark::State& state) {
    const cv::Mat in = standard_mat();
    cv::Mat eight, rgb;
    for (auto _ : state) {
        in.convertTo(eight, CV_8U, 255.0 / input_white());
        cv::applyColorMap(eight, rgb, cv::COLORMAP_JET);
        benchmark::ClobberMemory();
    }
}

void flip(benchmark::State& state) {
    int horizontal = 1, vertical = 1;
    void* p[] = {&horizontal, &vertical};
    time_standard(state, "flip", p);
}

void flip_peer(benchmark::State& state) {
    const cv::Mat in = standard_mat();
    cv::Mat out(in.size(), in.type());
    for (auto _ : state) {
        cv::flip(in, out, -1);
        benchmark::ClobberMemory();
    }
}

void reverse(benchmark::State& state) { time_standard(state, "reverse", nullptr); }

void reverse_peer(benchmark::State& state) {
    const cv::Mat in = standard_mat();
    cv::Mat out(in.size(), in.type());
    for (auto _ : state) {
        cv::subtract(cv::Scalar(input_white()), in, out);
        benchmark::ClobberMemory();
    }
}

const bool registered = add({"table applier", bare_applier, "", nullptr}) &&
                        add({"gamma 0.5", gamma, "", nullptr}) &&
                        add({"gamma defaults", gamma_defaults, "", nullptr}) &&
                        add({"sigma defaults", sigma_defaults, "", nullptr}) &&
                        add({"gammalog defaults", gammalog_defaults, "", nullptr}) &&
                        add({"LL-UL defaults", ll_ul_defaults, "", nullptr}) &&
                        add({"linear defaults", linear_defaults, "", nullptr}) &&
                        add({"gammalin defaults", gammalin_defaults, "", nullptr}) &&
                        add({"equalize", equalize, "cv::equalizeHist 8U (not a peer)", equalize_peer}) &&
                        add({"ShannonStretching", shannon_stretching, "", nullptr}) &&
                        add({"ECE defaults", ece, "", nullptr}) &&
                        add({"ECE2 defaults", ece2, "", nullptr}) &&
                        add({"colorize", colorize, "cv convertTo 8U + applyColorMap", colorize_peer}) &&
                        add({"flip both", flip, "cv::flip -1 (16U)", flip_peer}) &&
                        add({"reverse", reverse, "cv::subtract from white (16U)", reverse_peer});

}  // namespace
}  // namespace krf::bench
