#pragma once

namespace Mivra::Common {

/// Layout of audio samples in FFmpeg's numbering; P: one plane a channel.
enum class SampleFormat_t : int {
    None = -1,
    U8 = 0,
    S16 = 1,
    S32 = 2,
    FLT = 3,
    DBL = 4,
    U8P = 5,
    S16P = 6,
    S32P = 7,
    FLTP = 8,
    DBLP = 9
};

}  // namespace Mivra::Common
