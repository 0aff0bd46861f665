#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "mivra/codecs/h264/AnnexB.h"
#include "mivra/common/buffers/PacketBuffer.h"

namespace Mivra::Codecs::H264 {

// SEI messages (ITU-T H.264 7.3.2.3) of packets in Annex B form. Payloads are without emulation prevention.

/// The first message of the type in front of the first slice. A message that promises more than its unit
/// holds ends that unit, whatever follows.
std::optional<std::vector<unsigned char>> findSei(std::span<const unsigned char> annexB, int payloadType);

/// Whether a unit of type 6 holds a recovery point whose recovery_frame_cnt is 0 (D.1.8).
bool recoversAtOnce(NalUnit unit);

/// Adds a message in a unit of its own to the packet, of which annexB is the part to look at: in front of the
/// first slice and, where it has one, of its prefix unit; a buffering period, which has to be the first
/// message (7.4.1.2.3), in front of the other messages. The position stays. False, and nothing changed, when
/// there is no slice or too little room.
bool insertSei(Common::PacketBuffer& packet, std::span<const unsigned char> annexB, int payloadType,
               std::span<const unsigned char> payload);

}  // namespace Mivra::Codecs::H264
