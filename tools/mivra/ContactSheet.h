#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Mivra::Tool {

/// Pictures side by side in one of RGB with 8 bits, each with a text in its lower left corner. One thread.
class ContactSheet {
public:
    /// std::bad_alloc.
    ContactSheet(int columns, int rows, int tileWidth, int tileHeight);

    /// Puts a picture of the tile's size, its rows `stride` bytes apart, in its place.
    void Put(int column, int row, const char* picture, int stride, const std::string& text);

    int Width() const { return width; }
    int Height() const { return height; }
    /// Rows without gaps.
    std::vector<char>& Pixels() { return pixels; }

private:
    void fill(int left, int top, int wide, int high, unsigned char level);
    void draw(int left, int top, const std::string& text, int scale);

    const int tileWidth;
    const int tileHeight;
    const int width;
    const int height;
    std::vector<char> pixels;
};

/// "1:02:03.4"; without hours when there are none. In kPacketTimeBase, from 0 on.
std::string clockText(std::int64_t time);

}  // namespace Mivra::Tool
