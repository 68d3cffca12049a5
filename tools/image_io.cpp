#include "image_io.h"

#include <fcntl.h>
#include <png.h>
#include <sys/stat.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

namespace krf::tools {

namespace {

// 2^28 samples (512 MiB of 16-bit data) is far beyond any radiograph; the
// limit stops a forged header from asking for an absurd allocation before
// the first pixel is read.
constexpr std::int64_t kMaxSamples = std::int64_t{1} << 28;

std::string system_error(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

bool size_acceptable(std::uint64_t height, std::uint64_t width) {
    return height >= 1 && width >= 1 && height <= INT_MAX && width <= INT_MAX &&
           static_cast<std::int64_t>(height * width) <= kMaxSamples;
}

std::string size_problem(std::uint64_t height, std::uint64_t width) {
    return "unsupported image size " + std::to_string(width) + " x " + std::to_string(height) +
           (height == 0 || width == 0 ? " (empty)" : " (too large)");
}

// Bits needed to represent the white level: what a PNG's sBIT can express.
int significant_bits(int white, int bit_depth) {
    const int bits = std::bit_width(static_cast<unsigned>(std::max(white, 1)));
    return std::min(bits, bit_depth);
}

// A file that appears under its final name only once it is complete.
class TemporaryFile {
public:
    ~TemporaryFile() {
        if (!path_.empty() && !renamed_) unlink(path_.c_str());
    }
    // Creates an empty file beside `final_path`, with the permissions a new
    // file would get there.
    std::string create(const std::string& final_path) {
        final_ = final_path;
        const std::size_t slash = final_path.rfind('/');
        const std::string folder = slash == std::string::npos ? "." : final_path.substr(0, std::max<std::size_t>(slash, 1));
        std::string name = folder + "/.krfilter-XXXXXX";
        const int fd = mkstemp(name.data());
        if (fd < 0) return system_error(("cannot create a file in " + folder).c_str());
        path_ = name;
        const mode_t mask = umask(0);
        umask(mask);
        fchmod(fd, 0666 & ~mask);
        close(fd);
        return {};
    }
    const std::string& path() const { return path_; }
    std::string rename_to_final() {
        if (std::rename(path_.c_str(), final_.c_str()) != 0) return system_error("cannot replace the file");
        renamed_ = true;
        return {};
    }

private:
    std::string path_;
    std::string final_;
    bool renamed_ = false;
};

// ---- PNG ----------------------------------------------------------------
//
// libpng reports errors by longjmp to the setjmp in decode_png/encode_png.
// Those two functions therefore own nothing that needs a destructor: every
// resource lives in the caller's PngFile or GreyImage, whose destructors run
// normally once the caller returns.

struct PngErrorText {
    char text[256] = "";
};

void png_error_to_text(png_structp png, png_const_charp message) {
    auto* error = static_cast<PngErrorText*>(png_get_error_ptr(png));
    if (error->text[0] == '\0') std::snprintf(error->text, sizeof error->text, "%s", message);
    png_longjmp(png, 1);
}

// Warnings (unknown profiles, odd ancillary chunks) do not affect the samples.
void png_warning_ignored(png_structp, png_const_charp) {}

struct PngFile {
    FILE* file = nullptr;
    png_structp png = nullptr;
    png_infop info = nullptr;
    bool writing = false;
    PngErrorText error;
    std::vector<png_bytep> rows;
    std::vector<unsigned char> bytes;  // 8-bit samples on their way to or from the file

    ~PngFile() {
        if (png != nullptr) {
            if (writing) png_destroy_write_struct(&png, &info);
            else png_destroy_read_struct(&png, &info, nullptr);
        }
        if (file != nullptr) std::fclose(file);
    }
};

const char* png_colour_name(int colour) {
    switch (colour) {
    case PNG_COLOR_TYPE_RGB: return "RGB";
    case PNG_COLOR_TYPE_RGB_ALPHA: return "RGB with alpha";
    case PNG_COLOR_TYPE_PALETTE: return "palette";
    case PNG_COLOR_TYPE_GRAY_ALPHA: return "grey with alpha";
    default: return "unknown";
    }
}

bool decode_png(PngFile& f, GreyImage& image, WhiteSource& source, std::string& problem) {
    if (setjmp(png_jmpbuf(f.png))) {
        problem = std::string("corrupt or truncated PNG (") + f.error.text + ")";
        return false;
    }
    png_init_io(f.png, f.file);
    png_set_sig_bytes(f.png, 8);
    png_read_info(f.png, f.info);
    png_uint_32 width = 0, height = 0;
    int depth = 0, colour = 0, interlace = 0;
    png_get_IHDR(f.png, f.info, &width, &height, &depth, &colour, &interlace, nullptr, nullptr);
    if (colour != PNG_COLOR_TYPE_GRAY) {
        problem = std::string("not a greyscale image (PNG colour type ") + png_colour_name(colour) + ")";
        return false;
    }
    if (depth != 8 && depth != 16) {
        problem = "greyscale with " + std::to_string(depth) + " bits per sample (only 8 and 16 are supported)";
        return false;
    }
    if (!size_acceptable(height, width)) {
        problem = size_problem(height, width);
        return false;
    }
    image.height = static_cast<int>(height);
    image.width = static_cast<int>(width);
    image.bit_depth = depth;
    image.white = (1 << depth) - 1;
    source = WhiteSource::bit_depth;
    png_color_8p sbit = nullptr;
    if (png_get_sBIT(f.png, f.info, &sbit) != 0 && sbit != nullptr && sbit->gray >= 1 && sbit->gray <= depth) {
        image.white = (1 << sbit->gray) - 1;
        source = WhiteSource::png_sbit;
    }
    if (depth == 16 && std::endian::native == std::endian::little) png_set_swap(f.png);
    png_set_interlace_handling(f.png);
    png_read_update_info(f.png, f.info);

    const std::size_t count = static_cast<std::size_t>(height) * width;
    image.samples.assign(count, 0);
    if (depth == 8) f.bytes.assign(count, 0);
    f.rows.resize(height);
    for (png_uint_32 r = 0; r < height; ++r) {
        f.rows[r] = depth == 8 ? f.bytes.data() + static_cast<std::size_t>(r) * width
                               : reinterpret_cast<png_bytep>(image.row(static_cast<int>(r)));
    }
    png_read_image(f.png, f.rows.data());
    // The end chunk is required too: a file cut after its pixel data is still truncated.
    png_read_end(f.png, nullptr);
    if (depth == 8) std::copy(f.bytes.begin(), f.bytes.end(), image.samples.begin());
    return true;
}

std::string read_png(const std::string& path, FILE* file, GreyImage& image, WhiteSource& source) {
    PngFile f;
    f.file = file;
    f.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &f.error, png_error_to_text, png_warning_ignored);
    if (f.png != nullptr) f.info = png_create_info_struct(f.png);
    if (f.png == nullptr || f.info == nullptr) return "out of memory reading " + path;
    std::string problem;
    if (!decode_png(f, image, source, problem)) return problem;
    return {};
}

bool encode_png(PngFile& f, int height, int width, int depth, int colour, int sbit_bits) {
    if (setjmp(png_jmpbuf(f.png))) return false;
    png_init_io(f.png, f.file);
    png_set_IHDR(f.png, f.info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), depth, colour,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (sbit_bits > 0) {
        png_color_8 sbit{};
        sbit.gray = static_cast<png_byte>(sbit_bits);
        png_set_sBIT(f.png, f.info, &sbit);
    }
    // Noisy 16-bit radiographs hardly compress better at zlib's default level
    // (about 2 % smaller) but take three to four times as long to write.
    png_set_compression_level(f.png, 3);
    png_write_info(f.png, f.info);
    if (depth == 16 && std::endian::native == std::endian::little) png_set_swap(f.png);
    png_write_image(f.png, f.rows.data());
    png_write_end(f.png, f.info);
    return true;
}

// Fills f.rows (and f.bytes when samples must be narrowed) before encoding.
std::string write_png(const std::string& temp_path, PngFile& f, int height, int width, int depth, int colour,
                      int sbit_bits) {
    f.writing = true;
    f.file = std::fopen(temp_path.c_str(), "wb");
    if (f.file == nullptr) return system_error("cannot open the temporary file");
    f.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &f.error, png_error_to_text, png_warning_ignored);
    if (f.png != nullptr) f.info = png_create_info_struct(f.png);
    if (f.png == nullptr || f.info == nullptr) return "out of memory writing PNG";
    if (!encode_png(f, height, width, depth, colour, sbit_bits)) return std::string("PNG encoder: ") + f.error.text;
    FILE* file = f.file;
    f.file = nullptr;
    if (std::fflush(file) != 0 || std::ferror(file) != 0) {
        std::fclose(file);
        return system_error("write failed");
    }
    if (std::fclose(file) != 0) return system_error("write failed");
    return {};
}

// ---- TIFF ---------------------------------------------------------------
//
// libtiff reports through process-wide handlers. While a read or write is
// under way they collect the first error and warning here, so that the
// caller gets one line instead of libtiff's own printing to stderr.

struct TiffMessages {
    char error[256] = "";
    char warning[256] = "";
    // libtiff only warns when a tag's value lies beyond the end of the file
    // and reads on without it; for us that is a truncated file.
    char short_read[256] = "";
};
TiffMessages tiff_messages;

void tiff_error_to_text(const char*, const char* format, va_list args) {
    if (tiff_messages.error[0] == '\0') std::vsnprintf(tiff_messages.error, sizeof tiff_messages.error, format, args);
}

void tiff_warning_to_text(const char*, const char* format, va_list args) {
    char text[256];
    std::vsnprintf(text, sizeof text, format, args);
    if (tiff_messages.warning[0] == '\0') std::memcpy(tiff_messages.warning, text, sizeof text);
    if (tiff_messages.short_read[0] == '\0' && std::strstr(text, "IO error") != nullptr) {
        std::memcpy(tiff_messages.short_read, text, sizeof text);
    }
}

class TiffHandlers {
public:
    TiffHandlers()
        : error_(TIFFSetErrorHandler(tiff_error_to_text)), warning_(TIFFSetWarningHandler(tiff_warning_to_text)) {
        tiff_messages = TiffMessages{};
    }
    ~TiffHandlers() {
        TIFFSetErrorHandler(error_);
        TIFFSetWarningHandler(warning_);
    }
    TiffHandlers(const TiffHandlers&) = delete;
    TiffHandlers& operator=(const TiffHandlers&) = delete;
    // libtiff's own explanation, or the fallback when it gave none.
    static std::string explanation(const char* fallback) {
        if (tiff_messages.error[0] != '\0') return tiff_messages.error;
        if (tiff_messages.warning[0] != '\0') return tiff_messages.warning;
        return fallback;
    }

private:
    TIFFErrorHandler error_;
    TIFFErrorHandler warning_;
};

struct TiffCloser {
    void operator()(TIFF* tif) const { TIFFClose(tif); }
};
using TiffPtr = std::unique_ptr<TIFF, TiffCloser>;

std::string read_tiff(const std::string& path, GreyImage& image, WhiteSource& source) {
    TiffHandlers handlers;
    const TiffPtr tif(TIFFOpen(path.c_str(), "r"));
    if (!tif) return "unreadable TIFF (" + TiffHandlers::explanation("cannot open") + ")";
    std::uint32_t width = 0, height = 0;
    std::uint16_t bits = 1, samples_per_pixel = 1, format = SAMPLEFORMAT_UINT, photometric = PHOTOMETRIC_MINISBLACK;
    TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLESPERPIXEL, &samples_per_pixel);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetField(tif.get(), TIFFTAG_PHOTOMETRIC, &photometric);
    if (samples_per_pixel != 1) {
        return "not a greyscale image (TIFF with " + std::to_string(samples_per_pixel) + " samples per pixel)";
    }
    if (photometric == PHOTOMETRIC_PALETTE) return "not a greyscale image (TIFF palette colour)";
    if (photometric == PHOTOMETRIC_MINISWHITE) return "inverted greyscale TIFF (MinIsWhite) is not supported";
    if (photometric != PHOTOMETRIC_MINISBLACK) {
        return "not a greyscale image (TIFF photometric interpretation " + std::to_string(photometric) + ")";
    }
    if (format != SAMPLEFORMAT_UINT) return "TIFF samples are not unsigned integers";
    if (bits != 8 && bits != 16) {
        return "greyscale with " + std::to_string(bits) + " bits per sample (only 8 and 16 are supported)";
    }
    if (TIFFIsTiled(tif.get())) return "tiled TIFF is not supported (only strips)";
    if (!size_acceptable(height, width)) return size_problem(height, width);

