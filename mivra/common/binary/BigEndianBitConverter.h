#pragma once

#include "mivra/common/binary/EndianBitConverter.h"

namespace Mivra::Common {

/// Most significant byte and bit first: the order of video and audio bit streams.
class MIVRA_API BigEndianBitConverter : public EndianBitConverter {
public:
    bool IsLittleEndian() const override { return false; }
    Endianness GetEndianness() const override { return Endianness::Big; }
    std::int64_t FromBytes(unsigned char* buffer, int offset, int count) const override;
    std::int64_t FromBits(unsigned char* buffer, int bitOffset, int bitCount) const override;
    void CopyBytesImpl(std::int64_t value, int bytes, unsigned char* buffer, int offset) const override;
    void CopyBitsImpl(std::int64_t value, int bits, unsigned char* buffer, int bitOffset) const override;
};

}  // namespace Mivra::Common
