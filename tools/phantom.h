// A synthetic radiograph for the demo, the tests and the benchmarks.
#pragma once

#include <cstdint>

namespace krf::tools {

// Fills height × width samples (row-major) with a radiograph-like image in
// 0 ... white: a collimated exposed field on an unexposed surround, a
// soft-tissue gradient, bone-like bands with a denser cortex, noise whose
// spread shrinks as the exposure grows (as in log-amplified readouts), a few
// impulse specks and one faint defective column. The same seed gives the same image on every machine.
void synthesize_phantom(std::uint16_t* samples, int height, int width, int white, std::uint32_t seed = 1);

}  // namespace krf::tools
