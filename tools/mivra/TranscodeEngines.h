#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/media/IDecoder.h"
#include "mivra/media/IEncoder.h"
#include "tools/mivra/TranscodeLane.h"

namespace Mivra::Tool {

/// Decoders as the tool wants them: what is left open in `wanted` is as decoded. ProblemError when the
/// machine has none for the stream.
std::shared_ptr<Media::IDecoder> makeDecoder(const Common::MediaType& input, const Common::MediaType& wanted,
                                             int threads, bool hardware, const std::string& path);

/// Whether a decoded frame, or what came in front of it, could not be decoded whole.
bool isDamaged(Common::PacketBuffer& frame);

/// An encoder, and the way from it into the file. One thread at a time.
class EncoderEnd {
public:
    /// input: the raw media. ProblemError when the machine has no encoder for it.
    EncoderEnd(const Common::MediaType& input, const LaneSettings& settings, LaneEnd end);

    const Common::MediaType& Type() const { return type; }
    /// False when nothing more can be written, which the monitor knows.
    bool Write(Common::PacketBuffer& raw);
    /// No more comes.
    void Drain();

private:
    bool pass();

    const LaneEnd end;
    const std::string path;
    std::shared_ptr<Media::IEncoder> encoder;
    Common::MediaType type;
    bool failed = false;
};

}  // namespace Mivra::Tool
