#pragma once

// From the wanted media types to an open encoder of FFmpeg's.

#include <cstdint>
#include <string>

#include "mivra/common/model/MediaType.h"
#include "mivra/ffmpeg/EncoderOptions.h"
#include "mivra/ffmpeg/FfmpegObjects.h"

namespace Mivra::FFmpeg {

/// What is asked for; refers to what it is made from.
struct EncoderRequest {
    const Common::MediaType& input;
    const Common::MediaType& output;
    const EncoderOptionList& options;
    /// Below 1: FFmpeg decides.
    int threads = -1;
    /// Parameter sets travel in the packets instead of in the private data alone.
    bool setsInPackets = false;
};

/// Pictures a second: what the output type says, else the input type's rate, else what its FrameDuration
/// makes, else 25. Both parts are 1 to 65535; a rate that needs more is approximated.
AVRational frameRate(const EncoderRequest& request);

/// The raw samples that an audio type describes: its SampleFormat, or what its PCM codec means. None when it
/// is no raw audio that this machine reads (big-endian, 24 bits), or the two contradict each other.
AVSampleFormat rawSampleFormat(const Common::MediaType& type);

/// An enumerator of FFmpeg's that the metadata carries; `none` when there is no such key, or the value is
/// none of the `count` that there are.
int metadataEnumerator(const Common::MediaType& type, const char* key, int none, int count);

/// Opens the encoder with the sizes, rates and formats of the request, what the output type leaves open taken
/// from the input type. Upload: as in EncoderCandidate. Empty, and `context` is open; else why not, and
/// `context` is untouched. What FFmpeg says meanwhile goes to the log at level 4; its first complaint is part
/// of the reason.
std::string openEncoder(const EncoderRequest& request, const AVCodec& codec, int upload,
                        CodecContextPointer& context);

}  // namespace Mivra::FFmpeg
