#pragma once

#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

class PacketBuffer;

/// A pool that lends packet buffers of one size. Its maker owns it. Any thread may lock and release buffers;
/// nobody may call a pool that is being destroyed. Buffers of a pool that keeps none of its own state for
/// them (see DefaultPacketBufferAllocator) must all be back before it goes.
class MIVRA_API PacketBufferAllocator {
public:
    PacketBufferAllocator() = default;
    PacketBufferAllocator(const PacketBufferAllocator&) = delete;
    PacketBufferAllocator& operator=(const PacketBufferAllocator&) = delete;
    virtual ~PacketBufferAllocator();

    /// A buffer with one reference, which is the caller's; null when there is none to be had. logExhaustion:
    /// whether a pool that has grown to its limit says so in the log.
    virtual PacketBuffer* LockBuffer(bool logExhaustion) = 0;
    /// Makes the pool anew; buffers that are out stay valid and are deleted by their last Release.
    virtual void Reallocate(int bufferSize, int bufferCount) = 0;
    /// Bytes that each buffer holds.
    virtual int BufferSize() = 0;
    /// Buffers of the pool, lent ones included.
    virtual int BufferCount() = 0;

protected:
    friend class PacketBuffer;

    /// Takes back a buffer whose last reference has gone, on the thread that released it; the buffer's lock
    /// is not held. True: the caller deletes it.
    virtual bool releaseBuffer(PacketBuffer* buffer) = 0;
};

}  // namespace Mivra::Common
