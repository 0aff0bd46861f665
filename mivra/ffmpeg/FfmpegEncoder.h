#pragma once

#include <memory>

#include "mivra/common/runtime/Export.h"
#include "mivra/media/IEncoder.h"

namespace Mivra::FFmpeg {

class EncoderCore;

/// Encodes with FFmpeg's libraries, which are loaded while an object lives; see docs/engines.md for options,
/// media types and the log. One thread at a time calls an object.
///
/// Input type: raw pictures (CodecId None or UNCOMPRESSED, PixelFormat, Width, Height, and the metadata
/// "Stride" and "Rows") or raw audio (SampleFormat, or a PCM codec of this machine's byte order, SampleRate,
/// Channels, ChannelLayout; planes of planar formats one after another). A frame is what lies from the
/// buffer's beginning to its ActualSize; its memory is read on until nobody refers to it any more.
///
/// Output type: CodecId, and what is wanted of size, Framerate (nominal: no picture is added or left out),
/// Bitrate, SampleRate, Channels, PixelFormat and SampleFormat (taken when the encoder has them), profile and
/// level ("Profile" and "Level" of the metadata in FFmpeg's numbers, or SetProfileLevel()). What is 0, unset
/// or, of the pixel aspect ratio, 1/1 comes from the input type. Private data asks for the form of H.264 and
/// H.265: beginning with a zero byte (a start code alone will do) packets are Annex B with their parameter
/// sets inside, and the private data follows with the first packet. Without, there is a configuration record,
/// and packets are units behind lengths of four bytes.
///
/// Every picture in gives one packet with the same Pts and Duration, unless the encoder drops it. Audio is
/// regrouped to the encoder's frames; a packet's Pts is the time of its first sample, and the first ones lie
/// before the first buffer by what the encoder puts in front ("InitialPadding" samples).
///
/// A type that cannot be served, an option that the encoder does not know and a missing library leave the
/// engine unusable, with one line at level 1. Nothing is thrown.
class MIVRA_API FfmpegEncoder : public Media::IEncoder {
public:
    FfmpegEncoder(Common::MediaType* input, Common::MediaType* output, Media::EncoderParameters* parameters);
    ~FfmpegEncoder() override;

    bool Write(Common::PacketBuffer* frame) override;
    /// Null also when the pools have no buffer: the packet then waits for the next call.
    Common::PacketBuffer* Read() override;
    /// There is no way back: a stream that goes on needs another encoder.
    void Drain() override;

private:
    std::unique_ptr<EncoderCore> core;  // null: not usable
};

}  // namespace Mivra::FFmpeg
