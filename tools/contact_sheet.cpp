#include "contact_sheet.h"

#include <algorithm>
#include <cstdint>

namespace krf::tools {

namespace {

// 5 × 7 glyphs, '#' marks ink. Enough for filter names, numbers and captions.
struct Glyph {
    char character;
    const char* rows[kTextHeight];
};

constexpr Glyph kGlyphs[] = {
    {'A', {" ### ", "#   #", "#   #", "#####", "#   #", "#   #", "#   #"}},
    {'B', {"#### ", "#   #", "#   #", "#### ", "#   #", "#   #", "#### "}},
    {'C', {" ### ", "#   #", "#    ", "#    ", "#    ", "#   #", " ### "}},
    {'D', {"#### ", "#   #", "#   #", "#   #", "#   #", "#   #", "#### "}},
    {'E', {"#####", "#    ", "#    ", "#### ", "#    ", "#    ", "#####"}},
    {'F', {"#####", "#    ", "#    ", "#### ", "#    ", "#    ", "#    "}},
    {'G', {" ### ", "#   #", "#    ", "# ###", "#   #", "#   #", " ####"}},
    {'H', {"#   #", "#   #", "#   #", "#####", "#   #", "#   #", "#   #"}},
    {'I', {" ### ", "  #  ", "  #  ", "  #  ", "  #  ", "  #  ", " ### "}},
    {'J', {"  ###", "   # ", "   # ", "   # ", "   # ", "#  # ", " ##  "}},
    {'K', {"#   #", "#  # ", "# #  ", "##   ", "# #  ", "#  # ", "#   #"}},
    {'L', {"#    ", "#    ", "#    ", "#    ", "#    ", "#    ", "#####"}},
    {'M', {"#   #", "## ##", "# # #", "# # #", "#   #", "#   #", "#   #"}},
    {'N', {"#   #", "#   #", "##  #", "# # #", "#  ##", "#   #", "#   #"}},
    {'O', {" ### ", "#   #", "#   #", "#   #", "#   #", "#   #", " ### "}},
    {'P', {"#### ", "#   #", "#   #", "#### ", "#    ", "#    ", "#    "}},
    {'Q', {" ### ", "#   #", "#   #", "#   #", "# # #", "#  # ", " ## #"}},
    {'R', {"#### ", "#   #", "#   #", "#### ", "# #  ", "#  # ", "#   #"}},
    {'S', {" ####", "#    ", "#    ", " ### ", "    #", "    #", "#### "}},
    {'T', {"#####", "  #  ", "  #  ", "  #  ", "  #  ", "  #  ", "  #  "}},
    {'U', {"#   #", "#   #", "#   #", "#   #", "#   #", "#   #", " ### "}},
    {'V', {"#   #", "#   #", "#   #", "#   #", "#   #", " # # ", "  #  "}},
    {'W', {"#   #", "#   #", "#   #", "# # #", "# # #", "# # #", " # # "}},
    {'X', {"#   #", "#   #", " # # ", "  #  ", " # # ", "#   #", "#   #"}},
    {'Y', {"#   #", "#   #", " # # ", "  #  ", "  #  ", "  #  ", "  #  "}},
    {'Z', {"#####", "    #", "   # ", "  #  ", " #   ", "#    ", "#####"}},
    {'a', {"     ", "     ", " ### ", "    #", " ####", "#   #", " ####"}},
    {'b', {"#    ", "#    ", "# ## ", "##  #", "#   #", "#   #", "#### "}},
    {'c', {"     ", "     ", " ### ", "#    ", "#    ", "#   #", " ### "}},
    {'d', {"    #", "    #", " ## #", "#  ##", "#   #", "#   #", " ####"}},
    {'e', {"     ", "     ", " ### ", "#   #", "#####", "#    ", " ### "}},
    {'f', {"  ## ", " #  #", " #   ", "###  ", " #   ", " #   ", " #   "}},
    {'g', {"     ", " ####", "#   #", "#   #", " ####", "    #", " ### "}},
    {'h', {"#    ", "#    ", "# ## ", "##  #", "#   #", "#   #", "#   #"}},
    {'i', {"  #  ", "     ", " ##  ", "  #  ", "  #  ", "  #  ", " ### "}},
    {'j', {"   # ", "     ", "  ## ", "   # ", "   # ", "#  # ", " ##  "}},
    {'k', {"#    ", "#    ", "#  # ", "# #  ", "##   ", "# #  ", "#  # "}},
    {'l', {" ##  ", "  #  ", "  #  ", "  #  ", "  #  ", "  #  ", " ### "}},
    {'m', {"     ", "     ", "## # ", "# # #", "# # #", "#   #", "#   #"}},
    {'n', {"     ", "     ", "# ## ", "##  #", "#   #", "#   #", "#   #"}},
    {'o', {"     ", "     ", " ### ", "#   #", "#   #", "#   #", " ### "}},
    {'p', {"     ", "     ", "#### ", "#   #", "#### ", "#    ", "#    "}},
    {'q', {"     ", "     ", " ## #", "#  ##", " ####", "    #", "    #"}},
    {'r', {"     ", "     ", "# ## ", "##  #", "#    ", "#    ", "#    "}},
    {'s', {"     ", "     ", " ### ", "#    ", " ### ", "    #", "#### "}},
    {'t', {" #   ", " #   ", "###  ", " #   ", " #   ", " #  #", "  ## "}},
    {'u', {"     ", "     ", "#   #", "#   #", "#   #", "#  ##", " ## #"}},
    {'v', {"     ", "     ", "#   #", "#   #", "#   #", " # # ", "  #  "}},
    {'w', {"     ", "     ", "#   #", "#   #", "# # #", "# # #", " # # "}},
    {'x', {"     ", "     ", "#   #", " # # ", "  #  ", " # # ", "#   #"}},
    {'y', {"     ", "     ", "#   #", "#   #", " ####", "    #", " ### "}},
    {'z', {"     ", "     ", "#####", "   # ", "  #  ", " #   ", "#####"}},
    {'0', {" ### ", "#   #", "#  ##", "# # #", "##  #", "#   #", " ### "}},
    {'1', {"  #  ", " ##  ", "  #  ", "  #  ", "  #  ", "  #  ", " ### "}},
    {'2', {" ### ", "#   #", "    #", "   # ", "  #  ", " #   ", "#####"}},
    {'3', {"#####", "   # ", "  #  ", "   # ", "    #", "#   #", " ### "}},
    {'4', {"   # ", "  ## ", " # # ", "#  # ", "#####", "   # ", "   # "}},
    {'5', {"#####", "#    ", "#### ", "    #", "    #", "#   #", " ### "}},
    {'6', {"  ## ", " #   ", "#    ", "#### ", "#   #", "#   #", " ### "}},
    {'7', {"#####", "    #", "   # ", "  #  ", " #   ", " #   ", " #   "}},
    {'8', {" ### ", "#   #", "#   #", " ### ", "#   #", "#   #", " ### "}},
    {'9', {" ### ", "#   #", "#   #", " ####", "    #", "   # ", " ##  "}},
    {' ', {"     ", "     ", "     ", "     ", "     ", "     ", "     "}},
    {'-', {"     ", "     ", "     ", "#####", "     ", "     ", "     "}},
    {'_', {"     ", "     ", "     ", "     ", "     ", "     ", "#####"}},
    {'.', {"     ", "     ", "     ", "     ", "     ", " ##  ", " ##  "}},
    {',', {"     ", "     ", "     ", "     ", " ##  ", "  #  ", " #   "}},
    {':', {"     ", " ##  ", " ##  ", "     ", " ##  ", " ##  ", "     "}},
    {'=', {"     ", "     ", "#####", "     ", "#####", "     ", "     "}},
    {'(', {"   # ", "  #  ", " #   ", " #   ", " #   ", "  #  ", "   # "}},
    {')', {" #   ", "  #  ", "   # ", "   # ", "   # ", "  #  ", " #   "}},
    {'#', {" # # ", " # # ", "#####", " # # ", "#####", " # # ", " # # "}},
    {'/', {"     ", "    #", "   # ", "  #  ", " #   ", "#    ", "     "}},
    {'%', {"##   ", "##  #", "   # ", "  #  ", " #   ", "#  ##", "   ##"}},
    {'?', {" ### ", "#   #", "    #", "   # ", "  #  ", "     ", "  #  "}},
};

const Glyph& glyph_for(char c) {
    for (const Glyph& g : kGlyphs) {
        if (g.character == c) return g;
    }
    return glyph_for('?');
}

// Mean of the source block that maps onto each thumbnail pixel; `sample(r, c,
// channel)` gives a 0...255 value.
template <typename Sample>
RgbCanvas reduce(int height, int width, int side, Sample sample) {
    if (height < 1 || width < 1 || side < 1) return {};
    const double scale = std::max(height, width) / static_cast<double>(side);
    const int rows = std::max(1, static_cast<int>(height / scale + 0.5));
    const int columns = std::max(1, static_cast<int>(width / scale + 0.5));
    RgbCanvas thumb(rows, columns, {0, 0, 0});
    for (int ty = 0; ty < rows; ++ty) {
        const int r0 = static_cast<int>(static_cast<std::int64_t>(ty) * height / rows);
        const int r1 = std::max(r0 + 1, static_cast<int>(static_cast<std::int64_t>(ty + 1) * height / rows));
        for (int tx = 0; tx < columns; ++tx) {
            const int c0 = static_cast<int>(static_cast<std::int64_t>(tx) * width / columns);
            const int c1 = std::max(c0 + 1, static_cast<int>(static_cast<std::int64_t>(tx + 1) * width / columns));
            for (int channel = 0; channel < 3; ++channel) {
                std::uint64_t sum = 0;
                for (int r = r0; r < r1; ++r) {
                    for (int c = c0; c < c1; ++c) sum += sample(r, c, channel);
                }
                const std::uint64_t count = static_cast<std::uint64_t>(r1 - r0) * (c1 - c0);
                thumb.bytes[(static_cast<std::size_t>(ty) * columns + tx) * 3 + channel] =
                    static_cast<unsigned char>((sum + count / 2) / count);
            }
        }
    }
    return thumb;
}

}  // namespace

RgbCanvas::RgbCanvas(int rows, int columns, Colour background)
    : height(rows), width(columns), bytes(static_cast<std::size_t>(rows) * columns * 3) {
    fill(0, 0, rows, columns, background);
}

void RgbCanvas::fill(int top, int left, int rows, int columns, Colour colour) {
    const int r_end = std::min(height, top + rows), c_end = std::min(width, left + columns);
    for (int r = std::max(top, 0); r < r_end; ++r) {
        for (int c = std::max(left, 0); c < c_end; ++c) {
            unsigned char* p = &bytes[(static_cast<std::size_t>(r) * width + c) * 3];
            p[0] = colour.red;
            p[1] = colour.green;
            p[2] = colour.blue;
        }
    }
}

void RgbCanvas::paste(const RgbCanvas& picture, int top, int left) {
    for (int r = 0; r < picture.height; ++r) {
        const int y = top + r;
        if (y < 0 || y >= height) continue;
        for (int c = 0; c < picture.width; ++c) {
            const int x = left + c;
            if (x < 0 || x >= width) continue;
            const unsigned char* from = &picture.bytes[(static_cast<std::size_t>(r) * picture.width + c) * 3];
            std::copy(from, from + 3, &bytes[(static_cast<std::size_t>(y) * width + x) * 3]);
        }
    }
}

void draw_text(RgbCanvas& canvas, int top, int left, std::string_view text, Colour colour) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const Glyph& g = glyph_for(text[i]);
        const int x = left + static_cast<int>(i) * kTextAdvance;
        for (int r = 0; r < kTextHeight; ++r) {
            for (int c = 0; c < 5; ++c) {
                if (g.rows[r][c] == '#') canvas.fill(top + r, x + c, 1, 1, colour);
            }
        }
    }
}

