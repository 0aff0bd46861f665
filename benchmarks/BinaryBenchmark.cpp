// Bit fields, Exp-Golomb codes and big-endian integers beside GStreamer's readers and writer.

#include <benchmark/benchmark.h>
#include <gst/base/gstbitreader.h>
#include <gst/base/gstbitwriter.h>
#include <gst/base/gstbytereader.h>

#include <cstdint>
#include <random>
#include <vector>

#include "mivra/mivra.h"

using namespace Mivra::Common;

namespace {

constexpr int DataSize = 1024 * 1024;
// Of 16.5 bits on average: half of the data, and too many for a branch predictor to learn.
constexpr int FieldCount = 256 * 1024;

struct Field {
    int width;
    std::uint32_t value;
};

/// Random bytes, and fields of 1 to 32 bits in random order.
struct Input {
    std::vector<char> bytes = std::vector<char>(DataSize);
    std::vector<Field> fields = std::vector<Field>(FieldCount);

    Input() {
        std::mt19937 random(1);
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        for (Field& field : fields) {
            field.width = static_cast<int>(random() % 32) + 1;
            field.value = static_cast<std::uint32_t>(random()) >> (32 - field.width);
        }
    }
    guint8* data() { return reinterpret_cast<guint8*>(bytes.data()); }
};

/// The buffer of a reader or writer of ours.
struct Packet {
    PacketBuffer* buffer;
    explicit Packet(std::vector<char>& bytes) : buffer(new PacketBuffer(bytes.data(), DataSize)) {}
    ~Packet() { buffer->Release(); }
};

void countItems(benchmark::State& state, std::int64_t items) {
    state.SetItemsProcessed(state.iterations() * items);
}

/// Exp-Golomb codes of values whose prefixes are 0 to 9 zeros long.
struct Codes {
    std::vector<char> bytes = std::vector<char>(DataSize);

