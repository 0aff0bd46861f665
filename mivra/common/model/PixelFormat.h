#pragma once

namespace Mivra::Common {

/// Layout of picture samples in FFmpeg's numbering. Names stand for the numbers that are the same in every
/// FFmpeg version; any other number is passed on as it comes.
enum class PixelFormat_t : int {
    None = -1,
    YUV420P = 0,
    YUYV422 = 1,
    RGB24 = 2,
    BGR24 = 3,
    YUV422P = 4,
    YUV444P = 5,
    YUV410P = 6,
    YUV411P = 7,
    GRAY8 = 8,
    MONOWHITE = 9,
    MONOBLACK = 10,
    PAL8 = 11,
    YUVJ420P = 12,
    YUVJ422P = 13,
    YUVJ444P = 14,
    UYVY422 = 15,
    UYYVYY411 = 16,
    BGR8 = 17,
    BGR4 = 18,
    BGR4_BYTE = 19,
    RGB8 = 20,
    RGB4 = 21,
    RGB4_BYTE = 22,
    NV12 = 23,
    NV21 = 24,
    ARGB = 25,
    RGBA = 26,
    ABGR = 27,
    BGRA = 28
};

}  // namespace Mivra::Common
