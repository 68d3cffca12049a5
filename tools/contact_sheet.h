// Thumbnails, a tiny bitmap font and the demo's contact sheet.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "image_io.h"

namespace krf::tools {

struct Colour {
    unsigned char red, green, blue;
};

// An 8-bit RGB picture, three bytes per pixel, rows without padding.
struct RgbCanvas {
    RgbCanvas() = default;
    RgbCanvas(int height, int width, Colour background);
    int height = 0;
    int width = 0;
    std::vector<unsigned char> bytes;

    bool empty() const { return height == 0 || width == 0; }
    void fill(int top, int left, int rows, int columns, Colour colour);  // clipped to the canvas
    void paste(const RgbCanvas& picture, int top, int left);             // clipped to the canvas
};

// Height of a line of text drawn by draw_text, and the advance per character.
constexpr int kTextHeight = 7;
constexpr int kTextAdvance = 6;

// Draws `text` with a built-in 5 × 7 font (ASCII letters, digits and a few
// signs; anything else shows as '?'), top-left corner at (top, left).
void draw_text(RgbCanvas& canvas, int top, int left, std::string_view text, Colour colour);

// Area-averaged reductions fitting within side × side, keeping the aspect.
// Grey samples are shown from 0 (black) to the image's white level (white).
RgbCanvas grey_thumbnail(const GreyImage& image, int side);
RgbCanvas rgb_thumbnail(const unsigned char* rgb, int height, int width, int side);

// One cell of the sheet: a thumbnail (or none, for a filter that produced
// nothing) with a caption underneath.
struct SheetTile {
    std::string caption;
    RgbCanvas thumbnail;
};

// Cells in rows of `columns`, each `side` pixels square plus its caption,
// under a one-line title.
RgbCanvas contact_sheet(const std::string& title, const std::vector<SheetTile>& tiles, int side, int columns);

}  // namespace krf::tools
