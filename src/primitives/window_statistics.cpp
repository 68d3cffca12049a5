// Window statistics on 16-bit buffers: the box mean and the population
// standard deviation. Both work from exact integer sums, so the result does
// not depend on the order in which the samples are added, and the running sums
// of the whole-image versions give the same values as one pass per window.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "primitives/primitives.h"

namespace krf::prim {

namespace {

const std::uint16_t* row_at(const std::uint16_t* base, int step, std::int64_t y) noexcept {
    return reinterpret_cast<const std::uint16_t*>(reinterpret_cast<const unsigned char*>(base) + y * step);
}
template <class T>
T* row_at(T* base, int step, std::int64_t y) noexcept {
    return reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(base) + y * step);
}

bool odd_side_within(int k, int largest) noexcept { return k >= 1 && k <= largest && k % 2 == 1; }

// floor((sum + n / 2) / n) for odd n: the mean rounded to nearest (with n odd
// it is never halfway). A double estimate, then corrected to the exact
// integer quotient, spares a 64-bit division per sample.
std::uint16_t rounded_quotient(std::uint64_t sum, std::uint64_t n, double inverse) noexcept {
    const std::uint64_t numerator = sum + n / 2;
    auto q = static_cast<std::uint64_t>(static_cast<double>(numerator) * inverse);
    while (q * n > numerator) --q;
    while ((q + 1) * n <= numerator) ++q;
    return static_cast<std::uint16_t>(q);
}

// The deviation from exact sums: n · Σx² − (Σx)² is n² times the variance,
// an exact non-negative integer, so the only roundings are its conversion to
// double, the square root and the division. This is the population standard
// deviation with less rounding than subtracting a rounded mean from each sample.
double std_dev_from_sums(std::uint64_t sum, std::uint64_t sum_of_squares, std::uint64_t n) noexcept {
    using Wide = unsigned __int128;
    const Wide scaled_variance = Wide{n} * sum_of_squares - Wide{sum} * sum;
    const double value = (scaled_variance >> 64) == 0 ? static_cast<double>(static_cast<std::uint64_t>(scaled_variance))
                                                       : static_cast<double>(scaled_variance);
    return std::sqrt(value) / static_cast<double>(n);
}

// n · Σx² ≤ k⁴ · 65535² stays below 2^64 up to this side.
constexpr int kLargestSideFor64BitVariance = 255;

// Where the window's rows and columns come from. With a replicated border an
// index outside the region is held to it; with the border in memory it is read
// where it lies.
struct BoxSource {
    const std::uint16_t* src;
    int step;
    std::int64_t width;
    std::int64_t height;
    std::int64_t half;
    bool replicate;

    // Row j of the source, starting at the first column the column sums cover.
    const std::uint16_t* row(std::int64_t j) const noexcept {
        if (replicate) return row_at(src, step, std::clamp<std::int64_t>(j, 0, height - 1));
        return row_at(src, step, j) - half;
    }
};

// sums[c] += count · row[c] over the covered columns.
void add_row(std::uint64_t* sums, const std::uint16_t* row, std::int64_t columns, std::uint64_t count) noexcept {
    for (std::int64_t c = 0; c < columns; ++c) sums[c] += count * row[c];
}

// Sum over a window of `k` entries of `values` centred on `centre`, entries
// outside 0 ... count − 1 held to the ends: with a huge window the ends are
// counted, not visited.
std::uint64_t held_window_sum(const std::uint64_t* values, std::int64_t count, std::int64_t centre,
                              std::int64_t half) noexcept {
    const std::int64_t first = centre - half, last = centre + half;
    std::uint64_t sum = 0;
    if (first < 0) sum += static_cast<std::uint64_t>(-first) * values[0];
    for (std::int64_t c = std::max<std::int64_t>(first, 0); c <= std::min(last, count - 1); ++c) sum += values[c];
    if (last > count - 1) sum += static_cast<std::uint64_t>(last - (count - 1)) * values[count - 1];
    return sum;
}

}  // namespace

