#pragma once

// How the planes of a raw picture stand in one buffer: one after another, as if the picture were the upper
// left part of a larger packed one. "Stride" (bytes of a luma row) and "Rows" (luma rows from one plane to
// the next) of a media type tell the size of the larger one; chroma follows by its subsampling. A value
// without ownership; needs a Load of FFmpeg to be computed.

#include <cstddef>
#include <cstdint>

#include "mivra/common/model/MediaType.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace Mivra::FFmpeg {

inline constexpr int kMostPlanes = 4;

struct PictureLayout {
    AVPixelFormat format = AV_PIX_FMT_NONE;
    int width = 0;
    int height = 0;
    int stride = 0;
    int rows = 0;
    int planes = 0;
    int size = 0;                     ///< Bytes of the whole, from the first plane's first byte.
    int linesizes[kMostPlanes] = {};  ///< Bytes from one row to the next.
    int offsets[kMostPlanes] = {};    ///< Of the planes, in bytes.

    bool operator==(const PictureLayout&) const = default;

    /// Where the planes are when the whole begins at `base`.
    void Point(std::uint8_t* base, std::uint8_t* (&data)[kMostPlanes]) const;
};

/// Fills `layout`; stride 0 is the packed row, rows 0 the height. False, and `layout` untouched, when the
/// format has no memory layout (hardware surfaces, none), the sizes are not possible, the stride is shorter
/// than a row or, of several planes, no whole number of pixels, rows are fewer than the height, or the whole
/// exceeds 2^31 - 1 bytes.
bool makePictureLayout(AVPixelFormat format, int width, int height, int stride, int rows,
                       PictureLayout& layout);

/// The layout that a type of raw pictures tells; without "Stride" and "Rows" packed.
bool pictureLayoutOf(const Common::MediaType& type, PictureLayout& layout);

/// Writes size, format, "Stride", "Rows", FrameSize and ExpectedFrameSize.
void tellPictureLayout(const PictureLayout& layout, Common::MediaType& type);

/// Copies a picture of the layout's format and size, whose planes and rows stand elsewhere, to `base`.
void copyPicture(const std::uint8_t* const* data, const int* linesizes, const PictureLayout& layout,
                 std::uint8_t* base);

}  // namespace Mivra::FFmpeg
