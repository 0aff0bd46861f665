// That the bytes of the encoder are those that the libraries alone would give.

#include <functional>
#include <string>

#include "mivra/ffmpeg/EncoderOptions.h"
#include "tests/ffmpeg/EncoderFixture.h"

namespace Mivra::Test {
namespace {

using Common::Codec_t;
using Common::MediaType;
using Common::PixelFormat_t;
using Common::SampleFormat_t;
using FFmpeg::FfmpegOptional;
using FFmpeg::FfmpegProxy;
using EncoderPeerTest = EncoderTest;

/// The libraries alone: every frame sent, every packet taken, one thread.
class Loop {
public:
    Loop(const char* encoder, const std::string& options)
        : codec(FfmpegProxy::avcodec_find_encoder_by_name(encoder)) {
        context.reset(FfmpegProxy::avcodec_alloc_context3(codec));
        context->thread_count = 1;
        FFmpeg::EncoderOptionList list;
        std::string error;
        EXPECT_TRUE(FFmpeg::parseEncoderOptions(options, list, error));
        for (const auto& [key, value] : list) {
            dictionary.Set(key.c_str(), value.c_str());
        }
    }

    AVCodecContext& operator*() { return *context; }
    void Open() { ASSERT_GE(FfmpegProxy::avcodec_open2(context.get(), codec, dictionary.Address()), 0); }
    /// Planes of the frame point into the data, which stays.
    void Send(std::uint8_t* data, int size, const std::function<void(AVFrame&)>& fill) {
        const FFmpeg::FramePointer frame(FfmpegProxy::av_frame_alloc());
        frame->buf[0] = FfmpegOptional::av_buffer_create(
            data, std::size_t(size), [](void*, std::uint8_t*) {}, nullptr, AV_BUFFER_FLAG_READONLY);
        fill(*frame);
        send(frame.get());
    }
    std::string Finish() {
        send(nullptr);
        return bytes;
    }

private:
    void send(AVFrame* frame) {
        ASSERT_GE(FfmpegProxy::avcodec_send_frame(context.get(), frame), 0);
        const FFmpeg::PacketPointer packet(FfmpegProxy::av_packet_alloc());
        while (FfmpegProxy::avcodec_receive_packet(context.get(), packet.get()) >= 0) {
            bytes.append(reinterpret_cast<char*>(packet->data), std::size_t(packet->size));
        }
    }

