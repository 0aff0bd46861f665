#pragma once

#include "mivra/common/runtime/Reference.h"
#include "tools/mivra/Demuxer.h"

namespace Mivra::Tool {

using Packet = Common::Reference<Common::PacketBuffer>;

/// A buffer of MediaGlobal with room for so many bytes. std::bad_alloc when there is none.
Packet makeBuffer(std::int64_t size);

/// A copy of the packet that the input has read last: payload, times in kPacketTimeBase, flags, side data,
/// and a new media type where the stream changes its private data.
Packet copyPacket(Demuxer& input);

}  // namespace Mivra::Tool
