// Grey radiographs in and out of PNG, TIFF and DICOM files, for the
// command-line tool, the tests and the benchmarks. The library itself never
// touches files.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace krf::tools {

// How stored values map to brightness. Filters see the stored values either
// way; the sense only travels from a DICOM input to a DICOM output, and
// decides how a picture for display is drawn.
enum class Photometric { monochrome2, monochrome1 };  // 0 is black / 0 is white

// The attributes of a DICOM input that a derived DICOM output keeps
// (patient, study, series and the rest of the data set); defined in
// dicom_file.cpp.
struct DicomAttributes;

// A grey raster with contiguous row-major samples and the facts about it that
// a file can carry.
struct GreyImage {
    int height = 0;
    int width = 0;
    int bit_depth = 16;  // 8 or 16: the sample size in the file
    int white = 65535;   // white level: largest meaningful sample value
    std::vector<std::uint16_t> samples;
    Photometric photometric = Photometric::monochrome2;
    std::shared_ptr<const DicomAttributes> dicom;  // set when read from a DICOM file
    std::string notes;       // what a reader should know about the source file ("MONOCHROME1, ...")
    std::string derivation;  // for a DICOM output: how the image was made ("median2D oddnum=5")

    std::uint16_t* row(int r) { return samples.data() + static_cast<std::size_t>(r) * width; }
    const std::uint16_t* row(int r) const { return samples.data() + static_cast<std::size_t>(r) * width; }
    // Row pointers into `samples`, as the library's images expect them.
    std::vector<std::uint16_t*> row_pointers();
};

// Where the white level of an image read from a file came from.
enum class WhiteSource { bit_depth, png_sbit, tiff_max_sample_value, dicom_bits_stored };
const char* describe(WhiteSource source);

enum class FileFormat { unknown, png, tiff, dicom };
// By the file name's extension (.png, .tif, .tiff, .dcm; any letter case).
FileFormat format_for_output(const std::string& path);
// By the file's first bytes; unknown for anything else or an unreadable file.
FileFormat format_of_content(const std::string& path);

// Reads an 8- or 16-bit greyscale PNG, TIFF or single-frame DICOM,
// recognised by its content. The white level is the PNG's sBIT, the TIFF's
// MaxSampleValue, the DICOM's BitsStored, or else the largest value of the
// bit depth. Returns an empty string on success, else
// one line saying what is wrong with the file (without the file's name);
// `image` is then left empty.
std::string read_grey_image(const std::string& path, GreyImage& image, WhiteSource* source = nullptr);

// Writes `image` with its bit depth (samples above 255 are clamped in an 8-bit
// file) and records its white level (PNG sBIT: the bits the white level needs;
// TIFF MaxSampleValue: the white level itself; DICOM BitsStored: the bits it
// needs). A DICOM output is a derived image: the input's attributes when it
// was DICOM, a new SOP Instance UID, ImageType DERIVED, `derivation` as its
// DerivationDescription, uncompressed. The format follows the
// extension. The file appears complete or not at all: it is written under a
// temporary name in the same folder and renamed over `path` at the end, so a
// failure leaves an existing file as it was. Returns an empty string or one
// line saying what went wrong.
// `format` unknown means: by the extension of `path`.
std::string write_grey_image(const std::string& path, const GreyImage& image, FileFormat format = FileFormat::unknown);

// As write_grey_image for 8-bit RGB pixels (three bytes each, rows without padding).
std::string write_rgb_image(const std::string& path, int height, int width, const unsigned char* rgb,
                            FileFormat format = FileFormat::unknown);

// An 8-bit rendering for display: 0 ... white mapped linearly onto 0 ... 255,
// the other way round for a MONOCHROME1 image.
GreyImage display_version(const GreyImage& image);

}  // namespace krf::tools
