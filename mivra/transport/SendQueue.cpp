#include "mivra/transport/SendQueue.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

#include "mivra/common/buffers/PacketBuffer.h"

namespace Mivra::Transport {

using Common::AutoLock;
using Common::PacketBuffer;

namespace {

constexpr std::size_t kFirstRing = 8;

}  // namespace

SendQueue::~SendQueue() {
    Close();
}

SendQueue::Admission SendQueue::Push(PacketBuffer* packet) {
    const std::int32_t size = packet->ActualSize();
    if (size < 0 || size > packet->Size()) return Admission::BadSize;
    AutoLock guard(lock);
    if (closed) return Admission::Closed;
    if (count > 1 && queuedBytes + size > allowedBytes) return Admission::Full;
    if (!hasRoom()) return Admission::NoMemory;
    // Several threads may queue one packet at once.
    std::atomic_ref<int>(packet->Position()).store(0, std::memory_order_relaxed);
    packet->AddRef();
    ++count;
    at(count - 1) = {packet, size, 0, false};
    queuedBytes += size;
    return Admission::Queued;
}

bool SendQueue::hasRoom() {
    if (count < ring.size()) return true;
    try {
        std::vector<Entry> larger(ring.empty() ? kFirstRing : ring.size() * 2);
        for (std::size_t i = 0; i < count; ++i)
            larger[i] = at(i);
        ring.swap(larger);
        first = 0;
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// Those before it have been written but nobody has taken them out yet.
std::size_t SendQueue::firstUnsent() const {
    std::size_t index = 0;
    while (index < count && at(index).done)
        ++index;
    return index;
}

int SendQueue::Gather(iovec* pieces, int most) {
    AutoLock guard(lock);
    int gathered = 0;
    for (std::size_t i = firstUnsent(); i < count && gathered < most; ++i) {
        const Entry& entry = at(i);
        pieces[gathered++] = {entry.packet->GetPointer() + entry.sent,
                              static_cast<std::size_t>(entry.size - entry.sent)};
    }
    return gathered;
}

bool SendQueue::Advance(std::size_t bytes) {
    AutoLock guard(lock);
    for (std::size_t i = firstUnsent(); i < count; ++i) {
        Entry& entry = at(i);
        const auto left = static_cast<std::size_t>(entry.size - entry.sent);
        const std::size_t part = std::min(left, bytes);
        entry.sent += static_cast<std::int32_t>(part);
        bytes -= part;
        if (part < left) break;
        entry.done = true;
        if (bytes == 0) break;
    }
    return count > 0 && at(0).done;
}

bool SendQueue::AdvancePackets(int packets) {
    AutoLock guard(lock);
    for (std::size_t i = firstUnsent(); i < count && packets > 0; ++i, --packets)
        at(i).done = true;
    return count > 0 && at(0).done;
}

PacketBuffer* SendQueue::PopSent() {
    AutoLock guard(lock);
    if (count == 0 || !at(0).done) return nullptr;
    const Entry entry = at(0);
    first = (first + 1) & (ring.size() - 1);
    --count;
    queuedBytes = count == 0 ? 0 : queuedBytes - entry.size;
    return entry.packet;
}

void SendQueue::Close() {
    std::vector<Entry> left;
    std::size_t from;
    std::size_t number;
    {
        AutoLock guard(lock);
        closed = true;
        left.swap(ring);
        from = std::exchange(first, 0);
        number = std::exchange(count, 0);
        queuedBytes = 0;
    }
    for (std::size_t i = 0; i < number; ++i)
        left[(from + i) & (left.size() - 1)].packet->Release();
}

bool SendQueue::IsEmpty() const {
    AutoLock guard(lock);
    return count == 0;
}

std::int32_t SendQueue::QueuedBytes() const {
    AutoLock guard(lock);
    return static_cast<std::int32_t>(std::min<std::int64_t>(queuedBytes, INT32_MAX));
}

std::int32_t SendQueue::AllowedBytes() const {
    AutoLock guard(lock);
    return allowedBytes;
}

void SendQueue::SetAllowedBytes(std::int32_t bytes) {
    AutoLock guard(lock);
    allowedBytes = bytes;
}

std::vector<PacketBuffer*> SendQueue::Packets() const {
    AutoLock guard(lock);
    std::vector<PacketBuffer*> packets;
    packets.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        packets.push_back(at(i).packet);
    return packets;
}

}  // namespace Mivra::Transport
