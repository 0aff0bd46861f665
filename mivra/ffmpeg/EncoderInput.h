#pragma once

// What stands in front of an encoder: makes the frames that it takes of the buffers that come, without
// copying where these fit, and gives packets the times of what they were made from.

#include <cstddef>
#include <memory>
#include <string>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/ffmpeg/FfmpegObjects.h"

namespace Mivra::FFmpeg {

class EncoderInput {
public:
    EncoderInput() = default;
    EncoderInput(const EncoderInput&) = delete;
    EncoderInput& operator=(const EncoderInput&) = delete;
    virtual ~EncoderInput() = default;

    /// Adapts to raw media of the type and to the open encoder, whose frames it makes from now on: also in
    /// the middle of a stream, when either is another one. Empty, or why that cannot be.
    virtual std::string Configure(const Common::MediaType& type, const AVCodecContext& encoder) = 0;
    /// False while what was taken has not all gone to the encoder.
    virtual bool HasRoom() const = 0;
    /// Whether anything is still to come out, once nothing more goes in.
    virtual bool Holds() const = 0;
    /// Takes a buffer, with a reference of its own. Empty, or why it is refused. Needs room.
    virtual std::string Take(Common::PacketBuffer& buffer) = 0;
    /// Nothing more is taken: what was held back for a whole frame comes too.
    virtual void Finish() = 0;
    /// Fills a blank frame, which refers to the data; the same one again until Accepted. False when there is
    /// none, or no memory for it yet.
    virtual bool Next(AVFrame& frame) = 0;
    virtual void Accepted() = 0;
    virtual void Stamp(const AVPacket& from, Common::PacketBuffer& to) = 0;
};

/// What data may lie behind a picture without its buffer being copied: FFmpeg's loops read on past its end.
inline constexpr int kReadPastEnd = 64;
/// Of the beginnings of planes, in bytes, as the widest loops want them.
inline constexpr int kPlaneAlignment = 64;

/// A buffer of the pools whose memory begins, at Aligned(), on kPlaneAlignment and has kReadPastEnd bytes
/// behind the size. Empty when there is none.
Common::Reference<Common::PacketBuffer> lockAligned(std::size_t size);
std::uint8_t* alignedData(Common::PacketBuffer& buffer);

/// Hands the buffer to a frame as its memory: the frame, or whoever refers to its data last, gives back the
/// reference that is taken here, on whatever thread. False when there is no memory.
bool attach(Common::PacketBuffer& buffer, AVFrame& frame);

/// Pictures from and to the time bases; the rate in pictures a second.
std::unique_ptr<EncoderInput> makePictureInput(AVRational from, AVRational to, AVRational rate);
/// Samples; the rates are those of the buffers and of the packets.
std::unique_ptr<EncoderInput> makeSampleInput(AVRational from, AVRational to, int inputRate, int outputRate);

}  // namespace Mivra::FFmpeg
