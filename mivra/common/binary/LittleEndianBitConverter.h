#pragma once

#include "mivra/common/binary/EndianBitConverter.h"

namespace Mivra::Common {

/// Least significant byte first. In a bit field the first bit of the stream is the least significant of the
/// value, while bits inside each byte are still numbered from the most significant: that asymmetry is meant.
class MIVRA_API LittleEndianBitConverter : public EndianBitConverter {
public:
    bool IsLittleEndian() const override { return true; }
    Endianness GetEndianness() const override { return Endianness::Little; }
    std::int64_t FromBytes(unsigned char* buffer, int offset, int count) const override;
    std::int64_t FromBits(unsigned char* buffer, int bitOffset, int bitCount) const override;
    void CopyBytesImpl(std::int64_t value, int bytes, unsigned char* buffer, int offset) const override;
    void CopyBitsImpl(std::int64_t value, int bits, unsigned char* buffer, int bitOffset) const override;
};

}  // namespace Mivra::Common
