// "ContrastCorrection" beside OpenCV's CLAHE on one thread with the same tile
// grid, on the standard workload and on a real 10-bit radiograph. OpenCV's
// CLAHE always uses 65536 bins for 16-bit input (the filter here: 1024), and
// its clip limit means something else, so it stays at OpenCV's default.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <filesystem>
#include <stdexcept>

#include "image_io.h"
#include "workload.h"

namespace krf::bench {
namespace {

constexpr int kTile = 64;

struct Image {
    int height;
    int width;
    int white;
    std::vector<std::uint16_t> samples;
};

const Image& standard_image() {
    static const Image image = [] {
        const Raster& in = standard_input();
        return Image{in.height, in.width, input_white(), in.samples};
    }();
    return image;
}

// The lower-leg radiograph from the shared data folder beside the sources (white level 1023).
const Image& radiograph() {
    static const Image image = [] {
        const auto path = std::filesystem::path(__FILE__).parent_path() / "../../shared/data/cr-leg-10bit.png";
        tools::GreyImage grey;
        const std::string problem = tools::read_grey_image(path.string(), grey);
        if (!problem.empty()) throw std::runtime_error(path.string() + ": " + problem);
        return Image{grey.height, grey.width, 1023, grey.samples};
    }();
    return image;
}

void contrast_correction(benchmark::State& state, const Image& image) {
    std::vector<std::uint16_t> in = image.samples, out(in.size());
    std::vector<std::uint16_t*> in_rows(image.height), out_rows(image.height);
    for (int r = 0; r < image.height; ++r) {
        in_rows[r] = in.data() + static_cast<std::size_t>(r) * image.width;
        out_rows[r] = out.data() + static_cast<std::size_t>(r) * image.width;
    }
    CKRImage input(in_rows.data(), image.height, image.width, image.white);
    CKRImage output(out_rows.data(), image.height, image.width, image.white);
    int tile = kTile, bins = 1024, distribution = 1;
    float clip_limit = 0.5f;
    void* params[] = {&tile, &tile, &clip_limit, &bins, &distribution};
    for (auto _ : state) {
        const int code = DoFilter(&input, &output, const_cast<char*>("ContrastCorrection"), params);
        if (code != 0) state.SkipWithError("ContrastCorrection failed");
        benchmark::ClobberMemory();
    }
}

void clahe_peer(benchmark::State& state, const Image& image) {
    const int threads = cv::getNumThreads();
    cv::setNumThreads(1);
    const cv::Mat in(image.height, image.width, CV_16UC1, const_cast<std::uint16_t*>(image.samples.data()));
    cv::Mat out;
    // The same tile grid as the filter's: ceil(extent / 64) tiles per axis.
    const cv::Size grid(static_cast<int>(std::ceil(image.width / static_cast<float>(kTile))),
                        static_cast<int>(std::ceil(image.height / static_cast<float>(kTile))));
    const cv::Ptr<cv::CLAHE> clahe = cv::createCLAHE(40.0, grid);
    for (auto _ : state) {
        clahe->apply(in, out);
        benchmark::ClobberMemory();
    }
    cv::setNumThreads(threads);
}

const bool registered =
    add({"ContrastCorrection 64x64 1024 bins", [](benchmark::State& s) { contrast_correction(s, standard_image()); },
         "cv::CLAHE 47x40 tiles (16U: 65536 bins)", [](benchmark::State& s) { clahe_peer(s, standard_image()); }}) &&
    add({"ContrastCorrection leg 10-bit 64x64 1024 bins",
         [](benchmark::State& s) { contrast_correction(s, radiograph()); },
         "cv::CLAHE 28x28 tiles leg (16U: 65536 bins)", [](benchmark::State& s) { clahe_peer(s, radiograph()); }});

}  // namespace
}  // namespace krf::bench
