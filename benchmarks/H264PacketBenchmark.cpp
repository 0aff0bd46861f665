// Access units from the length-prefixed carriage to start codes and back, beside FFmpeg's bitstream filter,
// and beside a copy of the same bytes, which is as fast as it can be.

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
}

#include "mivra/mivra.h"

using namespace Mivra::Common;
using Mivra::Codecs::H264::H264ConfigurationParser;
using Mivra::Media::MediaGlobal;

namespace {

constexpr int LengthSize = 4;
constexpr int PicturesInGroup = 25;
// 1080p at 8 Mbit/s and 25 pictures a second.
constexpr int KeyFrameSize = 160000;
constexpr int PictureSize = 35000;
// As in a record, and as start codes carry them.
const unsigned char Record[] = {1,    0x42, 0,    0x28, 0xFF, 0xE1, 0,    6,    0x67, 0x42, 0x00,
                                0x28, 0xDA, 0x79, 1,    0,    4,    0x68, 0xCE, 0x38, 0x80};
const unsigned char Sets[] = {0,    0, 0, 1, 0x67, 0x42, 0,    0x28, 0xDA,
                              0x79, 0, 0, 0, 1,    0x68, 0xCE, 0x38, 0x80};

using Bytes = std::vector<unsigned char>;

/// A packet over bytes that somebody else keeps.
struct Packet {
    explicit Packet(Bytes& bytes)
        : buffer(new PacketBuffer(reinterpret_cast<char*>(bytes.data()), static_cast<int>(bytes.size()))) {}
    ~Packet() { buffer->Release(); }
    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;
    PacketBuffer* buffer;
};

/// A second of film, its pictures of so many slices: as random as entropy coding makes them.
std::vector<Bytes> group(bool annexB, int slices) {
    std::mt19937 random(1);
    std::vector<Bytes> pictures(PicturesInGroup);
    for (Bytes& picture : pictures) {
        const bool key = &picture == &pictures.front();
        const int size = (key ? KeyFrameSize : PictureSize) / slices;
        for (int slice = 0; slice < slices; ++slice) {
            const unsigned char prefix[] = {0, static_cast<unsigned char>(size >> 16),
                                            static_cast<unsigned char>(size >> 8),
                                            static_cast<unsigned char>(size)};
            const unsigned char code[] = {0, 0, 0, 1};
            picture.insert(picture.end(), annexB ? code : prefix, (annexB ? code : prefix) + LengthSize);
            picture.push_back(key ? 0x65 : 0x41);
            picture.push_back(slice == 0 ? 0x88 : 0x40);
            unsigned char last = 1;
            for (int i = 2; i < size; ++i) {
                // No two zeros in a row, so that nothing needs emulation prevention.
                const auto byte = static_cast<unsigned char>(random());
                last = last == 0 && byte == 0 ? 1 : byte;
                picture.push_back(i == size - 1 ? 0x80 : last);
            }
        }
    }
    return pictures;
}

void countBytes(benchmark::State& state, const std::vector<Bytes>& pictures) {
    std::int64_t bytes = 0;
    for (const Bytes& picture : pictures) {
        bytes += static_cast<std::int64_t>(picture.size());
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}

/// Converts a group, each access unit into a buffer of the pools.
template <typename Convert>
void convertGroup(benchmark::State& state, bool fromAnnexB, Convert convert) {
    std::vector<Bytes> pictures = group(fromAnnexB, static_cast<int>(state.range(0)));
    std::vector<std::unique_ptr<Packet>> packets;
    for (Bytes& picture : pictures) {
        packets.push_back(std::make_unique<Packet>(picture));
    }
    for (auto _ : state) {
        for (const auto& packet : packets) {
            PacketBuffer* const out = MediaGlobal::LockBuffer(packet->buffer->ActualSize() + 64);
            if (!convert(packet->buffer, out)) {
                state.SkipWithError("an access unit was not converted");
            }
            benchmark::DoNotOptimize(out->Buffer());
            benchmark::ClobberMemory();
            out->Release();
        }
    }
    countBytes(state, pictures);
}

void AvcToAnnexB_Mivra(benchmark::State& state) {
    convertGroup(state, false, [](PacketBuffer* in, PacketBuffer* out) {
        return H264ConfigurationParser::ConvertToAnnexBBitstream(in, out, LengthSize);
    });
}

void AvcToAnnexBWithSets_Mivra(benchmark::State& state) {
    convertGroup(state, false, [](PacketBuffer* in, PacketBuffer* out) {
        return H264ConfigurationParser::ConvertToAnnexBBitstream(in, out, LengthSize, Sets, sizeof Sets);
    });
}

void AnnexBToAvc_Mivra(benchmark::State& state) {
    convertGroup(state, true, [](PacketBuffer* in, PacketBuffer* out) {
        return H264ConfigurationParser::ConvertToAvcBitstream(reinterpret_cast<unsigned char*>(in->Buffer()),
                                                              in->ActualSize(), LengthSize, out, false);
    });
}

/// The filter takes references to its input, and makes its output.
void AvcToAnnexB_filter(benchmark::State& state) {
    const std::vector<Bytes> pictures = group(false, static_cast<int>(state.range(0)));
    AVBSFContext* filter = nullptr;
    av_bsf_alloc(av_bsf_get_by_name("h264_mp4toannexb"), &filter);
    filter->par_in->codec_id = AV_CODEC_ID_H264;
    filter->par_in->extradata =
        static_cast<std::uint8_t*>(av_mallocz(sizeof Record + AV_INPUT_BUFFER_PADDING_SIZE));
    filter->par_in->extradata_size = sizeof Record;
    std::memcpy(filter->par_in->extradata, Record, sizeof Record);
    av_bsf_init(filter);
    std::vector<AVPacket*> packets;
    for (const Bytes& picture : pictures) {
        packets.push_back(av_packet_alloc());
        av_new_packet(packets.back(), static_cast<int>(picture.size()));
        std::memcpy(packets.back()->data, picture.data(), picture.size());
    }
    AVPacket* const packet = av_packet_alloc();
    for (auto _ : state) {
        for (const AVPacket* in : packets) {
            av_packet_ref(packet, in);
            if (av_bsf_send_packet(filter, packet) != 0 || av_bsf_receive_packet(filter, packet) != 0) {
                state.SkipWithError("the filter refuses an access unit");
            }
            benchmark::DoNotOptimize(packet->data);
            benchmark::ClobberMemory();
            av_packet_unref(packet);
        }
    }
    AVPacket* last = packet;
    av_packet_free(&last);
    for (AVPacket*& in : packets) {
        av_packet_free(&in);
    }
    av_bsf_free(&filter);
    countBytes(state, pictures);
}

/// Into a buffer of the pools, too.
void copy(benchmark::State& state) {
    const std::vector<Bytes> pictures = group(false, static_cast<int>(state.range(0)));
    for (auto _ : state) {
        for (const Bytes& picture : pictures) {
            PacketBuffer* const out = MediaGlobal::LockBuffer(static_cast<int>(picture.size()) + 64);
            std::memcpy(out->Buffer(), picture.data(), picture.size());
            benchmark::DoNotOptimize(out->Buffer());
            benchmark::ClobberMemory();
            out->Release();
        }
    }
    countBytes(state, pictures);
}

BENCHMARK(AvcToAnnexB_Mivra)->Name("AvcToAnnexB/Mivra")->Arg(1)->Arg(8);
BENCHMARK(AvcToAnnexB_filter)->Name("AvcToAnnexB/h264_mp4toannexb")->Arg(1)->Arg(8);
BENCHMARK(copy)->Name("AvcToAnnexB/memcpy")->Arg(1)->Arg(8);
BENCHMARK(AvcToAnnexBWithSets_Mivra)->Name("AvcToAnnexBWithSets/Mivra")->Arg(1)->Arg(8);
BENCHMARK(AvcToAnnexB_filter)->Name("AvcToAnnexBWithSets/h264_mp4toannexb")->Arg(1)->Arg(8);
BENCHMARK(copy)->Name("AvcToAnnexBWithSets/memcpy")->Arg(1)->Arg(8);
// No filter goes back; the one that comes is the measure for both ways.
BENCHMARK(AnnexBToAvc_Mivra)->Name("AnnexBToAvc/Mivra")->Arg(1)->Arg(8);
BENCHMARK(AvcToAnnexB_filter)->Name("AnnexBToAvc/h264_mp4toannexb")->Arg(1)->Arg(8);
BENCHMARK(copy)->Name("AnnexBToAvc/memcpy")->Arg(1)->Arg(8);

}  // namespace
