#pragma once

// The encoder behind FfmpegEncoder: chooses and opens one of FFmpeg's, and moves frames and packets through.

#include <cstdint>
#include <memory>
#include <string>

#include "mivra/ffmpeg/EncoderChoice.h"
#include "mivra/ffmpeg/EncoderInput.h"
#include "mivra/ffmpeg/EncoderOptions.h"
#include "mivra/ffmpeg/EncoderOutput.h"
#include "mivra/ffmpeg/FfmpegObjects.h"
#include "mivra/media/EncoderParameters.h"

namespace Mivra::FFmpeg {

class EncoderCore {
public:
    /// The output type, and the mark that it has changed, are the engine's own and outlive this object; the
    /// address is for log lines.
    EncoderCore(const void* address, const Common::MediaType& input, Common::MediaType& output, bool& dirty,
                const Media::EncoderParameters& parameters);

    /// Empty, or why there is no encoder.
    std::string Open();
    /// As those of IEncoder.
    bool Write(Common::PacketBuffer& frame);
    Common::Reference<Common::PacketBuffer> Read();
    void Drain();

private:
    enum class Sent { Accepted, Full, Failed };

    std::string openFirst(bool hardware);
    std::string use(const AVCodec& codec, const EncoderCandidate* candidate);
    std::string makeInput(const AVCodecContext& opened);
    bool adaptTo(const Common::MediaType& type);
    bool makeRoom();
    Sent send(AVFrame* sent);
    bool pump();
    bool fallBack(int error);
    bool receive();

    const void* const address;
    const FfmpegUse ffmpeg;  // outlives everything of FFmpeg's below
    Common::MediaType inputType;
    const Common::MediaType wanted;
    const Media::EncoderParameters& parameters;
    EncoderOptionList options;
    EncoderOutput output;
    CodecContextPointer context;
    bool hardware = false;
    std::unique_ptr<EncoderInput> input;
    FramePointer frame;
    bool frameWaits = false;  // in `frame`, for the encoder to have room
    PacketPointer packet;
    bool packetWaits = false;  // in `packet`, for a buffer
    bool isRefused = false;    // what comes is of a type that cannot be taken
    bool draining = false;
    bool drained = false;  // the encoder knows that nothing more comes
    std::int64_t accepted = 0;
    std::int64_t delivered = 0;
};

}  // namespace Mivra::FFmpeg
