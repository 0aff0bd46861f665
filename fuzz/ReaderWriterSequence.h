#pragma once

// A sequence of reader and writer operations, taken from bytes, against a model that keeps one bit at a time.
// A difference is a std::logic_error.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "mivra/common/binary/EndianBinaryReader.h"
#include "mivra/common/binary/EndianBinaryWriter.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/VersatileBufferStream.h"
#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Test {

using Common::EndianBinaryReader;
using Common::EndianBinaryWriter;
using Common::Endianness;
using Common::Origin;

/// The bytes as single bits, most significant first, and what each operation has to do to them. An operation
/// that has to fail gives nothing.
class BitModel {
public:
    using Result = std::optional<std::uint64_t>;

    BitModel(const std::vector<char>& bytes, std::int64_t readable) : end(readable * 8) {
        for (const char byte : bytes) {
            for (int i = 7; i >= 0; --i) {
                bits.push_back((byte >> i & 1) != 0);
            }
        }
    }

    Result readBits(int count, bool little) {
        if (count < 0 || count > 64 || cursor + count > end) return {};
        std::uint64_t value = 0;
        for (int i = 0; i < count; ++i) {
            const std::uint64_t bit = bits[static_cast<std::size_t>(cursor++)];
            value = little ? value | bit << i : value << 1 | bit;
        }
        return value;
    }
    Result readBytes(int count, bool little) {
        if (count < 0 || count > 8 || !roundDown(count, end)) return {};
        std::uint64_t value = 0;
        for (int i = 0; i < count; ++i) {
            const std::uint64_t byte = *readBits(8, false);
            value = little ? value | byte << 8 * i : value << 8 | byte;
        }
        return value;
    }
    Result readExpGolomb() {
        const std::int64_t start = cursor;
        int zeros = 0;
        while (cursor < end && !bits[static_cast<std::size_t>(cursor)] && zeros <= 32) {
            ++cursor;
            ++zeros;
        }
        if (zeros > 32) cursor = start;
        if (zeros > 32 || cursor >= end) return {};
        ++cursor;
        const Result info = readBits(zeros, false);
        if (!info) return {};
        return (std::uint64_t{1} << zeros) - 1 + *info;
    }
    bool writeBits(std::uint64_t value, int count, bool little) {
        if (count < 0 || count > 64 || cursor + count > size()) return false;
        for (int i = 0; i < count; ++i) {
            bits[static_cast<std::size_t>(cursor++)] = (value >> (little ? i : count - 1 - i) & 1) != 0;
        }
        touch(count > 0 ? cursor : 0);
        return true;
    }
    bool writeBytes(std::uint64_t value, int count, bool little) {
        if (count < 0 || count > 8 || !roundDown(count, size())) return false;
        for (int i = 0; i < count; ++i) {
            writeBits(value >> 8 * (little ? i : count - 1 - i), 8, false);
        }
        return true;
    }
    bool writeCode(std::uint64_t codeNumberPlusOne) {
        int width = 0;
        while (width < 64 && codeNumberPlusOne >> width != 0) {
            ++width;
        }
        if (width == 0 || cursor + 2 * width - 1 > size()) return false;
        return writeBits(0, width - 1, false) && writeBits(codeNumberPlusOne, width, false);
    }
    bool seekBits(std::int64_t target, std::int64_t limit) {
        if (target < 0 || target > limit) return false;
        cursor = target;
        return true;
    }

    std::int64_t size() const { return static_cast<std::int64_t>(bits.size()); }
    std::string bytes() const {
        std::string result;
        for (std::size_t i = 0; i < bits.size(); i += 8) {
            int byte = 0;
            for (std::size_t k = 0; k < 8; ++k) {
                byte = byte << 1 | (bits[i + k] ? 1 : 0);
            }
            result += static_cast<char>(byte);
        }
        return result;
    }

    std::int64_t cursor = 0;
    std::int64_t end;           // of what can be read, in bits
    bool growsOnWrite = false;  // what is written can be read

private:
    // Byte operations begin at the current byte; of no bytes they do not even that.
    bool roundDown(int count, std::int64_t limit) {
        if (cursor / 8 + count > limit / 8) return false;
        if (count > 0) cursor -= cursor % 8;
        return true;
    }
    void touch(std::int64_t to) {
        if (growsOnWrite) end = std::max(end, (to + 7) / 8 * 8);
    }

    std::vector<bool> bits;
};

/// Where the operations work: the paths through a window and those without one.
enum class Ground { Packet, Slice, Chain, OtherStream };
constexpr int kGrounds = 4;

/// A stream of another class: it has no window.
struct OtherStream : Common::VersatileBufferStream {
    using VersatileBufferStream::VersatileBufferStream;
};