    image.height = static_cast<int>(height);
    image.width = static_cast<int>(width);
    image.bit_depth = bits;
    image.white = (1 << bits) - 1;
    source = WhiteSource::bit_depth;
    std::uint16_t max_sample = 0;
    if (TIFFGetField(tif.get(), TIFFTAG_MAXSAMPLEVALUE, &max_sample) == 1 && max_sample >= 1 &&
        max_sample <= image.white) {
        image.white = max_sample;
        source = WhiteSource::tiff_max_sample_value;
    }
    const tmsize_t line_size = TIFFScanlineSize(tif.get());
    if (line_size < static_cast<tmsize_t>(width) * (bits / 8)) return "inconsistent TIFF scanline size";
    std::vector<unsigned char> line(static_cast<std::size_t>(line_size));
    image.samples.assign(static_cast<std::size_t>(height) * width, 0);
    for (std::uint32_t r = 0; r < height; ++r) {
        if (TIFFReadScanline(tif.get(), line.data(), r, 0) < 0) {
            image.samples.clear();
            return "corrupt or truncated TIFF (" + TiffHandlers::explanation("read error") + ")";
        }
        std::uint16_t* out = image.row(static_cast<int>(r));
        if (bits == 8) std::copy(line.begin(), line.begin() + width, out);
        else std::memcpy(out, line.data(), static_cast<std::size_t>(width) * 2);  // libtiff gives host order
    }
    if (tiff_messages.error[0] != '\0' || tiff_messages.short_read[0] != '\0') {
        image.samples.clear();
        const char* reason = tiff_messages.error[0] != '\0' ? tiff_messages.error : tiff_messages.short_read;
        return std::string("corrupt or truncated TIFF (") + reason + ")";
    }
    return {};
}

