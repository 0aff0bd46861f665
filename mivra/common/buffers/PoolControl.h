#pragma once

#include <atomic>

#include "mivra/common/runtime/CritSec.h"

namespace Mivra::Common {

class DefaultPacketBufferAllocator;

/// What a pool shares with its buffers, so that they find back to it or learn that it has gone. Freed with
/// the last of them.
struct PoolControl {
    explicit PoolControl(DefaultPacketBufferAllocator* owner) : pool(owner) {}

    void AddHolder() { holders.fetch_add(1, std::memory_order_relaxed); }
    void DropHolder() {
        if (holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

    CritSec lock;
    DefaultPacketBufferAllocator* pool MIVRA_GUARDED_BY(lock);  // null: gone
    std::atomic<int> holders{1};                                // the pool and every buffer
};

}  // namespace Mivra::Common
