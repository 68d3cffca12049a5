#include "phantom.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace krf::tools {

namespace {
// A small self-contained generator, so that the image does not depend on the
// standard library's distribution implementations.
struct SplitMix {
    std::uint64_t state;
    std::uint64_t next() {
        std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    double uniform() { return static_cast<double>(next() >> 11) * (1.0 / 9007199254740992.0); }
    // Sum of four uniforms: a cheap bell-shaped deviate with unit variance.
    double bell() { return (uniform() + uniform() + uniform() + uniform() - 2.0) * std::sqrt(3.0); }
};
}  // namespace

void synthesize_phantom(std::uint16_t* samples, int height, int width, int white, std::uint32_t seed) {
    if (height <= 0 || width <= 0) return;
    SplitMix random{seed * 0x2545F4914F6CDD1Dull + 1};
    const double w = white;
    const int top = height / 12, bottom = height - height / 10;
    const int left = width / 10, right = width - width / 12;
    const int defective_column = width / 3 + 1;
    const int defective_row = phantom_defective_row(height);
    for (int r = 0; r < height; ++r) {
        const double y = (r + 0.5) / height;
        for (int c = 0; c < width; ++c) {
            const double x = (c + 0.5) / width;
            double v = 0.04 * w;  // unexposed surround behind the collimator
            if (r >= top && r < bottom && c >= left && c < right) {
                // Soft tissue thickens towards the middle of the field.
                const double tissue = 0.35 + 0.25 * std::cos((x - 0.5) * 3.0) + 0.1 * y;
                v = tissue * w;
                // Two long bones with a dense cortex around a lighter marrow.
                for (const double centre : {0.38, 0.62}) {
                    const double d = std::fabs(x - centre - 0.03 * std::sin(y * 6.0)) / 0.07;
                    if (d < 1.0) v += (d > 0.7 ? 0.3 : 0.18) * w * std::sqrt(1.0 - d * d);
                }
                // A joint space across the bones.
                if (std::fabs(y - 0.55) < 0.01) v -= 0.08 * w;
            }
            // Quantum noise as a computed radiograph stores it: the reader's
            // logarithmic amplifier turns the photon count's relative spread
            // into a spread that shrinks as the exposure (the value) grows.
            v += 0.004 * w * std::sqrt(0.25 * w / (std::max(v, 0.0) + 0.05 * w)) * random.bell();
            if (c == defective_column) v *= 0.97;
            if (r == defective_row) v *= 0.8;  // a detector line whose gain fell by a fifth
            if ((random.next() & 4095) == 0) v = (random.next() & 1) ? w : 0.0;  // impulse specks
            samples[static_cast<std::size_t>(r) * width + c] = static_cast<std::uint16_t>(std::clamp(v + 0.5, 0.0, w));
        }
    }
}

}  // namespace krf::tools
