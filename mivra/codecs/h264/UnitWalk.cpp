#include "mivra/codecs/h264/UnitWalk.h"

#include <algorithm>
#include <utility>

namespace Mivra::Codecs::H264 {

namespace {

bool isZero(unsigned char byte) {
    return byte == 0;
}

}  // namespace

NalUnit PlacedUnit::Whole() const {
    if (bounded) {
        return rest;
    }
    const auto code = findStartCode(rest);
    std::size_t size = code ? code->offset : rest.size();
    while (size > 1 && rest[size - 1] == 0) {
        --size;
    }
    return rest.first(size);
}

UnitWalk::UnitWalk(std::span<const unsigned char> data_, int lengthSize_)
    : data(data_), lengthSize(lengthSize_) {}

std::optional<PlacedUnit> UnitWalk::Next() {
    return lengthSize == 0 ? nextStartCoded() : nextPrefixed();
}

std::optional<PlacedUnit> UnitWalk::nextStartCoded() {
    while (const auto code = findStartCode(data.subspan(position))) {
        const std::size_t offset = position + code->offset;
        position = offset + code->length;
        const NalUnit rest = data.subspan(position);
        if (!rest.empty() && rest.front() != 0) {
            return PlacedUnit{offset, rest, false};
        }
        // Trailing zeros and no unit, or a unit whose header is 0.
        const auto next = findStartCode(rest);
        const NalUnit unit = rest.first(next ? next->offset : rest.size());
        if (!std::all_of(unit.begin(), unit.end(), isZero)) {
            return PlacedUnit{offset, rest, false};
        }
    }
    position = data.size();
    return std::nullopt;
}

std::optional<PlacedUnit> UnitWalk::nextPrefixed() {
    const auto prefix = static_cast<std::size_t>(lengthSize);
    while (position < data.size()) {
        if (data.size() - position < prefix) {
            break;
        }
        std::size_t size = 0;
        for (const unsigned char byte : data.subspan(position, prefix)) {
            size = size << 8 | byte;
        }
        if (size > data.size() - position - prefix) {
            break;
        }
        const std::size_t offset = std::exchange(position, position + prefix + size);
        if (size > 0) {
            return PlacedUnit{offset, data.subspan(offset + prefix, size), true};
        }
    }
    malformed = position < data.size();
    return std::nullopt;
}

bool beginsWithStartCode(std::span<const unsigned char> data) {
    if (data.empty()) {
        return true;
    }
    const auto code = findStartCode(data);
    return code &&
           std::all_of(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(code->offset), isZero);
}

}  // namespace Mivra::Codecs::H264
