#pragma once

#include <span>

#include "mivra/common/buffers/PacketBuffer.h"

namespace Mivra::Codecs::H264 {

// Conversions of packets between the two carriages. Nothing is allocated; what was written is appended to out
// as a whole, or not at all.

enum class Conversion { Done, Malformed, TooLittleRoom };

/// Length prefixes to start codes of four bytes.
Conversion convertToAnnexB(std::span<const unsigned char> in, int lengthSize, Common::PacketBuffer& out);

/// The same with sets (Annex B) for an IDR picture that has none: in front of its first slice. Of one kind
/// missing the sets of that kind are added, sequence before picture parameter sets. A start code has four
/// bytes for the first unit and for sets, else three (B.1.2).
Conversion convertToAnnexB(std::span<const unsigned char> in, int lengthSize,
                           std::span<const unsigned char> sets, Common::PacketBuffer& out);

/// Start codes to length prefixes. A unit too long for its prefix is malformed, and so is data with bytes in
/// front of the first start code.
Conversion convertToAvc(std::span<const unsigned char> in, int lengthSize, bool dropParameterSets,
                        Common::PacketBuffer& out);

}  // namespace Mivra::Codecs::H264
