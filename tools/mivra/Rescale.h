#pragma once

// Exact conversion of times between time bases, rounded to the nearest value, halves away from zero. The
// minimum 64-bit value stands for "no time" and stays what it is.

#include <cstdint>
#include <limits>

extern "C" {
#include <libavutil/rational.h>
}

namespace Mivra::Tool {

inline constexpr std::int64_t kUnsetTime = std::numeric_limits<std::int64_t>::min();

/// Packets travel in units of 100 ns.
inline constexpr AVRational kPacketTimeBase{1, 10000000};
inline constexpr std::int64_t kPacketSecond = 10000000;

/// The result is kUnsetTime too when it does not fit. Both time bases are positive.
inline std::int64_t rescale(std::int64_t value, AVRational from, AVRational to) {
    __extension__ using Wide = __int128;
    if (value == kUnsetTime) {
        return kUnsetTime;
    }
    const std::int64_t up = std::int64_t{from.num} * to.den;
    const std::int64_t down = std::int64_t{from.den} * to.num;
    if (up == down) {
        return value;
    }
    std::int64_t product = 0;
    if (!__builtin_mul_overflow(value, up, &product) && product < INT64_MAX - down &&
        product > INT64_MIN + down) {
        return (product + (product < 0 ? -(down / 2) : down / 2)) / down;
    }
    const Wide scaled = Wide{value} * up;
    const Wide result = (scaled + (scaled < 0 ? -(down / 2) : down / 2)) / down;
    if (result > INT64_MAX || result <= INT64_MIN) {
        return kUnsetTime;
    }
    return static_cast<std::int64_t>(result);
}

}  // namespace Mivra::Tool
