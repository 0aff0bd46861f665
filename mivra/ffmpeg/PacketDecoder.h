#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/ffmpeg/FfmpegObjects.h"
#include "mivra/ffmpeg/FramePool.h"

namespace Mivra::FFmpeg {

/// One opened codec: packets in, FFmpeg's frames out, in the order of presentation. Used by one thread at a
/// time; its owner holds a Load and the pool.
class PacketDecoder {
public:
    struct Options {
        int threads = 0;        ///< 0: libavcodec chooses
        bool hardware = false;  ///< on a device, if there is one for the codec
    };

    enum class Result {
        Done,
        Again,   ///< Send: take frames first. Receive: none is ready.
        Ended,   ///< All frames have been taken since Drain().
        Failed,  ///< LastError() tells why; the packet or frame is lost, and the next may be good.
    };

    /// Null, and `why` in words, when the type cannot be decoded.
    static std::unique_ptr<PacketDecoder> Open(const Common::MediaType& type, const Options& options,
                                               FramePool& pool, std::string& why);

    /// The number comes back with the packet's frames (packetNumber()).
    Result Send(Common::PacketBuffer& packet, std::int64_t number);
    Result Send(const AVPacket& packet);
    /// Into an empty frame. Pictures of a device are brought into memory, times are in kEngineTimeBase.
    Result Receive(AVFrame& frame);
    /// The input ends; Again: take frames first.
    Result Drain();

    int LastError() const { return lastError; }
    /// The device that decodes; null: none.
    const char* Device() const { return device; }
    /// Frames that the codec may hold on to, for references, order and its threads.
    int FramesHeld() const;
    /// A packet in FFmpeg's terms that owns its bytes; null when it has none, or there is no memory.
    PacketPointer CopyOf(Common::PacketBuffer& packet, std::int64_t number);

private:
    PacketDecoder() = default;

    bool fill(Common::PacketBuffer& packet, std::int64_t number);
    bool addSideData(Common::PacketBuffer& packet);
    Result judge(int error);

    PacketPointer scratch;
    CodecContextPointer context;
    const char* device = nullptr;
    int lastError = 0;
};

}  // namespace Mivra::FFmpeg
