#include "mivra/media/HeldPacket.h"

#include <new>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/MediaGlobal.h"

namespace Mivra::Media {

using Common::DefaultPacketBufferAllocator;
using Common::PacketBuffer;
using Common::PacketBufferAllocator;
using Common::Reference;

namespace {

// Of a pool's buffers at least 1 in this many stays free.
constexpr int kSpareShare = 4;

/// The library's pool that lent the packet, or null. The packet's own pointer is only compared: a pool may
/// have gone before its buffers.
PacketBufferAllocator* globalPoolOf(PacketBuffer& packet) {
    PacketBufferAllocator* const pool = packet.Allocator();
    if (pool == nullptr || !MediaGlobal::IsInitialized()) {
        return nullptr;
    }
    const bool global = pool == MediaGlobal::GetSmallAllocator() || pool == MediaGlobal::GetAllocator() ||
                        pool == MediaGlobal::GetBigAllocator();
    return global ? pool : nullptr;
}

bool canSpare(PacketBufferAllocator& pool) {
    auto* const counted = dynamic_cast<DefaultPacketBufferAllocator*>(&pool);
    return counted != nullptr && counted->FreeBufferCount() > counted->BufferCount() / kSpareShare;
}

/// Whether the buffer with all that belongs to it stays within one and a half times the data.
bool isFilled(PacketBuffer& packet) {
    constexpr auto kOverhead = static_cast<std::int64_t>(sizeof(PacketBuffer));
    return 2 * (packet.Size() + kOverhead) <= std::int64_t{3} * packet.ActualSize();
}

Reference<PacketBuffer> copyOf(PacketBuffer& packet) {
    Reference<PacketBuffer> copy = OwnedPacket::Make(packet.ActualSize());
    copy->Append(packet.GetPointer(), packet.ActualSize());
    CopyEveryAttribute(packet, *copy.get());
    return copy;
}

}  // namespace

Reference<PacketBuffer> OwnedPacket::Make(int bytes) {
    return Reference<PacketBuffer>(new OwnedPacket(bytes));
}

Reference<PacketBuffer> HoldPacket(PacketBuffer* packet) {
    if (packet->Allocator() != nullptr) {
        PacketBufferAllocator* const pool = globalPoolOf(*packet);
        if (pool == nullptr || !isFilled(*packet) || !canSpare(*pool)) {
            try {
                return copyOf(*packet);
            } catch (const std::bad_alloc&) {
                // The packet itself will do.
            }
        }
    }
    return Reference<PacketBuffer>(packet);
}

void CopyEveryAttribute(PacketBuffer& from, PacketBuffer& to) {
    to.CopyAttributes(&from);
    to.Position() = from.Position();
    to.BitPosition() = from.BitPosition();
    to.Operation() = from.Operation();
    to.OperationFinished() = from.OperationFinished();
    to.OperationTime() = from.OperationTime();
    to.UserContext() = from.UserContext();
}

}  // namespace Mivra::Media