    Codes() {
        std::mt19937 random(2);
        Packet packet(bytes);
        EndianBinaryWriter writer(packet.buffer);
        for (int i = 0; i < FieldCount; ++i) {
            writer.WriteUnsignedExpGolomb(static_cast<unsigned>(random()) >> (22 + random() % 10));
        }
    }
};

// Each pass is a function of its own over a reader that its caller made, as in a parser: what it reads adds
// up, and the reader's state is in memory when it returns.

[[gnu::noinline]] std::uint64_t readFields(EndianBinaryReader& reader, const std::vector<Field>& fields) {
    std::uint64_t sum = 0;
    for (const Field& field : fields) {
        sum += static_cast<std::uint64_t>(reader.ReadBits(field.width));
    }
    return sum;
}

[[gnu::noinline]] std::uint64_t readFields(GstBitReader& reader, const std::vector<Field>& fields) {
    std::uint64_t sum = 0;
    for (const Field& field : fields) {
        guint32 value = 0;
        gst_bit_reader_get_bits_uint32(&reader, &value, static_cast<guint>(field.width));
        sum += value;
    }
    return sum;
}

[[gnu::noinline]] std::uint64_t readCodes(EndianBinaryReader& reader) {
    std::uint64_t sum = 0;
    for (int i = 0; i < FieldCount; ++i) {
        sum += reader.ReadExpGolomb();
    }
    return sum;
}

[[gnu::noinline]] std::uint64_t readCodes(GstBitReader& reader) {
    std::uint64_t sum = 0;
    for (int i = 0; i < FieldCount; ++i) {
        guint zeros = 0;
        guint8 bit = 0;
        while (gst_bit_reader_get_bits_uint8(&reader, &bit, 1) && bit == 0) {
            ++zeros;
        }
        guint32 info = 0;
        gst_bit_reader_get_bits_uint32(&reader, &info, zeros);
        sum += (1u << zeros) - 1 + info;
    }
    return sum;
}

[[gnu::noinline]] void writeFields(EndianBinaryWriter& writer, const std::vector<Field>& fields) {
    for (const Field& field : fields) {
        writer.WriteBits(field.value, field.width);
    }
}

[[gnu::noinline]] void writeFields(GstBitWriter& writer, const std::vector<Field>& fields) {
    for (const Field& field : fields) {
        gst_bit_writer_put_bits_uint32(&writer, field.value, static_cast<guint>(field.width));
    }
}

template <typename T>
T readInteger(EndianBinaryReader& reader) {
    if constexpr (sizeof(T) == 2) {
        return reader.ReadUInt16();
    } else if constexpr (sizeof(T) == 4) {
        return reader.ReadUInt32();
    } else {
        return reader.ReadUInt64();
    }
}

template <typename T>
T readInteger(GstByteReader& reader) {
    T value = 0;
    if constexpr (sizeof(T) == 2) {
        gst_byte_reader_get_uint16_be(&reader, &value);
    } else if constexpr (sizeof(T) == 4) {
        gst_byte_reader_get_uint32_be(&reader, &value);
    } else {
        gst_byte_reader_get_uint64_be(&reader, &value);
    }
    return value;
}

template <typename T, typename Reader>
[[gnu::noinline]] std::uint64_t readIntegers(Reader& reader) {
    std::uint64_t sum = 0;
    for (int i = 0; i < DataSize / static_cast<int>(sizeof(T)); ++i) {
        sum += readInteger<T>(reader);
    }
    return sum;
}

void ReadFields_Mivra(benchmark::State& state) {
    Input input;
    Packet packet(input.bytes);
    EndianBinaryReader reader(packet.buffer);
    for (auto _ : state) {
        reader.Seek(0, Origin::Begin);
        benchmark::DoNotOptimize(readFields(reader, input.fields));
    }
    countItems(state, FieldCount);
}

void ReadFields_GstBitReader(benchmark::State& state) {
    Input input;
    GstBitReader reader;
    gst_bit_reader_init(&reader, input.data(), DataSize);
    for (auto _ : state) {
        gst_bit_reader_set_pos(&reader, 0);
        benchmark::DoNotOptimize(readFields(reader, input.fields));
    }
    countItems(state, FieldCount);
}

void ReadExpGolomb_Mivra(benchmark::State& state) {
    Codes codes;
    Packet packet(codes.bytes);
    EndianBinaryReader reader(packet.buffer);
    for (auto _ : state) {
        reader.Seek(0, Origin::Begin);
        benchmark::DoNotOptimize(readCodes(reader));
    }
    countItems(state, FieldCount);
}

void ReadExpGolomb_GstBitReader(benchmark::State& state) {
    Codes codes;
    GstBitReader reader;
    gst_bit_reader_init(&reader, reinterpret_cast<guint8*>(codes.bytes.data()), DataSize);
    for (auto _ : state) {
        gst_bit_reader_set_pos(&reader, 0);
        benchmark::DoNotOptimize(readCodes(reader));
    }
    countItems(state, FieldCount);
}

void WriteFields_Mivra(benchmark::State& state) {
    Input input;
    Packet packet(input.bytes);
    EndianBinaryWriter writer(packet.buffer);
    for (auto _ : state) {
        writer.Seek(0, Origin::Begin);
        writeFields(writer, input.fields);
        benchmark::ClobberMemory();
    }
    countItems(state, FieldCount);
}

void WriteFields_GstBitWriter(benchmark::State& state) {
    Input input;
    GstBitWriter writer;
    gst_bit_writer_init_with_data(&writer, input.data(), DataSize, FALSE);
    for (auto _ : state) {
        gst_bit_writer_set_pos(&writer, 0);
        writeFields(writer, input.fields);
        benchmark::ClobberMemory();
    }
    countItems(state, FieldCount);
}

template <typename T>
void ReadInteger_Mivra(benchmark::State& state) {
    Input input;
    Packet packet(input.bytes);
    EndianBinaryReader reader(packet.buffer);
    for (auto _ : state) {
        reader.Seek(0, Origin::Begin);
        benchmark::DoNotOptimize(readIntegers<T>(reader));
    }
    countItems(state, DataSize / static_cast<int>(sizeof(T)));
}

template <typename T>
void ReadInteger_GstByteReader(benchmark::State& state) {
    Input input;
    GstByteReader reader;
    gst_byte_reader_init(&reader, input.data(), DataSize);
    for (auto _ : state) {
        gst_byte_reader_set_pos(&reader, 0);
        benchmark::DoNotOptimize(readIntegers<T>(reader));
    }
    countItems(state, DataSize / static_cast<int>(sizeof(T)));
}

BENCHMARK(ReadFields_Mivra)->Name("ReadFields/Mivra");
BENCHMARK(ReadFields_GstBitReader)->Name("ReadFields/GstBitReader");
BENCHMARK(ReadExpGolomb_Mivra)->Name("ReadExpGolomb/Mivra");
BENCHMARK(ReadExpGolomb_GstBitReader)->Name("ReadExpGolomb/GstBitReader");
BENCHMARK(WriteFields_Mivra)->Name("WriteFields/Mivra");
BENCHMARK(WriteFields_GstBitWriter)->Name("WriteFields/GstBitWriter");
BENCHMARK(ReadInteger_Mivra<guint16>)->Name("ReadInteger16/Mivra");
BENCHMARK(ReadInteger_GstByteReader<guint16>)->Name("ReadInteger16/GstByteReader");
BENCHMARK(ReadInteger_Mivra<guint32>)->Name("ReadInteger32/Mivra");
BENCHMARK(ReadInteger_GstByteReader<guint32>)->Name("ReadInteger32/GstByteReader");
BENCHMARK(ReadInteger_Mivra<guint64>)->Name("ReadInteger64/Mivra");
BENCHMARK(ReadInteger_GstByteReader<guint64>)->Name("ReadInteger64/GstByteReader");

}  // namespace
