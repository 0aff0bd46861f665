#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace Mivra::Common {

// Internal, for the inline parts of the reader and the writer: big-endian integers in memory at any address.
// Written on values, not bytes: compilers make one instruction of each.

inline std::uint8_t SwapFromBig(std::uint8_t value) {
    return value;
}

inline std::uint16_t SwapFromBig(std::uint16_t value) {
    if constexpr (std::endian::native == std::endian::big) {
        return value;
    }
    return static_cast<std::uint16_t>(value >> 8 | value << 8);
}

inline std::uint32_t SwapFromBig(std::uint32_t value) {
    if constexpr (std::endian::native == std::endian::big) {
        return value;
    }
    return value >> 24 | (value >> 8 & 0xFF00) | (value << 8 & 0xFF0000) | value << 24;
}

inline std::uint64_t SwapFromBig(std::uint64_t value) {
    if constexpr (std::endian::native == std::endian::big) {
        return value;
    }
    return static_cast<std::uint64_t>(SwapFromBig(static_cast<std::uint32_t>(value))) << 32 |
           SwapFromBig(static_cast<std::uint32_t>(value >> 32));
}

template <typename T>
inline T LoadBig(const unsigned char* bytes) {
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return SwapFromBig(value);
}

template <typename T>
inline void StoreBig(T value, unsigned char* bytes) {
    value = SwapFromBig(value);
    std::memcpy(bytes, &value, sizeof value);
}

}  // namespace Mivra::Common
