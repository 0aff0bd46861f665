// A frame through the encoder, beside a loop that hands the same frames to the same libraries with the same
// settings, one thread each. What the loop gives is thrown away; ours comes in buffers of the pools, H.264
// with lengths in place of start codes.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include "mivra/mivra.h"

using namespace Mivra;

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 360;
constexpr int kRate = 30;
constexpr int kPictures = 60;
constexpr int kSampleRate = 48000;
constexpr int kFrameSamples = 1024;
constexpr int kBuffers = 100;  // of samples

struct Work {
    const char* encoder;
    Common::Codec_t codec;
    const char* options;
    int bitrate;
};
constexpr Work kH264{"libx264", Common::Codec_t::H264, "preset=ultrafast:tune=zerolatency", 1000000};
constexpr Work kMpeg4{"mpeg4", Common::Codec_t::MPEG4, "", 1000000};
constexpr Work kAac{"aac", Common::Codec_t::AAC, "", 128000};

bool isAudio(const Work& work) {
    return work.codec == Common::Codec_t::AAC;
}

using Raw = std::vector<std::vector<std::uint8_t>>;

/// Gradients that move, with some noise.
const Raw& pictures() {
    static const Raw made = [] {
        Raw frames(kPictures, std::vector<std::uint8_t>(kWidth * kHeight * 3 / 2));
        std::uint32_t noise = 1;
        for (std::size_t n = 0; n < frames.size(); ++n) {
            for (std::size_t at = 0; at < frames[n].size(); ++at) {
                noise = noise * 1664525 + 1013904223;
                const std::size_t x = at % kWidth;
                const std::size_t y = at / kWidth;
                frames[n][at] = static_cast<std::uint8_t>(40 + (x / 3 + y / 2 + 4 * n) % 150 + (noise >> 30));
            }
        }
        return frames;
    }();
    return made;
}

/// Two planes of floating-point samples.
const Raw& tones() {
    static const Raw made = [] {
        Raw frames(kBuffers, std::vector<std::uint8_t>(kFrameSamples * 2 * sizeof(float)));
        for (std::size_t n = 0; n < frames.size(); ++n) {
            for (std::size_t at = 0; at < 2 * kFrameSamples; ++at) {
                const double time = double(n * kFrameSamples + at % kFrameSamples) / kSampleRate;
                const auto value =
                    static_cast<float>(0.3 * std::sin(time * 2765) + 0.2 * std::sin(time * 9000));
                std::memcpy(frames[n].data() + at * sizeof value, &value, sizeof value);
            }
        }
        return frames;
    }();
    return made;
}

const Raw& rawOf(const Work& work) {
    return isAudio(work) ? tones() : pictures();
}

Common::MediaType inputOf(const Work& work) {
    Common::MediaType type;
    type.CodecId() = Common::Codec_t::UNCOMPRESSED;
    if (isAudio(work)) {
        type.SampleFormat() = Common::SampleFormat_t::FLTP;
        type.SampleRate() = kSampleRate;
        type.Channels() = 2;
    } else {
        type.PixelFormat() = Common::PixelFormat_t::YUV420P;
        type.Width() = kWidth;
        type.Height() = kHeight;
        type.Framerate() = Common::Rational(kRate, 1);
    }
    return type;
}

void mivra(benchmark::State& state, const Work& work) {
    Media::MediaGlobal::Initialize(1.0F);
    Common::MediaType input = inputOf(work);
    Common::MediaType output;
    output.CodecId() = work.codec;
    output.Bitrate() = work.bitrate;
    Media::EncoderParameters parameters;
    parameters.PreferredMediaFramework = Common::MediaFramework::FFmpeg;
    parameters.AllowHardwareAcceleration = false;
    parameters.Options = work.options;
    parameters.ThreadCount = 1;
    const auto encoder = Media::EncoderFactory::Create(&input, &output, &parameters);
    if (!encoder->IsUsable()) {
        state.SkipWithError("the encoder is not usable");
        return;
    }
    std::vector<Common::PacketBuffer*> frames;
    for (const auto& bytes : rawOf(work)) {
        frames.push_back(Media::MediaGlobal::LockBuffer(static_cast<int>(bytes.size()) + 64));
        frames.back()->Append(bytes.data(), static_cast<int>(bytes.size()));
    }
    std::int64_t count = 0;
    for (auto _ : state) {
        Common::PacketBuffer* const frame = frames[static_cast<std::size_t>(count) % frames.size()];
        frame->Pts() = isAudio(work) ? count * kFrameSamples * 625 / 3 : count * 10000000 / kRate;
        ++count;
        if (!encoder->Write(frame)) {
            state.SkipWithError("a frame is not accepted");
            break;
        }
        while (Common::PacketBuffer* const packet = encoder->Read()) {
            benchmark::DoNotOptimize(packet->Buffer());
            packet->Release();
        }
    }
    encoder->Drain();
    while (Common::PacketBuffer* const packet = encoder->Read()) {
        packet->Release();
    }
    for (Common::PacketBuffer* const frame : frames) {
        frame->Release();
    }
    state.SetItemsProcessed(state.iterations());
}

