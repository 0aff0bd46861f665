#include "tests/ffmpeg/CodedStream.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FfmpegObjects.h"
#include "mivra/ffmpeg/PictureLayout.h"
#include "tests/support/TempFolder.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace Mivra::Test {
namespace {

using Common::ContentType_t;
using Common::MediaType;
using Common::PacketBuffer;
using FFmpeg::FfmpegProxy;
namespace Key = FFmpeg::Key;

std::string hashOf(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        constexpr char kDigits[] = "0123456789abcdef";
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 15];
    }
    return text;
}

struct FormatDeleter {
    void operator()(AVFormatContext* context) const { FfmpegProxy::avformat_close_input(&context); }
};

MediaType typeOf(const AVStream& stream) {
    const AVCodecParameters& from = *stream.codecpar;
    const bool video = from.codec_type == AVMEDIA_TYPE_VIDEO;
    MediaType type;
    type.ContentType() = video ? ContentType_t::Video : ContentType_t::Audio;
    type.CodecId() = FFmpeg::fromFfmpeg(from.codec_id);
    type.Width() = from.width;
    type.Height() = from.height;
    (video ? reinterpret_cast<int&>(type.PixelFormat()) : reinterpret_cast<int&>(type.SampleFormat())) =
        from.format;
    type.Bitrate() = static_cast<int>(from.bit_rate);
    type.SampleRate() = from.sample_rate;
    type.Channels() = from.ch_layout.nb_channels;
    type.ChannelLayout() = FFmpeg::channelMask(from.ch_layout);
    type.FrameSize() = from.block_align;
    type.CodecMetadata()[Key::kCodecTag] = static_cast<std::int64_t>(from.codec_tag);
    type.CodecMetadata()[Key::kBitsPerCodedSample] = from.bits_per_coded_sample;
    if (video && stream.avg_frame_rate.num > 0) {
        type.Framerate() = FFmpeg::fromFfmpeg(stream.avg_frame_rate);
        type.SetReorderingQueueDepth(from.video_delay);
    }
    if (from.extradata_size > 0) {
        const auto size = static_cast<std::size_t>(from.extradata_size);
        type.CodecPrivateData() = static_cast<char*>(std::malloc(size));
        std::memcpy(type.CodecPrivateData(), from.extradata, size);
        type.CodecPrivateDataSize() = from.extradata_size;
    }
    return type;
}

void addPacket(const AVPacket& from, AVRational base, CodedStream& stream) {
    PacketBuffer& to =
        stream.Add({reinterpret_cast<const char*>(from.data), static_cast<std::size_t>(from.size)});
    to.Pts() = FFmpeg::rescaleTime(from.pts, base, FFmpeg::kEngineTimeBase);
    to.Dts() = FFmpeg::rescaleTime(from.dts, base, FFmpeg::kEngineTimeBase);
    to.Duration() = FFmpeg::rescaleTime(from.duration, base, FFmpeg::kEngineTimeBase);
    to.KeyFrame() = (from.flags & AV_PKT_FLAG_KEY) != 0;
    to.ExtraData()[PacketBuffer::FlagsAttribute] = from.flags;
    for (int i = 0; i < from.side_data_elems; ++i) {
        const AVPacketSideData& data = from.side_data[i];
        to.ExtraData()[FFmpeg::kPacketSideData + std::to_string(data.type)] =
            std::string(reinterpret_cast<const char*>(data.data), data.size);
    }
}

/// The wanted numbers of a framehash file's lines: "stream, dts, pts, duration, size, hash".
FrameDigest parseLine(std::string line, AVRational base) {
    std::replace(line.begin(), line.end(), ',', ' ');
    std::istringstream words(line);
    std::int64_t stream = 0;
    std::int64_t dts = 0;
    std::int64_t duration = 0;
    FrameDigest digest{};
    words >> stream >> dts >> digest.time >> duration >> digest.size >> digest.hash;
    digest.time = FFmpeg::rescaleTime(digest.time, base, FFmpeg::kEngineTimeBase);
    return digest;
}

std::string interleaved(const std::string& planar, std::size_t channels, std::size_t bytes) {
    const std::size_t samples = planar.size() / channels / bytes;
    std::string result(planar.size(), '\0');
    for (std::size_t channel = 0; channel < channels; ++channel) {
        for (std::size_t i = 0; i < samples; ++i) {
            std::memcpy(&result[(i * channels + channel) * bytes], &planar[(channel * samples + i) * bytes],
                        bytes);
        }
    }
    return result;
}

