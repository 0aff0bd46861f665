#include "tests/ffmpeg/EncoderFixture.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/ffmpeg/FfmpegOptional.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace Mivra::Test {

using Common::Codec_t;
using Common::ContentType_t;
using Common::MediaType;
using Common::PacketBuffer;
using Common::SampleFormat_t;
using FFmpeg::FfmpegOptional;
using FFmpeg::FfmpegProxy;

MediaType videoInput(const VideoForm& form) {
    MediaType type;
    type.ContentType() = ContentType_t::Video;
    type.CodecId() = Codec_t::UNCOMPRESSED;
    type.Compressed() = false;
    type.Width() = form.width;
    type.Height() = form.height;
    type.PixelFormat() = form.format;
    type.Framerate() = form.rate;
    return type;
}

MediaType audioInput(SampleFormat_t format, int rate, int channels) {
    MediaType type;
    type.ContentType() = ContentType_t::Audio;
    type.CodecId() = Codec_t::UNCOMPRESSED;
    type.Compressed() = false;
    type.SampleFormat() = format;
    type.SampleRate() = rate;
    type.Channels() = channels;
    return type;
}

MediaType wanted(Codec_t codec, int bitrate) {
    MediaType type;
    type.CodecId() = codec;
    type.Bitrate() = bitrate;
    return type;
}

Media::EncoderParameters encoderParameters(const std::string& options) {
    Media::EncoderParameters parameters;
    parameters.Options = options;
    parameters.ThreadCount = 1;
    return parameters;
}

std::unique_ptr<FFmpeg::FfmpegEncoder> make(MediaType input, MediaType output, const std::string& options) {
    Media::EncoderParameters parameters = encoderParameters(options);
    return std::make_unique<FFmpeg::FfmpegEncoder>(&input, &output, &parameters);
}

std::int64_t pictureTime(std::int64_t n, const Common::Rational& rate) {
    return FfmpegProxy::av_rescale_q(n, {rate.Den(), rate.Num()}, FFmpeg::kEngineTimeBase);
}

Frame picture(const MediaType& type, int n) {
    FFmpeg::PictureLayout layout;
    EXPECT_TRUE(FFmpeg::pictureLayoutOf(type, layout));
    Frame frame = Frame::Adopt(Media::MediaGlobal::LockBuffer(layout.size + 64));
    std::uint8_t* planes[FFmpeg::kMostPlanes];
    layout.Point(reinterpret_cast<std::uint8_t*>(frame->Buffer()), planes);
    std::memset(frame->Buffer(), 0x5a, static_cast<std::size_t>(layout.size));
    FFmpeg::PictureLayout packed;
    FFmpeg::makePictureLayout(layout.format, layout.width, layout.height, 0, 0, packed);
    for (int plane = 0; plane < layout.planes; ++plane) {
        const int end = plane + 1 < packed.planes ? packed.offsets[plane + 1] : packed.size;
        const int rows = (end - packed.offsets[plane]) / packed.linesizes[plane];
        for (int y = 0; y < rows; ++y) {
            std::uint8_t* const row = planes[plane] + std::ptrdiff_t{y} * layout.linesizes[plane];
            for (int x = 0; x < packed.linesizes[plane]; ++x) {
                row[x] = static_cast<std::uint8_t>(plane == 0 ? 40 + ((x + 3 * n) ^ (y + n)) % 150
                                                              : 100 + (x / 4 + y / 3 + n) % 60);
            }
        }
    }
    frame->ActualSize() = layout.size;
    frame->Pts() = frame->Dts() = pictureTime(n, type.Framerate());
    frame->Duration() = pictureTime(1, type.Framerate());
    return frame;
}

Frame tone(const MediaType& type, std::int64_t from, int samples) {
    const int channels = type.Channels();
    const bool planar = type.SampleFormat() == SampleFormat_t::FLTP;
    const bool floating = planar || type.SampleFormat() == SampleFormat_t::FLT;
    const int step = floating ? 4 : 2;
    Frame frame = Frame::Adopt(Media::MediaGlobal::LockBuffer(samples * channels * step));
    frame->ActualSize() = samples * channels * step;
    for (int channel = 0; channel < channels; ++channel) {
        for (int at = 0; at < samples; ++at) {
            const double phase = double(from + at) * (channel + 1) * 440 * 6.283185307 / type.SampleRate();
            const float value = static_cast<float>(0.4 * std::sin(phase));
            const auto whole = static_cast<std::int16_t>(value * 32767);
            const int index = planar ? channel * samples + at : at * channels + channel;
            char* const to = frame->Buffer() + std::ptrdiff_t{index} * step;
            std::memcpy(to, floating ? static_cast<const void*>(&value) : &whole, std::size_t(step));
        }
    }
    const auto time = [&](std::int64_t sample) {
        return FfmpegProxy::av_rescale_q(sample, {1, type.SampleRate()}, FFmpeg::kEngineTimeBase);
    };
    frame->Pts() = frame->Dts() = time(from);
    frame->Duration() = time(samples);
    return frame;
}

Frames pictures(const MediaType& type, int count) {
    Frames frames;
    for (int n = 0; n < count; ++n) {
        frames.push_back(picture(type, n));
    }
    return frames;
}

Frames tones(const MediaType& type, std::int64_t samples, int bufferSamples) {
    Frames frames;
    for (std::int64_t from = 0; from < samples; from += bufferSamples) {
        frames.push_back(
            tone(type, from, static_cast<int>(std::min<std::int64_t>(bufferSamples, samples - from))));
    }
    return frames;
}