class ReaderWriterSequence {
public:
    static void Run(const std::uint8_t* data, std::size_t size) { ReaderWriterSequence(data, size).run(); }

private:
    ReaderWriterSequence(const std::uint8_t* input, std::size_t inputSize)
        : next(input),
          left(inputSize),
          ground(static_cast<Ground>(take() % kGrounds)),
          memory(initialBytes()),
          packet(new Common::PacketBuffer(memory.data(), static_cast<int>(memory.size()))),
          model(memory, readable()) {
        if (ground == Ground::Packet) {
            packet->ActualSize() = static_cast<int>(model.end / 8);
            model.growsOnWrite = true;
        } else {
            stream = makeStream();
            reader = std::make_unique<EndianBinaryReader>(stream);
            writer = std::make_unique<EndianBinaryWriter>(stream);
        }
    }
    ~ReaderWriterSequence() {
        reader.reset();
        writer.reset();
        stream.reset();
        packet->Release();
    }

    std::uint8_t take() {
        if (left == 0) return 0;
        --left;
        return *next++;
    }
    std::uint64_t takeValue() {
        static constexpr std::uint64_t kEdges[] = {0, INT32_MAX, std::uint64_t{1} << 31, UINT32_MAX};
        const std::uint8_t kind = take();
        if (kind >= 252) return kEdges[kind - 252];
        std::uint64_t value = 0;
        for (int bytes = kind % 9; bytes > 0; --bytes) {
            value = value << 8 | take();
        }
        return value;
    }
    std::vector<char> initialBytes() {
        std::vector<char> bytes(take() % 64);
        const std::uint8_t fill = take();
        for (char& byte : bytes) {
            byte = static_cast<char>(fill == 0xA5 ? take() : fill);
        }
        return bytes;
    }
    std::int64_t readable() {
        const auto size = static_cast<std::int64_t>(memory.size());
        return ground == Ground::Packet && size > 0 ? take() % (size + 1) : size;
    }
    std::shared_ptr<Common::VersatileBufferStream> makeStream() {
        const int size = static_cast<int>(memory.size());
        if (ground == Ground::Slice) return std::make_shared<Common::VersatileBufferStream>(packet, 0, size);
        if (ground == Ground::OtherStream) return std::make_shared<OtherStream>(packet, 0, size);
        auto chain = std::make_shared<Common::VersatileBufferStream>();
        for (int i = 0; i < size; i += 3) {
            chain->Append(packet, i, std::min(3, size - i));
        }
        return chain;
    }

    void run() {
        while (left > 0) {
            step(take());
            check(model.bytes() == std::string(memory.data(), memory.size()), "bytes");
        }
    }

    void step(std::uint8_t operation) {
        const int count = take() % 70 - 2;
        switch (operation % 11) {
            case 0:
                reads([&](auto& r) { return r.ReadBits(count); },
                      [&] { return model.readBits(count, little); });
                break;
            case 1:
                reads([&](auto& r) { return r.ReadInt64(count % 11, other()); },
                      [&] { return model.readBytes(count % 11, !little); });
                break;
            case 2:
                readsWhole(count % 4);
                break;
            case 3:
                reads([](auto& r) { return static_cast<std::int64_t>(r.ReadExpGolomb()); },
                      [&] { return cut(model.readExpGolomb()); });
                break;
            case 4:
                reads([](auto& r) { return r.ReadSignedExpGolomb(); }, [&] { return signedCode(); });
                break;
            case 5:
                readsText(count);
                break;
            case 6:
                seeks(count);
                break;
            case 7:
                writesValue(count);
                break;
            case 8:
                writesCode(count);
                break;
            case 9:
                fills(count);
                break;
            default:
                little = !little;
                if (reader) reader->SetEndiannes(order());
                if (writer) writer->SetEndiannes(order());
        }
    }

