#pragma once

#include <cstddef>
#include <optional>
#include <span>

#include "mivra/common/buffers/PacketBuffer.h"

namespace Mivra::Codecs::H264 {

/// What a packet holds from its position to its actual size; nothing when there is no packet, or its cursors
/// do not lie inside of it.
inline std::optional<std::span<const unsigned char>> packetBytes(Common::PacketBuffer* packet) {
    if (packet == nullptr || packet->Position() < 0 || packet->Position() > packet->ActualSize() ||
        packet->ActualSize() > packet->Size()) {
        return std::nullopt;
    }
    return std::span(reinterpret_cast<const unsigned char*>(packet->Buffer()) + packet->Position(),
                     static_cast<std::size_t>(packet->ActualSize() - packet->Position()));
}

/// The same of a pointer and a size from outside; null goes with size 0 only.
inline std::optional<std::span<const unsigned char>> bytesOf(const unsigned char* data, int size) {
    if (size < 0 || (data == nullptr && size > 0)) {
        return std::nullopt;
    }
    return std::span(data, static_cast<std::size_t>(size));
}

}  // namespace Mivra::Codecs::H264
