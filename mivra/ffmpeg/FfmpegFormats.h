#pragma once

// Between the fields of a media type and FFmpeg's: codecs, picture and sample formats have the same numbers
// on both sides, layouts of channels and times are converted here. No state; any thread.

#include <cstdint>
#include <span>

#include "mivra/common/model/MediaType.h"

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/avutil.h>
#include <libavutil/channel_layout.h>
#include <libavutil/pixfmt.h>
#include <libavutil/rational.h>
#include <libavutil/samplefmt.h>
}

namespace Mivra::FFmpeg {

inline AVCodecID toFfmpeg(Common::Codec_t codec) {
    return static_cast<AVCodecID>(codec);
}
inline Common::Codec_t fromFfmpeg(AVCodecID codec) {
    return static_cast<Common::Codec_t>(codec);
}
/// A number that FFmpeg does not have is none.
inline AVPixelFormat toFfmpeg(Common::PixelFormat_t format) {
    const int number = static_cast<int>(format);
    return number < 0 || number >= AV_PIX_FMT_NB ? AV_PIX_FMT_NONE : static_cast<AVPixelFormat>(number);
}
inline Common::PixelFormat_t fromFfmpeg(AVPixelFormat format) {
    return static_cast<Common::PixelFormat_t>(format);
}
inline AVSampleFormat toFfmpeg(Common::SampleFormat_t format) {
    const int number = static_cast<int>(format);
    return number < 0 || number >= AV_SAMPLE_FMT_NB ? AV_SAMPLE_FMT_NONE
                                                    : static_cast<AVSampleFormat>(number);
}
inline Common::SampleFormat_t fromFfmpeg(AVSampleFormat format) {
    return static_cast<Common::SampleFormat_t>(format);
}
inline AVRational toFfmpeg(const Common::Rational& value) {
    return {value.Num(), value.Den()};
}
inline Common::Rational fromFfmpeg(AVRational value) {
    return {value.num, value.den};
}

/// Time base of what the engines give out, and of media types that do not say.
inline constexpr AVRational kEngineTimeBase{1, 10000000};

/// A time that is not known; the same number on both sides.
inline constexpr std::int64_t kUnsetTime = AV_NOPTS_VALUE;

/// To the nearest, halves away from zero; an unknown time stays unknown.
std::int64_t rescaleTime(std::int64_t time, AVRational from, AVRational to);

/// The layout of so many channels: that of the mask when it has as many bits, else FFmpeg's usual one for the
/// number. The result owns no memory. No channels (0 or fewer): an empty layout.
AVChannelLayout makeChannelLayout(int channels, std::uint64_t mask);

/// Gives the type a copy of the data in place of its private data. std::bad_alloc, and then it keeps its own.
void setPrivateData(Common::MediaType& type, std::span<const std::uint8_t> data);

/// The mask of a layout in the native order, else 0.
std::uint64_t channelMask(const AVChannelLayout& layout);

/// Whether samples of one rate are made into those of another: a rate 256 times as high or low is a mistake,
/// and would take as much more memory.
constexpr bool isRateInReach(int from, int to) {
    constexpr std::int64_t kMost = 256;
    return from > 0 && to > 0 && from <= to * kMost && to <= from * kMost;
}

/// Whether both tell the same channels in the same order; layouts of a custom order are never the same.
bool sameChannels(const AVChannelLayout& left, const AVChannelLayout& right);

/// Number that the metadata carries under a key; `none` when there is no such key.
std::int64_t metadataNumber(const Common::MediaType& type, const char* key, std::int64_t none);

// Keys of CodecMetadata for what a media type has no field for.
namespace Key {
inline constexpr const char* kStride = "Stride";          ///< Bytes of a luma row.
inline constexpr const char* kRows = "Rows";              ///< Luma rows from one plane to the next.
inline constexpr const char* kFieldOrder = "FieldOrder";  // this and the next five: FFmpeg's enumerators
inline constexpr const char* kColorRange = "ColorRange";
inline constexpr const char* kColorPrimaries = "ColorPrimaries";
inline constexpr const char* kColorTransfer = "ColorTransfer";
inline constexpr const char* kColorSpace = "ColorSpace";
inline constexpr const char* kChromaLocation = "ChromaLocation";
inline constexpr const char* kProfile = "Profile";
inline constexpr const char* kLevel = "Level";
inline constexpr const char* kCodecTag = "CodecTag";
inline constexpr const char* kBitsPerCodedSample = "BitsPerCodedSample";
inline constexpr const char* kVideoDelay = "VideoDelay";      ///< Pictures that reordering holds back.
inline constexpr const char* kFrameSamples = "FrameSamples";  ///< Samples of an audio packet.
inline constexpr const char* kInitialPadding = "InitialPadding";
inline constexpr const char* kSeekPreroll = "SeekPreroll";
}  // namespace Key

/// Prefix of PacketBuffer::ExtraData() keys; behind it FFmpeg's number of a packet's side data, its value a
/// std::string of the bytes.
inline constexpr const char* kPacketSideData = "SideData.";

}  // namespace Mivra::FFmpeg
