#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
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

/// Writes bytes, integers, floating-point values, bit fields and Exp-Golomb codes to a stream or a
/// PacketBuffer: the mirror of EndianBinaryReader. Owned by the thread that writes, and no other thread uses
/// the stream meanwhile.
///
/// Only a file stream grows; everything else is written inside its length. Byte writes begin at the current
/// byte whatever the bit position, which becomes 0; byte counts are 0 to 8. Every failure is a
/// GeneralException: what does not fit, a negative count and a count out of range write nothing.
class MIVRA_API EndianBinaryWriter {
public:
    /// Begins at the buffer's Position and BitPosition and keeps them at the first unwritten bit; spans the
    /// buffer's capacity and raises ActualSize to the last byte touched. Bits of that byte which are not
    /// written keep their values. Holds a reference on the buffer.
    explicit EndianBinaryWriter(PacketBuffer* buffer);
    /// Begins at the stream's position.
    explicit EndianBinaryWriter(std::shared_ptr<IStream> destination);
    EndianBinaryWriter(const EndianBinaryWriter&) = delete;
    EndianBinaryWriter& operator=(const EndianBinaryWriter&) = delete;
    ~EndianBinaryWriter();

    /// The order of new writers in this process, apart from the readers'; big at first. Set it while no other
    /// thread makes writers.
    static Endianness& GlobalEndiannes() { return g_nGlobalEndiannes; }
    void SetEndiannes(Endianness order);
    Endianness GetEndianness() const { return converter->GetEndianness(); }

    std::shared_ptr<IStream> BaseStream() const { return stream; }
    /// In bytes, in bits of the current byte (0 to 7), and both in bits.
    std::int64_t Position() const;
    int BitPosition() const;
    std::int64_t FullBitPosition() const { return Position() * 8 + BitPosition(); }
    std::int64_t GetLength() const;
    /// As the stream's own operations.
    std::int64_t Seek(std::int64_t offset, Origin origin);
    std::int64_t SeekBits(std::int64_t bitOffset, Origin origin);
    void Flush();

    void Write(bool value) { writeWhole<std::uint8_t>(value ? 1 : 0); }
    void Write(char value) { writeWhole<std::uint8_t>(static_cast<std::uint8_t>(value)); }
    void Write(unsigned char value) { writeWhole<std::uint8_t>(value); }
    void Write(short value) { writeWhole<std::uint16_t>(static_cast<std::uint16_t>(value)); }
    void Write(unsigned short value) { writeWhole<std::uint16_t>(value); }
    /// 2 bytes.
    void Write(wchar_t value) { writeWhole<std::uint16_t>(static_cast<std::uint16_t>(value)); }
    void Write(int value) { writeWhole<std::uint32_t>(static_cast<std::uint32_t>(value)); }
    void Write(unsigned int value) { writeWhole<std::uint32_t>(value); }
    void Write(std::int64_t value) { writeWhole<std::uint64_t>(static_cast<std::uint64_t>(value)); }
    void Write(std::uint64_t value) { writeWhole<std::uint64_t>(value); }
    void Write(float value) { Write(EndianBitConverter::SingleToInt32Bits(value)); }
    void Write(double value) { Write(EndianBitConverter::DoubleToInt64Bits(value)); }

    /// The low byteCount bytes.
    void Write(int value, int byteCount) { writeBytes(value, byteCount, *converter); }
    void Write(unsigned int value, int byteCount) { writeBytes(value, byteCount, *converter); }
    void Write(std::int64_t value, int byteCount) { writeBytes(value, byteCount, *converter); }
    /// The order is Little, Big, or any other value for the writer's own.
    void Write(int value, int byteCount, Endianness order) { writeBytes(value, byteCount, forOrder(order)); }

    void Write(const unsigned char* data, int count) { Write(data, 0, count); }
    void Write(const unsigned char* data, int offset, int count);
    /// The bytes, without length or terminator.
    void Write(const std::string& text);
    void Write(const char*) = delete;  // would be written as a bool
    void Fill(unsigned char value, std::int64_t count);

    /// The low 0 to 64 bits of the value.
    void WriteBits(std::int64_t value, int count) {
        if (!isBig || !writeRun(static_cast<std::uint64_t>(value), count)) [[unlikely]] {
            writeBits(value, count, *converter);
        }
    }
    /// The codes ue(v) and se(v) of ITU-T H.264 9.1, most significant bit first in either order. The signed
    /// form deliberately throws for 0, which WriteUnsignedExpGolomb(0) writes.
    void WriteUnsignedExpGolomb(unsigned int value);
    void WriteSignedExpGolomb(int value);

