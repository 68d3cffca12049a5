// What the file formats share behind image_io.h: size limits, the temporary
// file that becomes the output only when complete, and one reader and writer
// per format (png_file.cpp, tiff_file.cpp, dicom_file.cpp).
#pragma once

#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "image_io.h"

namespace krf::tools::formats {

// 2^28 samples (512 MiB of 16-bit data) is far beyond any radiograph; the
// limit stops a forged header from asking for an absurd allocation before
// the first pixel is read.
constexpr std::int64_t kMaxSamples = std::int64_t{1} << 28;

std::string system_error(const char* what);
inline bool size_acceptable(std::uint64_t height, std::uint64_t width) {
    return height >= 1 && width >= 1 && height <= INT_MAX && width <= INT_MAX &&
           static_cast<std::int64_t>(height * width) <= kMaxSamples;
}
inline std::string size_problem(std::uint64_t height, std::uint64_t width) {
    return "unsupported image size " + std::to_string(width) + " x " + std::to_string(height) +
           (height == 0 || width == 0 ? " (empty)" : " (too large)");
}
// Bits needed to represent the white level, at most the bit depth.
int significant_bits(int white, int bit_depth);

// A file that appears under its final name only once it is complete.
class TemporaryFile {
public:
    TemporaryFile() = default;
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile();
    // Creates an empty file beside `final_path`, with the permissions a new
    // file would get there. Returns an empty string or what went wrong.
    std::string create(const std::string& final_path);
    const std::string& path() const { return path_; }
    std::string rename_to_final();

private:
    std::string path_;
    std::string final_;
    bool renamed_ = false;
};

// Prefix of every temporary file name: a batch run that was killed may leave
// such files behind, and the next run over the folder removes them.
constexpr const char* kTemporaryPrefix = ".krfilter-";

// Readers fill `image` and `source` or return one line saying what is wrong.
// `file` is open after the 8 signature bytes and is closed by read_png.
std::string read_png(FILE* file, GreyImage& image, WhiteSource& source);
std::string read_tiff(const std::string& path, GreyImage& image, WhiteSource& source);
std::string read_dicom(const std::string& path, GreyImage& image, WhiteSource& source);
// read_dicom's work with a given decoder program and limits: the decoder is
// stopped, and the file refused, after `seconds` or `max_report_bytes`.
std::string run_dicom_decoder(const std::string& decoder, const std::string& path, int seconds,
                              std::uint64_t max_report_bytes, GreyImage& image);

// Writers: `rows` holds one pointer per row to width × channels samples of
// `bits` bits (channels 1 for grey, 3 for RGB).
std::string write_png(const std::string& temp_path, int height, int width, int bits, int channels, int sbit_bits,
                      const std::vector<const void*>& rows);
std::string write_tiff(const std::string& temp_path, int height, int width, int bits, int channels, int white,
                       const std::vector<const void*>& rows);
std::string write_dicom(const std::string& temp_path, const GreyImage& image);

// DICOM files are recognised by "DICM" at byte 128.
bool looks_like_dicom(FILE* file);

}  // namespace krf::tools::formats
