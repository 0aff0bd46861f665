#pragma once

#include <bit>
#include <cstdint>
#include <string>

#include "mivra/common/binary/Endianness.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// Converts between values and bytes or bits of one byte order. Converters hold no state: any thread may use
/// one. Nothing is checked here: the caller's buffer holds what it asks for, counts are 0 to 8 bytes or 0 to
/// 64 bits. Bit i of a buffer is bit 7 - i % 8 of its byte i / 8 in both orders.
class MIVRA_API EndianBitConverter {
public:
    virtual bool IsLittleEndian() const = 0;
    virtual Endianness GetEndianness() const = 0;
    /// The bytes as an unsigned number: no sign is extended below 8 bytes.
    virtual std::int64_t FromBytes(unsigned char* buffer, int offset, int count) const = 0;
    virtual std::int64_t FromBits(unsigned char* buffer, int bitOffset, int bitCount) const = 0;
    virtual void CopyBytesImpl(std::int64_t value, int bytes, unsigned char* buffer, int offset) const = 0;
    /// Bits outside the range keep their values.
    virtual void CopyBitsImpl(std::int64_t value, int bits, unsigned char* buffer, int bitOffset) const = 0;

    virtual ~EndianBitConverter() = default;

    bool ToBoolean(unsigned char* buffer, int offset) const { return buffer[offset] != 0; }
    char ToChar(unsigned char* buffer, int offset) const { return static_cast<char>(buffer[offset]); }
    std::int16_t ToInt16(unsigned char* buffer, int offset) const;
    std::uint16_t ToUInt16(unsigned char* buffer, int offset) const;
    wchar_t ToWChar(unsigned char* buffer, int offset) const;  // 2 bytes
    std::int32_t ToInt32(unsigned char* buffer, int offset, int count = 4) const;
    std::uint32_t ToUInt32(unsigned char* buffer, int offset, int count = 4) const;
    std::int64_t ToInt64(unsigned char* buffer, int offset, int count = 8) const;
    std::uint64_t ToUInt64(unsigned char* buffer, int offset) const;
    float ToSingle(unsigned char* buffer, int offset) const;
    double ToDouble(unsigned char* buffer, int offset) const;

    /// The value in its natural width, or in the low `count` bytes of it.
    void CopyBytes(bool value, unsigned char* buffer, int offset) const;
    void CopyBytes(char value, unsigned char* buffer, int offset) const;
    void CopyBytes(unsigned char value, unsigned char* buffer, int offset) const;
    void CopyBytes(std::int16_t value, unsigned char* buffer, int offset) const;
    void CopyBytes(std::uint16_t value, unsigned char* buffer, int offset) const;
    void CopyBytes(wchar_t value, unsigned char* buffer, int offset) const;  // 2 bytes
    void CopyBytes(std::int32_t value, unsigned char* buffer, int offset, int count = 4) const;
    void CopyBytes(std::uint32_t value, unsigned char* buffer, int offset, int count = 4) const;
    void CopyBytes(std::int64_t value, unsigned char* buffer, int offset, int count = 8) const;
    void CopyBytes(std::uint64_t value, unsigned char* buffer, int offset) const;
    void CopyBytes(float value, unsigned char* buffer, int offset) const;
    void CopyBytes(double value, unsigned char* buffer, int offset) const;

    /// The low `bits` bits of the value.
    void CopyBits(std::int64_t value, int bits, unsigned char* buffer, int bitOffset) const;

    static std::int64_t DoubleToInt64Bits(double value) { return std::bit_cast<std::int64_t>(value); }
    static double Int64BitsToDouble(std::int64_t value) { return std::bit_cast<double>(value); }
    static std::int32_t SingleToInt32Bits(float value) { return std::bit_cast<std::int32_t>(value); }
    static float Int32BitsToSingle(std::int32_t value) { return std::bit_cast<float>(value); }

    /// Two lower-case hexadecimal digits a byte; nothing for a count below 1.
    static std::string ToString(const unsigned char* buffer, int count);
    static std::string ToString(const unsigned char* buffer, int offset, int count);

protected:
    EndianBitConverter() = default;
    EndianBitConverter(const EndianBitConverter&) = default;
    EndianBitConverter& operator=(const EndianBitConverter&) = default;
};

}  // namespace Mivra::Common
