#include "mivra/common/binary/EndianBitConverter.h"

namespace Mivra::Common {

std::int16_t EndianBitConverter::ToInt16(unsigned char* buffer, int offset) const {
    return static_cast<std::int16_t>(FromBytes(buffer, offset, 2));
}

std::uint16_t EndianBitConverter::ToUInt16(unsigned char* buffer, int offset) const {
    return static_cast<std::uint16_t>(FromBytes(buffer, offset, 2));
}

wchar_t EndianBitConverter::ToWChar(unsigned char* buffer, int offset) const {
    return static_cast<wchar_t>(FromBytes(buffer, offset, 2));
}

std::int32_t EndianBitConverter::ToInt32(unsigned char* buffer, int offset, int count) const {
    return static_cast<std::int32_t>(FromBytes(buffer, offset, count));
}

std::uint32_t EndianBitConverter::ToUInt32(unsigned char* buffer, int offset, int count) const {
    return static_cast<std::uint32_t>(FromBytes(buffer, offset, count));
}

std::int64_t EndianBitConverter::ToInt64(unsigned char* buffer, int offset, int count) const {
    return FromBytes(buffer, offset, count);
}

std::uint64_t EndianBitConverter::ToUInt64(unsigned char* buffer, int offset) const {
    return static_cast<std::uint64_t>(FromBytes(buffer, offset, 8));
}

float EndianBitConverter::ToSingle(unsigned char* buffer, int offset) const {
    return Int32BitsToSingle(ToInt32(buffer, offset));
}

double EndianBitConverter::ToDouble(unsigned char* buffer, int offset) const {
    return Int64BitsToDouble(ToInt64(buffer, offset));
}

void EndianBitConverter::CopyBytes(bool value, unsigned char* buffer, int offset) const {
    CopyBytesImpl(value ? 1 : 0, 1, buffer, offset);
}

void EndianBitConverter::CopyBytes(char value, unsigned char* buffer, int offset) const {
    CopyBytesImpl(value, 1, buffer, offset);
}

void EndianBitConverter::CopyBytes(unsigned char value, unsigned char* buffer, int offset) const {
    CopyBytesImpl(value, 1, buffer, offset);
}

void EndianBitConverter::CopyBytes(std::int16_t value, unsigned char* buffer, int offset) const {
    CopyBytesImpl(value, 2, buffer, offset);
}

void EndianBitConverter::CopyBytes(std::uint16_t value, unsigned char* buffer, int offset) const {
    CopyBytesImpl(value, 2, buffer, offset);
}

void EndianBitConverter::CopyBytes(wchar_t value, unsigned char* buffer, int offset) const {
    CopyBytesImpl(value, 2, buffer, offset);
}

void EndianBitConverter::CopyBytes(std::int32_t value, unsigned char* buffer, int offset, int count) const {
    CopyBytesImpl(value, count, buffer, offset);
}

void EndianBitConverter::CopyBytes(std::uint32_t value, unsigned char* buffer, int offset, int count) const {
    CopyBytesImpl(value, count, buffer, offset);
}

void EndianBitConverter::CopyBytes(std::int64_t value, unsigned char* buffer, int offset, int count) const {
    CopyBytesImpl(value, count, buffer, offset);
}

void EndianBitConverter::CopyBytes(std::uint64_t value, unsigned char* buffer, int offset) const {
    CopyBytesImpl(static_cast<std::int64_t>(value), 8, buffer, offset);
}

void EndianBitConverter::CopyBytes(float value, unsigned char* buffer, int offset) const {
    CopyBytesImpl(SingleToInt32Bits(value), 4, buffer, offset);
}

void EndianBitConverter::CopyBytes(double value, unsigned char* buffer, int offset) const {
    CopyBytesImpl(DoubleToInt64Bits(value), 8, buffer, offset);
}

void EndianBitConverter::CopyBits(std::int64_t value, int bits, unsigned char* buffer, int bitOffset) const {
    CopyBitsImpl(value, bits, buffer, bitOffset);
}

std::string EndianBitConverter::ToString(const unsigned char* buffer, int count) {
    return ToString(buffer, 0, count);
}

std::string EndianBitConverter::ToString(const unsigned char* buffer, int offset, int count) {
    static constexpr char Digits[] = "0123456789abcdef";
    std::string text;
    for (int i = 0; i < count; ++i) {
        const unsigned char byte = buffer[offset + i];
        text += Digits[byte >> 4];
        text += Digits[byte & 15];
    }
    return text;
}

}  // namespace Mivra::Common
