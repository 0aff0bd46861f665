#include "tools/mivra/StreamMapping.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "tools/mivra/Rescale.h"

#if defined(__GNUC__)
#pragma GCC diagnostic ignored \
    "-Wdeprecated-declarations"  // 6.1 has begun to put others in place of the side data of streams
#endif

namespace Mivra::Tool {
namespace {

using Common::Codec_t;
using Common::ContentType_t;
using Common::MediaType;
using Common::Metadata;
using Common::PixelFormat_t;
using Common::Rational;
using Common::SampleFormat_t;
using FFmpeg::FfmpegOptional;
using FFmpeg::FfmpegProxy;

/// Fields of the codec parameters that have no place of their own in a media type.
struct Extra {
    const char* key;
    int AVCodecParameters::*field;
};
constexpr Extra kExtras[] = {
    {"Profile", &AVCodecParameters::profile},
    {"Level", &AVCodecParameters::level},
    {"BitsPerCodedSample", &AVCodecParameters::bits_per_coded_sample},
    {"VideoDelay", &AVCodecParameters::video_delay},
    {"FrameSamples", &AVCodecParameters::frame_size},
    {"InitialPadding", &AVCodecParameters::initial_padding},
    {"TrailingPadding", &AVCodecParameters::trailing_padding},
    {"SeekPreroll", &AVCodecParameters::seek_preroll},
};

/// The same for the enumerations that describe colour and fields.
template <typename Parameters, typename Visit>
void visitEnumerations(Parameters& parameters, Visit visit) {
    visit("FieldOrder", parameters.field_order);
    visit("ColorRange", parameters.color_range);
    visit("ColorPrimaries", parameters.color_primaries);
    visit("ColorTransfer", parameters.color_trc);
    visit("ColorSpace", parameters.color_space);
    visit("ChromaLocation", parameters.chroma_location);
}

constexpr const char* kBitRate = "BitRate";
constexpr const char* kRealFramerateNum = "RealFramerateNum";
constexpr const char* kRealFramerateDen = "RealFramerateDen";
constexpr const char* kStreamDuration = "StreamDuration";  // in the input's time base
constexpr const char* kLanguage = "Language";
constexpr const char* kSideData = "SideData.";  // and FFmpeg's number of its type

ContentType_t contentType(AVMediaType type) {
    switch (type) {
        case AVMEDIA_TYPE_VIDEO:
            return ContentType_t::Video;
        case AVMEDIA_TYPE_AUDIO:
            return ContentType_t::Audio;
        case AVMEDIA_TYPE_SUBTITLE:
            return ContentType_t::Text;
        default:
            return ContentType_t::Binary;
    }
}

AVMediaType mediaType(ContentType_t type) {
    switch (type) {
        case ContentType_t::Video:
            return AVMEDIA_TYPE_VIDEO;
        case ContentType_t::Audio:
            return AVMEDIA_TYPE_AUDIO;
        case ContentType_t::Text:
            return AVMEDIA_TYPE_SUBTITLE;
        default:
            return AVMEDIA_TYPE_DATA;
    }
}

void takeVideo(const AVStream& stream, MediaType& type) {
    const AVCodecParameters& from = *stream.codecpar;
    type.Width() = from.width;
    type.Height() = from.height;
    type.PixelFormat() = static_cast<PixelFormat_t>(from.format);
    const AVRational rate = stream.avg_frame_rate;
    if (rate.num > 0 && rate.den > 0) {
        type.Framerate() = Rational(rate.num, rate.den);
        type.FrameDuration() = rescale(1, {rate.den, rate.num}, kPacketTimeBase);
    }
    const AVRational aspect =
        stream.sample_aspect_ratio.num != 0 ? stream.sample_aspect_ratio : from.sample_aspect_ratio;
    if (aspect.num > 0 && aspect.den > 0) {
        type.PixelAspectRatio() = Rational(aspect.num, aspect.den);
    } else {
        type.CodecMetadata()[Key::kAspectUnknown] = 1;
    }
    type.CodecMetadata()[kRealFramerateNum] = stream.r_frame_rate.num;
    type.CodecMetadata()[kRealFramerateDen] = stream.r_frame_rate.den;
    type.SetReorderingQueueDepth(from.video_delay);
}

void takeAudio(const AVCodecParameters& from, MediaType& type) {
    type.SampleFormat() = static_cast<SampleFormat_t>(from.format);
    type.SampleRate() = from.sample_rate;
    type.Channels() = from.ch_layout.nb_channels;
    type.ChannelLayout() = from.ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? from.ch_layout.u.mask : 0;
    type.BitsPerSample() = from.bits_per_raw_sample;
    type.FrameSize() = from.block_align;
    if (from.frame_size > 0 && from.sample_rate > 0) {
        type.FrameDuration() = rescale(from.frame_size, {1, from.sample_rate}, kPacketTimeBase);
    }
}

void takeSideData(const AVStream& stream, Metadata& metadata) {
    for (int i = 0; i < stream.nb_side_data; ++i) {
        const AVPacketSideData& data = stream.side_data[i];
        metadata[kSideData + std::to_string(static_cast<int>(data.type))] =
            std::string(reinterpret_cast<const char*>(data.data), data.size);
    }
}

void takeLanguage(const AVStream& stream, Metadata& metadata) {
    if (FfmpegOptional::av_dict_get == nullptr) {
        return;
    }
    if (const AVDictionaryEntry* entry =
            FfmpegOptional::av_dict_get(stream.metadata, "language", nullptr, 0)) {
        metadata[kLanguage] = std::string(entry->value);
    }
}

/// The tag goes along when the output's format has no tags of its own, or this one means the codec there too.
unsigned outputTag(const AVOutputFormat& format, AVCodecID codec, unsigned tag) {
    unsigned other = 0;
    if (format.codec_tag == nullptr || FfmpegOptional::av_codec_get_id(format.codec_tag, tag) == codec ||
        FfmpegOptional::av_codec_get_tag2(format.codec_tag, codec, &other) == 0) {
        return tag;
    }
    return 0;
}

bool givePrivateData(const MediaType& type, AVCodecParameters& to) {
    const int size = type.CodecPrivateDataSize();
    if (size <= 0 || type.CodecPrivateData() == nullptr) {
        return true;
    }
    to.extradata = static_cast<std::uint8_t*>(
        FfmpegProxy::av_mallocz(static_cast<std::size_t>(size) + AV_INPUT_BUFFER_PADDING_SIZE));
    if (to.extradata == nullptr) {
        return false;
    }
    std::memcpy(to.extradata, type.CodecPrivateData(), static_cast<std::size_t>(size));
    to.extradata_size = size;
    return true;
}

void giveVideo(const MediaType& type, AVStream& stream) {
    AVCodecParameters& to = *stream.codecpar;
    to.width = type.Width();
    to.height = type.Height();
    to.format = static_cast<int>(type.PixelFormat());
    if (!type.Framerate().IsNull()) {
        stream.avg_frame_rate = toAvRational(type.Framerate());
    }
    stream.r_frame_rate = {static_cast<int>(numberOf(type, kRealFramerateNum, 0)),
                           static_cast<int>(numberOf(type, kRealFramerateDen, 0))};
    if (numberOf(type, Key::kAspectUnknown, 0) == 0) {
        to.sample_aspect_ratio = toAvRational(type.PixelAspectRatio());
    }
    stream.sample_aspect_ratio = to.sample_aspect_ratio;
}

void giveAudio(const MediaType& type, AVCodecParameters& to) {
    to.format = static_cast<int>(type.SampleFormat());
    to.sample_rate = type.SampleRate();
    to.ch_layout.nb_channels = type.Channels();
    if (type.ChannelLayout() != 0) {
        to.ch_layout.order = AV_CHANNEL_ORDER_NATIVE;
        to.ch_layout.u.mask = type.ChannelLayout();
    }
    to.bits_per_raw_sample = type.BitsPerSample();
    // Block sizes that some inputs give for compressed audio mislead the muxers.
    const bool misleading = to.codec_id == AV_CODEC_ID_AC3 ||
                            (to.codec_id == AV_CODEC_ID_MP3 &&
                             (type.FrameSize() == 1 || type.FrameSize() == 576 || type.FrameSize() == 1152));
    to.block_align = misleading ? 0 : type.FrameSize();
}

bool giveSideData(const MediaType& type, AVStream& stream) {
    Metadata metadata = type.CodecMetadata();
    for (int kind = 0; kind < AV_PKT_DATA_NB; ++kind) {
        const std::string key = kSideData + std::to_string(kind);
        if (!metadata.ContainsKey(key)) {
            continue;
        }
        const std::string& bytes = metadata[key];
        std::uint8_t* const data = FfmpegOptional::av_stream_new_side_data(&stream, kind, bytes.size());
        if (data == nullptr) {
            return false;
        }
        std::memcpy(data, bytes.data(), bytes.size());
    }
    return true;
}

}  // namespace

void setPrivateData(MediaType& type, const void* data, std::size_t size) {
    char* copy = nullptr;
    if (size > 0) {
        copy = static_cast<char*>(std::malloc(size));
        if (copy == nullptr) {
            throw std::bad_alloc();
        }
        std::memcpy(copy, data, size);
    }
    std::free(type.CodecPrivateData());
    type.CodecPrivateData() = copy;
    type.CodecPrivateDataSize() = static_cast<std::int32_t>(size);
}

std::int64_t numberOf(const MediaType& type, const char* key, std::int64_t none) {
    if (!type.CodecMetadata().ContainsKey(key)) {
        return none;
    }
    return const_cast<MediaType&>(type).CodecMetadata()[key];
}

AVRational timeBaseOf(const MediaType& type) {
    const AVRational base{static_cast<int>(numberOf(type, Key::kTimeBaseNum, 0)),
                          static_cast<int>(numberOf(type, Key::kTimeBaseDen, 0))};
    return base.num > 0 && base.den > 0 ? base : kPacketTimeBase;
}

MediaType toMediaType(const AVStream& stream) {
    const AVCodecParameters& from = *stream.codecpar;
    MediaType type;
    Metadata& metadata = type.CodecMetadata();
    type.ContentType() = contentType(from.codec_type);
    type.CodecId() = static_cast<Codec_t>(from.codec_id);
    type.Bitrate() = static_cast<int>(std::min<std::int64_t>(from.bit_rate, INT32_MAX));
    metadata[kBitRate] = from.bit_rate;
    if (from.extradata_size > 0) {
        setPrivateData(type, from.extradata, static_cast<std::size_t>(from.extradata_size));
    }
    for (const Extra& extra : kExtras) {
        metadata[extra.key] = from.*extra.field;
    }
    visitEnumerations(from, [&](const char* key, auto value) { metadata[key] = static_cast<int>(value); });
    metadata[Key::kCodecTag] = static_cast<std::int64_t>(from.codec_tag);
    metadata[Key::kDisposition] = stream.disposition;
    metadata[Key::kTimeBaseNum] = stream.time_base.num;
    metadata[Key::kTimeBaseDen] = stream.time_base.den;
    if (stream.duration > 0) {
        metadata[kStreamDuration] = stream.duration;
    }
    takeSideData(stream, metadata);
    takeLanguage(stream, metadata);
    if (from.codec_type == AVMEDIA_TYPE_VIDEO) {
        takeVideo(stream, type);
    } else if (from.codec_type == AVMEDIA_TYPE_AUDIO) {
        takeAudio(from, type);
    }
    return type;
}

bool isStill(const MediaType& type) {
    return (numberOf(type, Key::kDisposition, 0) & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

bool fillStream(const MediaType& type, const AVOutputFormat& format, AVStream& stream) {
    AVCodecParameters& to = *stream.codecpar;
    to.codec_type = mediaType(type.ContentType());
    to.codec_id = static_cast<AVCodecID>(type.CodecId());
    to.codec_tag = outputTag(format, to.codec_id, static_cast<unsigned>(numberOf(type, Key::kCodecTag, 0)));
    to.bit_rate = numberOf(type, kBitRate, type.Bitrate());
    for (const Extra& extra : kExtras) {
        to.*extra.field = static_cast<int>(numberOf(type, extra.key, to.*extra.field));
    }
    visitEnumerations(to, [&](const char* key, auto& value) {
        value = static_cast<std::remove_reference_t<decltype(value)>>(numberOf(type, key, value));
    });
    if (type.ContentType() == ContentType_t::Video) {
        giveVideo(type, stream);
    } else if (type.ContentType() == ContentType_t::Audio) {
        giveAudio(type, to);
    }
    stream.disposition = static_cast<int>(numberOf(type, Key::kDisposition, 0));
    stream.time_base = timeBaseOf(type);
    stream.duration = numberOf(type, kStreamDuration, 0);
    if (type.CodecMetadata().ContainsKey(kLanguage)) {
        const std::string& language = const_cast<MediaType&>(type).CodecMetadata()[kLanguage];
        FfmpegProxy::av_dict_set(&stream.metadata, "language", language.c_str(), 0);
    }
    return givePrivateData(type, to) && giveSideData(type, stream);
}

std::string describe(const MediaType& type) {
    const std::string codec = codecName(static_cast<int>(type.CodecId()));
    switch (type.ContentType()) {
        case ContentType_t::Video:
            return "video " + codec + " " + std::to_string(type.Width()) + "x" +
                   std::to_string(type.Height());
        case ContentType_t::Audio:
            return "audio " + codec + " " + std::to_string(type.SampleRate()) + " Hz " +
                   std::to_string(type.Channels()) + " ch";
        case ContentType_t::Text:
            return "text " + codec;
        default:
            return "data " + codec;
    }
}

}  // namespace Mivra::Tool
