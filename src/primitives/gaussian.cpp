// Separable Gaussian blur: every row through the one-dimensional kernel, then
// every column through it. Rows are filtered once into a ring of K filtered
// rows and the column pass combines the K rows under each output row, so the
// work stays in cache whatever the image size.
//
// Each output sample is the weighted sum of its K inputs in one fixed order
// (mirrored pairs first, outermost first, the centre last; see
// weighted_block). Only that order of additions is a choice here; the vector
// paths keep it (their lanes are neighbouring output samples, each summed in
// that order), so every path gives the same samples as the portable one.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "platform/platform.h"
#include "platform/vector_targets.h"
#include "primitives/primitives.h"

// The vector helpers below are always inlined into functions compiled for
// their width, so the warning about passing wide vectors between differently
// compiled functions does not concern them.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace krf::prim {

namespace {

using lanes::load;
using lanes::store;

constexpr std::uint32_t kRecordTag = 0x47617573u;

struct GaussianRecord {
    std::uint32_t tag;
    int width;
    int height;
    int kernel;
    BorderKind border;
    SampleType type;
    CodePath path;  // resolved: never `fastest`
    int skip;       // leading (and trailing) taps whose float weight is 0
};

constexpr std::int64_t align64(std::int64_t bytes) noexcept { return (bytes + 63) & ~std::int64_t{63}; }
constexpr std::int64_t kWeightsOffset = align64(sizeof(GaussianRecord));

// Work block: the id of the source row each ring slot holds, the K tap
// pointers of the column pass, one padded source row, and the ring: K slots
// for source rows (a window's rows differ in their id modulo K) plus one for
// the row of constant border samples.
struct WorkLayout {
    std::int64_t tags, taps, padded, ring, total;
};
WorkLayout work_layout(Size size, int kernel) noexcept {
    WorkLayout l{};
    l.tags = 0;
    l.taps = align64((std::int64_t{kernel} + 1) * 8);
    l.padded = l.taps + align64(std::int64_t{kernel} * 8);
    l.ring = l.padded + align64((std::int64_t{size.width} + kernel - 1) * 4);
    l.total = l.ring + (std::int64_t{kernel} + 1) * size.width * 4;
    return l;
}

bool kernel_size_ok(int kernel) noexcept { return kernel >= 3 && kernel % 2 == 1 && kernel <= kLargestGaussianKernel; }

PrimitiveStatus check_shape(Size size, int kernel, SampleType type, int channels) noexcept {
    if (size.width <= 0 || size.height <= 0) return kBadSize;
    if (!kernel_size_ok(kernel)) return kBadArgument;
    if (type != SampleType::u8 && type != SampleType::s16 && type != SampleType::u16 && type != SampleType::f32)
        return kBadSampleType;
    if (channels != 1) return kBadChannels;
    return kOk;
}

// ---- The two passes, written once for any vector width N (1 = scalar).

template <int N>
struct Lanes {
    typedef float F __attribute__((vector_size(N * 4)));
    typedef std::int32_t I __attribute__((vector_size(N * 4)));
    typedef std::uint16_t U __attribute__((vector_size(N * 2)));
};


// Rounded to nearest, ties to even, and saturated to 0 ... 65535: adding and
// subtracting 1.5 · 2^23 leaves the nearest integer in the default rounding
// mode, for every value of that range.
template <class V>
KRF_ALWAYS_INLINE V round_to_sample(V v) {
    const V zero = v - v, top = zero + 65535.0f, magic = zero + 12582912.0f;
    v = v < zero ? zero : v;
    v = v > top ? top : v;
    return (v + magic) - magic;
}
KRF_ALWAYS_INLINE float round_to_sample(float v) {
    v = v < 0.0f ? 0.0f : v;
    v = v > 65535.0f ? 65535.0f : v;
    return (v + 12582912.0f) - 12582912.0f;
}

// Output samples [x, x + B · N) of one pass: the weighted sum of the K
// inputs, where input(i, x) points at tap i's input for output x. The kernel
// is symmetric (w[i] = w[K − 1 − i] exactly), so mirrored inputs are added
// before their common weight multiplies them, outermost pair first: half the
// multiplications, and the smallest terms enter the sum first.
template <int N, int B, class Input, class Store>
KRF_ALWAYS_INLINE void weighted_block(int x, const float* weights, int kernel, Input input, Store store_block) {
    using F = typename Lanes<N>::F;
    const int last = kernel - 1, centre = kernel / 2;
    F acc[B];
    if (kernel == 1) {
        const F only = F{} + weights[0];
        for (int b = 0; b < B; ++b) store_block(x + b * N, only * load<F>(input(0, x + b * N)));
        return;
    }
    const F outer = F{} + weights[0];
    for (int b = 0; b < B; ++b)
        acc[b] = outer * (load<F>(input(0, x + b * N)) + load<F>(input(last, x + b * N)));
    for (int i = 1; i < centre; ++i) {
        const F w = F{} + weights[i];
        for (int b = 0; b < B; ++b)
            acc[b] = acc[b] + w * (load<F>(input(i, x + b * N)) + load<F>(input(last - i, x + b * N)));
    }
    const F middle = F{} + weights[centre];
    for (int b = 0; b < B; ++b) acc[b] = acc[b] + middle * load<F>(input(centre, x + b * N));
    for (int b = 0; b < B; ++b) store_block(x + b * N, acc[b]);
}

template <int N, class Input, class Store, class StoreOne>
KRF_ALWAYS_INLINE void weighted_row(int width, const float* weights, int kernel, Input input, Store store_block,
                                    StoreOne store_one) {
    int x = 0;
    for (; x + 4 * N <= width; x += 4 * N) weighted_block<N, 4>(x, weights, kernel, input, store_block);
    for (; x + N <= width; x += N) weighted_block<N, 1>(x, weights, kernel, input, store_block);
    const int last = kernel - 1, centre = kernel / 2;
    for (; x < width; ++x) {
        if (kernel == 1) {
            store_one(x, weights[0] * *input(0, x));
            continue;
        }
        float acc = weights[0] * (*input(0, x) + *input(last, x));
        for (int i = 1; i < centre; ++i) acc = acc + weights[i] * (*input(i, x) + *input(last - i, x));
        store_one(x, acc + weights[centre] * *input(centre, x));
    }
}

template <int N>
KRF_ALWAYS_INLINE void filter_row(const float* padded, const float* weights, int kernel, float* out, int width) {
    weighted_row<N>(
        width, weights, kernel, [padded](int i, int x) { return padded + x + i; },
        [out](int x, const auto& v) { store(out + x, v); }, [out](int x, float v) { out[x] = v; });
}

template <int N>
KRF_ALWAYS_INLINE void combine_rows_f32(const float* const* taps, const float* weights, int kernel, float* out,
                                        int width) {
    weighted_row<N>(
        width, weights, kernel, [taps](int i, int x) { return taps[i] + x; },
        [out](int x, const auto& v) { store(out + x, v); }, [out](int x, float v) { out[x] = v; });
}

template <int N>
KRF_ALWAYS_INLINE void combine_rows_u16(const float* const* taps, const float* weights, int kernel,
                                        std::uint16_t* out, int width) {
    using L = Lanes<N>;
    weighted_row<N>(
        width, weights, kernel, [taps](int i, int x) { return taps[i] + x; },
        [out](int x, const typename L::F& v) {
            const typename L::I whole = __builtin_convertvector(round_to_sample(v), typename L::I);
            store(out + x, __builtin_convertvector(whole, typename L::U));
        },
        [out](int x, float v) { out[x] = static_cast<std::uint16_t>(round_to_sample(v)); });
}

template <int N>
KRF_ALWAYS_INLINE void widen_samples(const std::uint16_t* in, float* out, int count) {
    for (int x = 0; x < count; ++x) out[x] = static_cast<float>(in[x]);
}

struct BlurKernels {
    void (*widen)(const std::uint16_t*, float*, int);
    void (*filter_row)(const float*, const float*, int, float*, int);
    void (*combine_f32)(const float* const*, const float*, int, float*, int);
    void (*combine_u16)(const float* const*, const float*, int, std::uint16_t*, int);
};

// One set of kernels per code path, compiled for its instruction set. The
// portable set uses four lanes, which every x86-64 has and other processors
// emulate.
#define KRF_BLUR_KERNELS(PATH, TARGET, LANES)                                                                      \
    TARGET void widen_##PATH(const std::uint16_t* in, float* out, int n) { widen_samples<LANES>(in, out, n); }     \
    TARGET void filter_row_##PATH(const float* p, const float* w, int k, float* o, int n) {                         \
        filter_row<LANES>(p, w, k, o, n);                                                                          \
    }                                                                                                              \
    TARGET void combine_f32_##PATH(const float* const* t, const float* w, int k, float* o, int n) {                 \
        combine_rows_f32<LANES>(t, w, k, o, n);                                                                    \
    }                                                                                                              \
    TARGET void combine_u16_##PATH(const float* const* t, const float* w, int k, std::uint16_t* o, int n) {         \
        combine_rows_u16<LANES>(t, w, k, o, n);                                                                    \
    }                                                                                                              \
    constexpr BlurKernels kernels_##PATH{widen_##PATH, filter_row_##PATH, combine_f32_##PATH, combine_u16_##PATH};

