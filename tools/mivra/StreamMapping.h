#pragma once

// Media types from the streams that libavformat reads, and back to streams that it writes. What a media type
// has no field for travels in its CodecMetadata under the keys below, so that nothing is lost on the way.

#include "mivra/common/model/MediaType.h"
#include "tools/mivra/FfmpegSupport.h"

namespace Mivra::Tool {

namespace Key {
inline constexpr const char* kTimeBaseNum = "TimeBaseNum";  ///< Time base of the input's own timestamps.
inline constexpr const char* kTimeBaseDen = "TimeBaseDen";
inline constexpr const char* kCodecTag = "CodecTag";
inline constexpr const char* kDisposition = "Disposition";      ///< FFmpeg's bits.
inline constexpr const char* kAspectUnknown = "AspectUnknown";  ///< Not 0: the picture has no aspect ratio.
}  // namespace Key

/// A description of an input's stream; times are in kPacketTimeBase.
Common::MediaType toMediaType(const AVStream& stream);

/// The codec parameters and properties of a new output stream, of its format `format`. False when there is no
/// memory.
bool fillStream(const Common::MediaType& type, const AVOutputFormat& format, AVStream& stream);

/// Time base of the input that a media type describes; kPacketTimeBase when it does not say.
AVRational timeBaseOf(const Common::MediaType& type);

/// Number that a media type carries under a key, or the value for "none".
std::int64_t numberOf(const Common::MediaType& type, const char* key, std::int64_t none);

/// Whether it is one picture that belongs to the others, a cover say.
bool isStill(const Common::MediaType& type);

void setPrivateData(Common::MediaType& type, const void* data, std::size_t size);

/// Such as "video h264 1280x720", "audio aac 48000 Hz 2 ch".
std::string describe(const Common::MediaType& type);

}  // namespace Mivra::Tool
