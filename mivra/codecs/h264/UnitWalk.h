#pragma once

#include <cstddef>
#include <optional>
#include <span>

#include "mivra/codecs/h264/AnnexB.h"

namespace Mivra::Codecs::H264 {

/// A unit where it stands in the data of a packet.
struct PlacedUnit {
    /// Of its start code or length prefix, in bytes from the beginning of the data.
    std::size_t offset = 0;
    /// From the header byte on, never empty. In Annex B the end is not looked for: this is all that follows.
    NalUnit rest;
    bool bounded = false;

    /// Exactly the unit: looks for the end where that is not known.
    NalUnit Whole() const;
};

/// Goes from unit to unit of packet data in either form, empty ones passed over, and touches no more of a
/// unit than it must. The data outlives the walk. A copy walks on by itself from where it was made.
class UnitWalk {
public:
    /// Length size 1 to 4, or 0 for Annex B.
    UnitWalk(std::span<const unsigned char> data, int lengthSize);

    std::optional<PlacedUnit> Next();
    /// A length prefix was cut off or promised more than there is; Next() has ended there.
    bool Malformed() const { return malformed; }
    /// Where Next() goes on, in bytes; of malformed data where the wrong prefix is.
    std::size_t Position() const { return position; }

private:
    std::optional<PlacedUnit> nextStartCoded();
    std::optional<PlacedUnit> nextPrefixed();

    std::span<const unsigned char> data;
    std::size_t position = 0;
    int lengthSize = 0;
    bool malformed = false;
};

/// Whether nothing but zeros stands in front of the first start code; empty data has none and is well formed.
bool beginsWithStartCode(std::span<const unsigned char> data);

}  // namespace Mivra::Codecs::H264