KRF_BLUR_KERNELS(portable, , 4)
KRF_BLUR_KERNELS(avx2, KRF_TARGET_AVX2, 8)
KRF_BLUR_KERNELS(avx512, KRF_TARGET_AVX512BW, 16)
#undef KRF_BLUR_KERNELS

BlurKernels kernels_for(CodePath path) noexcept {
    switch (path) {
    case CodePath::avx512: return kernels_avx512;
    case CodePath::avx2: return kernels_avx2;
    default: return kernels_portable;
    }
}

// A path the processor lacks falls back to the portable one.
CodePath resolve(CodePath path) noexcept {
    if (path == CodePath::fastest) {
        if (CodePathAvailable(CodePath::avx512)) return CodePath::avx512;
        if (CodePathAvailable(CodePath::avx2)) return CodePath::avx2;
        return CodePath::portable;
    }
    return CodePathAvailable(path) ? path : CodePath::portable;
}

// ---- The blur.

// Rows of a contiguous buffer with a row step in bytes.
template <class T>
struct BufferRows {
    T* base;
    int step;
    T* operator()(std::int64_t y) const noexcept {
        using Byte = std::conditional_t<std::is_const_v<T>, const unsigned char, unsigned char>;
        return reinterpret_cast<T*>(reinterpret_cast<Byte*>(base) + y * step);
    }
};

