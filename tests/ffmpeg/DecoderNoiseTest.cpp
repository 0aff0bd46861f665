// Codecs for which nothing here makes streams: packets of noise behind whatever makes them plausible, decoded
// by the engine and by the bare libraries, which have to agree.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string_view>

#include "mivra/ffmpeg/FfmpegDecoder.h"
#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FfmpegObjects.h"
#include "tests/ffmpeg/CodedStream.h"
#include "tests/support/LogCapture.h"

namespace Mivra::Test {
namespace {

using namespace std::string_view_literals;
using Common::Codec_t;
using Common::ContentType_t;
using Common::MediaType;
using FFmpeg::FfmpegDecoder;
using FFmpeg::FfmpegProxy;

constexpr int kSide = 32;  // of pictures
constexpr int kPackets = 24;

struct Noise {
    const char* name;
    Codec_t codec;
    std::string_view privateData;  // without it, if there is any, the codec cannot be opened
    std::string_view begin;        // of each packet
    int size;                      // of a packet
    int rate = 0;                  // 0: pictures
    int channels = 0;
};
// Of VC-1: a sequence header of the advanced profile and an entry point; pictures that are predicted from
// nothing.
const Noise kNoise[] = {
    {"VC1", Codec_t::VC1, "\0\0\0\1\x0f\xcb\x08\0\xf0\x0f\x08\x80\0\0\1\x0e\x40\0\x80"sv, "\xc5\x40"sv, 4000},
    {"WMV3", Codec_t::WMV3, "\x08\x41\x80\x01"sv, "\0\x14"sv, 4000},
    {"QCELP", Codec_t::QCELP, ""sv, "\x04"sv, 35, 8000, 1},
    {"TrueSpeech", Codec_t::TRUESPEECH, ""sv, ""sv, 32, 8000, 1},
    {"RealAudio", Codec_t::RA_288, ""sv, ""sv, 38, 8000, 1},
    {"Ape", Codec_t::APE, "\x96\x0f\xe8\x03\0\0"sv, "\0\1\0\0\0\0\0\0"sv, 4000, 44100, 2},
    {"WMAVoice", Codec_t::WMAVOICE,
     "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x02\x49\x49\x26\xdb\x80\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"sv,
     ""sv, 200, 8000, 1},
    {"WMAPro", Codec_t::WMAPRO, "\x10\0\x03\0\0\0\0\0\0\0\0\0\0\0\xc0\0\0\0"sv, ""sv, 4000, 44100, 2},
    {"WMALossless", Codec_t::WMALOSSLESS, "\x10\0\x03\0\0\0\0\0\0\0\0\0\0\0\xe0\0\0\0"sv, ""sv, 4000, 44100,
     2},
};

CodedStream makeStream(const Noise& noise) {
    CodedStream stream;
    MediaType& type = stream.type;
    type.ContentType() = noise.rate == 0 ? ContentType_t::Video : ContentType_t::Audio;
    type.CodecId() = noise.codec;
    type.Width() = type.Height() = noise.rate == 0 ? kSide : 0;
    type.SampleRate() = noise.rate;
    type.Channels() = noise.channels;
    type.BitsPerSample() = noise.rate == 0 ? 0 : 16;
    type.FrameSize() = noise.rate == 0 ? 0 : noise.size;
    if (!noise.privateData.empty()) {
        type.CodecPrivateData() = static_cast<char*>(std::malloc(noise.privateData.size()));
        std::memcpy(type.CodecPrivateData(), noise.privateData.data(), noise.privateData.size());
        type.CodecPrivateDataSize() = static_cast<int>(noise.privateData.size());
    }
    std::mt19937 random(1);
    for (int i = 0; i < kPackets; ++i) {
        std::string bytes(noise.begin);
        while (bytes.size() < static_cast<std::size_t>(noise.size)) {
            bytes += static_cast<char>(random() % 255 + 1);
        }
        stream.Add(bytes).KeyFrame() = true;
    }
    return stream;
}

/// A frame of the libraries in the form of the engine's, and what it is.
std::string digestOf(const AVFrame& frame, MediaType type) {
    std::string bytes;
    if (type.ContentType() == ContentType_t::Video) {
        type.Width() = frame.width;
        type.Height() = frame.height;
        type.PixelFormat() = static_cast<Common::PixelFormat_t>(frame.format);
        bytes.resize(static_cast<std::size_t>(
            FfmpegProxy::av_image_get_buffer_size(frame.format, frame.width, frame.height, 1)));
        FfmpegProxy::av_image_copy_to_buffer(reinterpret_cast<std::uint8_t*>(bytes.data()),
                                             static_cast<int>(bytes.size()), frame.data, frame.linesize,
                                             frame.format, frame.width, frame.height, 1);
    } else {
        const int step = FfmpegProxy::av_get_bytes_per_sample(frame.format);
        const bool planar = FfmpegProxy::av_sample_fmt_is_planar(frame.format) != 0;
        const int planes = planar ? frame.ch_layout.nb_channels : 1;
        const int size = frame.nb_samples * step * frame.ch_layout.nb_channels / planes;
        for (int plane = 0; plane < planes; ++plane) {
            bytes.append(reinterpret_cast<const char*>(frame.extended_data[plane]),
                         static_cast<std::size_t>(size));
        }
        type.SampleFormat() = static_cast<Common::SampleFormat_t>(frame.format);
        type.BitsPerSample() = 8 * step;
    }
    CodedStream holder;
    return Digest(holder.Add(bytes), type).hash;
}

/// What the libraries alone make of it.
std::vector<std::string> decodePlainly(CodedStream& stream) {
    const MediaType& type = stream.type;
    std::vector<std::string> digests;
    const AVCodec* const codec = FfmpegProxy::avcodec_find_decoder(static_cast<int>(type.CodecId()));
    const FFmpeg::CodecContextPointer context(FfmpegProxy::avcodec_alloc_context3(codec));
    context->thread_count = 1;
    context->width = context->coded_width = type.Width();
    context->height = context->coded_height = type.Height();
    context->sample_rate = type.SampleRate();
    context->ch_layout = FFmpeg::makeChannelLayout(type.Channels(), 0);
    context->block_align = type.FrameSize();
    context->bits_per_coded_sample = type.BitsPerSample();
    const auto size = static_cast<std::size_t>(type.CodecPrivateDataSize());
    if (size > 0) {
        context->extradata =
            static_cast<std::uint8_t*>(FfmpegProxy::av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
        std::memcpy(context->extradata, type.CodecPrivateData(), size);
        context->extradata_size = type.CodecPrivateDataSize();
    }
    if (FfmpegProxy::avcodec_open2(context.get(), codec, nullptr) < 0) {
        ADD_FAILURE() << "the libraries refuse it";
        return digests;
    }
    const FFmpeg::PacketPointer packet(FfmpegProxy::av_packet_alloc());
    const FFmpeg::FramePointer frame(FfmpegProxy::av_frame_alloc());
    const auto send = [&](const AVPacket* sent) {
        FfmpegProxy::avcodec_send_packet(context.get(), sent);
        for (int error = 0; error != AVERROR(EAGAIN) && error != AVERROR_EOF;) {
            error = FfmpegProxy::avcodec_receive_frame(context.get(), frame.get());
            if (error >= 0) {
                digests.push_back(digestOf(*frame, type));
            }
        }
    };
    for (std::string bytes : stream.bytes) {
        packet->size = static_cast<int>(bytes.size());
        bytes.append(AV_INPUT_BUFFER_PADDING_SIZE, '\0');
        packet->data = reinterpret_cast<std::uint8_t*>(bytes.data());
        send(packet.get());
    }
    send(nullptr);
    return digests;
}

class DecoderNoiseTest : public testing::TestWithParam<Noise> {
protected:
    const FFmpeg::FfmpegUse use;
    LogCapture log;
};

TEST_P(DecoderNoiseTest, GivesWhatTheLibrariesAloneGive) {
    CodedStream stream = makeStream(GetParam());
    const std::vector<std::string> expected = decodePlainly(stream);
    EXPECT_GE(expected.size(), 1u);
    FfmpegDecoder decoder(&stream.type, nullptr, nullptr);
    ASSERT_TRUE(decoder.IsUsable());
    std::vector<std::string> got;
    for (const FrameDigest& frame : DecodeAll(decoder, stream)) {
        got.push_back(frame.hash);
    }
    EXPECT_EQ(got, expected);
    if (!GetParam().privateData.empty()) {
        log.Clear();
        MediaType bare(stream.type);
        bare.CodecPrivateDataSize() = 1;
        FfmpegDecoder refused(&bare, nullptr, nullptr);
        EXPECT_FALSE(refused.IsUsable());
        EXPECT_EQ(log.Count("cannot be decoded"), 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Codecs, DecoderNoiseTest, testing::ValuesIn(kNoise),
                         [](const testing::TestParamInfo<Noise>& one) {
                             return std::string(one.param.name);
                         });

}  // namespace
}  // namespace Mivra::Test
