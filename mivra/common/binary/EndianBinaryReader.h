#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "mivra/common/binary/BigEndianBitConverter.h"
#include "mivra/common/binary/ByteSwap.h"
#include "mivra/common/binary/LittleEndianBitConverter.h"
#include "mivra/common/buffers/IStream.h"
#include "mivra/common/buffers/StreamWindow.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

class PacketBuffer;

/// Reads bytes, integers, floating-point values, bit fields and Exp-Golomb codes from a stream or the valid
/// bytes of a PacketBuffer. Owned by the thread that reads, and no other thread uses the stream meanwhile.
///
/// Byte reads begin at the current byte whatever the bit position, which becomes 0. Integers of fewer bytes
/// than their type are not sign-extended; byte counts are 0 to 8. Every failure is a GeneralException: what
/// exceeds the stream, a negative count and a count out of range consume nothing. An order is Little, Big, or
/// any other value for the reader's own.
class MIVRA_API EndianBinaryReader {
public:
    /// Begins at the buffer's Position and BitPosition and keeps them at the first unread bit. Holds a
    /// reference on the buffer.
    explicit EndianBinaryReader(PacketBuffer* buffer);
    /// Begins at the stream's position.
    explicit EndianBinaryReader(std::shared_ptr<IStream> source);
    EndianBinaryReader(const EndianBinaryReader&) = delete;
    EndianBinaryReader& operator=(const EndianBinaryReader&) = delete;
    ~EndianBinaryReader();

    /// The order of new readers in this process; big at first. Set it while no other thread makes readers.
    static Endianness& GlobalEndiannes() { return g_nGlobalEndiannes; }
    void SetEndiannes(Endianness order);
    Endianness GetEndianness() const { return converter->GetEndianness(); }

    std::shared_ptr<IStream> BaseStream() const { return stream; }
    /// In bytes, in bits of the current byte (0 to 7), and both in bits.
    std::int64_t Position() const;
    int BitPosition() const;
    std::int64_t FullBitPosition() const { return Position() * 8 + BitPosition(); }
    std::int64_t Length() const;
    /// As the stream's own operations.
    std::int64_t Seek(std::int64_t offset, Origin origin);
    std::int64_t SeekBits(std::int64_t bitOffset, Origin origin);

    /// Exactly count bytes; the result is count.
    int Read(unsigned char* dst, int count);
    int Read(char* dst, int count) { return Read(reinterpret_cast<unsigned char*>(dst), count); }
    /// Replaces the string.
    int Read(std::string& dst, int count);

    bool ReadBoolean() { return readWhole<std::uint8_t>() != 0; }
    unsigned char ReadByte() { return readWhole<std::uint8_t>(); }
    char ReadChar() { return static_cast<char>(readWhole<std::uint8_t>()); }
    std::int16_t ReadInt16() { return static_cast<std::int16_t>(readWhole<std::uint16_t>()); }
    std::uint16_t ReadUInt16() { return readWhole<std::uint16_t>(); }
    wchar_t ReadWChar() { return static_cast<wchar_t>(readWhole<std::uint16_t>()); }
    std::int32_t ReadInt32() { return static_cast<std::int32_t>(readWhole<std::uint32_t>()); }
    std::uint32_t ReadUInt32() { return readWhole<std::uint32_t>(); }
    std::int64_t ReadInt64() { return static_cast<std::int64_t>(readWhole<std::uint64_t>()); }
    std::uint64_t ReadUInt64() { return readWhole<std::uint64_t>(); }
    float ReadSingle() { return EndianBitConverter::Int32BitsToSingle(ReadInt32()); }
    double ReadDouble() { return EndianBitConverter::Int64BitsToDouble(ReadInt64()); }

    std::int32_t ReadInt32(int byteCount) { return static_cast<std::int32_t>(ReadInt64(byteCount)); }
    std::uint32_t ReadUInt32(int byteCount) { return static_cast<std::uint32_t>(ReadInt64(byteCount)); }
    std::int64_t ReadInt64(int byteCount) { return readBytes(byteCount, *converter); }
    std::int32_t ReadInt32(int byteCount, Endianness order) {
        return static_cast<std::int32_t>(ReadInt64(byteCount, order));
    }
    std::uint32_t ReadUInt32(int byteCount, Endianness order) {
        return static_cast<std::uint32_t>(ReadInt64(byteCount, order));
    }
    std::int64_t ReadInt64(int byteCount, Endianness order) { return readBytes(byteCount, forOrder(order)); }

    /// 0 to 64 bits.
    std::int64_t ReadBits(int count);
    std::int64_t ReadBits(int count, Endianness order) { return readBits(count, forOrder(order)); }

