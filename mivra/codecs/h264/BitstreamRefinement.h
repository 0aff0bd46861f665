#pragma once

#include <span>

#include "mivra/codecs/h264/PacketConversion.h"

namespace Mivra::Codecs::H264 {

/// Writes an Annex B packet in one form: start codes of four bytes and no padding; of each access unit one
/// delimiter, in front; no filler data; no parameter set that repeats what the one of its id said last. A key
/// frame without sets of a kind gets those of the given ones (Annex B): sequence parameter sets behind the
/// delimiter, picture parameter sets behind the sequence parameter sets. Everything else stays as it is, in
/// its order.
Conversion refineAnnexB(std::span<const unsigned char> in, std::span<const unsigned char> sets,
                        Common::PacketBuffer& out);

}  // namespace Mivra::Codecs::H264
