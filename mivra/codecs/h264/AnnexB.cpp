#include "mivra/codecs/h264/AnnexB.h"

#include "mivra/codecs/h264/ByteKernels.h"

namespace Mivra::Codecs::H264 {

namespace {

constexpr std::size_t PrefixLength = 3;  // start_code_prefix_one_3bytes

// Offset of the first 00 00 01, the data's size when there is none.
std::size_t prefixOffset(std::span<const unsigned char> data) {
    const unsigned char* begin = data.data();
    return static_cast<std::size_t>(byteKernels().findPrefix(begin, begin + data.size()) - begin);
}

std::span<const unsigned char> behindPrefix(std::span<const unsigned char> data, std::size_t offset) {
    return offset < data.size() ? data.subspan(offset + PrefixLength) : data.last(0);
}

}  // namespace

std::optional<StartCode> findStartCode(std::span<const unsigned char> data) {
    const std::size_t offset = prefixOffset(data);
    if (offset == data.size()) {
        return std::nullopt;
    }
    if (offset > 0 && data[offset - 1] == 0) {
        return StartCode{offset - 1, PrefixLength + 1};
    }
    return StartCode{offset, PrefixLength};
}

AnnexBUnits::AnnexBUnits(std::span<const unsigned char> stream)
    : rest(behindPrefix(stream, prefixOffset(stream))) {}

std::optional<NalUnit> AnnexBUnits::Next() {
    while (!rest.empty()) {
        std::size_t size = prefixOffset(rest);
        const unsigned char* begin = rest.data();
        rest = behindPrefix(rest, size);
        // trailing_zero_8bits, and the zero_byte of the next start code: a unit ends in none (7.4.1).
        while (size > 0 && begin[size - 1] == 0) {
            --size;
        }
        if (size > 0) {
            return NalUnit(begin, size);
        }
    }
    return std::nullopt;
}

NalUnit findNalUnit(std::span<const unsigned char> stream, NalUnitTypes type) {
    AnnexBUnits units(stream);
    for (auto unit = units.Next(); unit; unit = units.Next()) {
        if (nalUnitType(*unit) == type) {
            return *unit;
        }
    }
    return {};
}

}  // namespace Mivra::Codecs::H264