void setUp(AVCodecContext& context, const Work& work) {
    context.bit_rate = work.bitrate;
    context.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    context.thread_count = 1;
    if (isAudio(work)) {
        context.sample_fmt = AV_SAMPLE_FMT_FLTP;
        context.sample_rate = kSampleRate;
        av_channel_layout_default(&context.ch_layout, 2);
        context.time_base = {1, kSampleRate};
    } else {
        context.width = kWidth;
        context.height = kHeight;
        context.pix_fmt = AV_PIX_FMT_YUV420P;
        context.framerate = {kRate, 1};
        context.time_base = {1, kRate};
        context.sample_aspect_ratio = {1, 1};
    }
}

void fill(AVFrame& frame, const AVCodecContext& context, const std::vector<std::uint8_t>& bytes) {
    auto* const data = const_cast<std::uint8_t*>(bytes.data());
    frame.buf[0] = av_buffer_create(
        data, bytes.size(), [](void*, std::uint8_t*) {}, nullptr, AV_BUFFER_FLAG_READONLY);
    if (context.codec_type == AVMEDIA_TYPE_AUDIO) {
        frame.format = context.sample_fmt;
        frame.sample_rate = context.sample_rate;
        frame.ch_layout = context.ch_layout;
        frame.nb_samples = kFrameSamples;
        av_samples_fill_arrays(frame.data, frame.linesize, data, 2, kFrameSamples, context.sample_fmt, 1);
    } else {
        frame.format = context.pix_fmt;
        frame.width = context.width;
        frame.height = context.height;
        av_image_fill_arrays(frame.data, frame.linesize, data, context.pix_fmt, context.width, context.height,
                             1);
    }
}

void libavcodec(benchmark::State& state, const Work& work) {
    av_log_set_level(AV_LOG_ERROR);
    const AVCodec* const codec = avcodec_find_encoder_by_name(work.encoder);
    AVCodecContext* context = avcodec_alloc_context3(codec);
    setUp(*context, work);
    AVDictionary* options = nullptr;
    av_dict_parse_string(&options, work.options, "=", ":", 0);
    if (avcodec_open2(context, codec, &options) < 0) {
        state.SkipWithError("the encoder does not open");
        return;
    }
    av_dict_free(&options);
    const Raw& raw = rawOf(work);
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    std::int64_t count = 0;
    for (auto _ : state) {
        fill(*frame, *context, raw[static_cast<std::size_t>(count) % raw.size()]);
        frame->pts = isAudio(work) ? count * kFrameSamples : count;
        ++count;
        if (avcodec_send_frame(context, frame) < 0) {
            state.SkipWithError("a frame is not accepted");
            break;
        }
        av_frame_unref(frame);
        while (avcodec_receive_packet(context, packet) >= 0) {
            benchmark::DoNotOptimize(packet->data);
            av_packet_unref(packet);
        }
    }
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&context);
    state.SetItemsProcessed(state.iterations());
}

void EncodeH264_Mivra(benchmark::State& state) {
    mivra(state, kH264);
}
void EncodeH264_libavcodec(benchmark::State& state) {
    libavcodec(state, kH264);
}
void EncodeMpeg4_Mivra(benchmark::State& state) {
    mivra(state, kMpeg4);
}
void EncodeMpeg4_libavcodec(benchmark::State& state) {
    libavcodec(state, kMpeg4);
}
void EncodeAac_Mivra(benchmark::State& state) {
    mivra(state, kAac);
}
void EncodeAac_libavcodec(benchmark::State& state) {
    libavcodec(state, kAac);
}

// Both sides do the same frames: what one costs depends on what the encoder has learnt from those before.
constexpr int kFrames = 1200;
BENCHMARK(EncodeH264_Mivra)->Name("EncodeH264/Mivra")->Iterations(kFrames)->Unit(benchmark::kMicrosecond);
BENCHMARK(EncodeH264_libavcodec)
    ->Name("EncodeH264/libavcodec")
    ->Iterations(kFrames)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(EncodeMpeg4_Mivra)->Name("EncodeMpeg4/Mivra")->Iterations(kFrames)->Unit(benchmark::kMicrosecond);
BENCHMARK(EncodeMpeg4_libavcodec)
    ->Name("EncodeMpeg4/libavcodec")
    ->Iterations(kFrames)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(EncodeAac_Mivra)->Name("EncodeAac/Mivra")->Iterations(kFrames)->Unit(benchmark::kMicrosecond);
BENCHMARK(EncodeAac_libavcodec)
    ->Name("EncodeAac/libavcodec")
    ->Iterations(kFrames)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
