// The standard workload and the registry that pairs each filter with its peer.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "krfilter/krfilter.h"

namespace krf::bench {

constexpr int kWidth = 3000;
constexpr int kHeight = 2500;
constexpr int kWhite = 4095;

// A raster with contiguous samples and row pointers into them.
struct Raster {
    Raster(int height, int width);
    int height;
    int width;
    std::vector<std::uint16_t> samples;
    std::vector<std::uint16_t*> rows;
};

// The 3000 × 2500 phantom with white level 4095, made once.
const Raster& standard_input();

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