// `rows` holds one pointer per row to width × samples_per_pixel samples of `bits` bits.
std::string write_tiff(const std::string& temp_path, int height, int width, int bits, int samples_per_pixel,
                       int white, const std::vector<const void*>& rows) {
    TiffHandlers handlers;
    const TiffPtr tif(TIFFOpen(temp_path.c_str(), "w"));
    if (!tif) return "cannot write TIFF (" + TiffHandlers::explanation("cannot open") + ")";
    TIFF* t = tif.get();
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(width));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(height));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, static_cast<std::uint16_t>(bits));
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, static_cast<std::uint16_t>(samples_per_pixel));
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, samples_per_pixel == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
    if (samples_per_pixel == 1) TIFFSetField(t, TIFFTAG_MAXSAMPLEVALUE, static_cast<std::uint16_t>(white));
    TIFFSetField(t, TIFFTAG_SOFTWARE, "krfilter");
    for (int r = 0; r < height; ++r) {
        if (TIFFWriteScanline(t, const_cast<void*>(rows[r]), static_cast<std::uint32_t>(r), 0) < 0) {
            return "TIFF encoder: " + TiffHandlers::explanation("write error");
        }
    }
    if (TIFFFlush(t) != 1) return "TIFF encoder: " + TiffHandlers::explanation("write error");
    return {};
}

