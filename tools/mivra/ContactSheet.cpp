#include "tools/mivra/ContactSheet.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "tools/mivra/Rescale.h"

namespace Mivra::Tool {
namespace {

constexpr int kBytesOfPixel = 3;
constexpr int kGlyphWidth = 5;
constexpr int kGlyphHeight = 7;
constexpr int kAdvance = kGlyphWidth + 1;
constexpr int kMargin = 2;
constexpr int kLinesOfTile = 14;  // a text is so small a part of its picture
constexpr unsigned char kInk = 255;
constexpr unsigned char kPaper = 16;

/// Rows from the top, the leftmost pixel in bit 4.
struct Glyph {
    char letter;
    unsigned char rows[kGlyphHeight];
};

constexpr Glyph kGlyphs[] = {
    {'0', {0x0e, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0e}}, {'1', {0x04, 0x0c, 0x04, 0x04, 0x04, 0x04, 0x0e}},
    {'2', {0x0e, 0x11, 0x01, 0x06, 0x08, 0x10, 0x1f}}, {'3', {0x1e, 0x01, 0x01, 0x0e, 0x01, 0x01, 0x1e}},
    {'4', {0x02, 0x06, 0x0a, 0x12, 0x1f, 0x02, 0x02}}, {'5', {0x1f, 0x10, 0x1e, 0x01, 0x01, 0x11, 0x0e}},
    {'6', {0x06, 0x08, 0x10, 0x1e, 0x11, 0x11, 0x0e}}, {'7', {0x1f, 0x01, 0x02, 0x02, 0x04, 0x04, 0x04}},
    {'8', {0x0e, 0x11, 0x11, 0x0e, 0x11, 0x11, 0x0e}}, {'9', {0x0e, 0x11, 0x11, 0x0f, 0x01, 0x02, 0x0c}},
    {':', {0x00, 0x04, 0x04, 0x00, 0x04, 0x04, 0x00}}, {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x04}},
};

const Glyph* glyphOf(char letter) {
    const auto* const found = std::find_if(std::begin(kGlyphs), std::end(kGlyphs),
                                           [letter](const Glyph& glyph) { return glyph.letter == letter; });
    return found == std::end(kGlyphs) ? nullptr : found;
}

}  // namespace

ContactSheet::ContactSheet(int columns, int rows, int wide, int high)
    : tileWidth(wide),
      tileHeight(high),
      width(columns * wide),
      height(rows * high),
      pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * kBytesOfPixel) {}

void ContactSheet::Put(int column, int row, const char* picture, int stride, const std::string& text) {
    const int left = column * tileWidth;
    const int top = row * tileHeight;
    for (int y = 0; y < tileHeight; ++y) {
        char* const to =
            pixels.data() + (static_cast<std::ptrdiff_t>(top + y) * width + left) * kBytesOfPixel;
        std::memcpy(to, picture + static_cast<std::ptrdiff_t>(y) * stride,
                    static_cast<std::size_t>(tileWidth) * kBytesOfPixel);
    }
    const int scale = std::max(1, tileHeight / (kGlyphHeight * kLinesOfTile));
    const int wide = (static_cast<int>(text.size()) * kAdvance - 1 + 2 * kMargin) * scale;
    const int high = (kGlyphHeight + 2 * kMargin) * scale;
    if (wide > tileWidth || high > tileHeight) {
        return;  // no room
    }
    fill(left, top + tileHeight - high, wide, high, kPaper);
    draw(left + kMargin * scale, top + tileHeight - high + kMargin * scale, text, scale);
}

void ContactSheet::fill(int left, int top, int wide, int high, unsigned char level) {
    for (int y = top; y < top + high; ++y) {
        std::memset(pixels.data() + (static_cast<std::ptrdiff_t>(y) * width + left) * kBytesOfPixel, level,
                    static_cast<std::size_t>(wide) * kBytesOfPixel);
    }
}

void ContactSheet::draw(int left, int top, const std::string& text, int scale) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const Glyph* const glyph = glyphOf(text[i]);
        for (int bit = 0; glyph != nullptr && bit < kGlyphWidth * kGlyphHeight; ++bit) {
            const int x = bit % kGlyphWidth;
            const int y = bit / kGlyphWidth;
            if ((glyph->rows[y] >> (kGlyphWidth - 1 - x) & 1) != 0) {
                fill(left + (static_cast<int>(i) * kAdvance + x) * scale, top + y * scale, scale, scale,
                     kInk);
            }
        }
    }
}

std::string clockText(std::int64_t time) {
    const long long tenths = rescale(time, kPacketTimeBase, {1, 10});
    const long long seconds = tenths / 10;
    const long long hours = seconds / 3600;
    char text[64];
    if (hours > 0) {
        std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld.%lld", hours, seconds / 60 % 60, seconds % 60,
                      tenths % 10);
    } else {
        std::snprintf(text, sizeof(text), "%lld:%02lld.%lld", seconds / 60, seconds % 60, tenths % 10);
    }
    return text;
}

}  // namespace Mivra::Tool
