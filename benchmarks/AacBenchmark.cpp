// An ADTS header in front of an AAC frame, beside FFmpeg's muxer for ADTS.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "mivra/mivra.h"

using namespace Mivra;

namespace {

/// What a frame goes to: a stretch of memory that is written from its beginning again when it is full.
constexpr int SinkSize = 64 * 1024;

std::vector<char> payload(const benchmark::State& state) {
    return std::vector<char>(static_cast<std::size_t>(state.range(0)), 'p');
}

/// Each frame is a packet of a pool, as a sink that writes ADTS takes it, and goes back there.
void AdtsFrame_Mivra(benchmark::State& state) {
    std::vector<char> bytes = payload(state);
    auto* const in = new Common::PacketBuffer(bytes.data(), static_cast<int>(bytes.size()));
    Common::MediaType type;
    type.SampleRate() = 48000;
    type.Channels() = 2;
    Codecs::AAC::ConfigurationParser parser;
    parser.Parse(&type);
    std::int64_t time = 0;
    for (auto _ : state) {
        in->Pts() = in->Dts() = time++;
        Common::PacketBuffer* out = nullptr;
        parser.AdtsInsertHeader(in, out);
        benchmark::DoNotOptimize(out->Buffer());
        benchmark::ClobberMemory();
        out->Release();
    }
    in->Release();
    state.SetItemsProcessed(state.iterations());
}

/// The muxer behind av_write_frame, into memory.
void AdtsFrame_ffmpeg(benchmark::State& state) {
    std::vector<char> bytes = payload(state);
    AVFormatContext* muxer = nullptr;
    avformat_alloc_output_context2(&muxer, nullptr, "adts", nullptr);
    AVStream* const stream = avformat_new_stream(muxer, nullptr);
    stream->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
    stream->codecpar->codec_id = AV_CODEC_ID_AAC;
    stream->codecpar->sample_rate = 48000;
    av_channel_layout_default(&stream->codecpar->ch_layout, 2);
    stream->codecpar->extradata = static_cast<std::uint8_t*>(av_mallocz(2 + AV_INPUT_BUFFER_PADDING_SIZE));
    stream->codecpar->extradata_size = 2;
    std::memcpy(stream->codecpar->extradata, "\x11\x90", 2);
    const auto discard = [](void*, std::uint8_t*, int size) { return size; };
    auto* const memory = static_cast<unsigned char*>(av_malloc(SinkSize));
    muxer->pb = avio_alloc_context(memory, SinkSize, 1, nullptr, nullptr, discard, nullptr);
    if (avformat_write_header(muxer, nullptr) < 0) {
        state.SkipWithError("the muxer refuses the stream");
    }
    AVPacket* packet = av_packet_alloc();
    packet->data = reinterpret_cast<std::uint8_t*>(bytes.data());
    packet->size = static_cast<int>(bytes.size());
    std::int64_t time = 0;
    for (auto _ : state) {
        packet->pts = packet->dts = time++;
        if (av_write_frame(muxer, packet) < 0) {
            state.SkipWithError("the muxer refuses a frame");
            break;
        }
        benchmark::ClobberMemory();
    }
    packet->data = nullptr;
    av_packet_free(&packet);
    av_freep(&muxer->pb->buffer);
    avio_context_free(&muxer->pb);
    avformat_free_context(muxer);
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(AdtsFrame_Mivra)->Name("AdtsFrame/Mivra")->Arg(200)->Arg(1000);
BENCHMARK(AdtsFrame_ffmpeg)->Name("AdtsFrame/ffmpeg")->Arg(200)->Arg(1000);

}  // namespace
