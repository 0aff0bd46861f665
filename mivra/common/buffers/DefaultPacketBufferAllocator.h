#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

#include "mivra/common/buffers/PacketBufferAllocator.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

struct PoolControl;  // what a pool shares with its buffers

/// The pool of packet buffers: a table of buffers made up front, lent lowest slot first, that grows in tenths
/// when it runs dry. Its maker owns it and may destroy it while buffers are out: those stay valid and are
/// deleted by their last Release. Any thread may call it, under one lock of the pool's own; lending and
/// taking back allocate nothing.
class MIVRA_API DefaultPacketBufferAllocator : public PacketBufferAllocator {
public:
    /// Makes bufferCount buffers of bufferSize bytes. With growth the pool adds buffers while it has fewer
    /// than bufferCount * growthLimit, truncated. std::bad_alloc when there is no memory; GeneralException
    /// when the size or the count is negative.
    DefaultPacketBufferAllocator(int bufferSize, int bufferCount, bool allowGrowth, float growthLimit);
    ~DefaultPacketBufferAllocator() override;

    /// Null when the pool is empty and may not grow, has grown to its limit, or finds no memory for more.
    PacketBuffer* LockBuffer(bool logExhaustion) override;
    /// Keeps the growth settings and the limit of the first count. Without memory for the new buffers, or
    /// with a negative size or count, it logs at level 1 and leaves the pool as it is.
    void Reallocate(int bufferSize, int bufferCount) override;
    int BufferSize() override;
    int BufferCount() override;

    int FreeBufferCount();
    bool AllowGrowth() const { return allowGrowth; }
    bool IsAutoGrown();
    /// Buffers in use on the average over all lockings and releases; 0 before the first.
    int GetAverageUsage();

protected:
    /// Called with the pool's lock held. An override (which must call this one, and nothing that waits) may
    /// look at the buffer before: sizes, positions and plain attributes are still there, while owned ones
    /// (extra data, POIs, the new media type) have gone. Such a class calls retire() first in its destructor.
    bool releaseBuffer(PacketBuffer* buffer) override;

    /// Ends the pool: logs how many buffers are out, deletes the others and lets go of those that are out;
    /// from then on no releaseBuffer is running or called any more. The destructor calls it, too late for a
    /// derived class with a releaseBuffer of its own. A second call does nothing.
    void retire();

private:
    friend class PacketBuffer;

    using Buffers = std::vector<PacketBuffer*>;

    void makeBuffers(Buffers& made, int count, int ofSize, int ofGeneration);
    static void deleteBuffers(Buffers& made, std::size_t from);
    bool grow(bool logExhaustion) MIVRA_REQUIRES(lock);
    bool addBuffers(int increment) MIVRA_REQUIRES(lock);
    void renew(int newSize, int newCount) MIVRA_REQUIRES(lock);
    void account() MIVRA_REQUIRES(lock);
    void report(std::int64_t now, int usage) MIVRA_REQUIRES(lock);
    std::size_t findFree() const MIVRA_REQUIRES(lock);
    std::int64_t growthCeiling() const;

    PoolControl* const control;
    CritSec& lock;  // the control's
    std::atomic<int> bufferSize;
    std::atomic<int> bufferCount;
    const int initialBufferCount;
    const bool allowGrowth;
    const float growthLimit;
    bool autoGrown MIVRA_GUARDED_BY(lock) = false;
    int freeBufferCount MIVRA_GUARDED_BY(lock) = 0;
    Buffers buffers MIVRA_GUARDED_BY(lock);
    std::vector<unsigned char> freeFlags MIVRA_GUARDED_BY(lock);  // 1: free
    int searchCursor MIVRA_GUARDED_BY(lock) = 0;                  // no free slot below it
    int generation MIVRA_GUARDED_BY(lock) = 0;
    std::set<PacketBuffer*> oldGenerationBuffers MIVRA_GUARDED_BY(lock);
    int peakUsage MIVRA_GUARDED_BY(lock) = 0;
    std::int64_t usageSum MIVRA_GUARDED_BY(lock) = 0;
    std::int64_t usageSamples MIVRA_GUARDED_BY(lock) = 0;
    std::int64_t nextReport MIVRA_GUARDED_BY(lock);  // nanoseconds of the coarse clock
};

}  // namespace Mivra::Common
