// A synthetic radiograph for the demo, the tests and the benchmarks.
#pragma once

#include <cstdint>

namespace krf::tools {

// Fills height × width samples (row-major) with a radiograph-like image in
// 0 ... white: a collimated exposed field on an unexposed surround, a
// soft-tissue gradient, bone-like bands with a denser cortex, noise whose
// spread shrinks as the exposure grows (as in log-amplified readouts), a few
// impulse specks, one faint defective column and one defective row (see
// below). The same seed gives the same image on every machine.
void synthesize_phantom(std::uint16_t* samples, int height, int width, int white, std::uint32_t seed = 1);

// The row whose gain is a fifth too low: across the upper bone shafts, clear
// of the joint space, so that a line correction has anatomy to get right.
constexpr int phantom_defective_row(int height) { return static_cast<int>(std::int64_t{height} * 3 / 10); }

}  // namespace krf::tools
