// "gaussian": the 16-bit Gaussian primitive between the host's rows.
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
    const prim::Buffer<unsigned char> record(prim::AllocBytes(record_bytes));
    const prim::Buffer<unsigned char> work(prim::AllocBytes(work_bytes));
    if (!record || !work) return prim::kNoMemory;
    if (const int s = prim::GaussianFilterInit(size, kernelSize, sigma, prim::BorderKind::replicate,
                                               prim::SampleType::u16, 1, record.get(), work.get());
        s != prim::kOk)
        return s;
    // The blur reads the input rows and writes the output rows directly. Two
    // contiguous copies of the image would give the same samples, but their
    // fresh pages and the copies in and out cost three times the blur itself.
    // Every check is made before the first output row is written, so a failure
    // still leaves the output untouched; the border value is never used by
    // the replicated border.
    return prim::GaussianFilterRowsU16(src, dst, size, 0, record.get(), work.get());
}

}  // namespace krf