    const AVCodec* const codec;
    FFmpeg::CodecContextPointer context;
    FFmpeg::Dictionary dictionary;
    std::string bytes;
};

TEST_F(EncoderPeerTest, GivesTheBytesOfTheLibrariesAloneForPictures) {
    struct Case {
        Codec_t codec;
        const char* encoder;
        PixelFormat_t format;
        const char* options;
        int bitrate;
    };
    // The macroblock tree of libx264 looks at memory that nobody has written: with it no two runs need agree.
    for (const Case& one : {Case{Codec_t::H264, "libx264", PixelFormat_t::YUV420P,
                                 "preset=veryfast:bf=3:x264-params=mbtree=0", 300000},
                            Case{Codec_t::H264, "libx264", PixelFormat_t::NV12, "preset=ultrafast:qp=20", 0},
                            Case{Codec_t::MPEG4, "mpeg4", PixelFormat_t::YUV420P, "bf=2:g=12", 400000},
                            Case{Codec_t::MJPEG, "mjpeg", PixelFormat_t::YUVJ420P, "qmin=3", 800000}}) {
        SCOPED_TRACE(one.encoder);
        const MediaType input = videoInput({176, 144, one.format, {25, 1}});
        MediaType output = wanted(one.codec, one.bitrate);
        if (one.codec == Codec_t::H264) {
            setPrivateData(output, std::string("\0\0\0\1", 4));
        }
        const Frames frames = pictures(input, 30);
        const std::string ours = bytesOf(encode(*make(input, output, one.options), frames));
        Loop loop(one.encoder, one.options);
        (*loop).width = 176;
        (*loop).height = 144;
        (*loop).pix_fmt = FFmpeg::toFfmpeg(one.format);
        (*loop).time_base = {1, 25};
        (*loop).framerate = {25, 1};
        (*loop).sample_aspect_ratio = {1, 1};
        if (one.bitrate != 0) {
            (*loop).bit_rate = one.bitrate;
        }
        (*loop).flags |= one.codec == Codec_t::H264 ? 0 : AV_CODEC_FLAG_GLOBAL_HEADER;
        loop.Open();
        FFmpeg::PictureLayout layout;
        FFmpeg::pictureLayoutOf(input, layout);
        for (std::size_t n = 0; n < frames.size(); ++n) {
            auto* const data = reinterpret_cast<std::uint8_t*>(frames[n]->Buffer());
            loop.Send(data, layout.size, [&](AVFrame& frame) {
                for (int plane = 0; plane < layout.planes; ++plane) {
                    frame.data[plane] = data + layout.offsets[plane];
                    frame.linesize[plane] = layout.linesizes[plane];
                }
                frame.format = layout.format;
                frame.width = 176;
                frame.height = 144;
                frame.pts = std::int64_t(n);
            });
        }
        const std::string theirs = loop.Finish();
        EXPECT_TRUE(ours == theirs);
    }
}

TEST_F(EncoderPeerTest, GivesTheBytesOfTheLibrariesAloneForSamplesHoweverTheyCome) {
    struct Case {
        Codec_t codec;
        const char* encoder;
        SampleFormat_t format;
        int frame;
    };
    for (const Case& one : {Case{Codec_t::AAC, "aac", SampleFormat_t::FLTP, 1024},
                            Case{Codec_t::MP2, "mp2", SampleFormat_t::S16, 1152}}) {
        const MediaType input = audioInput(one.format, 48000, 2);
        const int step = one.format == SampleFormat_t::FLTP ? 4 : 2;
        Loop loop(one.encoder, "");
        (*loop).sample_fmt = FFmpeg::toFfmpeg(one.format);
        (*loop).sample_rate = 48000;
        (*loop).ch_layout = FFmpeg::makeChannelLayout(2, 0);
        (*loop).time_base = {1, 48000};
        (*loop).bit_rate = 128000;
        (*loop).flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        loop.Open();
        const Frames frames = tones(input, 30000, one.frame);
        for (std::size_t n = 0; n < frames.size(); ++n) {
            auto* const data = reinterpret_cast<std::uint8_t*>(frames[n]->Buffer());
            const int size = frames[n]->ActualSize();
            loop.Send(data, size, [&](AVFrame& frame) {
                frame.data[0] = data;
                frame.data[1] = one.format == SampleFormat_t::FLTP ? data + size / 2 : nullptr;
                frame.linesize[0] = size;
                frame.format = (*loop).sample_fmt;
                frame.ch_layout = (*loop).ch_layout;
                frame.sample_rate = 48000;
                frame.nb_samples = size / 2 / step;
                frame.pts = std::int64_t(n) * one.frame;
            });
        }
        const std::string theirs = loop.Finish();
        for (const int size : {one.frame, 1, 1000, 30000}) {
            SCOPED_TRACE(std::string(one.encoder) + " of " + std::to_string(size));
            const int samples = size == 1 ? 3000 : 30000;
            if (samples == 30000) {
                const auto encoder = make(input, wanted(one.codec, 128000));
                EXPECT_TRUE(bytesOf(encode(*encoder, tones(input, samples, size))) == theirs);
            } else {
                const std::string single =
                    bytesOf(encode(*make(input, wanted(one.codec, 128000)), tones(input, samples, 1)));
                const std::string whole =
                    bytesOf(encode(*make(input, wanted(one.codec, 128000)), tones(input, samples, samples)));
                EXPECT_TRUE(single == whole);
            }
        }
    }
}

}  // namespace
}  // namespace Mivra::Test
