// "RUM" and "testRUM": an unsharp mask whose strength follows the local
// contrast. Local mean and local standard deviation come from replicated-edge
// windows; the deviation map is smoothed with a Gaussian that lets it fall
// toward zero at the image edges, and a rational curve turns it into a gain
// that is 1 at the peak deviation and falls off on both sides.
//
// Every buffer comes from the primitives' allocator; one that cannot be had
// ends the run with -9 (the primitives' code for missing scratch memory), and
// like every other failure leaves the output rows unwritten.
#include <algorithm>
#include <climits>
#include <cstdio>

#include "enhancement/enhancement.h"
#include "platform/platform.h"
#include "primitives/primitives.h"

namespace krf {
namespace {

using prim::Buffer;
using prim::PrimitiveStatus;
using prim::Size;

int made_odd(int side) { return side % 2 == 0 ? side + 1 : side; }

// The padded copies grow with the square of the window. Beyond 2^28 samples
// (512 MiB), or twice the image when that is more, they are refused as memory
// that cannot be had: with overcommitted memory the allocation itself would
// succeed, and only filling the padding would find out, by exhausting the
// machine. No window the catalogue allows comes near this on a radiograph.
constexpr std::int64_t kLargestPaddedSamples = std::int64_t{1} << 28;

// `image` with k / 2 replicated samples above and to the left and the rest of
// the k − 1 below and to the right, as the windows centred on the image's
// samples need it.
struct PaddedCopy {
    Buffer<std::uint16_t> samples;
    int step = 0;  // bytes
    int half = 0;

    PrimitiveStatus make(const std::uint16_t* image, Size size, int k) {
        const std::int64_t width = std::int64_t{size.width} + k - 1, height = std::int64_t{size.height} + k - 1;
        if (width <= 0 || height <= 0) return prim::kBadSize;
        const std::int64_t image_samples = std::int64_t{size.width} * size.height;
        if (width * height > std::max(kLargestPaddedSamples, 2 * image_samples)) return prim::kNoMemory;
        samples.reset(prim::AllocU16(width * height));
        if (!samples) return prim::kNoMemory;
        step = static_cast<int>(width * 2);
        half = k / 2;
        return prim::PadReplicateU16(image, size.width * 2, size, samples.get(), step,
                                     {static_cast<int>(width), static_cast<int>(height)}, half, half);
    }
};

PrimitiveStatus local_mean(const std::uint16_t* image, std::uint16_t* mean, Size size, int side) {
    const int k = made_odd(side);
    PaddedCopy padded;
    if (const PrimitiveStatus s = padded.make(image, size, k); s != prim::kOk) return s;
    std::int64_t bytes = 0;
    if (const PrimitiveStatus s = prim::BoxMeanGetBufferSize(size, k, &bytes); s != prim::kOk) return s;
    const Buffer<unsigned char> work(prim::AllocBytes(bytes));
    if (!work) return prim::kNoMemory;
    // The padding already holds the replicated edges, so the box reads them
    // from memory: the same samples a replicated border would give.
    const std::uint16_t* origin = padded.samples.get() + std::int64_t{padded.half} * (padded.step / 2) + padded.half;
    return prim::BoxMeanU16(origin, padded.step, mean, size.width * 2, size, k, prim::BorderKind::in_memory,
                            work.get());
}

// The window statistic of the block centred on every sample, as float.
PrimitiveStatus local_deviation(const std::uint16_t* image, float* deviation, Size size, int side) {
    const int k = made_odd(side);
    PaddedCopy padded;
    if (const PrimitiveStatus s = padded.make(image, size, k); s != prim::kOk) return s;
    return prim::WindowStdDevMapU16(padded.samples.get(), padded.step, deviation, size.width * 4, size, k);
}

// Outside the image the deviation counts as zero, so the smoothed map falls
// toward zero near the edges.
PrimitiveStatus smoothed_deviation(const float* deviation, float* smoothed, Size size, const RumSettings& s) {
    return prim::GaussianFilterF32(deviation, size.width * 4, smoothed, size.width * 4, size, s.gauss_size,
                                   s.gauss_sigma);
}

// gain = v / (v · v · q + h) with v = deviation + offset, q = 1 / (2p) and
// h = p / 2, all in float and in this order: 2pv / (v² + p²), 1 at v = p.
void gain_curve(const float* smoothed, float* gain, std::int64_t count, const RumSettings& s) {
    const float p = static_cast<float>(s.peak), t = static_cast<float>(s.offset);
    const float q = 1.0f / (p * 2.0f), h = p * 0.5f;
    for (std::int64_t i = 0; i < count; ++i) {
        const float v = smoothed[i] + t;
        gain[i] = v / (v * v * q + h);
    }
}

// Sizes every stage can describe: positive, and a float row step that fits an int.
PrimitiveStatus check_image(int height, int width) {
    if (width <= 0 || height <= 0) return prim::kBadSize;
    if (std::int64_t{width} * 4 > INT_MAX) return prim::kBadSize;
    return prim::kOk;
}

// The first stage of both filters: the input as a contiguous buffer and its
// local mean.
struct ImageAndMean {
    Buffer<std::uint16_t> image;
    Buffer<std::uint16_t> mean;

