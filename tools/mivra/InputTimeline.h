#pragma once

#include <cstdint>
#include <vector>

#include "tools/mivra/Rescale.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

namespace Mivra::Tool {

/// Puts the times of one input's packets onto a timeline that begins at 0: takes the input's start time off,
/// undoes the wrapping of short timestamp counters, closes jumps of formats that allow them, and works out
/// decoding times that are missing. One thread; call it for every packet in the input's order.
class InputTimeline {
public:
    /// The context is open and its streams are known; streams that are discarded take no part.
    explicit InputTimeline(const AVFormatContext& input);

    /// Rewrites the packet's times, in its stream's time base. What is not set stays so.
    void Apply(AVPacket& packet);

    /// The input has been moved to another place: packets come with the times that they would have had
    /// without a jump before them.
    void Restart();
    /// What Apply makes of a packet's time in an input without jumps, in kPacketTimeBase, and back.
    std::int64_t ToTimeline(std::int64_t time, AVRational base) const;
    std::int64_t ToInput(std::int64_t time, AVRational base) const;

    /// Decoding time of the last packet of a stream, in kPacketTimeBase: its own, or what it should be.
    std::int64_t LastDts(int stream) const;

private:
    struct Stream {
        AVRational timeBase{1, 1};
        AVMediaType kind = AVMEDIA_TYPE_UNKNOWN;
        bool discarded = false;
        int wrapBits = 64;
        std::int64_t start = kUnsetTime;  // in timeBase
        AVRational frameRate{0, 1};
        int reorder = 0;       // pictures that wait for their turn
        int sampleRate = 0;    // audio
        int frameSamples = 0;  // audio
        // Where the stream is, and where its next packet is expected, in microseconds.
        std::int64_t dts = 0;
        std::int64_t nextDts = kUnsetTime;
        bool wrapSettled = false;

        bool HasTiming() const { return kind == AVMEDIA_TYPE_AUDIO || kind == AVMEDIA_TYPE_VIDEO; }
    };

    void undoWrap(Stream& stream, AVPacket& packet);
    void correctStart(const Stream& stream);
    void alignFirst(Stream& stream, AVPacket& packet);
    void closeJump(Stream& stream, AVPacket& packet);
    void dropNonsense(Stream& stream, AVPacket& packet) const;
    void moveOn(Stream& stream, const AVPacket& packet);
    void step(Stream& stream, const AVPacket& packet) const;

    std::vector<Stream> streams;
    const std::int64_t start;           // of the input, microseconds
    const bool mayJump;                 // the format allows discontinuities
    std::int64_t firstOffset = 0;       // what offset was before any jump
    std::int64_t offset = 0;            // added to all times, microseconds
    std::int64_t lastDts = kUnsetTime;  // of the packet before, of any stream, microseconds
};

}  // namespace Mivra::Tool
