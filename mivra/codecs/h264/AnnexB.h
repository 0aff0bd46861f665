#pragma once

// The byte stream format (ITU-T H.264 Annex B): where start codes stand, and the units between them. Nothing
// here keeps or copies data.

#include <cstddef>
#include <optional>
#include <span>

#include "mivra/codecs/h264/NalUnitTypes.h"

namespace Mivra::Codecs::H264 {

/// A unit of a byte stream: its header byte and payload, start code and trailing zeros excluded.
using NalUnit = std::span<const unsigned char>;

/// Type of a unit that is not empty.
inline NalUnitTypes nalUnitType(NalUnit unit) {
    return static_cast<NalUnitTypes>(unit[0] & 0x1F);
}

/// Where a start code stands, and whether a zero_byte is in front of it (length 4) or not (length 3).
struct StartCode {
    std::size_t offset = 0;
    std::size_t length = 0;
};

/// The first start code in the data.
std::optional<StartCode> findStartCode(std::span<const unsigned char> data);

/// Takes the units of a byte stream off, one by one, empty ones passed over; bytes in front of the first
/// start code belong to none.
class AnnexBUnits {
public:
    explicit AnnexBUnits(std::span<const unsigned char> stream);
    std::optional<NalUnit> Next();

private:
    /// Begins behind a start code; empty at the end.
    std::span<const unsigned char> rest;
};

/// The first unit of the type; empty when there is none.
NalUnit findNalUnit(std::span<const unsigned char> stream, NalUnitTypes type);

}  // namespace Mivra::Codecs::H264
