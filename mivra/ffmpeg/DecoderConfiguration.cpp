#include "mivra/ffmpeg/DecoderConfiguration.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/HevcRecord.h"

namespace Mivra::FFmpeg {
namespace {

using Codecs::H264::H264ConfigurationParser;
using Common::Codec_t;
using Common::MediaType;

constexpr int kMostReordered = 16;  // pictures, in every codec
constexpr unsigned char kRecordVersion = 1;
constexpr int kLongest = 4;  // bytes of a unit's length

const unsigned char* privateData(const MediaType& type) {
    return reinterpret_cast<const unsigned char*>(type.CodecPrivateData());
}

bool hasPrivateData(const MediaType& type) {
    return type.CodecPrivateDataSize() > 0 && type.CodecPrivateData() != nullptr;
}

/// AAC that is described by one of its ADTS headers configures itself from the stream.
bool isAdtsHeader(const MediaType& type) {
    constexpr unsigned char kSync = 0xFF;
    constexpr unsigned char kSyncEnd = 0xF0;
    const unsigned char* const data = privateData(type);
    return type.CodecId() == Codec_t::AAC && type.CodecPrivateDataSize() >= 2 && data[0] == kSync &&
           (data[1] & kSyncEnd) == kSyncEnd;
}

bool setExtradata(const MediaType& type, AVCodecContext& context) {
    if (!hasPrivateData(type) || isAdtsHeader(type)) {
        return true;
    }
    const auto size = static_cast<std::size_t>(type.CodecPrivateDataSize());
    context.extradata =
        static_cast<std::uint8_t*>(FfmpegProxy::av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (context.extradata == nullptr) {
        return false;
    }
    std::memcpy(context.extradata, type.CodecPrivateData(), size);
    context.extradata_size = type.CodecPrivateDataSize();
    return true;
}

/// How many pictures are held back to put them in order.
int reorderingDepth(const MediaType& type) {
    constexpr std::uint64_t kBaseline = 66;  // profile_idc, which has no B pictures
    if (type.CodecMetadata().ContainsKey(Key::kVideoDelay)) {
        return static_cast<int>(
            std::clamp<std::int64_t>(metadataNumber(type, Key::kVideoDelay, 0), 0, kMostReordered));
    }
    const bool isBaseline = type.CodecId() == Codec_t::H264 && type.GetProfileLevel() >> 16 == kBaseline;
    return isBaseline ? 0 : std::clamp(type.GetReorderingQueueDepth(), 0, kMostReordered);
}

/// One of FFmpeg's enumerators, of which there are so many, from the metadata; others change nothing.
template <typename Enumeration>
void takeNumber(const MediaType& type, const char* key, int count, Enumeration& value) {
    const std::int64_t number = metadataNumber(type, key, -1);
    if (number >= 0 && number < count) {
        value = static_cast<Enumeration>(number);
    }
}

void setVideo(const MediaType& type, AVCodecContext& context) {
    context.width = std::max(type.Width(), 0);
    context.height = std::max(type.Height(), 0);
    context.coded_width = context.width;
    context.coded_height = context.height;
    context.pix_fmt = toFfmpeg(type.PixelFormat());
    context.has_b_frames = reorderingDepth(type);
    if (type.Framerate().Num() > 0 && type.Framerate().Den() > 0) {
        context.framerate = toFfmpeg(type.Framerate());
    }
    takeNumber(type, Key::kColorRange, AVCOL_RANGE_NB, context.color_range);
    takeNumber(type, Key::kColorPrimaries, AVCOL_PRI_NB, context.color_primaries);
    takeNumber(type, Key::kColorTransfer, AVCOL_TRC_NB, context.color_trc);
    takeNumber(type, Key::kColorSpace, AVCOL_SPC_NB, context.colorspace);
    takeNumber(type, Key::kChromaLocation, AVCHROMA_LOC_NB, context.chroma_sample_location);
    takeNumber(type, Key::kFieldOrder, AV_FIELD_BT + 1, context.field_order);
}

void setAudio(const MediaType& type, AVCodecContext& context) {
    // The layout of an AAC type may be the configuration of its standard: the stream itself tells it.
    const std::uint64_t mask = type.CodecId() == Codec_t::AAC ? 0 : type.ChannelLayout();
    context.ch_layout = makeChannelLayout(type.Channels(), mask);
    context.sample_rate = std::max(type.SampleRate(), 0);
    context.sample_fmt = toFfmpeg(type.SampleFormat());
    context.block_align = std::max(type.FrameSize(), 0);
    context.frame_size =
        static_cast<int>(std::max<std::int64_t>(metadataNumber(type, Key::kFrameSamples, 0), 0));
    context.seek_preroll = static_cast<int>(metadataNumber(type, Key::kSeekPreroll, 0));
    context.bits_per_raw_sample = std::max(type.BitsPerSample(), 0);
}

bool hasStartCode(const unsigned char* data, int size) {
    return size > 4 && data[0] == 0 && data[1] == 0 && (data[2] == 1 || (data[2] == 0 && data[3] == 1));
}

/// Whether a packet is made of units behind their lengths, up to its last byte.
bool hasLengths(const unsigned char* data, int size, int lengthSize) {
    int at = 0;
    while (size - at >= lengthSize) {
        std::uint64_t length = 0;
        for (int i = 0; i < lengthSize; ++i) {
            length = length << 8 | data[at + i];
        }
        at += lengthSize;
        if (length > static_cast<std::uint64_t>(size - at)) {
            return false;
        }
        at += static_cast<int>(length);
    }
    return at == size && size > 0;
}

/// H.265 in the other carriage than the private data has.
bool takeHevcCarriage(const unsigned char* packet, int size, MediaType& type) {
    constexpr int kRecordLengthByte = 21;
    const std::span<const std::uint8_t> data(privateData(type),
                                             static_cast<std::size_t>(type.CodecPrivateDataSize()));
    const bool startCode = hasStartCode(packet, size);
    std::vector<std::uint8_t> other;
    if (data[0] == kRecordVersion && data.size() > kRecordLengthByte && startCode &&
        !hasLengths(packet, size, (data[kRecordLengthByte] & 3) + 1)) {
        other = hevcRecordToAnnexB(data);
    } else if (data[0] == 0 && !startCode && hasLengths(packet, size, kLongest)) {
        other = makeHevcRecord(data);
    }
    if (other.empty()) {
        return false;
    }
    setPrivateData(type, other);
    return true;
}

bool takeSets(unsigned char* packet, int size, MediaType& type) {
    H264ConfigurationParser::UnitList sequenceSets;
    H264ConfigurationParser::UnitList pictureSets;
    return H264ConfigurationParser::FindSpsPpsInInitString(packet, size, sequenceSets, pictureSets) &&
           !pictureSets.empty() &&
           H264ConfigurationParser::GenerateAnnexBCodecPrivateData(type, sequenceSets, pictureSets);
}

}  // namespace

bool configureDecoder(const MediaType& type, int threads, AVCodecContext& context) {
    const Common::Rational& scale = type.Timescale();
    context.pkt_timebase = scale.Num() > 0 && scale.Den() > 0 ? toFfmpeg(scale) : kEngineTimeBase;
    context.codec_tag = static_cast<unsigned>(metadataNumber(type, Key::kCodecTag, 0));
    context.bit_rate = std::max(type.Bitrate(), 0);
    context.profile = static_cast<int>(metadataNumber(type, Key::kProfile, FF_PROFILE_UNKNOWN));
    context.level = static_cast<int>(metadataNumber(type, Key::kLevel, FF_LEVEL_UNKNOWN));
    const int bits = static_cast<int>(metadataNumber(type, Key::kBitsPerCodedSample, 0));
    context.bits_per_coded_sample = bits != 0 ? bits : std::max(type.BitsPerSample(), 0);
    if (context.codec_type == AVMEDIA_TYPE_VIDEO) {
        context.thread_count = std::max(threads, 0);
        setVideo(type, context);
    } else {
        context.thread_count = 1;
        setAudio(type, context);
    }
    return setExtradata(type, context);
}

bool learnFromPacket(unsigned char* packet, int size, MediaType& type) {
    if (type.CodecId() == Codec_t::H265) {
        return hasPrivateData(type) && takeHevcCarriage(packet, size, type);
    }
    if (type.CodecId() != Codec_t::H264) {
        return false;
    }
    const bool startCode = hasStartCode(packet, size);
    if (!hasPrivateData(type)) {
        return startCode && takeSets(packet, size, type);
    }
    constexpr int kRecordLengthByte = 4;
    const unsigned char* const data = privateData(type);
    if (data[0] != kRecordVersion) {
        return !startCode && hasLengths(packet, size, kLongest) &&
               H264ConfigurationParser::ConvertPrivateDataToAvc(type);
    }
    const int lengthSize =
        type.CodecPrivateDataSize() > kRecordLengthByte ? (data[kRecordLengthByte] & 3) + 1 : kLongest;
    return startCode && !hasLengths(packet, size, lengthSize) &&
           H264ConfigurationParser::ConvertPrivateDataToAnnexB(type);
}

}  // namespace Mivra::FFmpeg
