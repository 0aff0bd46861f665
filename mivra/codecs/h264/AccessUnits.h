#pragma once

#include <cstddef>
#include <optional>
#include <span>

#include "mivra/codecs/h264/SliceHeader.h"
#include "mivra/codecs/h264/UnitWalk.h"

namespace Mivra::Codecs::H264 {

/// Tells where access units begin (ITU-T H.264 7.4.1.2.3) as the units of a stream go by in order. Slices of
/// further views, auxiliary pictures, redundant pictures, filler data and ends of sequences begin none.
class AccessUnitBoundaries {
public:
    /// Whether an access unit begins with this unit; the first one always does. following stands behind it:
    /// a prefix unit belongs to the slice that it is in front of.
    bool Begins(const PlacedUnit& unit, UnitWalk following);

private:
    bool beginsNext(const std::optional<SliceHeader>& slice) const;

    SliceHeaderReader slices;
    std::optional<SliceHeader> picture;
    bool pictureSeen = false;
    bool first = true;
};

/// What a packet's first coded picture is.
struct FrameType {
    /// IDR, or with a recovery point whose recovery_frame_cnt is 0: the picture itself is whole. Where
    /// recovery takes longer (gradual refresh), what a decoder showed meanwhile would be broken.
    bool keyFrame = false;
    bool reference = false;
};

/// Looks no further than the first slice; nothing when there is none.
std::optional<FrameType> detectFrameType(std::span<const unsigned char> annexB);

/// Offset of the first access unit at or behind from whose picture is a key frame.
std::optional<std::size_t> findVideoStart(std::span<const unsigned char> data, std::size_t from,
                                          int lengthSize);

}  // namespace Mivra::Codecs::H264
