#pragma once

#include "mivra/ffmpeg/FfmpegObjects.h"
#include "mivra/ffmpeg/PictureLayout.h"

namespace Mivra::FFmpeg {

/// Size and pixel format of pictures, with libswscale (bicubic). Keeps its converter while pictures stay the
/// same. Used by one thread at a time.
class PictureScaler {
public:
    /// Fills the picture at `base`, laid out as `to` says. The colours are those that the frame names. False
    /// when there is no way between the formats, or no memory.
    bool Scale(const AVFrame& frame, const PictureLayout& to, std::uint8_t* base);

    /// Whether libswscale can make such pictures of some kind.
    static bool CanMake(const PictureLayout& to);

private:
    /// What a converter is made for.
    struct Conversion {
        int width = 0;
        int height = 0;
        int format = -1;
        int range = 0;
        int space = 0;
        PictureLayout to;
        bool operator==(const Conversion&) const = default;
    };

    bool prepare(const AVFrame& frame, const PictureLayout& to);

    Conversion conversion;
    ScalerPointer scaler;
};

}  // namespace Mivra::FFmpeg
