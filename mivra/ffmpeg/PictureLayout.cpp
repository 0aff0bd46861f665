#include "mivra/ffmpeg/PictureLayout.h"

#include <cstring>
#include <limits>

#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FfmpegProxy.h"

namespace Mivra::FFmpeg {
namespace {

constexpr int kPacked = 1;  // alignment of rows, in bytes
constexpr std::int64_t kMostBytes = std::numeric_limits<int>::max();
constexpr int kProbeWidth = 1 << 12;  // a whole number of bytes and of chroma samples in every format

/// Bytes of the first plane's row; 0 when the format has none.
int rowBytes(AVPixelFormat format, int width) {
    std::uint8_t* data[kMostPlanes] = {};
    int linesizes[kMostPlanes] = {};
    const int size = FfmpegProxy::av_image_fill_arrays(data, linesizes, nullptr, format, width, 1, kPacked);
    return size < 0 ? 0 : linesizes[0];
}

/// The width of the packed picture whose rows are so long; 0 when there is none.
int widthOfStride(AVPixelFormat format, int width, int stride) {
    const std::int64_t probe = rowBytes(format, kProbeWidth);
    if (probe <= 0) {
        return 0;
    }
    const std::int64_t whole = std::int64_t{stride} * kProbeWidth / probe;
    if (whole < width || whole > kMostBytes || rowBytes(format, static_cast<int>(whole)) != stride) {
        return 0;
    }
    return static_cast<int>(whole);
}

/// The planes of a packed picture of that width and layout.rows rows.
bool placePlanes(int width, PictureLayout& layout) {
    layout.size = FfmpegProxy::av_image_get_buffer_size(layout.format, width, layout.rows, kPacked);
    if (layout.size <= 0) {
        return false;
    }
    static std::uint8_t s_base;  // any address will do to see how far the planes are apart
    std::uint8_t* data[kMostPlanes] = {};
    if (FfmpegProxy::av_image_fill_arrays(data, layout.linesizes, &s_base, layout.format, width, layout.rows,
                                          kPacked) < 0) {
        return false;
    }
    layout.stride = layout.linesizes[0];
    for (layout.planes = 0; layout.planes < kMostPlanes && data[layout.planes] != nullptr; ++layout.planes) {
        layout.offsets[layout.planes] =
            static_cast<int>(reinterpret_cast<std::uintptr_t>(data[layout.planes]) -
                             reinterpret_cast<std::uintptr_t>(&s_base));
    }
    return true;
}

/// Rows of a single plane, whose padding need not be a whole number of pixels.
bool widenRows(int stride, PictureLayout& layout) {
    const std::int64_t size = std::int64_t{stride} * layout.rows;
    if (stride < layout.stride || size > kMostBytes) {
        return false;
    }
    layout.stride = layout.linesizes[0] = stride;
    layout.size = static_cast<int>(size);
    return true;
}

}  // namespace

void PictureLayout::Point(std::uint8_t* base, std::uint8_t* (&data)[kMostPlanes]) const {
    for (int plane = 0; plane < kMostPlanes; ++plane) {
        data[plane] = plane < planes ? base + offsets[plane] : nullptr;
    }
}

bool makePictureLayout(AVPixelFormat format, int width, int height, int stride, int rows,
                       PictureLayout& layout) {
    if (width <= 0 || height <= 0 || stride < 0 || rows < 0 || (rows != 0 && rows < height)) {
        return false;
    }
    PictureLayout made;
    made.format = format;
    made.width = width;
    made.height = height;
    made.rows = rows == 0 ? height : rows;
    if (!placePlanes(width, made)) {
        return false;
    }
    if (stride != 0 && stride != made.stride) {
        const int wholeWidth = made.planes == 1 ? 0 : widthOfStride(format, width, stride);
        if (!(made.planes == 1 ? widenRows(stride, made)
                               : wholeWidth != 0 && placePlanes(wholeWidth, made))) {
            return false;
        }
    }
    layout = made;
    return true;
}

bool pictureLayoutOf(const Common::MediaType& type, PictureLayout& layout) {
    const std::int64_t stride = metadataNumber(type, Key::kStride, 0);
    const std::int64_t rows = metadataNumber(type, Key::kRows, 0);
    if (stride < 0 || stride > kMostBytes || rows < 0 || rows > kMostBytes) {
        return false;
    }
    return makePictureLayout(toFfmpeg(type.PixelFormat()), type.Width(), type.Height(),
                             static_cast<int>(stride), static_cast<int>(rows), layout);
}

void tellPictureLayout(const PictureLayout& layout, Common::MediaType& type) {
    type.Width() = layout.width;
    type.Height() = layout.height;
    type.PixelFormat() = fromFfmpeg(layout.format);
    type.FrameSize() = layout.size;
    type.ExpectedFrameSize() = layout.size;
    type.CodecMetadata()[Key::kStride] = layout.stride;
    type.CodecMetadata()[Key::kRows] = layout.rows;
}

void copyPicture(const std::uint8_t* const* data, const int* linesizes, const PictureLayout& layout,
                 std::uint8_t* base) {
    PictureLayout packed;
    if (!makePictureLayout(layout.format, layout.width, layout.height, 0, 0, packed)) {
        return;
    }
    for (int plane = 0; plane < packed.planes; ++plane) {
        const int end = plane + 1 < packed.planes ? packed.offsets[plane + 1] : packed.size;
        const int bytes = end - packed.offsets[plane];
        const int row = packed.linesizes[plane];
        std::uint8_t* to = base + layout.offsets[plane];
        const std::uint8_t* from = data[plane];
        if (row <= 0) {  // a palette
            std::memcpy(to, from, static_cast<std::size_t>(bytes));
            continue;
        }
        for (int rows = bytes / row; rows > 0; --rows) {
            std::memcpy(to, from, static_cast<std::size_t>(row));
            to += layout.linesizes[plane];
            from += linesizes[plane];
        }
    }
}

}  // namespace Mivra::FFmpeg