RgbCanvas grey_thumbnail(const GreyImage& image, int side) {
    const std::uint32_t white = static_cast<std::uint32_t>(std::max(image.white, 1));
    const bool inverted = image.photometric == Photometric::monochrome1;
    return reduce(image.height, image.width, side, [&](int r, int c, int) {
        const std::uint32_t v = std::min<std::uint32_t>(image.row(r)[c], white);
        const std::uint32_t level = (v * 255 + white / 2) / white;
        return inverted ? 255 - level : level;
    });
}

RgbCanvas rgb_thumbnail(const unsigned char* rgb, int height, int width, int side) {
    return reduce(height, width, side, [&](int r, int c, int channel) -> std::uint32_t {
        return rgb[(static_cast<std::size_t>(r) * width + c) * 3 + channel];
    });
}

RgbCanvas contact_sheet(const std::string& title, const std::vector<SheetTile>& tiles, int side, int columns) {
    constexpr int kMargin = 8;
    constexpr int kCaption = kTextHeight + 6;
    constexpr Colour kBackground{24, 24, 24}, kEmpty{64, 64, 64}, kInk{235, 235, 235};
    columns = std::max(columns, 1);
    const int count = static_cast<int>(tiles.size());
    const int grid_rows = (count + columns - 1) / columns;
    const int cell_width = side + kMargin, cell_height = side + kCaption + kMargin;
    const int header = kMargin + kTextHeight + kMargin;
    RgbCanvas sheet(header + grid_rows * cell_height, kMargin + columns * cell_width, kBackground);
    draw_text(sheet, kMargin, kMargin, title, kInk);
    const std::size_t max_chars = static_cast<std::size_t>(side / kTextAdvance);
    for (int i = 0; i < count; ++i) {
        const int top = header + (i / columns) * cell_height;
        const int left = kMargin + (i % columns) * cell_width;
        const RgbCanvas& thumb = tiles[i].thumbnail;
        if (thumb.empty()) {
            sheet.fill(top, left, side, side, kEmpty);
        } else {
            sheet.paste(thumb, top + (side - thumb.height) / 2, left + (side - thumb.width) / 2);
        }
        draw_text(sheet, top + side + 3, left, std::string_view(tiles[i].caption).substr(0, max_chars), kInk);
    }
    return sheet;
}

}  // namespace krf::tools