    /// Bookkeeping of writers of files; not used here.
    std::int64_t& FilePosition() { return filePosition; }

private:
    template <typename T>
    void writeWhole(T value);
    bool hasRun(std::int64_t bytes) const {
        return window->data != nullptr && window->length - window->position >= bytes;
    }
    bool writeRun(std::uint64_t value, int count);
    static void mergeWord(unsigned char* bytes, std::uint64_t field, std::uint64_t mask);
    void moveTo(std::int64_t position, int bitPosition);
    /// Raises the packet's ActualSize to an end offset.
    void touch(std::int64_t end) {
        if (end > *packetActualSize) {
            *packetActualSize = static_cast<int>(end);
        }
    }

    void attach();
    const EndianBitConverter& forOrder(Endianness order) const;
    void writeBytes(std::int64_t value, int count, const EndianBitConverter& order);
    void writeBits(std::int64_t value, int count, const EndianBitConverter& order);
    void writeCode(std::uint64_t codeNumberPlusOne);
    void requireStream() const;
    void checkBuffer(std::int64_t count) const;
    bool hasWindow() const;
    void writeInternal(const unsigned char* data, int count);
    /// Loads count bytes from the position on into the scratch buffer; zeros stand for what a stream lacks.
    void loadTouched(int count);
    void mirror(std::int64_t touchedEnd);

    std::shared_ptr<IStream> stream;
    Endianness endianness = Endianness::Big;
    const EndianBitConverter* converter = &bigEndian;
    BigEndianBitConverter bigEndian;
    LittleEndianBitConverter littleEndian;
    unsigned char scratch[16];       // what one field touches
    PacketBuffer* packet = nullptr;  // one reference
    std::int64_t filePosition = 0;

    // The stream's window, or an empty one for a stream without. The cursor is the stream's own.
    StreamWindow* window;
    bool isBig = true;
    // The packet's cursors and size; without a packet, places that nobody looks at.
    int* packetPosition = &unusedPosition;
    int* packetBitPosition = &unusedBitPosition;
    int* packetActualSize = &unusedActualSize;
    int unusedPosition = 0;
    int unusedBitPosition = 0;
    int unusedActualSize = INT32_MAX;

    static Endianness g_nGlobalEndiannes;
};

inline void EndianBinaryWriter::moveTo(std::int64_t position, int bitPosition) {
    // The window comes last: so the compiler knows its values in the next operation.
    *packetPosition = static_cast<int>(position);
    *packetBitPosition = bitPosition;
    window->position = position;
    window->bitPosition = bitPosition;
}

template <typename T>
inline void EndianBinaryWriter::writeWhole(T value) {
    if (!hasRun(sizeof(T)) || !isBig) [[unlikely]] {
        writeBytes(static_cast<std::int64_t>(value), sizeof(T), *converter);
        return;
    }
    StoreBig(value, window->data + window->position);
    moveTo(window->position + static_cast<std::int64_t>(sizeof(T)), 0);
    touch(window->position);
}

// Works on words of a fixed grid, both words that a field can span: a load then meets a store of the same
// place and size, where loads at the field's own byte would wait for the store before them.
inline bool EndianBinaryWriter::writeRun(std::uint64_t value, int count) {
    const unsigned bits = static_cast<unsigned>(count);
    const std::int64_t position = window->position;
    const std::int64_t word = position & ~std::int64_t{7};
    unsigned char* data = window->data;
    if (bits - 1 >= 64 || data == nullptr || window->length - word < 16) [[unlikely]] {
        return false;
    }
    const unsigned bit = static_cast<unsigned>(window->bitPosition);
    const unsigned end = bit + bits;
    touch(position + ((end + 7) >> 3));
    moveTo(position + (end >> 3), static_cast<int>(end & 7));

    const std::uint64_t field = value << (64 - bits);
    const std::uint64_t mask = ~std::uint64_t{0} << (64 - bits);
    const unsigned offset = static_cast<unsigned>(position & 7) * 8 + bit;
    mergeWord(data + word, field >> offset, mask >> offset);
    mergeWord(data + word + 8, (field << 1) << (63 - offset), (mask << 1) << (63 - offset));
    return true;
}

inline void EndianBinaryWriter::mergeWord(unsigned char* bytes, std::uint64_t field, std::uint64_t mask) {
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    word = (word & ~SwapFromBig(mask)) | SwapFromBig(field);
    std::memcpy(bytes, &word, sizeof word);
}

}  // namespace Mivra::Common
