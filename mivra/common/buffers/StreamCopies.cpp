// What a VersatileBufferStream copies, shares with and hands over to other streams.

#include <functional>
#include <utility>

#include "mivra/common/buffers/StreamChain.h"

namespace Mivra::Common {

/// Locks a stream and what it copies to, which may be the same or no stream of this kind. Two streams are
/// locked in the order of their addresses, so that two threads that copy opposite ways never wait for each
/// other.
class MIVRA_SCOPED_CAPABILITY VersatileBufferStream::BothLocks {
public:
    // The analysis cannot follow a pair whose order is settled at run time; it is told of the source's lock.
    BothLocks(VersatileBufferStream& source, IStream* destination)
        MIVRA_ACQUIRE(source.lock) MIVRA_NO_THREAD_SAFETY_ANALYSIS;
    ~BothLocks() MIVRA_RELEASE() MIVRA_NO_THREAD_SAFETY_ANALYSIS;
    BothLocks(const BothLocks&) = delete;
    BothLocks& operator=(const BothLocks&) = delete;

private:
    VersatileBufferStream* first;
    VersatileBufferStream* second;
};

VersatileBufferStream::BothLocks::BothLocks(VersatileBufferStream& source, IStream* destination)
    : first(&source), second(dynamic_cast<VersatileBufferStream*>(destination)) {
    if (second != nullptr && std::less<>()(second, first)) {
        std::swap(first, second);
    }
    first->lock.Lock();
    if (second != nullptr) {
        second->lock.Lock();
    }
}

VersatileBufferStream::BothLocks::~BothLocks() {
    if (second != nullptr) {
        second->lock.Unlock();
    }
    first->lock.Unlock();
}

void VersatileBufferStream::copyRange(IStream* destination, std::int64_t offset, int count) {
    if (destination == nullptr || offset < 0 || count < 0 || offset > window.length ||
        count > window.length - offset) {
        FailStreamRange("CopyTo");
    }
    if (count == 0) {
        return;
    }
    auto* const target = dynamic_cast<VersatileBufferStream*>(destination);
    if (target == this) {
        std::vector<unsigned char> bytes(static_cast<std::size_t>(count));
        ReadFrom(offset, bytes.data(), 0, count);
        Write(bytes.data(), 0, count);
        return;
    }
    if (target != nullptr) {
        AutoLock guard(target->lock);
        target->reserve("Write", count);
    }
    visitRange(offset, count, [destination](const unsigned char* data, std::size_t size) {
        destination->Write(data, 0, static_cast<int>(size));
    });
}

void VersatileBufferStream::CopyTo(IStream* destination, int count) {
    BothLocks guard(*this, destination);
    const std::int64_t offset = window.position;
    copyRange(destination, offset, count);
    moveTo(offset + count);
}

void VersatileBufferStream::CopyTo(IStream* destination, std::int64_t offset, int count, bool movePosition) {
    BothLocks guard(*this, destination);
    copyRange(destination, offset, count);
    if (movePosition) {
        moveTo(offset + count);
    }
}

void VersatileBufferStream::UnlockedCopyTo(IStream* destination, std::int64_t offset, int count) {
    copyRange(destination, offset, count);
}

// The lock of the destination is taken together with this one's, beyond what the analysis can follow.
void VersatileBufferStream::CopyAllTo(VersatileBufferStream* destination) MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    if (destination == nullptr) {
        FailStreamRange("CopyAllTo");
    }
    BothLocks guard(*this, destination);
    const Chain slices = chain;
    destination->appendChain(slices);
    for (const Slice& slice : slices) {
        slice.buffer->AddRef();
    }
}

void VersatileBufferStream::MoveTo(VersatileBufferStream* destination) MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    if (destination == nullptr) {
        FailStreamRange("MoveTo");
    }
    if (destination == this) {
        return;
    }
    BothLocks guard(*this, destination);
    destination->appendChain(chain);
    chain.clear();
    window.length = 0;
    moveTo(0);
    updateWindow();
}

}  // namespace Mivra::Common