// Rows of a row-pointer raster.
struct RasterRows {
    Rows rows;
    std::uint16_t* operator()(std::int64_t y) const noexcept { return rows[y]; }
};

template <class T>
void widen_row(const BlurKernels& kernels, const T* row, float* out, int count) noexcept {
    if constexpr (std::is_same_v<T, float>)
        std::memcpy(out, row, static_cast<std::size_t>(count) * sizeof(float));
    else
        kernels.widen(row, out, count);
}

// Checks shared by every run, in the order pointers, size, record, steps.
PrimitiveStatus check_run(const void* src, const void* dst, const unsigned char* recordBlock, const void* work,
                          Size size, SampleType type) noexcept {
    if (src == nullptr || dst == nullptr || recordBlock == nullptr || work == nullptr) return kNullPointer;
    if (size.width <= 0 || size.height <= 0) return kBadSize;
    const auto* record = reinterpret_cast<const GaussianRecord*>(recordBlock);
    if (record->tag != kRecordTag) return kBadArgument;
    if (record->width != size.width || record->height != size.height) return kBadSize;
    if (record->type != type) return kBadSampleType;
    return kOk;
}

// Output row y is written only after every source row it needs has been
// filtered into the ring, and a source row is read once, before its own output
// row is written: so source and destination may be the same rows.
template <class T, class Source, class Dest, class Combine>
void blur(Source source_row, Dest dest_row, Size size, T borderValue, const unsigned char* recordBlock,
          unsigned char* work, Combine combine) noexcept {
    const auto* record = reinterpret_cast<const GaussianRecord*>(recordBlock);
    const int kernel = record->kernel, width = size.width;
    const std::int64_t height = size.height, half = kernel / 2;
    // Taps of weight 0 add nothing to a finite sum; the passes leave them out.
    const int skip = record->skip, used = kernel - 2 * skip;
    const auto* weights = reinterpret_cast<const float*>(recordBlock + kWeightsOffset) + skip;
    const BlurKernels kernels = kernels_for(record->path);
    const WorkLayout layout = work_layout(size, kernel);
    auto* tags = reinterpret_cast<std::int64_t*>(work + layout.tags);
    auto* taps = reinterpret_cast<const float**>(work + layout.taps);
    auto* padded = reinterpret_cast<float*>(work + layout.padded);
    auto* ring = reinterpret_cast<float*>(work + layout.ring);
    std::fill(tags, tags + kernel + 1, std::int64_t{-2});

    // Source row j as an id: the row a replicated border repeats, -1 for a
    // row of constant border samples, or j itself (offset to be non-negative)
    // for a border in memory.
    constexpr std::int64_t kConstantRow = -1;
    auto row_id = [&](std::int64_t j) -> std::int64_t {
        switch (record->border) {
        case BorderKind::replicate: return std::clamp<std::int64_t>(j, 0, height - 1);
        case BorderKind::constant: return j < 0 || j >= height ? kConstantRow : j;
        default: return j + half;
        }
    };
    // Source row `id`, widened by K − 1 border samples, into `padded`.
    auto fill_padded = [&](std::int64_t id) {
        const float border = static_cast<float>(borderValue);
        const std::int64_t padded_width = width + std::int64_t{kernel} - 1;
        if (id == kConstantRow) {
            std::fill(padded, padded + padded_width, border);
            return;
        }
        if (record->border == BorderKind::in_memory) {
            widen_row(kernels, source_row(id - half) - half, padded, static_cast<int>(padded_width));
            return;
        }
        const T* row = source_row(id);
        const bool replicate = record->border == BorderKind::replicate;
        std::fill(padded, padded + half, replicate ? static_cast<float>(row[0]) : border);
        widen_row(kernels, row, padded + half, width);
        std::fill(padded + half + width, padded + padded_width, replicate ? static_cast<float>(row[width - 1]) : border);
    };

    for (std::int64_t y = 0; y < height; ++y) {
        for (int i = 0; i < used; ++i) {
            const std::int64_t id = row_id(y - half + skip + i);
            const std::int64_t slot = id == kConstantRow ? kernel : id % kernel;
            float* filtered = ring + slot * width;
            if (tags[slot] != id) {
                fill_padded(id);
                kernels.filter_row(padded + skip, weights, used, filtered, width);
                tags[slot] = id;
            }
            taps[i] = filtered;
        }
        combine(kernels, taps, weights, used, dest_row(y), width);
    }
}

