// What the tool and its DICOM decoder process (krfilter-dicom-decoder) agree
// on. The decoder reads one file named on its command line and writes one
// report to its standard output, all in host byte order:
//   'E' then one line saying why the file is refused, or
//   'O' then height, width, bit depth, white level and photometric sense
//       (five int64), the notes and the attributes (each an int64 length and
//       its bytes; the attributes as an explicit-VR little-endian data set
//       without pixel data), then height x width 16-bit samples.
#pragma once

#include <gdcmTrace.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "image_formats.h"

namespace krf::tools::formats {

constexpr const char* kDicomDecoderName = "krfilter-dicom-decoder";

// The decoder's whole report may not be longer than this for a file of
// `file_size` bytes: the largest image there is, plus attributes that can
// only come from the file itself. A longer report means a decoder gone wrong.
constexpr std::uint64_t max_report_bytes(std::uint64_t file_size) {
    return 1 + 8 * 7 + 4096 + file_size + 2 * static_cast<std::uint64_t>(kMaxSamples);
}

// Wall-clock time the decoder may take. Decoding time follows the amount of
// compressed data, so the allowance grows with the file; the base covers
// starting the process and the toolkit on a slow, busy machine.
constexpr int decoder_seconds(std::uint64_t file_size) {
    return 20 + static_cast<int>(std::min<std::uint64_t>(file_size >> 20, 1u << 20) * 2);
}

// Memory the decoder may add to what it holds when it starts: the largest
// image decoded (with a codec's working copy at four bytes a sample) plus two
// copies of the file. A forged size that gets past the checks then fails as
// an allocation instead of paging the machine to a standstill.
constexpr std::uint64_t decoder_memory_budget(std::uint64_t file_size) {
    return (std::uint64_t{1} << 30) + 6 * static_cast<std::uint64_t>(kMaxSamples) + 2 * file_size;
}

// The tool reports each problem in one line of its own; the toolkit's
// multi-line warnings (about attributes it fills in itself, or a damaged
// file) would only clutter the output.
inline void quiet_toolkit() {
    gdcm::Trace::WarningOff();
    gdcm::Trace::ErrorOff();
    gdcm::Trace::DebugOff();
}

}  // namespace krf::tools::formats
