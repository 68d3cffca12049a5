// TIFF through libtiff: 8- and 16-bit greyscale strips in, grey or RGB out.
// libtiff reports through process-wide handlers. While a read or write is
// under way they collect the first error and warning here, so that the
// caller gets one line instead of libtiff's own printing to stderr.
#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "image_formats.h"

namespace krf::tools::formats {

namespace {

// What libtiff said while one file was open: the first error and warning.
// Each open file has its own, so that files read or written on several
// threads at once (a batch run) keep their messages apart.
struct TiffMessages {
    char error[256] = "";
    char warning[256] = "";
    // libtiff only warns when a tag's value lies beyond the end of the file
    // and reads on without it; for us that is a truncated file.
    char short_read[256] = "";

    // libtiff's own explanation, or the fallback when it gave none.
    std::string explanation(const char* fallback) const {
        if (error[0] != '\0') return error;
        if (warning[0] != '\0') return warning;
        return fallback;
    }
};

// Some of libtiff's messages span lines ("Tag InkNames:\n  Value 1 of ..."),
// and a refusal is one line: line breaks and the indentation after them
// become a single blank.
void fold_into_one_line(char* text) {
    char* out = text;
    for (const char* in = text; *in != '\0'; ++in) {
        if (*in == '\n' || *in == '\r') {
            while (in[1] == ' ' || in[1] == '\t' || in[1] == '\n' || in[1] == '\r') ++in;
            *out++ = ' ';
        } else {
            *out++ = *in;
        }
    }
    *out = '\0';
}

// Returning 1 keeps libtiff from printing the message itself.
int tiff_error_to_text(TIFF*, void* user, const char*, const char* format, va_list args) {
    auto* messages = static_cast<TiffMessages*>(user);
    if (messages->error[0] == '\0') {
        std::vsnprintf(messages->error, sizeof messages->error, format, args);
        fold_into_one_line(messages->error);
    }
    return 1;
}

int tiff_warning_to_text(TIFF*, void* user, const char*, const char* format, va_list args) {
    auto* messages = static_cast<TiffMessages*>(user);
    char text[256];
    std::vsnprintf(text, sizeof text, format, args);
    fold_into_one_line(text);
    if (messages->warning[0] == '\0') std::memcpy(messages->warning, text, sizeof text);
    if (messages->short_read[0] == '\0' && std::strstr(text, "IO error") != nullptr) {
        std::memcpy(messages->short_read, text, sizeof text);
    }
    return 1;
}

struct TiffCloser {
    void operator()(TIFF* tif) const { TIFFClose(tif); }
};
using TiffPtr = std::unique_ptr<TIFF, TiffCloser>;

// Opens with this file's own message handlers. No single allocation of
// libtiff may exceed the largest raster we accept, so a forged header cannot
// make it ask for gigabytes.
TiffPtr open_tiff(const std::string& path, const char* mode, TiffMessages& messages) {
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    if (options == nullptr) return nullptr;
    TIFFOpenOptionsSetErrorHandlerExtR(options, tiff_error_to_text, &messages);
    TIFFOpenOptionsSetWarningHandlerExtR(options, tiff_warning_to_text, &messages);
    TIFFOpenOptionsSetMaxSingleMemAlloc(options, static_cast<tmsize_t>(kMaxSamples * 2));
    TiffPtr tif(TIFFOpenExt(path.c_str(), mode, options));
    TIFFOpenOptionsFree(options);
    return tif;
}

// When the strip holding `row` reaches past the end of the file, says so in
// our own words: libtiff's message for a strip that starts beyond the end
// prints the negative byte count it got as a huge unsigned number.
std::string strip_past_end(TIFF* tif, const std::string& path, std::uint32_t row) {
    std::error_code failed;
    const std::uintmax_t size = std::filesystem::file_size(path, failed);
    if (failed) return {};
    const std::uint32_t strip = TIFFComputeStrip(tif, row, 0);
    const std::uint64_t offset = TIFFGetStrileOffset(tif, strip);
    const std::uint64_t bytes = TIFFGetStrileByteCount(tif, strip);
    if (offset <= size && bytes <= size - offset) return {};
    return "the file ends at byte " + std::to_string(size) + (offset < size ? ", inside" : ", before") + " strip " +
           std::to_string(strip) + " of the samples, " + std::to_string(bytes) + " bytes from byte " +
           std::to_string(offset);
}

}  // namespace

std::string read_tiff(const std::string& path, GreyImage& image, WhiteSource& source) {
    TiffMessages messages;
    const TiffPtr tif = open_tiff(path, "r", messages);
    if (!tif) return "unreadable TIFF (" + messages.explanation("cannot open") + ")";
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
            const std::string past_end = strip_past_end(tif.get(), path, r);
            return "corrupt or truncated TIFF (" + (past_end.empty() ? messages.explanation("read error") : past_end) +
                   ")";
        }
        std::uint16_t* out = image.row(static_cast<int>(r));
        if (bits == 8) std::copy(line.begin(), line.begin() + width, out);
        else std::memcpy(out, line.data(), static_cast<std::size_t>(width) * 2);  // libtiff gives host order
    }
    if (messages.error[0] != '\0' || messages.short_read[0] != '\0') {
        image.samples.clear();
        const char* reason = messages.error[0] != '\0' ? messages.error : messages.short_read;
        return std::string("corrupt or truncated TIFF (") + reason + ")";
    }
    return {};
}

std::string write_tiff(const std::string& temp_path, int height, int width, int bits, int samples_per_pixel,
                       int white, const std::vector<const void*>& rows) {
    TiffMessages messages;
    const TiffPtr tif = open_tiff(temp_path, "w", messages);
    if (!tif) return "cannot write TIFF (" + messages.explanation("cannot open") + ")";
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
            return "TIFF encoder: " + messages.explanation("write error");
        }
    }
    if (TIFFFlush(t) != 1) return "TIFF encoder: " + messages.explanation("write error");
    return {};
}

}  // namespace krf::tools::formats
