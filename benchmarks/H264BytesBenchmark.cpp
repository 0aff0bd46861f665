// Start codes and emulation prevention of H.264 beside GStreamer's parser, loops by the byte, and memcpy.

#include <benchmark/benchmark.h>

#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth264parser.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "mivra/mivra.h"

using namespace Mivra::Codecs::H264;

namespace {

using Parser = H264ConfigurationParser;
using Bytes = std::vector<unsigned char>;

/// Random bytes, as coded slices look, in which emulation prevention has its due place.
Bytes payload(std::size_t size) {
    Bytes bytes(size);
    std::mt19937 random(264);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(random());
    }
    bytes.back() = 0x80;
    return bytes;
}

Bytes unit(std::size_t size) {
    const Bytes in = payload(size);
    unsigned char* out = nullptr;
    int outSize = 0;
    Parser::ApplyForbiddenSequenceEmulation(in.data(), static_cast<int>(size), out, outSize);
    Bytes bytes(out, out + outSize);
    std::free(out);
    bytes.resize(size, 0x80);
    return bytes;
}

/// Slices of the size behind start codes, a megabyte of them or one at least.
Bytes stream(std::size_t unitSize) {
    Bytes bytes;
    const Bytes one = unit(unitSize);
    do {
        bytes.insert(bytes.end(), {0, 0, 0, 1, 0x41});
        bytes.insert(bytes.end(), one.begin(), one.end());
    } while (bytes.size() < 1024 * 1024);
    return bytes;
}

std::size_t argument(const benchmark::State& state) {
    return static_cast<std::size_t>(state.range(0));
}

void countBytes(benchmark::State& state, std::size_t bytes) {
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

// Goes through all units: there is none of the type.
void ScanUnits_Mivra(benchmark::State& state) {
    Bytes in = stream(argument(state));
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            Parser::FindNalUnit(in.data(), static_cast<int>(in.size()), NalUnitTypes::SliceIdr));
    }
    countBytes(state, in.size());
}

void ScanUnits_Gst(benchmark::State& state) {
    const Bytes in = stream(argument(state));
    GstH264NalParser* parser = gst_h264_nal_parser_new();
    for (auto _ : state) {
        GstH264NalUnit nal{};
        guint offset = 0;
        while (gst_h264_parser_identify_nalu(parser, in.data(), offset, in.size(), &nal) ==
               GST_H264_PARSER_OK) {
            offset = nal.offset + nal.size;
        }
        benchmark::DoNotOptimize(nal);
    }
    gst_h264_nal_parser_free(parser);
    countBytes(state, in.size());
}

[[gnu::noinline]] std::size_t removeByteByByte(const Bytes& in, unsigned char* out) {
    unsigned char* write = out;
    int zeros = 0;
    for (const unsigned char byte : in) {
        if (zeros >= 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        *write++ = byte;
    }
    return static_cast<std::size_t>(write - out);
}

[[gnu::noinline]] std::size_t insertByteByByte(const Bytes& in, unsigned char* out) {
    unsigned char* write = out;
    int zeros = 0;
    for (const unsigned char byte : in) {
        if (zeros == 2 && byte <= 3) {
            *write++ = 3;
            zeros = 0;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        *write++ = byte;
    }
    return static_cast<std::size_t>(write - out);
}

std::size_t copy(const Bytes& in, unsigned char* out) {
    std::memcpy(out, in.data(), in.size());
    return in.size();
}

using Conversion = bool (*)(const unsigned char*, int, unsigned char*&, int&);

template <Conversion Convert, Bytes (*Input)(std::size_t)>
void Emulation_Mivra(benchmark::State& state) {
    const Bytes in = Input(argument(state));
    for (auto _ : state) {
        unsigned char* out = nullptr;
        int outSize = 0;
        Convert(in.data(), static_cast<int>(in.size()), out, outSize);
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
        std::free(out);
    }
    countBytes(state, in.size());
}

// Peers take memory for each result, as the library does.
template <std::size_t (*Convert)(const Bytes&, unsigned char*), Bytes (*Input)(std::size_t)>
void Emulation_Peer(benchmark::State& state) {
    const Bytes in = Input(argument(state));
    for (auto _ : state) {
        auto* out = static_cast<unsigned char*>(std::malloc(in.size() + in.size() / 2 + 1));
        benchmark::DoNotOptimize(out);
        benchmark::DoNotOptimize(Convert(in, out));
        benchmark::ClobberMemory();
        std::free(out);
    }
    countBytes(state, in.size());
}

constexpr Conversion Remove = Parser::RemoveForbiddenSequenceEmulation;
constexpr Conversion Apply = Parser::ApplyForbiddenSequenceEmulation;

void unitSizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(1500)->Arg(64 * 1024)->Arg(1024 * 1024);
}

BENCHMARK(ScanUnits_Mivra)->Name("ScanUnits/Mivra")->Apply(unitSizes);
BENCHMARK(ScanUnits_Gst)->Name("ScanUnits/GStreamer")->Apply(unitSizes);
BENCHMARK((Emulation_Mivra<Remove, unit>))->Name("RemoveEmulation/Mivra")->Apply(unitSizes);
BENCHMARK((Emulation_Peer<removeByteByByte, unit>))->Name("RemoveEmulation/ByteLoop")->Apply(unitSizes);
BENCHMARK((Emulation_Peer<copy, unit>))->Name("RemoveEmulation/memcpy")->Apply(unitSizes);
BENCHMARK((Emulation_Mivra<Apply, payload>))->Name("ApplyEmulation/Mivra")->Apply(unitSizes);
BENCHMARK((Emulation_Peer<insertByteByByte, payload>))->Name("ApplyEmulation/ByteLoop")->Apply(unitSizes);
BENCHMARK((Emulation_Peer<copy, payload>))->Name("ApplyEmulation/memcpy")->Apply(unitSizes);

}  // namespace
