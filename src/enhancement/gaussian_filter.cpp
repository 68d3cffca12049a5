// "gaussian": the 16-bit Gaussian primitive on a contiguous copy of the image.
#include <climits>

#include "enhancement/enhancement.h"
#include "primitives/primitives.h"

namespace krf {

int gaussian_filter(Rows src, Rows dst, int height, int width, int kernelSize, float sigma) {
    // Compared as floats; a sigma of exactly 0.1 or 5.0 stays. NaN passes both
    // comparisons and is refused by the primitive with -5.
    if (sigma < 0.1f)
        sigma = 0.1f;
    else if (sigma > 5.0f)
        sigma = 5.0f;

    const prim::Size size{width, height};
    std::int64_t record_bytes = 0, work_bytes = 0;
    if (const int s = prim::GaussianFilterGetBufferSize(size, kernelSize, prim::SampleType::u16, 1, &record_bytes,
                                                        &work_bytes);
        s != prim::kOk)
        return s;
    // A row step is an int of bytes; a row too long for one cannot be described.
    if (std::int64_t{width} * 2 > INT_MAX) return prim::kBadSize;
    const int step = width * 2;

    const prim::Buffer<unsigned char> record(prim::AllocBytes(record_bytes));
    const prim::Buffer<unsigned char> work(prim::AllocBytes(work_bytes));
    if (!record || !work) return prim::kNoMemory;
    // The image buffers are scratch memory like the preparation blocks, and
    // their absence is reported the same way.
    const std::int64_t samples = std::int64_t{width} * height;
    const prim::Buffer<std::uint16_t> input(prim::AllocU16(samples));
    const prim::Buffer<std::uint16_t> blurred(prim::AllocU16(samples));
    if (!input || !blurred) return prim::kNoMemory;
    prim::CopyRowsToBuffer(src, input.get(), width, height);

    if (const int s = prim::GaussianFilterInit(size, kernelSize, sigma, prim::BorderKind::replicate,
                                               prim::SampleType::u16, 1, record.get(), work.get());
        s != prim::kOk)
        return s;
    if (const int s = prim::GaussianFilterRunU16(input.get(), step, blurred.get(), step, size, 0, record.get(),
                                                 work.get());
        s != prim::kOk)
        return s;
    prim::CopyBufferToRows(blurred.get(), dst, width, height);
    return 0;
}

}  // namespace krf
