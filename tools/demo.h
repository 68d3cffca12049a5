// `krfilter demo`: every filter of this build on the synthetic radiograph.
#pragma once

#include <string>

namespace krf::tools {

struct DemoOptions {
    std::string folder = "demo-out";
    int size = 1024;    // the phantom is size × size
    int white = 4095;   // a 12-bit acquisition
    std::string input;       // a radiograph file to use instead of the phantom
    int white_override = 0;  // the input's white level when not 0
};

// Writes into `folder`: input.png (16-bit) and input-display.png (8-bit);
// for each filter that ran, NAME.png (16-bit, or RGB for "colorize") and
// NAME-display.png; contact-sheet.png; index.html. Prints one line per
// filter. Returns the process exit status: 0 unless a file could not be
// written (filters that fail are reported on the page, not as an error).
int run_demo(const DemoOptions& options);

}  // namespace krf::tools
