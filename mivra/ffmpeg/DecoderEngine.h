#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/ffmpeg/FfmpegObjects.h"
#include "mivra/ffmpeg/FrameOutput.h"
#include "mivra/ffmpeg/FramePool.h"
#include "mivra/ffmpeg/HardwareReplay.h"
#include "mivra/ffmpeg/PacketDecoder.h"
#include "mivra/ffmpeg/PacketMarks.h"
#include "mivra/media/DecoderParameters.h"

namespace Mivra::FFmpeg {

/// What is behind FfmpegDecoder: one codec at a time, opened anew when the stream's type changes; the frames
/// that it has given and nobody has read; and the output that makes packet buffers of them. Used by one
/// thread at a time. std::bad_alloc leaves it usable.
class DecoderEngine {
public:
    /// name: how log lines call the engine (its address).
    DecoderEngine(const void* name, const Common::MediaType& input, const Common::MediaType& wanted,
                  const Media::DecoderParameters& parameters);

    /// False, after one log line, when the present type cannot be decoded or the wanted one not be made.
    bool IsUsable() const { return decoder != nullptr; }
    /// Null when the wanted type cannot be made.
    const FrameOutput* Output() const { return output.get(); }

    void Write(Common::PacketBuffer& packet);
    Common::Reference<Common::PacketBuffer> Read();
    void Drain();

private:
    using Packet = Common::Reference<Common::PacketBuffer>;

    /// A decoded frame that nobody has read.
    struct Waiting {
        FramePointer frame;
        std::unique_ptr<Common::MediaType> newInput;  ///< The stream that begins with it, if one does.
    };

    bool open(bool hardware);
    const char* makeOutput();
    void adoptType(const Common::MediaType& changed);
    void beginAgain();
    void learn(Common::PacketBuffer& packet);
    void send(Common::PacketBuffer& packet);
    PacketDecoder::Result offer(Common::PacketBuffer& packet, std::int64_t number);
    template <typename Give>
    PacketDecoder::Result insist(const Give& give);
    PacketDecoder::Result collect();
    void collectAll();
    FramePointer takeSpare();
    void fallBack();
    void noteTrouble(const char* what);
    Packet makeOne(bool& again);

    const FfmpegUse use;  // outlives everything below
    const void* const name;
    Common::MediaType given;  // the stream's type as told
    Common::MediaType input;  // and as its packets show it to be
    const Common::MediaType wanted;
    const Media::DecoderParameters parameters;
    FramePool::Pointer pool;
    std::unique_ptr<PacketDecoder> decoder;
    std::unique_ptr<FrameOutput> output;
    PacketMarks marks;
    HardwareReplay kept;
    bool isReplayed = false;       // software has taken over: what `kept` knows to be delivered comes again
    std::vector<Waiting> waiting;  // in order
    FramePointer spare;            // empty
    std::unique_ptr<Common::MediaType> newInput;  // for the next frame
    bool isFirstPacket = true;
    bool isDraining = false;
    bool isTroubled = false;  // the last packet or frame was refused
};

}  // namespace Mivra::FFmpeg