    void readsWhole(int kind) {
        static constexpr int Widths[] = {1, 2, 4, 8};
        reads(
            [&](EndianBinaryReader& r) -> std::int64_t {
                if (kind == 1) return r.ReadUInt16();
                if (kind == 2) return r.ReadUInt32();
                return kind == 3 ? r.ReadInt64() : r.ReadByte();
            },
            [&] { return model.readBytes(Widths[kind < 0 ? 0 : kind], little); });
    }
    void readsText(int count) {
        std::string got;
        std::string expected;
        reads([&](auto& r) { return r.Read(got, count); },
              [&]() -> BitModel::Result {
                  if (count < 0 || model.cursor / 8 + count > model.end / 8) return {};
                  for (int i = 0; i < count; ++i) {
                      expected += static_cast<char>(*model.readBytes(1, false));
                  }
                  return static_cast<std::uint64_t>(count);
              });
        check(got == expected, "text");
    }
    void seeks(int count) {
        const Origin origin = static_cast<Origin>(take() % 3);
        const bool byBits = take() % 2 == 0;
        const std::int64_t unit = byBits ? 1 : 8;
        writes([&](auto& w) { byBits ? w.SeekBits(count, origin) : w.Seek(count, origin); },
               [&] {
                   const std::int64_t here = byBits ? model.cursor : model.cursor / 8 * 8;
                   const std::int64_t target = origin == Origin::Begin     ? count * unit
                                               : origin == Origin::Current ? here + count * unit
                                                                           : model.size() - count * unit;
                   return model.seekBits(target, model.size());
               });
    }
    void writesValue(int count) {
        const std::uint64_t value = takeValue();
        const auto asSigned = static_cast<std::int64_t>(value);
        switch (take() % 4) {
            case 0:
                writes([&](auto& w) { w.WriteBits(asSigned, count); },
                       [&] { return model.writeBits(value, count, little); });
                break;
            case 1:
                writes([&](auto& w) { w.Write(asSigned, count % 11); },
                       [&] { return model.writeBytes(value, count % 11, little); });
                break;
            case 2:
                writes([&](auto& w) { w.Write(static_cast<std::uint32_t>(value)); },
                       [&] { return model.writeBytes(value, 4, little); });
                break;
            default:
                writes([&](auto& w) { w.Write(asSigned); },
                       [&] { return model.writeBytes(value, 8, little); });
        }
    }
    void writesCode(int count) {
        const auto value = static_cast<std::uint32_t>(takeValue());
        if (count % 2 == 0) {
            writes([&](auto& w) { w.WriteUnsignedExpGolomb(value); },
                   [&] { return model.writeCode(std::uint64_t{value} + 1); });
            return;
        }
        const std::int64_t wide = static_cast<std::int32_t>(value);
        writes(
            [&](auto& w) { w.WriteSignedExpGolomb(static_cast<int>(wide)); },
            [&] { return model.writeCode(static_cast<std::uint64_t>(wide < 0 ? 1 - 2 * wide : 2 * wide)); });
    }
    void fills(int count) {
        const std::uint8_t value = take();
        writes([&](auto& w) { w.Fill(value, count); },
               [&] {
                   if (count < 0 || model.cursor / 8 + count > model.size() / 8) return false;
                   for (int i = 0; i < count; ++i) {
                       model.writeBytes(value, 1, false);
                   }
                   return true;
               });
    }

    static BitModel::Result cut(BitModel::Result value) {
        if (value) value = static_cast<std::uint32_t>(*value);
        return value;
    }
    BitModel::Result signedCode() {
        const BitModel::Result code = model.readExpGolomb();
        if (!code) return {};
        const auto half = static_cast<std::int64_t>((*code + 1) / 2);
        return static_cast<std::uint64_t>(static_cast<std::int32_t>(*code % 2 == 1 ? half : -half));
    }

    template <typename Actual, typename Expected>
    void reads(Actual actual, Expected expected) {
        perform(reader, actual, [&]() -> BitModel::Result {
            if (model.cursor / 8 > model.end / 8) return {};  // the packet's position is behind its data
            return expected();
        });
    }
    template <typename Actual, typename Expected>
    void writes(Actual actual, Expected expected) {
        perform(
            writer,
            [&](EndianBinaryWriter& w) -> std::int64_t {
                actual(w);
                return 0;
            },
            [&] { return expected() ? BitModel::Result(0) : BitModel::Result(); });
    }

    template <typename Worker, typename Actual, typename Expected>
    void perform(std::unique_ptr<Worker>& shared, Actual actual, Expected expected) {
        const BitModel::Result wanted = expected();
        BitModel::Result got;
        try {
            std::unique_ptr<Worker> own;
            if (!shared) {
                own = std::make_unique<Worker>(packet);
                own->SetEndiannes(order());
            }
            Worker& worker = shared ? *shared : *own;
            try {
                got = static_cast<std::uint64_t>(actual(worker));
            } catch (const Common::GeneralException&) {
            }
            check(worker.FullBitPosition() == model.cursor, "cursor");
        } catch (const Common::GeneralException&) {
        }
        check(wanted == got, "result");
        if (ground == Ground::Packet) {
            check(packet->Position() * 8 + packet->BitPosition() == model.cursor, "cursor of the packet");
            check(packet->ActualSize() == model.end / 8, "size of the packet");
        }
    }

    static void check(bool same, const char* what) {
        if (!same) throw std::logic_error(std::string("the model has another ") + what);
    }
    Endianness order() const { return little ? Endianness::Little : Endianness::Big; }
    Endianness other() const { return little ? Endianness::Big : Endianness::Little; }

    const std::uint8_t* next;
    std::size_t left;
    Ground ground;
    std::vector<char> memory;
    Common::PacketBuffer* packet;
    BitModel model;
    std::shared_ptr<Common::VersatileBufferStream> stream;
    std::unique_ptr<EndianBinaryReader> reader;
    std::unique_ptr<EndianBinaryWriter> writer;
    bool little = false;
};

}  // namespace Mivra::Test
