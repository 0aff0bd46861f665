#include "mivra/media/SampleQueue.h"

#include <new>

#include "mivra/platform/System.h"

namespace Mivra::Media {

using Common::AutoLock;
using Common::PacketBuffer;
using Common::Reference;

namespace {

constexpr std::size_t kFirstCapacity = 64;

}  // namespace

SampleQueue::~SampleQueue() {
    Close();
    Platform::System().free(slots);
}

void SampleQueue::Open() {
    AutoLock guard(lock);
    open = true;
}

int SampleQueue::Close() {
    {
        AutoLock guard(lock);
        open = false;
    }
    int released = 0;
    for (Item item; Take(item); item = Item()) {
        ++released;
    }
    return released;
}

SampleQueue::Appended SampleQueue::Append(const IMediaSource* sender, PacketBuffer* sample) {
    Reference<PacketBuffer> held(sample);
    AutoLock guard(lock);
    if (!open) {
        return Appended::Closed;
    }
    const std::size_t queued = count.load(std::memory_order_relaxed);
    if (queued == capacity) {
        grow();
    }
    slots[(first + queued) & (capacity - 1)] = {sender, held.Detach()};
    count.store(queued + 1, std::memory_order_relaxed);
    return queued == 0 ? Appended::First : Appended::Behind;
}

bool SampleQueue::Take(Item& item) {
    AutoLock guard(lock);
    const std::size_t queued = count.load(std::memory_order_relaxed);
    if (queued == 0) {
        return false;
    }
    item.sender = slots[first].sender;
    item.sample = Reference<PacketBuffer>::Adopt(slots[first].sample);
    item.number = taken++;
    first = (first + 1) & (capacity - 1);
    count.store(queued - 1, std::memory_order_relaxed);
    return true;
}

std::uint64_t SampleQueue::AppendedCount() {
    AutoLock guard(lock);
    return taken + count.load(std::memory_order_relaxed);
}

std::uint64_t SampleQueue::TakenCount() {
    AutoLock guard(lock);
    return taken;
}

void SampleQueue::grow() {
    const std::size_t enlarged = capacity == 0 ? kFirstCapacity : capacity * 2;
    auto* memory = static_cast<Slot*>(Platform::System().allocate(enlarged * sizeof(Slot)));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    for (std::size_t i = 0; i < capacity; ++i) {
        memory[i] = slots[(first + i) & (capacity - 1)];
    }
    Platform::System().free(slots);
    slots = memory;
    capacity = enlarged;
    first = 0;
}

}  // namespace Mivra::Media
