// "gamma", "sigma" and "gammalog": tone curves computed from the white level
// alone. Degenerate parameters (gamma <= 0, a steepness of 0, white levels of
// 100 or less for "gammalog", NaN) are not corrected: their values go through
// the truncating conversion like any other, which keeps them reproducible;
// "ECE" relies on that, since it hands its unclamped exponent to "gamma".
#include <cmath>

#include "tone/tone.h"

namespace krf::tone {

void gamma_table(int white, double gamma, Sample* table) noexcept {
    const double scale = std::pow(static_cast<double>(white), 1.0 - gamma);
    for (int i = 0; i <= white; ++i) table[i] = to_table_entry(std::pow(static_cast<double>(i), gamma) * scale + 0.5);
}

int gamma_curve(Rows src, Rows dst, int height, int width, int white, double gamma) noexcept {
    return run_table(src, dst, height, width, white, [&](Sample* table) {
        gamma_table(white, gamma, table);
        return 0;
    });
}

int sigma_curve(Rows src, Rows dst, int height, int width, int white, double steepness, double shift) noexcept {
    return run_table(src, dst, height, width, white, [&](Sample* table) {
        const double w = white;
        for (int i = 0; i <= white; ++i) {
            const double x = ((i / w - 0.5) - shift) / steepness;
            table[i] = to_table_entry(w / (std::exp(-x) + 1.0) + 0.5);
        }
        return 0;
    });
}

int gammalog_curve(Rows src, Rows dst, int height, int width, int white, double g) noexcept {
    const int levels = white + 1;
    const double w = white;
    // Full 16-bit images get a 16 times larger exponent scale, so one
    // parameter value suits both 12-bit and 16-bit data.
    const double range_factor = levels == 65536 ? 16.0 : 1.0;
    const double knee = 0.47 * levels;
    const double exponent_scale = range_factor * g;
    const double log_range = std::log(w / 100.0);
    const double knee_power = std::pow(knee / w, knee / exponent_scale);
    // The toe's scale is chosen so that toe and shoulder meet at the knee.
    const double toe_scale = knee / (std::exp((knee_power * w) / (w / log_range)) - 1.0);
    const double toe_gain = w / log_range;
    return run_table(src, dst, height, width, white, [&](Sample* table) {
        int i = 0;
        // The knee (0.47 × levels) lies inside the table, so the toe never passes its end.
        for (; i <= knee; ++i) table[i] = to_table_entry(std::log(i / toe_scale + 1.0) * toe_gain);
        // The shoulder's exponent grows with the level itself.
        for (; i < levels; ++i) table[i] = to_table_entry(std::pow(i / w, i / exponent_scale) * w);
        return 0;
    });
}

}  // namespace krf::tone