    /// The codes ue(v) and se(v) of ITU-T H.264 9.1, most significant bit first in either order. A prefix of
    /// more than 32 zeros consumes nothing; a code that is cut off leaves the position at the end of the data
    /// or, behind a whole prefix, after its 1 bit. Values beyond 32 bits are cut to 32.
    std::uint32_t ReadExpGolomb() { return static_cast<std::uint32_t>(readExpGolomb()); }
    std::int32_t ReadSignedExpGolomb();

    /// Bookkeeping of readers of files; not used here.
    std::int64_t& FileSize() { return fileSize; }
    std::int64_t& FilePosition() { return filePosition; }
    std::int64_t& DesiredFilePosition() { return desiredFilePosition; }

private:
    // What fits one 64-bit load at any bit position.
    static constexpr unsigned MaxFieldBits = 57;

    template <typename T>
    T readWhole();
    bool hasRun(std::int64_t bytes) const {
        return window->data != nullptr && window->length - window->position >= bytes;
    }
    void moveTo(std::int64_t position, int bitPosition);
    void skipBits(unsigned count) {
        const std::uint64_t bits = static_cast<unsigned>(window->bitPosition) + count;
        moveTo(window->position + static_cast<std::int64_t>(bits >> 3), static_cast<int>(bits & 7));
    }

    void attach();
    const EndianBitConverter& forOrder(Endianness order) const;
    std::int64_t readBytes(int count, const EndianBitConverter& order);
    std::int64_t readBits(int count, const EndianBitConverter& order);
    std::uint64_t readExpGolomb();
    std::uint64_t readExpGolombSlowly();
    void setFullBitPosition(std::int64_t bits);
    void requireStream() const;
    void checkBuffer(std::int64_t count) const;
    [[noreturn]] void failOutbound(std::int64_t count) const;
    bool hasWindow() const;
    /// The next count bytes, consumed: in the window or, at most 16, copied to the scratch buffer.
    unsigned char* readInternal(int count);
    void readStream(unsigned char* dst, int count, const char* operation);
    void mirror();

    std::shared_ptr<IStream> stream;
    const EndianBitConverter* converter = &bigEndian;
    BigEndianBitConverter bigEndian;
    LittleEndianBitConverter littleEndian;
    unsigned char scratch[16];       // what one field touches
    PacketBuffer* packet = nullptr;  // one reference
    std::int64_t fileSize = 0;
    std::int64_t filePosition = 0;
    std::int64_t desiredFilePosition = 0;

    // The stream's window, or an empty one for a stream without. The cursor is the stream's own.
    StreamWindow* window;
    bool isBig = true;
    // The packet's cursors; without a packet, places that nobody looks at.
    int* packetPosition = &unusedPosition;
    int* packetBitPosition = &unusedBitPosition;
    int unusedPosition = 0;
    int unusedBitPosition = 0;

    static Endianness g_nGlobalEndiannes;
};

inline void EndianBinaryReader::moveTo(std::int64_t position, int bitPosition) {
    // The window comes last: so the compiler knows its values in the next operation.
    *packetPosition = static_cast<int>(position);
    *packetBitPosition = bitPosition;
    window->position = position;
    window->bitPosition = bitPosition;
}

template <typename T>
inline T EndianBinaryReader::readWhole() {
    if (!hasRun(sizeof(T)) || !isBig) [[unlikely]] {
        return static_cast<T>(readBytes(sizeof(T), *converter));
    }
    const T value = LoadBig<T>(window->data + window->position);
    moveTo(window->position + static_cast<std::int64_t>(sizeof(T)), 0);
    return value;
}

inline std::int64_t EndianBinaryReader::ReadBits(int count) {
    const unsigned bits = static_cast<unsigned>(count);
    if (bits > MaxFieldBits || !isBig || !hasRun(8)) [[unlikely]] {
        return readBits(count, *converter);
    }
    const std::uint64_t word = LoadBig<std::uint64_t>(window->data + window->position) << window->bitPosition;
    skipBits(bits);
    return static_cast<std::int64_t>((word >> 1) >> (63 - bits));
}

inline std::uint64_t EndianBinaryReader::readExpGolomb() {
    if (!hasRun(8)) [[unlikely]] {
        return readExpGolombSlowly();
    }
    const std::uint64_t word = LoadBig<std::uint64_t>(window->data + window->position) << window->bitPosition;
    const unsigned zeros = static_cast<unsigned>(std::countl_zero(word));
    if (2 * zeros + 1 > MaxFieldBits) [[unlikely]] {
        return readExpGolombSlowly();
    }
    skipBits(2 * zeros + 1);
    return (word >> (63 - 2 * zeros)) - 1;
}

inline std::int32_t EndianBinaryReader::ReadSignedExpGolomb() {
    // The code number k is odd for positive values: its last info bit is then 0.
    const std::uint64_t code = readExpGolomb();
    const std::uint64_t magnitude = (code + 1) / 2;
    return static_cast<std::int32_t>(static_cast<std::uint32_t>((code & 1) != 0 ? magnitude : 0 - magnitude));
}

}  // namespace Mivra::Common
