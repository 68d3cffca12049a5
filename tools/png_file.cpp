// PNG through libpng: 8- and 16-bit greyscale in, grey or RGB out. libpng
// reports errors by longjmp to the setjmp in decode_png/encode_png; those two
// functions therefore own nothing that needs a destructor: every resource
// lives in the caller's PngFile or GreyImage, whose destructors run normally
// once the caller returns.
#include <png.h>

#include <algorithm>
#include <bit>
#include <csetjmp>
#include <cstdio>

#include "image_formats.h"

namespace krf::tools::formats {

namespace {

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
    std::vector<unsigned char> bytes;  // 8-bit samples on their way from the file

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

}  // namespace

std::string read_png(FILE* file, GreyImage& image, WhiteSource& source) {
    PngFile f;
    f.file = file;
    f.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &f.error, png_error_to_text, png_warning_ignored);
    if (f.png != nullptr) f.info = png_create_info_struct(f.png);
    if (f.png == nullptr || f.info == nullptr) return "out of memory reading PNG";
    std::string problem;
    if (!decode_png(f, image, source, problem)) return problem;
    return {};
}

std::string write_png(const std::string& temp_path, int height, int width, int bits, int channels, int sbit_bits,
                      const std::vector<const void*>& rows) {
    PngFile f;
    f.writing = true;
    f.rows.resize(static_cast<std::size_t>(height));
    for (int r = 0; r < height; ++r) f.rows[r] = static_cast<png_bytep>(const_cast<void*>(rows[r]));
    f.file = std::fopen(temp_path.c_str(), "wb");
    if (f.file == nullptr) return system_error("cannot open the temporary file");
    f.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &f.error, png_error_to_text, png_warning_ignored);
    if (f.png != nullptr) f.info = png_create_info_struct(f.png);
    if (f.png == nullptr || f.info == nullptr) return "out of memory writing PNG";
    const int colour = channels == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY;
    if (!encode_png(f, height, width, bits, colour, sbit_bits)) return std::string("PNG encoder: ") + f.error.text;
    FILE* written = f.file;
    f.file = nullptr;
    if (std::fflush(written) != 0 || std::ferror(written) != 0) {
        std::fclose(written);
        return system_error("write failed");
    }
    if (std::fclose(written) != 0) return system_error("write failed");
    return {};
}

}  // namespace krf::tools::formats