    PrimitiveStatus make(Rows src, Size size, int side) {
        const std::int64_t n = std::int64_t{size.width} * size.height;
        image.reset(prim::AllocU16(n));
        if (!image) return prim::kNoMemory;
        prim::CopyRowsToBuffer(src, image.get(), size.width, size.height);
        mean.reset(prim::AllocU16(n));
        if (!mean) return prim::kNoMemory;
        return local_mean(image.get(), mean.get(), size, side);
    }
};

}  // namespace

int rum_enhancement(Rows src, Rows dst, int height, int width, int white, float intensity,
                    const RumSettings& settings) {
    if (const PrimitiveStatus s = check_image(height, width); s != prim::kOk) return s;
    const Size size{width, height};
    const std::int64_t n = std::int64_t{width} * height;
    const int u16_step = width * 2, f32_step = width * 4;

    ImageAndMean first;
    if (const PrimitiveStatus s = first.make(src, size, settings.smoothing_side); s != prim::kOk) return s;
    Buffer<std::uint16_t>& image = first.image;
    Buffer<std::uint16_t>& mean = first.mean;

    Buffer<float> gain(prim::AllocF32(n));  // the deviation first
    if (!gain) return prim::kNoMemory;
    if (const PrimitiveStatus s = local_deviation(image.get(), gain.get(), size, settings.deviation_side);
        s != prim::kOk)
        return s;
    // Deviation in units of a 65535 full scale whatever the white level. A
    // white level of 0 makes the scale infinite; its status is of no interest.
    prim::ScaleF32Vector(65535.0f / static_cast<float>(white), gain.get(), n);

    Buffer<float> input(prim::AllocF32(n));  // the smoothed deviation first
    if (!input) return prim::kNoMemory;
    if (const PrimitiveStatus s = smoothed_deviation(gain.get(), input.get(), size, settings); s != prim::kOk)
        return s;
    gain_curve(input.get(), gain.get(), n, settings);
    if (const PrimitiveStatus s = prim::ConvertU16ToF32(image.get(), u16_step, input.get(), f32_step, size);
        s != prim::kOk)
        return s;
    image.reset();

    Buffer<float> result(prim::AllocF32(n));  // the mean first
    if (!result) return prim::kNoMemory;
    if (const PrimitiveStatus s = prim::ConvertU16ToF32(mean.get(), u16_step, result.get(), f32_step, size);
        s != prim::kOk)
        return s;
    mean.reset();

    // X + intensity · C · (X − mean), computed as ((mean − X) · (C · −intensity)) + X:
    // this order and the negated intensity fix the float rounding of the result.
    PrimitiveStatus status = prim::SubF32InPlace(input.get(), f32_step, result.get(), f32_step, size);
    if (status == prim::kOk) status = prim::MulConstF32InPlace(-intensity, gain.get(), f32_step, size);
    if (status == prim::kOk) status = prim::MulF32InPlace(gain.get(), f32_step, result.get(), f32_step, size);
    if (status == prim::kOk) status = prim::AddF32InPlace(input.get(), f32_step, result.get(), f32_step, size);
    if (status != prim::kOk) return status;
    input.reset();
    gain.reset();

    const Buffer<std::uint16_t> output(prim::AllocU16(n));
    if (!output) return prim::kNoMemory;
    status = prim::ConvertF32ToU16(result.get(), f32_step, output.get(), u16_step, size, prim::Rounding::ties_to_even);
    if (status != prim::kOk) return status;
    const auto white_level = static_cast<std::uint16_t>(white);
    prim::ClampAboveU16InPlace(output.get(), u16_step, size, white_level, white_level);
    prim::CopyBufferToRows(output.get(), dst, width, height);
    return 0;
}

int test_rum(Rows src, Rows dst, int height, int width, const RumSettings& settings) {
    const std::uint32_t t0 = platform::tick_count();
    if (const PrimitiveStatus s = check_image(height, width); s != prim::kOk) return s;
    const Size size{width, height};
    const std::int64_t n = std::int64_t{width} * height;

    ImageAndMean first;
    if (const PrimitiveStatus s = first.make(src, size, settings.smoothing_side); s != prim::kOk) return s;
    Buffer<std::uint16_t>& image = first.image;
    Buffer<std::uint16_t>& mean = first.mean;

    const std::uint32_t t1 = platform::tick_count();
    Buffer<float> deviation(prim::AllocF32(n));
    if (!deviation) return prim::kNoMemory;
    if (const PrimitiveStatus s = local_deviation(image.get(), deviation.get(), size, settings.deviation_side);
        s != prim::kOk)
        return s;

    const std::uint32_t t2 = platform::tick_count();
    Buffer<float> smoothed(prim::AllocF32(n));
    if (!smoothed) return prim::kNoMemory;
    if (const PrimitiveStatus s = smoothed_deviation(deviation.get(), smoothed.get(), size, settings); s != prim::kOk)
        return s;

    const std::uint32_t t3 = platform::tick_count();
    Buffer<float> gain(prim::AllocF32(n));
    if (!gain) return prim::kNoMemory;
    // The gain is computed only to be timed: the output is the smoothed
    // deviation map itself, truncated and wrapped to 16 bits.
    gain_curve(smoothed.get(), gain.get(), n, settings);
    prim::CopyF32BufferToRowsTruncated(smoothed.get(), dst, width, height);
    image.reset();
    deviation.reset();
    smoothed.reset();
    gain.reset();
    mean.reset();
    const std::uint32_t t4 = platform::tick_count();

    const struct {
        const char* format;
        std::uint32_t milliseconds;
    } lines[] = {{" Time mean:%d millisec  \n", t1 - t0},
                 {" Time devStd:%d millisec  \n", t2 - t1},
                 {" Time gaussFiltering:%d millisec  \n", t3 - t2},
                 {" Time rationalCoefficients:%d millisec  \n\n", t4 - t3},
                 {" Time totale:%d millisec  \n\n", t4 - t0}};
    for (const auto& line : lines) {
        char text[260];
        std::snprintf(text, sizeof text, line.format, static_cast<int>(line.milliseconds));
        platform::debug_output(text);
    }
    return 0;
}

}  // namespace krf
