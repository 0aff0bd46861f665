#pragma once

// What a codec is told before it is opened: from a media type to the fields of FFmpeg's context.

#include "mivra/common/model/MediaType.h"
#include "mivra/ffmpeg/FfmpegObjects.h"

namespace Mivra::FFmpeg {

/// Fills a context that has been made for the type's codec. threads: 0 lets libavcodec choose. False when
/// there is no memory.
bool configureDecoder(const Common::MediaType& type, int threads, AVCodecContext& context);

/// What the first packet tells beyond its type, or against it: H.264 and H.265 in the other carriage than
/// the private data has, H.264 also with parameter sets of which the type knows nothing. True when `type` has
/// been corrected.
bool learnFromPacket(unsigned char* packet, int size, Common::MediaType& type);

}  // namespace Mivra::FFmpeg