void combine_u16(const BlurKernels& k, const float* const* taps, const float* w, int n, std::uint16_t* out, int width) {
    k.combine_u16(taps, w, n, out, width);
}
void combine_f32(const BlurKernels& k, const float* const* taps, const float* w, int n, float* out, int width) {
    k.combine_f32(taps, w, n, out, width);
}

bool rows_fit(int srcStep, int dstStep, Size size, std::int64_t sample_bytes) noexcept {
    return std::int64_t{srcStep} >= size.width * sample_bytes && std::int64_t{dstStep} >= size.width * sample_bytes;
}

template <class Run>
PrimitiveStatus blur_once(Size size, int kernelSize, float sigma, BorderKind border, SampleType type, CodePath path,
                          Run run) noexcept {
    std::int64_t record_bytes = 0, work_bytes = 0;
    if (const PrimitiveStatus s = GaussianFilterGetBufferSize(size, kernelSize, type, 1, &record_bytes, &work_bytes);
        s != kOk)
        return s;
    const Buffer<unsigned char> record(AllocBytes(record_bytes));
    const Buffer<unsigned char> work(AllocBytes(work_bytes));
    if (!record || !work) return kNoMemory;
    if (const PrimitiveStatus s = GaussianFilterInit(size, kernelSize, sigma, border, type, 1, record.get(),
                                                     work.get(), path);
        s != kOk)
        return s;
    return run(record.get(), work.get());
}

}  // namespace

bool CodePathAvailable(CodePath path) noexcept {
    switch (path) {
    case CodePath::avx2: return KRF_X86 && platform::cpu_features().avx2;
    case CodePath::avx512: return KRF_X86 && platform::cpu_features().avx512bw;
    default: return true;
    }
}

PrimitiveStatus GaussianFilterGetBufferSize(Size size, int kernelSize, SampleType type, int channels,
                                            std::int64_t* recordBytes, std::int64_t* workBytes) noexcept {
    if (recordBytes == nullptr || workBytes == nullptr) return kNullPointer;
    if (const PrimitiveStatus s = check_shape(size, kernelSize, type, channels); s != kOk) return s;
    *recordBytes = kWeightsOffset + std::int64_t{kernelSize} * 4;
    *workBytes = work_layout(size, kernelSize).total;
    return kOk;
}

