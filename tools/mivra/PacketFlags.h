#pragma once

// What a container says of a packet beyond the flags of a PacketBuffer: FFmpeg's packet flags. Between this
// program's sources and sinks they travel in UserContext, which costs nothing per packet.

#include <cstdint>

#include "mivra/common/buffers/PacketBuffer.h"

namespace Mivra::Tool {

inline void setPacketFlags(Common::PacketBuffer& packet, int flags) {
    packet.UserContext() = reinterpret_cast<void*>(static_cast<std::uintptr_t>(static_cast<unsigned>(flags)));
}

inline int packetFlags(Common::PacketBuffer& packet) {
    return static_cast<int>(static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(packet.UserContext())));
}

/// ExtraData keys of a packet's side data begin with this; FFmpeg's number of the type follows. The value is
/// a std::string of the bytes.
inline constexpr const char* kPacketSideData = "SideData.";

}  // namespace Mivra::Tool
