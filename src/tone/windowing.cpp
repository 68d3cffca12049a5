// "LL-UL", "gammalin" and "linear": a window of input levels stretched over
// the output range. Window bounds are 32-bit levels; differences of levels are
// taken in 64 bits, so a bound from a huge or NaN fraction (INT32_MIN after
// the conversion) cannot wrap the arithmetic around.
#include <algorithm>
#include <cmath>

#include "tone/tone.h"

namespace krf::tone {

namespace {

struct Window {
    std::int32_t lo, hi;
};

Window window_of(int white, double low, double high) {
    const double w = white;
    return {truncate_to_int32(w * low), truncate_to_int32(w * high)};
}

// Entries below the window stay 0 (the table is zero-filled); `ramp` gives
// the entries from the window's start up to `end`; every entry after them
// is `after`. A window that starts above white leaves the whole table 0.
template <class Ramp>
void fill_window(Sample* table, int white, std::int64_t first, std::int64_t end, Sample after, Ramp&& ramp) {
    std::int64_t i = std::max<std::int64_t>(first, 0);
    for (; i < end; ++i) table[i] = ramp(i);
    for (; i <= white; ++i) table[i] = after;
}

}  // namespace

int ll_ul_table(int white, double low, double high, Sample* table) noexcept {
    const Window win = window_of(white, low, high);
    if (win.lo > win.hi) return kInvertedWindow;
    const double slope = white / static_cast<double>(std::int64_t{win.hi} - win.lo);
    const std::int64_t end = std::min<std::int64_t>(std::int64_t{white} + 1, win.hi);
    fill_window(table, white, win.lo, end, static_cast<Sample>(white),
                [&](std::int64_t i) { return to_table_entry(static_cast<double>(i - win.lo) * slope); });
    return 0;
}

int ll_ul_window(Rows src, Rows dst, int height, int width, int white, double low, double high) noexcept {
    // An inverted window is refused before the table is sought.
    const Window win = window_of(white, low, high);
    if (win.lo > win.hi) return kInvertedWindow;
    return run_table(src, dst, height, width, white,
                     [&](Sample* table) { return ll_ul_table(white, low, high, table); });
}

int gammalin_window(Rows src, Rows dst, int height, int width, int white, double gamma, double low,
                    double high) noexcept {
    const Window win = window_of(white, low, high);
    if (win.lo > win.hi) return kInvertedWindow;
    const double w = white;
    const double step = w / static_cast<double>(std::int64_t{win.hi} - win.lo);
    const double scale = std::pow(w, 1.0 - gamma);
    const std::int64_t end = std::min<std::int64_t>(std::int64_t{white} + 1, win.hi);
    return run_table(src, dst, height, width, white, [&](Sample* table) {
        fill_window(table, white, win.lo, end, static_cast<Sample>(white), [&](std::int64_t i) {
            double v = std::pow(static_cast<double>(i - win.lo) * step, gamma) * scale + 0.5;
            if (v < 0.0) v = 0.0;
            if (v > w) v = w;
            return to_table_entry(v);
        });
        return 0;
    });
}

int linear_window(Rows src, Rows dst, int height, int width, int white, double brightness, double contrast) noexcept {
    // Out-of-range controls are clamped; a NaN control stays NaN and falls
    // through the conversion rule (a NaN contrast selects none of the three
    // cases below and leaves the identity window).
    const double b = brightness < -1.0 ? -1.0 : brightness > 1.0 ? 1.0 : brightness;
    const double c = contrast < -1.0 ? -1.0 : contrast > 1.0 ? 1.0 : contrast;
    const double w = white;
    std::int64_t in_lo = 0, in_hi = white, out_lo = 0, out_hi = white, fill_hi = white;
    // The brightness and contrast terms are truncated separately, not their sum.
    if (c < 0) {
        const std::int64_t range = truncate_to_int32((c + 1.0) * w);
        const std::int64_t offset = std::int64_t{truncate_to_int32(w * b * -0.5)} -
                                    truncate_to_int32(static_cast<double>(white - range) * -0.5);
        out_lo = offset;
        out_hi = range + offset;
        fill_hi = range + offset;
    } else if (c > 0) {
        const std::int64_t range = truncate_to_int32((1.0 - c) * w);
        in_lo =
            std::int64_t{truncate_to_int32(w * b * 0.5)} - truncate_to_int32(static_cast<double>(white - range) * -0.5);
        in_hi = range + in_lo;
    } else if (c == 0) {
        in_lo = truncate_to_int32(w * b * 0.5);
        in_hi = in_lo + white;
    }
    const double slope = static_cast<double>(out_hi - out_lo) / static_cast<double>(in_hi - in_lo);
    const std::int64_t end = std::min<std::int64_t>(std::int64_t{white} + 1, in_hi);
    const std::int64_t top = std::min<std::int64_t>(fill_hi, white);
    // Levels below the input window take max(out_lo, 0), which is always 0:
    // out_lo moves only when contrast is reduced, and then the window starts
    // at 0. A top below 0 (only from a NaN brightness) is stored modulo 2^16
    // like any table value.
    return run_table(src, dst, height, width, white, [&](Sample* table) {
        fill_window(table, white, in_lo, end, static_cast<Sample>(top), [&](std::int64_t i) {
            const std::int64_t v = out_lo + to_table_entry(static_cast<double>(i - in_lo) * slope);
            return static_cast<Sample>(std::max<std::int64_t>(std::min<std::int64_t>(v, white), 0));
        });
        return 0;
    });
}

}  // namespace krf::tone
