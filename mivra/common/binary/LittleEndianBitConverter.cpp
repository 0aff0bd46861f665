#include "mivra/common/binary/LittleEndianBitConverter.h"

#include "mivra/common/binary/BitFields.h"

namespace Mivra::Common {

std::int64_t LittleEndianBitConverter::FromBytes(unsigned char* buffer, int offset, int count) const {
    std::uint64_t value = 0;
    for (int i = count - 1; i >= 0; --i) {
        value = value << 8 | buffer[offset + i];
    }
    return static_cast<std::int64_t>(value);
}

std::int64_t LittleEndianBitConverter::FromBits(unsigned char* buffer, int bitOffset, int bitCount) const {
    return static_cast<std::int64_t>(ReverseBits(LoadBits(buffer, bitOffset, bitCount), bitCount));
}

void LittleEndianBitConverter::CopyBytesImpl(std::int64_t value, int bytes, unsigned char* buffer,
                                             int offset) const {
    for (int i = 0; i < bytes; ++i) {
        buffer[offset + i] = static_cast<unsigned char>(value);
        value >>= 8;
    }
}

void LittleEndianBitConverter::CopyBitsImpl(std::int64_t value, int bits, unsigned char* buffer,
                                            int bitOffset) const {
    StoreBits(ReverseBits(static_cast<std::uint64_t>(value), bits), bits, buffer, bitOffset);
}

}  // namespace Mivra::Common
