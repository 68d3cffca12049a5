// The landmark tone curve and the line-defect correction on the standard
// workload. The landmark search's peer computes the same centre-surround
// score map with OpenCV's correlation (filter2D picks its DFT path for a
// kernel this large) and takes its maximum; the line correction is a copy
// plus one row, so its comparison is the memcpy floor.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "phantom.h"
#include "tone/tone.h"
#include "workload.h"

namespace krf::bench {
namespace {

void gammaporion(benchmark::State& state) {
    double gamma = 0, radius = 0, radius_ext = 0;
    void* p[] = {&gamma, &radius, &radius_ext};
    time_standard(state, "gammaporion", p);
}

// The default template (discs of 19 and 38 pixels here) as a zero-sum kernel:
// +1 / disc count inside, -1 / ring count in the ring.
void landmark_search_peer(benchmark::State& state) {
    const tone::LandmarkTemplate shape = tone::landmark_template(input_height(), input_width(), 0, 0);
    const int outer = static_cast<int>(shape.outer), side = 2 * outer + 1;
    cv::Mat kernel(side, side, CV_32F, cv::Scalar(0));
    int disc = 0, ring = 0;
    for (int y = -outer; y <= outer; ++y)
        for (int x = -outer; x <= outer; ++x) {
            const long d2 = static_cast<long>(x) * x + static_cast<long>(y) * y;
            if (d2 <= shape.inner * shape.inner) ++disc;
            else if (d2 <= shape.outer * shape.outer) ++ring;
        }
    for (int y = -outer; y <= outer; ++y)
        for (int x = -outer; x <= outer; ++x) {
            const long d2 = static_cast<long>(x) * x + static_cast<long>(y) * y;
            kernel.at<float>(y + outer, x + outer) = d2 <= shape.inner * shape.inner ? 1.0f / disc
                                                     : d2 <= shape.outer * shape.outer ? -1.0f / ring
                                                                                       : 0.0f;
        }
    const Raster& in = standard_input();
    const cv::Mat image(in.height, in.width, CV_16UC1, const_cast<std::uint16_t*>(in.samples.data()));
    cv::Mat wide, score;
    for (auto _ : state) {
        image.convertTo(wide, CV_32F);
        cv::filter2D(wide, score, CV_32F, kernel);
        score = cv::abs(score);
        double best = 0;
        cv::Point where;
        cv::minMaxLoc(score, nullptr, &best, nullptr, &where);
        benchmark::DoNotOptimize(best);
    }
}

void supereq(benchmark::State& state) {
    int line = tools::phantom_defective_row(input_height()), prev = 0, post = 0, tile = 64;
    double factor = 0;
    void* p[] = {&line, &prev, &post, &tile, &factor};
    time_standard(state, "supereq", p);
}

void supereq_pre(benchmark::State& state) {
    int line = tools::phantom_defective_row(input_height()), prev = 0, post = 0, tile = 64;
    int roi_width = 0, roi_height = 0, roi_v = 0, roi_h = 0, percentile = 50, enable_post = 1;
    double factor = 0;
    void* p[] = {&line, &prev, &post, &tile, &factor, &roi_width,
                 &roi_height, &roi_v, &roi_h, &percentile, &enable_post};
    time_standard(state, "supereq_pre", p);
}

const bool registered =
    add({"gammaporion defaults", gammaporion, "cv::filter2D centre-surround 32F + minMaxLoc", landmark_search_peer}) &&
    add({"supereq tiles 64", supereq, "", nullptr}) && add({"supereq_pre median, tiles 64", supereq_pre, "", nullptr});

}  // namespace
}  // namespace krf::bench
