#pragma once

// What stands behind an encoder: packets in pooled buffers, and the media type that describes them.

#include <cstdint>
#include <span>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/ffmpeg/FfmpegObjects.h"

namespace Mivra::FFmpeg {

class EncoderOutput {
public:
    /// Describes the packets in `type`, which it refers to; `dirty` is set whenever that changes. What `type`
    /// says already is what is wanted; private data in it asks for its form (see FfmpegEncoder).
    EncoderOutput(Common::MediaType& type, bool& dirty);

    /// Whether parameter sets are to travel in the packets.
    bool SetsInPackets() const { return annexB; }
    /// Writes into the type what the open encoder makes of it. False when its private data is malformed.
    bool Describe(const AVCodecContext& encoder);
    /// The packet in a buffer of the pools, with everything but its times. False when there is no buffer for
    /// it; true and nothing made when the packet only brings private data, or is
    /// malformed (it is then lost, and the log says so).
    bool Make(const AVPacket& packet, Common::Reference<Common::PacketBuffer>& made);

private:
    using Bytes = std::span<const std::uint8_t>;

    void describePicture(const AVCodecContext& encoder);
    void describeSamples(const AVCodecContext& encoder);
    void tell(const char* key, std::int64_t value, std::int64_t none);
    /// False, and nothing changed, when the data is malformed.
    bool takePrivateData(Bytes data);
    void learn(const AVPacket& packet);

    Common::MediaType& type;
    bool& dirty;
    const bool hasSets;  // a codec with parameter sets in units
    const bool annexB;   // asked for
    const bool prefixed;
    bool complete = false;  // the private data is known
};

}  // namespace Mivra::FFmpeg
