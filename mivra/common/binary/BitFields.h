#pragma once

#include <algorithm>
#include <cstdint>

namespace Mivra::Common {

// Bit fields over bytes, most significant bit first: what both converters are made of.

/// count: 0 to 64 bits from a bit index on.
inline std::uint64_t LoadBits(const unsigned char* buffer, int bitOffset, int count) {
    const unsigned char* byte = buffer + bitOffset / 8;
    int used = bitOffset % 8;
    std::uint64_t value = 0;
    while (count > 0) {
        const int taken = std::min(8 - used, count);
        const unsigned piece = (*byte++ >> (8 - used - taken)) & ((1u << taken) - 1);
        value = value << taken | piece;
        count -= taken;
        used = 0;
    }
    return value;
}

/// The low count bits of the value; the bits around them keep theirs.
inline void StoreBits(std::uint64_t value, int count, unsigned char* buffer, int bitOffset) {
    unsigned char* byte = buffer + bitOffset / 8;
    int used = bitOffset % 8;
    while (count > 0) {
        const int taken = std::min(8 - used, count);
        const int shift = 8 - used - taken;
        const unsigned mask = ((1u << taken) - 1) << shift;
        const unsigned piece = static_cast<unsigned>(value >> (count - taken)) << shift;
        *byte = static_cast<unsigned char>((*byte & ~mask) | (piece & mask));
        ++byte;
        count -= taken;
        used = 0;
    }
}

/// The low count bits in reverse.
inline std::uint64_t ReverseBits(std::uint64_t value, int count) {
    std::uint64_t reversed = 0;
    for (int i = 0; i < count; ++i) {
        reversed = reversed << 1 | (value >> i & 1);
    }
    return reversed;
}

}  // namespace Mivra::Common