PrimitiveStatus BoxMeanGetBufferSize(Size size, int k, std::int64_t* bytes) noexcept {
    if (bytes == nullptr) return kNullPointer;
    if (size.width <= 0 || size.height <= 0) return kBadSize;
    if (!odd_side_within(k, kLargestBoxSide)) return kBadArgument;
    // Column sums over the widest range either border needs: the region plus
    // k − 1 columns read from memory.
    *bytes = (std::int64_t{size.width} + k - 1) * std::int64_t{sizeof(std::uint64_t)};
    return kOk;
}

PrimitiveStatus BoxMeanU16(const std::uint16_t* src, int srcStep, std::uint16_t* dst, int dstStep, Size size, int k,
                           BorderKind border, unsigned char* work) noexcept {
    if (src == nullptr || dst == nullptr || work == nullptr) return kNullPointer;
    if (size.width <= 0 || size.height <= 0) return kBadSize;
    if (std::int64_t{srcStep} < std::int64_t{size.width} * 2 || std::int64_t{dstStep} < std::int64_t{size.width} * 2)
        return kBadSize;
    if (!odd_side_within(k, kLargestBoxSide)) return kBadArgument;
    if (border != BorderKind::replicate && border != BorderKind::in_memory) return kBadBorder;

    const std::int64_t half = k / 2;
    const BoxSource source{src, srcStep, size.width, size.height, half, border == BorderKind::replicate};
    // Column sums of the k rows under the window: the region's columns for a
    // replicated border (columns outside repeat the edge ones), the region's
    // and k − 1 more for a border in memory.
    const std::int64_t columns = source.replicate ? size.width : size.width + k - 1;
    auto* sums = reinterpret_cast<std::uint64_t*>(work);
    std::fill(sums, sums + columns, std::uint64_t{0});
    if (source.replicate) {
        // Rows above and below the region are its first and last row, counted
        // rather than visited, so that a huge window costs no more than the image.
        add_row(sums, source.row(0), columns, static_cast<std::uint64_t>(half));
        for (std::int64_t j = 0; j <= std::min(half, source.height - 1); ++j) add_row(sums, source.row(j), columns, 1);
        if (half > source.height - 1)
            add_row(sums, source.row(source.height - 1), columns, static_cast<std::uint64_t>(half - source.height + 1));
    } else {
        for (std::int64_t j = -half; j <= half; ++j) add_row(sums, source.row(j), columns, 1);
    }

    const std::uint64_t n = static_cast<std::uint64_t>(k) * static_cast<std::uint64_t>(k);
    const double inverse = 1.0 / static_cast<double>(n);
    for (std::int64_t y = 0; y < size.height; ++y) {
        std::uint16_t* out = row_at(dst, dstStep, y);
        if (source.replicate) {
            std::uint64_t sum = held_window_sum(sums, columns, 0, half);
            for (std::int64_t x = 0; x < size.width; ++x) {
                out[x] = rounded_quotient(sum, n, inverse);
                sum = sum + sums[std::min(x + half + 1, columns - 1)] - sums[std::max<std::int64_t>(x - half, 0)];
            }
        } else {
            std::uint64_t sum = 0;
            for (std::int64_t c = 0; c < k; ++c) sum += sums[c];
            for (std::int64_t x = 0; x < size.width; ++x) {
                out[x] = rounded_quotient(sum, n, inverse);
                if (x + 1 < size.width) sum = sum + sums[x + k] - sums[x];
            }
        }
        if (y + 1 == size.height) break;
        const std::uint16_t* entering = source.row(y + half + 1);
        const std::uint16_t* leaving = source.row(y - half);
        for (std::int64_t c = 0; c < columns; ++c) sums[c] = sums[c] + entering[c] - leaving[c];
    }
    return kOk;
}