std::string extension_of(const std::string& path) {
    const std::size_t dot = path.rfind('.');
    const std::size_t slash = path.rfind('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    std::string ext = path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

std::string unsupported_format(const std::string& path) {
    return "cannot tell the format of " + path + " (use .png, .tif or .tiff)";
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
    default: return "bit depth";
    }
}

FileFormat format_for_output(const std::string& path) {
    const std::string ext = extension_of(path);
    if (ext == "png") return FileFormat::png;
    if (ext == "tif" || ext == "tiff") return FileFormat::tiff;
    return FileFormat::unknown;
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
            problem = read_png(path, file, image, found);  // takes the file over and closes it
            file = nullptr;
        }
    } else if (got >= 4 && (std::memcmp(magic, "II*\0", 4) == 0 || std::memcmp(magic, "MM\0*", 4) == 0 ||
                            std::memcmp(magic, "II+\0", 4) == 0 || std::memcmp(magic, "MM\0+", 4) == 0)) {
        std::fclose(file);
        file = nullptr;
        problem = read_tiff(path, image, found);
    } else {
        problem = "not a PNG or TIFF file";
    }
    if (file != nullptr) std::fclose(file);
    if (!problem.empty()) {
        image = GreyImage{};
        return problem;
    }
    if (source != nullptr) *source = found;
    return {};
}

