#pragma once

// Which of FFmpeg's encoders serve a codec, and in which order they are tried.

#include <span>

#include "mivra/common/model/Codec.h"

namespace Mivra::FFmpeg {

struct EncoderCandidate {
    Common::Codec_t codec;
    const char* name;  ///< As FFmpeg calls it.
    /// Of a hardware encoder: the file without which it is not even tried. Null: software.
    const char* device = nullptr;
    /// FFmpeg's number of the kind of device that frames are put on before they are encoded; 0: none, the
    /// encoder takes them from memory.
    int upload = 0;

    bool IsHardware() const { return device != nullptr; }
};

/// In the order in which they are tried, for all codecs; behind the candidates of a codec FFmpeg's own choice
/// is tried. Tests put another table in place while no other thread runs.
extern std::span<const EncoderCandidate> g_encoderCandidates;

}  // namespace Mivra::FFmpeg
