// Eight seconds of 1080p H.264, decoded, and decoded and scaled, beside the loop that calls the same
// libraries itself with the same settings; and ten seconds of AAC. Both sides open the codec, read every
// frame and drain.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include "mivra/mivra.h"

using namespace Mivra;
using Common::MediaType;
using Common::PacketBuffer;

namespace {

constexpr int kScaledWidth = 640;
constexpr int kScaledHeight = 360;

struct Stream {
    AVCodecParameters* parameters = avcodec_parameters_alloc();
    AVRational base{};
    std::vector<AVPacket*> packets;
    MediaType type;
    std::vector<PacketBuffer*> buffers;  // the same packets
};

void addPacket(Stream& stream, const AVPacket& packet) {
    stream.packets.push_back(av_packet_clone(&packet));
    AVPacket& own = *stream.packets.back();
    auto* const buffer = new PacketBuffer(reinterpret_cast<char*>(own.data), own.size);
    buffer->ActualSize() = own.size;
    buffer->Pts() = av_rescale_q(own.pts, stream.base, {1, 10000000});
    buffer->Dts() = av_rescale_q(own.dts, stream.base, {1, 10000000});
    buffer->KeyFrame() = (own.flags & AV_PKT_FLAG_KEY) != 0;
    stream.buffers.push_back(buffer);
}

void describe(Stream& stream) {
    const AVCodecParameters& from = *stream.parameters;
    const bool video = from.codec_type == AVMEDIA_TYPE_VIDEO;
    stream.type.ContentType() = video ? Common::ContentType_t::Video : Common::ContentType_t::Audio;
    stream.type.CodecId() = static_cast<Common::Codec_t>(from.codec_id);
    stream.type.Width() = from.width;
    stream.type.Height() = from.height;
    stream.type.SampleRate() = from.sample_rate;
    stream.type.Channels() = from.ch_layout.nb_channels;
    stream.type.CodecPrivateData() =
        static_cast<char*>(std::malloc(static_cast<std::size_t>(from.extradata_size)));
    std::memcpy(stream.type.CodecPrivateData(), from.extradata,
                static_cast<std::size_t>(from.extradata_size));
    stream.type.CodecPrivateDataSize() = from.extradata_size;
    stream.type.SetReorderingQueueDepth(from.video_delay);
}

/// Made by the ffmpeg program, once.
Stream makeStream(const std::string& arguments) {
    const std::string path = "/tmp/mivra-decoder-benchmark-" + std::to_string(::getpid()) + ".mp4";
    if (std::system(("ffmpeg -nostdin -v error -y " + arguments + " " + path).c_str()) != 0) {
        std::abort();
    }
    Stream stream;
    AVFormatContext* file = nullptr;
    if (avformat_open_input(&file, path.c_str(), nullptr, nullptr) < 0 ||
        avformat_find_stream_info(file, nullptr) < 0) {
        std::abort();
    }
    avcodec_parameters_copy(stream.parameters, file->streams[0]->codecpar);
    stream.base = file->streams[0]->time_base;
    AVPacket* const packet = av_packet_alloc();
    while (av_read_frame(file, packet) >= 0) {
        addPacket(stream, *packet);
        av_packet_unref(packet);
    }
    AVPacket* gone = packet;
    av_packet_free(&gone);
    avformat_close_input(&file);
    std::remove(path.c_str());
    describe(stream);
    return stream;
}

Stream& video() {
    static Stream stream = makeStream(
        "-f lavfi -i testsrc2=size=1920x1080:rate=25:duration=8 -vf noise=alls=8:allf=t -pix_fmt yuv420p "
        "-c:v libx264 "
        "-preset fast -b:v 8M -bf 2 -g 25");
    return stream;
}

Stream& audio() {
    static Stream stream = makeStream("-f lavfi -i anoisesrc=d=10:r=48000 -ac 2 -c:a aac -b:a 128k");
    return stream;
}

/// Decodes everything with the libraries themselves; take(frame) for each frame.
template <typename Take>
void decodeByHand(Stream& stream, int threads, const Take& take) {
    const AVCodec* const codec = avcodec_find_decoder(stream.parameters->codec_id);
    AVCodecContext* context = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(context, stream.parameters);
    context->pkt_timebase = stream.base;
    context->thread_count = threads;
    avcodec_open2(context, codec, nullptr);
    AVFrame* frame = av_frame_alloc();
    const auto readAll = [&] {
        while (avcodec_receive_frame(context, frame) >= 0) {
            take(*frame);
            av_frame_unref(frame);
        }
    };
    for (const AVPacket* const packet : stream.packets) {
        avcodec_send_packet(context, packet);
        readAll();
    }
    avcodec_send_packet(context, nullptr);
    readAll();
    av_frame_free(&frame);
    avcodec_free_context(&context);
}

void decodeByMivra(Stream& stream, int threads, MediaType* output, std::int64_t& frames) {
    static const bool s_loaded = FFmpeg::FfmpegProxy::Load();  // held, as by any program with a second engine
    if (!s_loaded) {
        std::abort();
    }
    Media::DecoderParameters parameters;
    parameters.PreferredMediaFramework = Common::MediaFramework::FFmpeg;
    parameters.AllowHardwareAcceleration = false;
    parameters.ThreadCount = threads;
    const auto decoder = Media::DecoderFactory::Create(&stream.type, output, &parameters);
    const auto readAll = [&] {
        while (PacketBuffer* const frame = decoder->Read()) {
            ++frames;
            frame->Release();
        }
    };
    for (PacketBuffer* const packet : stream.buffers) {
        decoder->Write(packet);
        readAll();
    }
    decoder->Drain();
    readAll();
}

void report(benchmark::State& state, std::int64_t frames) {
    state.SetItemsProcessed(frames);
}

void DecodePictures_Mivra(benchmark::State& state) {
    std::int64_t frames = 0;
    for (auto _ : state) {
        decodeByMivra(video(), static_cast<int>(state.range(0)), nullptr, frames);
    }
    report(state, frames);
}

void DecodePictures_ffmpeg(benchmark::State& state) {
    std::int64_t frames = 0;
    for (auto _ : state) {
        decodeByHand(video(), static_cast<int>(state.range(0)), [&](AVFrame&) { ++frames; });
    }
    report(state, frames);
}

void DecodeScaled_Mivra(benchmark::State& state) {
    MediaType output;
    output.Width() = kScaledWidth;
    output.Height() = kScaledHeight;
    output.PixelFormat() = Common::PixelFormat_t::BGRA;
    std::int64_t frames = 0;
    for (auto _ : state) {
        decodeByMivra(video(), static_cast<int>(state.range(0)), &output, frames);
    }
    report(state, frames);
}

void DecodeScaled_ffmpeg(benchmark::State& state) {
    std::int64_t frames = 0;
    for (auto _ : state) {
        SwsContext* const scaler = sws_getContext(1920, 1080, AV_PIX_FMT_YUV420P, kScaledWidth, kScaledHeight,
                                                  AV_PIX_FMT_BGRA, SWS_BICUBIC, nullptr, nullptr, nullptr);
        std::uint8_t* planes[4] = {};
        int strides[4] = {};
        av_image_alloc(planes, strides, kScaledWidth, kScaledHeight, AV_PIX_FMT_BGRA, 64);
        decodeByHand(video(), static_cast<int>(state.range(0)), [&](AVFrame& frame) {
            ++frames;
            sws_scale(scaler, frame.data, frame.linesize, 0, frame.height, planes, strides);
        });
        av_freep(&planes[0]);
        sws_freeContext(scaler);
    }
    report(state, frames);
}

/// Samples in one piece, as the engine gives them.
void DecodeSamples_ffmpeg(benchmark::State& state) {
    std::int64_t frames = 0;
    std::vector<std::uint8_t> samples;
    for (auto _ : state) {
        decodeByHand(audio(), 1, [&](AVFrame& frame) {
            ++frames;
            const auto bytes = static_cast<std::size_t>(frame.nb_samples) * sizeof(float);
            samples.resize(bytes * 2);
            std::memcpy(samples.data(), frame.extended_data[0], bytes);
            std::memcpy(samples.data() + bytes, frame.extended_data[1], bytes);
        });
    }
    report(state, frames);
}

void DecodeSamples_Mivra(benchmark::State& state) {
    std::int64_t frames = 0;
    for (auto _ : state) {
        decodeByMivra(audio(), 1, nullptr, frames);
    }
    report(state, frames);
}

/// What an engine costs to make and to end.
void DecoderLife_Mivra(benchmark::State& state) {
    std::int64_t frames = 0;
    Stream empty;
    empty.type = video().type;
    for (auto _ : state) {
        decodeByMivra(empty, 1, nullptr, frames);
    }
}

void DecoderLife_ffmpeg(benchmark::State& state) {
    Stream empty;
    avcodec_parameters_copy(empty.parameters, video().parameters);
    for (auto _ : state) {
        decodeByHand(empty, 1, [](AVFrame&) {});
    }
}

BENCHMARK(DecodePictures_Mivra)
    ->Name("DecodePictures/Mivra")
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(DecodePictures_ffmpeg)
    ->Name("DecodePictures/ffmpeg")
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeScaled_Mivra)
    ->Name("DecodeScaled/Mivra")
    ->Arg(1)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeScaled_ffmpeg)
    ->Name("DecodeScaled/ffmpeg")
    ->Arg(1)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeSamples_Mivra)
    ->Name("DecodeSamples/Mivra")
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeSamples_ffmpeg)
    ->Name("DecodeSamples/ffmpeg")
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(DecoderLife_Mivra)->Name("DecoderLife/Mivra")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(DecoderLife_ffmpeg)->Name("DecoderLife/ffmpeg")->MeasureProcessCPUTime()->UseRealTime();

}  // namespace
