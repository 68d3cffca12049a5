// Box mean, despeckle, unsharp mask, emboss, anisotropic diffusion and
// bilateral filter on the standard workload, each beside its nearest peer
// (single-threaded OpenCV, or a plain loop of the same arithmetic).
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "workload.h"

namespace krf::bench {
namespace {

struct ParamBlock {
    std::vector<std::vector<unsigned char>> values;
    std::vector<void*> pointers;
    template <class T>
    ParamBlock& add(T v) {
        values.emplace_back(sizeof v);
        std::copy_n(reinterpret_cast<const unsigned char*>(&v), sizeof v, values.back().data());
        return *this;
    }
    void** data() {
        pointers.clear();
        for (auto& v : values) pointers.push_back(v.data());
        return pointers.data();
    }
};

std::function<void(benchmark::State&)> filter_case(const char* name, ParamBlock params) {
    return [name, params](benchmark::State& state) mutable {
        Raster out(input_height(), input_width());
        for (auto _ : state) {
            if (run_standard(name, out, params.data()) != 0) state.SkipWithError("filter failed");
            benchmark::ClobberMemory();
        }
    };
}

cv::Mat standard_mat() {
    const Raster& in = standard_input();
    return cv::Mat(input_height(), input_width(), CV_16U, const_cast<std::uint16_t*>(in.samples.data())).clone();
}

std::function<void(benchmark::State&)> blur_peer(int side) {
    return [side](benchmark::State& state) {
        cv::setNumThreads(1);
        const cv::Mat in = standard_mat();
        cv::Mat out(input_height(), input_width(), CV_16U);
        for (auto _ : state) {
            cv::blur(in, out, cv::Size(side, side), cv::Point(-1, -1), cv::BORDER_REPLICATE);
            benchmark::ClobberMemory();
        }
    };
}

void unsharp_peer(benchmark::State& state) {
    cv::setNumThreads(1);
    const cv::Mat in = standard_mat();
    cv::Mat mean(input_height(), input_width(), CV_16U), out(input_height(), input_width(), CV_16U);
    const double k = 3.0;
    for (auto _ : state) {
        cv::blur(in, mean, cv::Size(5, 5), cv::Point(-1, -1), cv::BORDER_REPLICATE);
        cv::addWeighted(in, 1.0 + k, mean, -k, 0.0, out);
        cv::min(out, input_white(), out);
        benchmark::ClobberMemory();
    }
}

void emboss_peer(benchmark::State& state) {
    cv::setNumThreads(1);
    const cv::Mat in = standard_mat();
    cv::Mat out(input_height(), input_width(), CV_16U);
    const float k = 5, h = 2;
    const cv::Mat kernel = (cv::Mat_<float>(3, 3) << -k, -h, 0, -h, 1, h, 0, h, k);
    for (auto _ : state) {
        cv::filter2D(in, out, CV_16U, kernel, cv::Point(-1, -1), 0, cv::BORDER_CONSTANT);
        cv::min(out, input_white(), out);
        benchmark::ClobberMemory();
    }
}

std::function<void(benchmark::State&)> bilateral_peer(int diameter, double sigma) {
    return [diameter, sigma](benchmark::State& state) {
        cv::setNumThreads(1);
        cv::Mat in;
        standard_mat().convertTo(in, CV_32F);
        cv::Mat out(input_height(), input_width(), CV_32F);
        for (auto _ : state) {
            cv::bilateralFilter(in, out, diameter, 1300.0, sigma, cv::BORDER_REPLICATE);
            benchmark::ClobberMemory();
        }
    };
}

// The diffusion written the obvious way: two contiguous rasters, the
// conduction table, and the update sample by sample in the stated order.
void plain_diffusion(benchmark::State& state) {
    const Raster& in = standard_input();
    const int w = input_width(), h = input_height(), white = input_white(), passes = 10;
    const double lambda = 0.1, k = (2 * white + 1) / 6.0;
    for (auto _ : state) {
        std::vector<double> g(2 * white + 1);
        for (int i = 0; i <= 2 * white; ++i) g[i] = std::exp(-((i - white) / k) * ((i - white) / k));
        std::vector<std::uint16_t> a(in.samples.size()), b(in.samples.size());
        for (std::size_t i = 0; i < a.size(); ++i) a[i] = std::min<std::uint16_t>(in.samples[i], white);
        b = a;
        std::uint16_t* s = a.data();
        std::uint16_t* d = b.data();
        for (int pass = 0; pass < passes; ++pass) {
            for (int r = 1; r < h - 1; ++r)
                for (int c = 1; c < w - 1; ++c) {
                    const int u = s[r * w + c];
                    const int ds = s[(r + 1) * w + c] - u, dn = s[(r - 1) * w + c] - u;
                    const int de = s[r * w + c + 1] - u, dw = s[r * w + c - 1] - u;
                    const double sum = ((ds * g[ds + white] + dn * g[dn + white]) + de * g[de + white]) +
                                       dw * g[dw + white];
                    d[r * w + c] = static_cast<std::uint16_t>(static_cast<int>(sum * lambda + u));
                }
            std::swap(s, d);
        }
        benchmark::DoNotOptimize(s[w + 1]);
    }
}

const bool registered = [] {
    add({"mean2D 5", filter_case("mean2D", ParamBlock().add(5)), "cv::blur 5x5 replicate (16U)", blur_peer(5)});
    add({"mean2D 31", filter_case("mean2D", ParamBlock().add(31)), "cv::blur 31x31 replicate (16U)", blur_peer(31)});
    add({"despeckle 5, 100", filter_case("despeckle", ParamBlock().add(5).add(100)), "", nullptr});
    add({"unsharp k 3, radius 5", filter_case("unsharp", ParamBlock().add(3.0).add(5)), "cv::blur + addWeighted (16U)",
         unsharp_peer});
    add({"emboss 5", filter_case("emboss", ParamBlock().add(5)), "cv::filter2D 3x3 (16U)", emboss_peer});
    add({"ADF 10 passes", filter_case("ADF", ParamBlock().add(0.1).add(0.0).add(10)), "plain loop, same arithmetic",
         plain_diffusion});
    add({"bilateral 0.5 (3x3), 1300", filter_case("bilateral_filter", ParamBlock().add(0.5).add(1300.0)),
         "cv::bilateralFilter d 3 (32F)", bilateral_peer(3, 0.5)});
    add({"bilateral 0.8 (5x5), 1300", filter_case("bilateral_filter", ParamBlock().add(0.8).add(1300.0)),
         "cv::bilateralFilter d 5 (32F)", bilateral_peer(5, 0.8)});
    return true;
}();

}  // namespace
}  // namespace krf::bench