PrimitiveStatus GaussianFilterInit(Size size, int kernelSize, float sigma, BorderKind border, SampleType type,
                                   int channels, unsigned char* record, unsigned char* work, CodePath path) noexcept {
    if (record == nullptr || work == nullptr) return kNullPointer;
    if (const PrimitiveStatus s = check_shape(size, kernelSize, type, channels); s != kOk) return s;
    if (!(sigma > 0.0f)) return kBadArgument;
    if (border != BorderKind::replicate && border != BorderKind::constant && border != BorderKind::in_memory)
        return kBadBorder;

    auto* header = reinterpret_cast<GaussianRecord*>(record);
    *header = GaussianRecord{kRecordTag, size.width, size.height, kernelSize, border, type, resolve(path), 0};
    // The weights in double, so that a tiny sigma still gives 1 at the centre
    // and 0 elsewhere, then normalised and stored as floats for the passes.
    auto* weights = reinterpret_cast<float*>(record + kWeightsOffset);
    const double centre = (kernelSize - 1) / 2.0, two_s2 = 2.0 * double{sigma} * double{sigma};
    double sum = 0.0;
    for (int i = 0; i < kernelSize; ++i) sum += std::exp(-((i - centre) * (i - centre)) / two_s2);
    for (int i = 0; i < kernelSize; ++i)
        weights[i] = static_cast<float>(std::exp(-((i - centre) * (i - centre)) / two_s2) / sum);
    // Far taps of a narrow kernel underflow to 0: with a huge K they would
    // cost all the time and add nothing (a weight of 0 lets no sample count,
    // not even an infinite one). The centre weight is never 0.
    while (weights[header->skip] == 0.0f) ++header->skip;
    return kOk;
}

PrimitiveStatus GaussianFilterRunU16(const std::uint16_t* src, int srcStep, std::uint16_t* dst, int dstStep,
                                     Size size, std::uint16_t borderValue, const unsigned char* record,
                                     unsigned char* work) noexcept {
    if (const PrimitiveStatus s = check_run(src, dst, record, work, size, SampleType::u16); s != kOk) return s;
    if (!rows_fit(srcStep, dstStep, size, 2)) return kBadSize;
    blur(BufferRows<const std::uint16_t>{src, srcStep}, BufferRows<std::uint16_t>{dst, dstStep}, size, borderValue,
         record, work, combine_u16);
    return kOk;
}

PrimitiveStatus GaussianFilterRunF32(const float* src, int srcStep, float* dst, int dstStep, Size size,
                                     float borderValue, const unsigned char* record, unsigned char* work) noexcept {
    if (const PrimitiveStatus s = check_run(src, dst, record, work, size, SampleType::f32); s != kOk) return s;
    if (!rows_fit(srcStep, dstStep, size, 4)) return kBadSize;
    blur(BufferRows<const float>{src, srcStep}, BufferRows<float>{dst, dstStep}, size, borderValue, record, work,
         combine_f32);
    return kOk;
}

PrimitiveStatus GaussianFilterRowsU16(const Rows src, Rows dst, Size size, std::uint16_t borderValue,
                                      const unsigned char* record, unsigned char* work) noexcept {
    if (const PrimitiveStatus s = check_run(src, dst, record, work, size, SampleType::u16); s != kOk) return s;
    if (reinterpret_cast<const GaussianRecord*>(record)->border == BorderKind::in_memory) return kBadBorder;
    blur(RasterRows{src}, RasterRows{dst}, size, borderValue, record, work, combine_u16);
    return kOk;
}

PrimitiveStatus GaussianFilterU16(const std::uint16_t* src, int srcStep, std::uint16_t* dst, int dstStep, Size size,
                                  int kernelSize, float sigma, CodePath path) noexcept {
    return blur_once(
        size, kernelSize, sigma, BorderKind::replicate, SampleType::u16, path,
        [&](const unsigned char* record, unsigned char* work) {
            // The replicated border never uses the border value.
            return GaussianFilterRunU16(src, srcStep, dst, dstStep, size, 0, record, work);
        });
}

PrimitiveStatus GaussianFilterF32(const float* src, int srcStep, float* dst, int dstStep, Size size, int kernelSize,
                                  float sigma, CodePath path) noexcept {
    return blur_once(size, kernelSize, sigma, BorderKind::constant, SampleType::f32, path,
                                   [&](const unsigned char* record, unsigned char* work) {
                                       return GaussianFilterRunF32(src, srcStep, dst, dstStep, size, 0.0f, record,
                                                                   work);
                                   });
}

}  // namespace krf::prim
