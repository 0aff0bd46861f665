#include "mivra/ffmpeg/EncoderOutput.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/HevcRecord.h"

namespace Mivra::FFmpeg {
namespace {

using Codecs::H264::H264ConfigurationParser;
using Common::Codec_t;
using Common::ContentType_t;
using Common::MediaType;
using Common::PacketBuffer;
using Common::Reference;

constexpr int kLengthSize = 4;  // of a configuration record that this library makes
constexpr int kFirstPcm = AV_CODEC_ID_PCM_S16LE;
constexpr int kBehindPcm = AV_CODEC_ID_ADPCM_IMA_QT;

bool isPcm(Codec_t codec) {
    return int(codec) >= kFirstPcm && int(codec) < kBehindPcm;
}

bool beginsWithZero(const MediaType& type) {
    return type.CodecPrivateDataSize() > 0 && type.CodecPrivateData() != nullptr &&
           type.CodecPrivateData()[0] == 0;
}

bool isSet(Codec_t codec, std::uint8_t header) {
    if (codec == Codec_t::H264) {  // sequence and picture parameter sets, Table 7-1
        const int kind = header & 0x1f;
        return kind == 7 || kind == 8;
    }
    const int kind = header >> 1 & 0x3f;  // video, sequence, picture: ITU-T H.265 Table 7-1
    return kind >= 32 && kind <= 34;
}

bool isSlice(Codec_t codec, std::uint8_t header) {
    return codec == Codec_t::H264 ? (header & 0x1f) >= 1 && (header & 0x1f) <= 5 : (header >> 1 & 0x3f) < 32;
}

/// The parameter sets in front of the first slice of an access unit, with their start codes.
std::vector<std::uint8_t> setsInFront(Codec_t codec, std::span<const std::uint8_t> data) {
    std::vector<std::uint8_t> sets;
    const auto next = [&](std::size_t from, int& codeLength) {
        const int found = H264ConfigurationParser::FindNextStartCode(
            const_cast<std::uint8_t*>(data.data()) + from, static_cast<int>(data.size() - from), codeLength);
        return found < 0 ? data.size() : from + static_cast<std::size_t>(found);
    };
    int codeLength = 0;
    std::size_t at = next(0, codeLength);
    while (at < data.size()) {
        const std::size_t header = at + static_cast<std::size_t>(codeLength);
        if (header >= data.size() || isSlice(codec, data[header])) {
            break;
        }
        const std::size_t end = next(header, codeLength);
        if (isSet(codec, data[header])) {
            sets.insert(sets.end(), data.begin() + std::ptrdiff_t(at), data.begin() + std::ptrdiff_t(end));
        }
        at = end;
    }
    return sets;
}

/// The channel configuration of AAC for so many channels, ISO/IEC 14496-3 Table 1.19; 0: none.
std::uint64_t channelConfiguration(int channels) {
    return channels >= 1 && channels <= 6 ? static_cast<std::uint64_t>(channels) : channels == 8 ? 7 : 0;
}

}  // namespace

EncoderOutput::EncoderOutput(MediaType& type_, bool& dirty_)
    : type(type_),
      dirty(dirty_),
      hasSets(type.CodecId() == Codec_t::H264 || type.CodecId() == Codec_t::H265),
      annexB(hasSets && beginsWithZero(type)),
      prefixed(hasSets && !annexB) {}

void EncoderOutput::tell(const char* key, std::int64_t value, std::int64_t none) {
    if (value != none) {
        type.CodecMetadata()[key] = value;
    }
}

void EncoderOutput::describePicture(const AVCodecContext& encoder) {
    const AVPixelFormat format = encoder.hw_frames_ctx != nullptr ? encoder.sw_pix_fmt : encoder.pix_fmt;
    type.ContentType() = ContentType_t::Video;
    type.Width() = encoder.width;
    type.Height() = encoder.height;
    type.PixelFormat() = fromFfmpeg(format);
    type.Framerate() = fromFfmpeg(encoder.framerate);
    type.FrameDuration() = FfmpegProxy::av_rescale_q(1, encoder.time_base, toFfmpeg(type.Timescale()));
    if (encoder.sample_aspect_ratio.num > 0) {
        type.PixelAspectRatio() = fromFfmpeg(encoder.sample_aspect_ratio);
    }
    type.CodecMetadata().RemoveKey(Key::kStride);
    type.CodecMetadata().RemoveKey(Key::kRows);
    tell(Key::kVideoDelay, encoder.has_b_frames, 0);
    tell(Key::kColorRange, encoder.color_range, AVCOL_RANGE_UNSPECIFIED);
    tell(Key::kColorPrimaries, encoder.color_primaries, AVCOL_PRI_UNSPECIFIED);
    tell(Key::kColorTransfer, encoder.color_trc, AVCOL_TRC_UNSPECIFIED);
    tell(Key::kColorSpace, encoder.colorspace, AVCOL_SPC_UNSPECIFIED);
    tell(Key::kChromaLocation, encoder.chroma_sample_location, AVCHROMA_LOC_UNSPECIFIED);
}

void EncoderOutput::describeSamples(const AVCodecContext& encoder) {
    type.ContentType() = ContentType_t::Audio;
    type.SampleFormat() = fromFfmpeg(encoder.sample_fmt);
    type.SampleRate() = encoder.sample_rate;
    type.Channels() = encoder.ch_layout.nb_channels;
    type.ChannelLayout() = type.CodecId() == Codec_t::AAC
                               ? channelConfiguration(encoder.ch_layout.nb_channels)
                               : channelMask(encoder.ch_layout);
    type.FrameDuration() =
        FfmpegProxy::av_rescale_q(encoder.frame_size, {1, encoder.sample_rate}, toFfmpeg(type.Timescale()));
    if (isPcm(type.CodecId())) {
        type.Compressed() = false;
        type.FrameSize() = encoder.block_align;
        type.BitsPerSample() = encoder.bits_per_coded_sample;
    }
    tell(Key::kBitsPerCodedSample, encoder.bits_per_coded_sample, 0);
    tell(Key::kFrameSamples, encoder.frame_size, 0);
    tell(Key::kInitialPadding, encoder.initial_padding, 0);
    tell(Key::kSeekPreroll, encoder.seek_preroll, 0);
}

bool EncoderOutput::Describe(const AVCodecContext& encoder) {
    type.Compressed() = true;
    if (encoder.codec_type == AVMEDIA_TYPE_VIDEO) {
        describePicture(encoder);
    } else {
        describeSamples(encoder);
    }
    if (encoder.bit_rate > 0) {
        type.Bitrate() = static_cast<std::int32_t>(std::min<std::int64_t>(encoder.bit_rate, INT32_MAX));
    }
    tell(Key::kProfile, encoder.profile, FF_PROFILE_UNKNOWN);
    tell(Key::kLevel, encoder.level, FF_LEVEL_UNKNOWN);
    dirty = true;
    const Bytes data(encoder.extradata, static_cast<std::size_t>(std::max(encoder.extradata_size, 0)));
    complete = !hasSets || !data.empty();
    return takePrivateData(data);
}

bool EncoderOutput::takePrivateData(Bytes data) {
    const bool convert = prefixed && !data.empty() && data[0] == 0;
    if (convert && type.CodecId() == Codec_t::H265) {
        const std::vector<std::uint8_t> record = makeHevcRecord(data);
        return !record.empty() && takePrivateData(record);
    }
    if (convert) {
        if (!H264ConfigurationParser::GenerateCodecPrivateData(type, const_cast<std::uint8_t*>(data.data()),
                                                               static_cast<int>(data.size()))) {
            return false;
        }
    } else {
        setPrivateData(type, data);
    }
    dirty = true;
    return true;
}

/// Private data that only a packet tells: sets in front of its slices, or data that comes along with it.
void EncoderOutput::learn(const AVPacket& packet) {
    for (int at = 0; at < packet.side_data_elems; ++at) {
        const AVPacketSideData& side = packet.side_data[at];
        if (side.type == AV_PKT_DATA_NEW_EXTRADATA && side.size > 0) {
            complete = takePrivateData({side.data, side.size});
        }
    }
    if (!complete && (packet.flags & AV_PKT_FLAG_KEY) != 0) {
        const std::vector<std::uint8_t> sets =
            setsInFront(type.CodecId(), {packet.data, static_cast<std::size_t>(packet.size)});
        complete = !sets.empty() && takePrivateData(sets);
    }
}

bool EncoderOutput::Make(const AVPacket& packet, Reference<PacketBuffer>& made) {
    const int size = std::max(packet.size, 0);
    if (size == 0) {  // FLAC tells what it has counted at the end
        learn(packet);
        return true;
    }
    // A start code of three bytes becomes a length of four, in front of a unit of one byte or more.
    const int growth = prefixed ? size / kLengthSize + kLengthSize : 0;
    if (size > INT32_MAX - growth - AV_INPUT_BUFFER_PADDING_SIZE) {
        return true;
    }
    auto buffer = Reference<PacketBuffer>::Adopt(
        Media::MediaGlobal::LockBuffer(size + growth + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!buffer) {
        return false;
    }
    learn(packet);
    if (!prefixed) {
        buffer->Append(packet.data, size);
    } else if (!H264ConfigurationParser::ConvertToAvcBitstream(packet.data, size, kLengthSize, buffer.get(),
                                                               type.CodecId() == Codec_t::H264)) {
        return true;
    }
    std::memset(buffer->Buffer() + buffer->ActualSize(), 0, AV_INPUT_BUFFER_PADDING_SIZE);
    buffer->KeyFrame() = buffer->CleanPoint() = (packet.flags & AV_PKT_FLAG_KEY) != 0;
    made = std::move(buffer);
    return true;
}

}  // namespace Mivra::FFmpeg
