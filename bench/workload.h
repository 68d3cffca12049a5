// The standard workload and the registry that pairs each filter with its peer.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "krfilter/krfilter.h"

namespace krf::bench {

// A raster with contiguous samples and row pointers into them.
struct Raster {
    Raster(int height, int width);
    Raster(const Raster&) = delete;
    Raster& operator=(Raster&& other) noexcept;  // keeps the row pointers on the moved samples
    int height;
    int width;
    std::vector<std::uint16_t> samples;
    std::vector<std::uint16_t*> rows;
};

// The input every case runs on, chosen with --workload=NAME:
//   phantom     the standard 3000 × 2500 synthetic radiograph, white 4095 (default)
//   radiograph  the real computed radiograph cr-leg-10bit.png, 1760 × 1760, white 1023
//   random12    3000 × 2500 uniform random samples, white 4095
//   random16    3000 × 2500 uniform random samples over the full 16 bits, white 65535
// Made once; the peers and the memcpy floor use the same raster.
const Raster& standard_input();
int input_height();
int input_width();
int input_white();

// Runs the named filter once through DoFilter on the standard input.
int run_standard(const char* name, Raster& out, void** params);
// Times run_standard; a non-zero code marks the benchmark as failed.
void time_standard(benchmark::State& state, const char* name, void** params);

// A benchmark of one filter and, when the peer function is given, of its
// nearest peer on the same workload. The summary table prints both times,
// their ratio, and the ratio to a memcpy of the raster (the physical floor).
struct Case {
    std::string label;      // e.g. "median2D 5x5"
    std::function<void(benchmark::State&)> filter;
    std::string peer_label;  // e.g. "cv::medianBlur 5 (16U)"; empty when there is no peer
    std::function<void(benchmark::State&)> peer;
};

// Called from a static initialiser in each family's benchmark file.
bool add(Case c);

}  // namespace krf::bench
