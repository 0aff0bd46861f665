#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Reference.h"

namespace Mivra::Media {

class IMediaSource;

/// The samples on their way from the sources' threads to the session's thread, in order of arrival. Internal
/// to the session, which owns it. Any thread may append; the session's thread takes. A lock of its own, a
/// leaf: nothing is called under it. The ring grows when it is full and then keeps its size, so that the
/// steady state allocates nothing.
class SampleQueue {
public:
    struct Item {
        const IMediaSource* sender = nullptr;  // names the source; it may be gone when the item is taken
        Common::Reference<Common::PacketBuffer> sample;
        std::uint64_t number = 0;  // samples appended to the queue before it
    };
    enum class Appended { First, Behind, Closed };

    SampleQueue() = default;
    ~SampleQueue();
    SampleQueue(const SampleQueue&) = delete;
    SampleQueue& operator=(const SampleQueue&) = delete;

    /// A new queue is closed, and a closed one takes nothing.
    void Open();
    /// Closes the queue and releases what is in it; how many samples that were.
    int Close();

    /// Takes a reference to the sample. First: the queue was empty. std::bad_alloc when it is full and cannot
    /// grow: then nothing is taken.
    Appended Append(const IMediaSource* sender, Common::PacketBuffer* sample);
    /// Moves the front into item; false when there is none.
    bool Take(Item& item);
    /// A snapshot, without the lock.
    bool Empty() const noexcept { return count.load(std::memory_order_relaxed) == 0; }
    /// Samples that were ever appended, and how many of them were taken.
    std::uint64_t AppendedCount();
    std::uint64_t TakenCount();

private:
    struct Slot {
        const IMediaSource* sender;
        Common::PacketBuffer* sample;
    };

    void grow() MIVRA_REQUIRES(lock);

    Common::CritSec lock;
    Slot* slots MIVRA_GUARDED_BY(lock) = nullptr;
    std::size_t capacity MIVRA_GUARDED_BY(lock) = 0;  // a power of two, or 0
    std::size_t first MIVRA_GUARDED_BY(lock) = 0;
    bool open MIVRA_GUARDED_BY(lock) = false;
    std::uint64_t taken MIVRA_GUARDED_BY(lock) = 0;
    std::atomic<std::size_t> count{0};  // changed under the lock
};

}  // namespace Mivra::Media