Frames encode(FFmpeg::FfmpegEncoder& encoder, const Frames& frames) {
    Frames packets;
    const auto readAll = [&] {
        while (PacketBuffer* const packet = encoder.Read()) {
            packets.push_back(Frame::Adopt(packet));
        }
    };
    for (const Frame& frame : frames) {
        if (!encoder.Write(frame.get())) {
            readAll();
            EXPECT_TRUE(encoder.Write(frame.get())) << "not accepted after reading either";
        }
        readAll();
    }
    encoder.Drain();
    readAll();
    return packets;
}

void mux(const std::string& path, const char* format, const MediaType& type, const Frames& packets) {
    AVFormatContext* muxer = nullptr;
    ASSERT_GE(FfmpegOptional::avformat_alloc_output_context2(&muxer, nullptr, format, path.c_str()), 0);
    const std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> owner(
        muxer, FfmpegOptional::avformat_free_context);
    AVStream* const stream = FfmpegProxy::avformat_new_stream(muxer, nullptr);
    AVCodecParameters& to = *stream->codecpar;
    const bool video = type.ContentType() == ContentType_t::Video;
    to.codec_type = video ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
    to.codec_id = FFmpeg::toFfmpeg(type.CodecId());
    to.format = video ? int(type.PixelFormat()) : int(type.SampleFormat());
    to.width = type.Width();
    to.height = type.Height();
    to.sample_rate = type.SampleRate();
    to.ch_layout = FFmpeg::makeChannelLayout(type.Channels(), 0);
    to.block_align = type.FrameSize();
    to.bits_per_coded_sample = type.BitsPerSample();
    to.frame_size = static_cast<int>(FFmpeg::metadataNumber(type, FFmpeg::Key::kFrameSamples, 0));
    to.initial_padding = static_cast<int>(FFmpeg::metadataNumber(type, FFmpeg::Key::kInitialPadding, 0));
    const std::string data = privateData(type);
    to.extradata = static_cast<std::uint8_t*>(FfmpegProxy::av_mallocz(data.size() + 64));
    std::memcpy(to.extradata, data.data(), data.size());
    to.extradata_size = static_cast<int>(data.size());
    stream->time_base = FFmpeg::kEngineTimeBase;
    ASSERT_GE(FfmpegProxy::avio_open(&muxer->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
    ASSERT_GE(FfmpegProxy::avformat_write_header(muxer, nullptr), 0);
    const FFmpeg::PacketPointer packet(FfmpegProxy::av_packet_alloc());
    for (const Frame& from : packets) {
        packet->data = reinterpret_cast<std::uint8_t*>(from->Buffer());
        packet->size = from->ActualSize();
        packet->pts = from->Pts();
        packet->dts = from->Dts();
        packet->duration = from->Duration();
        packet->flags = from->KeyFrame() ? AV_PKT_FLAG_KEY : 0;
        FfmpegOptional::av_packet_rescale_ts(packet.get(), FFmpeg::kEngineTimeBase, stream->time_base);
        ASSERT_GE(FfmpegProxy::av_interleaved_write_frame(muxer, packet.get()), 0);
    }
    EXPECT_GE(FfmpegProxy::av_write_trailer(muxer), 0);
    FfmpegProxy::avio_closep(&muxer->pb);
}

std::string run(const std::string& command) {
    const TempFolder folder;
    const std::string errors = folder / "errors";
    FILE* const pipe = ::popen((command + " </dev/null 2>" + errors).c_str(), "r");
    std::string output;
    std::array<char, 65536> block;
    while (const std::size_t size = std::fread(block.data(), 1, block.size(), pipe)) {
        output.append(block.data(), size);
    }
    EXPECT_EQ(::pclose(pipe), 0) << command;
    EXPECT_EQ(ReadWholeFile(errors), "") << command;
    return output;
}

std::string bytesOf(PacketBuffer& packet) {
    return std::string(packet.Buffer(), static_cast<std::size_t>(packet.ActualSize()));
}

std::string bytesOf(const Frames& packets) {
    std::string bytes;
    for (const Frame& packet : packets) {
        bytes += bytesOf(*packet.get());
    }
    return bytes;
}

std::string privateData(const MediaType& type) {
    return std::string(type.CodecPrivateData(), static_cast<std::size_t>(type.CodecPrivateDataSize()));
}

void setPrivateData(MediaType& type, const std::string& data) {
    std::free(type.CodecPrivateData());
    type.CodecPrivateData() = static_cast<char*>(std::malloc(data.size()));
    std::memcpy(type.CodecPrivateData(), data.data(), data.size());
    type.CodecPrivateDataSize() = static_cast<std::int32_t>(data.size());
}

EncoderTest::EncoderTest() {
    Media::MediaGlobal::Initialize(1.0F);
    FFmpeg::RouteFfmpegLog();
}

void EncoderTest::TearDown() {
    EXPECT_EQ(log.Errors(), std::vector<std::string>{});
    for (auto* const pool : {Media::MediaGlobal::GetSmallAllocator(), Media::MediaGlobal::GetAllocator(),
                             Media::MediaGlobal::GetBigAllocator()}) {
        auto& standard = dynamic_cast<Common::DefaultPacketBufferAllocator&>(*pool);
        EXPECT_EQ(standard.FreeBufferCount(), standard.BufferCount());
    }
}

std::string EncoderTest::onlyError() {
    const std::vector<std::string> errors = log.Errors();
    EXPECT_EQ(errors.size(), 1U);
    log.Clear();
    return errors.empty() ? std::string() : errors[0];
}

}  // namespace Mivra::Test