PrimitiveStatus WindowStdDevU16(const std::uint16_t* src, int srcStep, int k, double* stdDev) noexcept {
    if (src == nullptr || stdDev == nullptr) return kNullPointer;
    if (k < 1 || k > kLargestDeviationSide) return kBadArgument;
    if (std::int64_t{srcStep} < std::int64_t{k} * 2) return kBadSize;
    // k ≤ 32767: k² · 65535² stays below 2^62.
    std::uint64_t sum = 0, sum_of_squares = 0;
    for (int y = 0; y < k; ++y) {
        const std::uint16_t* row = row_at(src, srcStep, y);
        for (int x = 0; x < k; ++x) {
            sum += row[x];
            sum_of_squares += std::uint64_t{row[x]} * row[x];
        }
    }
    *stdDev = std_dev_from_sums(sum, sum_of_squares, static_cast<std::uint64_t>(k) * static_cast<std::uint64_t>(k));
    return kOk;
}

PrimitiveStatus WindowStdDevMapU16(const std::uint16_t* src, int srcStep, float* dst, int dstStep, Size size,
                                   int k) noexcept {
    if (src == nullptr || dst == nullptr) return kNullPointer;
    if (size.width <= 0 || size.height <= 0) return kBadSize;
    if (k < 1 || k > kLargestDeviationSide) return kBadArgument;
    const std::int64_t columns = std::int64_t{size.width} + k - 1;
    if (std::int64_t{srcStep} < columns * 2 || std::int64_t{dstStep} < std::int64_t{size.width} * 4) return kBadSize;

    // Column sums of samples and of their squares, then the window sums of
    // one output row, finished into deviations in a second, vectorisable pass.
    Buffer<unsigned char> block(AllocBytes((columns + size.width) * 2 * std::int64_t{sizeof(std::uint64_t)}));
    if (!block) return kNoMemory;
    auto* sums = reinterpret_cast<std::uint64_t*>(block.get());
    std::uint64_t* squares = sums + columns;
    std::uint64_t* row_sums = squares + columns;
    std::uint64_t* row_squares = row_sums + size.width;
    for (int j = 0; j < k; ++j) {
        const std::uint16_t* row = row_at(src, srcStep, j);
        for (std::int64_t c = 0; c < columns; ++c) {
            sums[c] += row[c];
            squares[c] += std::uint64_t{row[c]} * row[c];
        }
    }
    const std::uint64_t n = static_cast<std::uint64_t>(k) * static_cast<std::uint64_t>(k);
    for (std::int64_t y = 0; y < size.height; ++y) {
        float* out = row_at(dst, dstStep, y);
        std::uint64_t sum = 0, sum_of_squares = 0;
        for (int c = 0; c < k; ++c) {
            sum += sums[c];
            sum_of_squares += squares[c];
        }
        for (std::int64_t x = 0; x < size.width; ++x) {
            row_sums[x] = sum;
            row_squares[x] = sum_of_squares;
            if (x + 1 == size.width) break;
            sum = sum + sums[x + k] - sums[x];
            sum_of_squares = sum_of_squares + squares[x + k] - squares[x];
        }
        if (k <= kLargestSideFor64BitVariance) {
            // n · Σx² < 2^64 here: the same scaled variance as the wide
            // arithmetic, converted with the same rounding.
            const double divisor = static_cast<double>(n);
            for (std::int64_t x = 0; x < size.width; ++x) {
                const std::uint64_t scaled_variance = n * row_squares[x] - row_sums[x] * row_sums[x];
                out[x] = static_cast<float>(std::sqrt(static_cast<double>(scaled_variance)) / divisor);
            }
        } else {
            for (std::int64_t x = 0; x < size.width; ++x)
                out[x] = static_cast<float>(std_dev_from_sums(row_sums[x], row_squares[x], n));
        }
        if (y + 1 == size.height) break;
        const std::uint16_t* entering = row_at(src, srcStep, y + k);
        const std::uint16_t* leaving = row_at(src, srcStep, y);
        for (std::int64_t c = 0; c < columns; ++c) {
            sums[c] = sums[c] + entering[c] - leaving[c];
            squares[c] = squares[c] + std::uint64_t{entering[c]} * entering[c] - std::uint64_t{leaving[c]} * leaving[c];
        }
    }
    return kOk;
}

}  // namespace krf::prim