std::string write_grey_image(const std::string& path, const GreyImage& image) {
    const FileFormat format = format_for_output(path);
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
    if (format == FileFormat::png) {
        PngFile f;
        f.rows.resize(image.height);
        for (int r = 0; r < image.height; ++r) f.rows[r] = static_cast<png_bytep>(const_cast<void*>(row_start(r)));
        problem = write_png(temp.path(), f, image.height, image.width, image.bit_depth, PNG_COLOR_TYPE_GRAY,
                            significant_bits(white, image.bit_depth));
    } else {
        std::vector<const void*> rows(image.height);
        for (int r = 0; r < image.height; ++r) rows[r] = row_start(r);
        problem = write_tiff(temp.path(), image.height, image.width, image.bit_depth, 1, white, rows);
    }
    if (!problem.empty()) return problem;
    return temp.rename_to_final();
}

std::string write_rgb_image(const std::string& path, int height, int width, const unsigned char* rgb) {
    const FileFormat format = format_for_output(path);
    if (format == FileFormat::unknown) return unsupported_format(path);
    if (height < 1 || width < 1 || rgb == nullptr) return "nothing to write (empty image)";
    TemporaryFile temp;
    if (std::string problem = temp.create(path); !problem.empty()) return problem;
    const std::size_t stride = static_cast<std::size_t>(width) * 3;
    std::string problem;
    if (format == FileFormat::png) {
        PngFile f;
        f.rows.resize(height);
        for (int r = 0; r < height; ++r) f.rows[r] = const_cast<png_bytep>(rgb + r * stride);
        problem = write_png(temp.path(), f, height, width, 8, PNG_COLOR_TYPE_RGB, 0);
    } else {
        std::vector<const void*> rows(height);
        for (int r = 0; r < height; ++r) rows[r] = rgb + r * stride;
        problem = write_tiff(temp.path(), height, width, 8, 3, 255, rows);
    }
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
    display.samples.resize(image.samples.size());
    std::transform(image.samples.begin(), image.samples.end(), display.samples.begin(), [white](std::uint16_t v) {
        return static_cast<std::uint16_t>((std::min<std::uint32_t>(v, white) * 255 + white / 2) / white);
    });
    return display;
}

}  // namespace krf::tools