std::string packed(PacketBuffer& frame, const MediaType& type) {
    FFmpeg::PictureLayout layout;
    FFmpeg::PictureLayout plain;
    EXPECT_TRUE(FFmpeg::pictureLayoutOf(type, layout));
    EXPECT_TRUE(FFmpeg::makePictureLayout(layout.format, layout.width, layout.height, 0, 0, plain));
    EXPECT_EQ(frame.ActualSize(), layout.size);
    std::string result(static_cast<std::size_t>(plain.size), '\0');
    std::uint8_t* planes[FFmpeg::kMostPlanes];
    layout.Point(reinterpret_cast<std::uint8_t*>(frame.Buffer()), planes);
    FFmpeg::copyPicture(planes, layout.linesizes, plain, reinterpret_cast<std::uint8_t*>(result.data()));
    return result;
}

}  // namespace

void RunFfmpeg(const std::string& arguments) {
    const std::string command = "ffmpeg -nostdin -v error -y " + arguments;
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

PacketBuffer& CodedStream::Add(const std::string& payload) {
    std::string& copy = bytes.emplace_back(payload);
    packets.push_back(
        Common::Reference<PacketBuffer>::Adopt(new PacketBuffer(copy.data(), static_cast<int>(copy.size()))));
    packets.back()->ActualSize() = static_cast<int>(copy.size());
    return *packets.back().get();
}

CodedStream ReadStream(const std::string& path, ContentType_t content) {
    CodedStream result;
    AVFormatContext* context = nullptr;
    EXPECT_GE(FfmpegProxy::avformat_open_input(&context, path.c_str(), nullptr, nullptr), 0) << path;
    const std::unique_ptr<AVFormatContext, FormatDeleter> closer(context);
    if (context == nullptr || FfmpegProxy::avformat_find_stream_info(context, nullptr) < 0) {
        ADD_FAILURE() << path;
        return result;
    }
    const AVMediaType wanted = content == ContentType_t::Video ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
    const AVStream* stream = nullptr;
    for (unsigned i = 0; i < context->nb_streams && stream == nullptr; ++i) {
        stream = context->streams[i]->codecpar->codec_type == wanted ? context->streams[i] : nullptr;
    }
    if (stream == nullptr) {
        ADD_FAILURE() << path << " has no such stream";
        return result;
    }
    result.type = typeOf(*stream);
    const FFmpeg::PacketPointer packet(FfmpegProxy::av_packet_alloc());
    while (FfmpegProxy::av_read_frame(context, packet.get()) >= 0) {
        if (packet->stream_index == stream->index) {
            addPacket(*packet, stream->time_base, result);
        }
        FfmpegProxy::av_packet_unref(packet.get());
    }
    return result;
}

std::vector<FrameDigest> FfmpegDigests(const std::string& path, ContentType_t content,
                                       const std::string& output) {
    const TempFolder folder;
    const std::string list = folder / "list";
    RunFfmpeg("-i " + path + " -map 0:" + (content == ContentType_t::Video ? "v" : "a") +
              " -fps_mode passthrough -copyts -enc_time_base -1 " + output + " -f framehash -hash sha256 " +
              list);
    std::vector<FrameDigest> digests;
    std::ifstream file(list);
    AVRational base{1, 1};
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("#tb 0: ", 0) == 0) {
            std::sscanf(line.c_str(), "#tb 0: %d/%d", &base.num, &base.den);
        } else if (!line.empty() && line[0] != '#') {
            digests.push_back(parseLine(line, base));
        }
    }
    return digests;
}

FrameDigest Digest(PacketBuffer& frame, const MediaType& type) {
    std::string bytes;
    if (type.ContentType() == ContentType_t::Video) {
        bytes = packed(frame, type);
    } else {
        bytes.assign(frame.Buffer(), static_cast<std::size_t>(frame.ActualSize()));
        if (FfmpegProxy::av_sample_fmt_is_planar(static_cast<int>(type.SampleFormat())) != 0) {
            bytes = interleaved(bytes, static_cast<std::size_t>(type.Channels()),
                                static_cast<std::size_t>(type.BitsPerSample()) / 8);
        }
    }
    return {frame.Pts(), static_cast<std::int64_t>(bytes.size()), hashOf(bytes)};
}

std::vector<FrameDigest> DecodeAll(Media::IDecoder& decoder, CodedStream& stream) {
    std::vector<FrameDigest> digests;
    const auto readAll = [&] {
        while (PacketBuffer* const read = decoder.Read()) {
            const auto frame = Common::Reference<PacketBuffer>::Adopt(read);
            digests.push_back(Digest(*frame.get(), decoder.GetOutputMediaType()));
        }
    };
    for (const auto& packet : stream.packets) {
        decoder.Write(packet.get());
        readAll();
    }
    decoder.Drain();
    readAll();
    return digests;
}

}  // namespace Mivra::Test
