#pragma once

#include <cstdint>
#include <limits>

namespace Mivra::Codecs::H264 {

// The syntax structures of the standard are templates over a coder: SyntaxReader takes the elements from
// bits, SyntaxWriter puts them into bits, SyntaxLister names them. A coder offers
//
//     u(name, value, bits), flag(name, value), ue(name, value, max), se(name, value, min, max)
//
// for the descriptors u(n), u(1), ue(v) and se(v) (7.2), and a few hooks for what is not plain. So each
// syntax is told once, and read, written and listed alike.

/// The name of an element as the standard has it, with its index in an array.
struct ElementName {
    static constexpr int NoIndex = -1;

    ElementName(const char* elementName, int elementIndex = NoIndex)
        : name(elementName), index(elementIndex) {}

    const char* name;
    int index;
};

/// The most that ue(v) carries, and the range of se(v) (9.1).
constexpr std::int64_t MaxUe = 0xFFFFFFFE;
constexpr std::int64_t MaxInt = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t MinSe = -MaxInt;

/// The most frames that a decoded picture buffer holds (A.3.1); callers make queues of as many.
constexpr std::int64_t MaxDpbFrames = 16;

/// The largest slice group map: MaxFS of level 6.2 (Table A-1), in macroblocks.
constexpr std::int64_t MaxMapUnits = 139264;

}  // namespace Mivra::Codecs::H264
