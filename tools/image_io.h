// Grey radiographs in and out of PNG and TIFF files, for the command-line
// tool, the tests and the benchmarks. The library itself never touches files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace krf::tools {

// A grey raster with contiguous row-major samples and the facts about it that
// a file can carry.
struct GreyImage {
    int height = 0;
    int width = 0;
    int bit_depth = 16;  // 8 or 16: the sample size in the file
    int white = 65535;   // white level: largest meaningful sample value
    std::vector<std::uint16_t> samples;

    std::uint16_t* row(int r) { return samples.data() + static_cast<std::size_t>(r) * width; }
    const std::uint16_t* row(int r) const { return samples.data() + static_cast<std::size_t>(r) * width; }
    // Row pointers into `samples`, as the library's images expect them.
    std::vector<std::uint16_t*> row_pointers();
};

// Where the white level of an image read from a file came from.
enum class WhiteSource { bit_depth, png_sbit, tiff_max_sample_value };
const char* describe(WhiteSource source);

enum class FileFormat { unknown, png, tiff };
// By the file name's extension (.png, .tif, .tiff; any letter case).
FileFormat format_for_output(const std::string& path);

// Reads an 8- or 16-bit greyscale PNG or TIFF, recognised by its content.
// The white level is the PNG's sBIT, the TIFF's MaxSampleValue, or else the
// largest value of the bit depth. Returns an empty string on success, else
// one line saying what is wrong with the file (without the file's name);
// `image` is then left empty.
std::string read_grey_image(const std::string& path, GreyImage& image, WhiteSource* source = nullptr);

// Writes `image` with its bit depth (samples above 255 are clamped in an 8-bit
// file) and records its white level (PNG sBIT: the bits the white level needs;
// TIFF MaxSampleValue: the white level itself). The format follows the
// extension. The file appears complete or not at all: it is written under a
// temporary name in the same folder and renamed over `path` at the end, so a
// failure leaves an existing file as it was. Returns an empty string or one
// line saying what went wrong.
std::string write_grey_image(const std::string& path, const GreyImage& image);

// As write_grey_image for 8-bit RGB pixels (three bytes each, rows without padding).
std::string write_rgb_image(const std::string& path, int height, int width, const unsigned char* rgb);

// An 8-bit rendering for display: 0 ... white mapped linearly onto 0 ... 255.
GreyImage display_version(const GreyImage& image);

}  // namespace krf::tools
