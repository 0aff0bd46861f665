#include "mivra/common/binary/BigEndianBitConverter.h"

#include "mivra/common/binary/BitFields.h"

namespace Mivra::Common {

std::int64_t BigEndianBitConverter::FromBytes(unsigned char* buffer, int offset, int count) const {
    std::uint64_t value = 0;
    for (int i = 0; i < count; ++i) {
        value = value << 8 | buffer[offset + i];
    }
    return static_cast<std::int64_t>(value);
}

std::int64_t BigEndianBitConverter::FromBits(unsigned char* buffer, int bitOffset, int bitCount) const {
    return static_cast<std::int64_t>(LoadBits(buffer, bitOffset, bitCount));
}

void BigEndianBitConverter::CopyBytesImpl(std::int64_t value, int bytes, unsigned char* buffer,
                                          int offset) const {
    for (int i = bytes - 1; i >= 0; --i) {
        buffer[offset + i] = static_cast<unsigned char>(value);
        value >>= 8;
    }
}

void BigEndianBitConverter::CopyBitsImpl(std::int64_t value, int bits, unsigned char* buffer,
                                         int bitOffset) const {
    StoreBits(static_cast<std::uint64_t>(value), bits, buffer, bitOffset);
}

}  // namespace Mivra::Common
