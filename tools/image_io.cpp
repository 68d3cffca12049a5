#include "image_io.h"

#include <fcntl.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "image_formats.h"

namespace krf::tools {

using namespace formats;

namespace formats {

std::string system_error(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

int significant_bits(int white, int bit_depth) {
    const int bits = std::bit_width(static_cast<unsigned>(std::max(white, 1)));
    return std::min(bits, bit_depth);
}

TemporaryFile::~TemporaryFile() {
    if (!path_.empty() && !renamed_) unlink(path_.c_str());
}

std::string TemporaryFile::create(const std::string& final_path) {
    final_ = final_path;
    const std::size_t slash = final_path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : final_path.substr(0, std::max<std::size_t>(slash, 1));
    std::string name = folder + "/" + kTemporaryPrefix + "XXXXXX";
    const int fd = mkstemp(name.data());
    if (fd < 0) return system_error(("cannot create a file in " + folder).c_str());
    path_ = name;
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
    close(fd);
    return {};
}

std::string TemporaryFile::rename_to_final() {
    if (std::rename(path_.c_str(), final_.c_str()) != 0) return system_error("cannot replace the file");
    renamed_ = true;
    return {};
}

}  // namespace formats

namespace {

std::string extension_of(const std::string& path) {
    const std::size_t dot = path.rfind('.');
    const std::size_t slash = path.rfind('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    std::string ext = path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

std::string unsupported_format(const std::string& path) {
    return "cannot tell the format of " + path + " (use .png, .tif, .tiff or .dcm)";
}

}  // namespace

std::vector<std::uint16_t*> GreyImage::row_pointers() {
    std::vector<std::uint16_t*> rows(static_cast<std::size_t>(std::max(height, 0)));
    for (int r = 0; r < height; ++r) rows[r] = row(r);
    return rows;
}

const char* describe(WhiteSource source) {
    switch (source) {
    case WhiteSource::png_sbit: return "PNG sBIT";
    case WhiteSource::tiff_max_sample_value: return "TIFF MaxSampleValue";
    case WhiteSource::dicom_bits_stored: return "DICOM BitsStored";
    default: return "bit depth";
    }
}

FileFormat format_for_output(const std::string& path) {
    const std::string ext = extension_of(path);
    if (ext == "png") return FileFormat::png;
    if (ext == "tif" || ext == "tiff") return FileFormat::tiff;
    if (ext == "dcm") return FileFormat::dicom;
    return FileFormat::unknown;
}

namespace {
bool tiff_magic(const unsigned char* magic, std::size_t got) {
    return got >= 4 && (std::memcmp(magic, "II*\0", 4) == 0 || std::memcmp(magic, "MM\0*", 4) == 0 ||
                        std::memcmp(magic, "II+\0", 4) == 0 || std::memcmp(magic, "MM\0+", 4) == 0);
}
}  // namespace

FileFormat format_of_content(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return FileFormat::unknown;
    unsigned char magic[8] = {};
    const std::size_t got = std::fread(magic, 1, sizeof magic, file);
    FileFormat format = FileFormat::unknown;
    if (got == sizeof magic && png_sig_cmp(magic, 0, got) == 0) format = FileFormat::png;
    else if (tiff_magic(magic, got)) format = FileFormat::tiff;
    else if (looks_like_dicom(file)) format = FileFormat::dicom;
    std::fclose(file);
    return format;
}

std::string read_grey_image(const std::string& path, GreyImage& image, WhiteSource* source) {
    image = GreyImage{};
    WhiteSource found = WhiteSource::bit_depth;
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return std::strerror(errno);
    unsigned char magic[8] = {};
    const std::size_t got = std::fread(magic, 1, sizeof magic, file);
    std::string problem;
    if (got == 0) {
        problem = std::ferror(file) ? std::string(std::strerror(errno)) : "empty file";
    } else if (png_sig_cmp(magic, 0, got) == 0) {
        if (got < sizeof magic) {
            problem = "truncated PNG (" + std::to_string(got) + " bytes)";
        } else {
            problem = read_png(file, image, found);  // takes the file over and closes it
            file = nullptr;
        }
    } else if (tiff_magic(magic, got)) {
        std::fclose(file);
        file = nullptr;
        problem = read_tiff(path, image, found);
    } else if (looks_like_dicom(file)) {
        std::fclose(file);
        file = nullptr;
        problem = read_dicom(path, image, found);
    } else {
        problem = "not a PNG, TIFF or DICOM file";
    }
    if (file != nullptr) std::fclose(file);
    if (!problem.empty()) {
        image = GreyImage{};
        return problem;
    }
    if (source != nullptr) *source = found;
    return {};
}

std::string write_grey_image(const std::string& path, const GreyImage& image, FileFormat format) {
    if (format == FileFormat::unknown) format = format_for_output(path);
    if (format == FileFormat::unknown) return unsupported_format(path);
    if (image.height < 1 || image.width < 1) return "nothing to write (empty image)";
    if (image.bit_depth != 8 && image.bit_depth != 16) return "unsupported bit depth " + std::to_string(image.bit_depth);
    const int white = std::clamp(image.white, 1, (1 << image.bit_depth) - 1);
    TemporaryFile temp;
    if (std::string problem = temp.create(path); !problem.empty()) return problem;

    // An 8-bit file cannot hold values above 255: they are clamped.
    std::vector<unsigned char> narrowed;
    if (image.bit_depth == 8) {
        narrowed.resize(image.samples.size());
        std::transform(image.samples.begin(), image.samples.end(), narrowed.begin(),
                       [](std::uint16_t v) { return static_cast<unsigned char>(std::min<std::uint16_t>(v, 255)); });
    }
    auto row_start = [&](int r) -> const void* {
        return image.bit_depth == 8 ? static_cast<const void*>(narrowed.data() + static_cast<std::size_t>(r) * image.width)
                                    : static_cast<const void*>(image.row(r));
    };
    std::string problem;
    if (format == FileFormat::dicom) {
        problem = write_dicom(temp.path(), image);
    } else {
        std::vector<const void*> rows(image.height);
        for (int r = 0; r < image.height; ++r) rows[r] = row_start(r);
        problem = format == FileFormat::png
                      ? write_png(temp.path(), image.height, image.width, image.bit_depth, 1,
                                  significant_bits(white, image.bit_depth), rows)
                      : write_tiff(temp.path(), image.height, image.width, image.bit_depth, 1, white, rows);
    }
    if (!problem.empty()) return problem;
    return temp.rename_to_final();
}

std::string write_rgb_image(const std::string& path, int height, int width, const unsigned char* rgb,
                            FileFormat format) {
    if (format == FileFormat::unknown) format = format_for_output(path);
    if (format == FileFormat::unknown) return unsupported_format(path);
    if (height < 1 || width < 1 || rgb == nullptr) return "nothing to write (empty image)";
    if (format == FileFormat::dicom) return "colour results cannot be written as DICOM (use .png or .tif)";
    TemporaryFile temp;
    if (std::string problem = temp.create(path); !problem.empty()) return problem;
    const std::size_t stride = static_cast<std::size_t>(width) * 3;
    std::vector<const void*> rows(height);
    for (int r = 0; r < height; ++r) rows[r] = rgb + r * stride;
    const std::string problem = format == FileFormat::png ? write_png(temp.path(), height, width, 8, 3, 0, rows)
                                                          : write_tiff(temp.path(), height, width, 8, 3, 255, rows);
    if (!problem.empty()) return problem;
    return temp.rename_to_final();
}

GreyImage display_version(const GreyImage& image) {
    GreyImage display;
    display.height = image.height;
    display.width = image.width;
    display.bit_depth = 8;
    display.white = 255;
    const std::uint32_t white = static_cast<std::uint32_t>(std::max(image.white, 1));
    const bool inverted = image.photometric == Photometric::monochrome1;
    display.samples.resize(image.samples.size());
    std::transform(image.samples.begin(), image.samples.end(), display.samples.begin(), [white, inverted](std::uint16_t v) {
        const auto level = static_cast<std::uint16_t>((std::min<std::uint32_t>(v, white) * 255 + white / 2) / white);
        return inverted ? static_cast<std::uint16_t>(255 - level) : level;
    });
    return display;
}

}  // namespace krf::tools
