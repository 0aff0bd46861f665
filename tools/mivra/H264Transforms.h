#pragma once

#include <memory>
#include <optional>

#include "mivra/common/model/Rational.h"
#include "tools/mivra/MediaCopy.h"

namespace Mivra::Tool {

/// Start codes, the sets in the private data and in front of every key frame.
std::unique_ptr<PacketTransform> makeAnnexBTransform();

/// Lengths of 4 bytes and a configuration record. Sets in the packets that the record has, too, are left out.
std::unique_ptr<PacketTransform> makeAvcTransform();

/// What is to be changed in the sequence parameter sets.
struct SetChanges {
    struct Crop {
        int left, right, top, bottom;  ///< luma samples
    };
    std::optional<Crop> crop;
    std::optional<Common::Rational> aspect;  ///< of a sample; 0/0: not told
};

/// Changes every sequence parameter set, those in the packets too. The form stays, or becomes start codes.
std::unique_ptr<PacketTransform> makeSetTransform(const SetChanges& changes, bool annexB);

}  // namespace Mivra::Tool
