#pragma once

// Internal: how a cache holds packets in memory for seconds without starving anybody.

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/Reference.h"

namespace Mivra::Media {

/// A packet on memory of its own, exactly as much as it needs and from no pool: may be kept for any time.
class OwnedPacket : public Common::PacketBuffer {
public:
    /// std::bad_alloc when there is no memory.
    static Common::Reference<Common::PacketBuffer> Make(int bytes);

private:
    explicit OwnedPacket(int bytes)
        : PacketBuffer(static_cast<Common::PacketBufferAllocator*>(nullptr), bytes) {}
};

/// The packet itself, or an owned copy with every attribute. The packet itself where that costs at most half
/// as much memory again as its data, its pool is one of those of MediaGlobal, and a quarter of the pool is
/// still free: a source waits or loses packets when its pool runs dry, and pools that are not the library's
/// may count what is out in ways of their own. Without memory for a copy it is the packet itself again.
Common::Reference<Common::PacketBuffer> HoldPacket(Common::PacketBuffer* packet);

/// What CopyAttributes copies, and the cursors and the transport's own fields.
void CopyEveryAttribute(Common::PacketBuffer& from, Common::PacketBuffer& to);

}  // namespace Mivra::Media
