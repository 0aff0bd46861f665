#pragma once

// A sleep that ends early: the notifier bumps a sequence word, the waiter waits for it to leave the value
// that it saw before it looked for work. Nobody waiting, a notification does not enter the kernel.
//
//     const std::uint32_t seen = event.Sequence();
//     if (!haveWork()) event.Wait(seen, 10'000'000);
//
// Any thread may notify and wait; who destroys the event sees to it that none does any more.

#include <atomic>
#include <climits>
#include <cstdint>

#include "mivra/platform/System.h"

namespace Mivra::Common {

class WakeEvent {
public:
    /// To be read before the look for work.
    std::uint32_t Sequence() const noexcept { return sequence.load(std::memory_order_acquire); }

    /// Waits at most the given nanoseconds (negative: without limit) for a notification after `seen` was
    /// read; true when there was one. May return early without one.
    bool Wait(std::uint32_t seen, std::int64_t nanoseconds) noexcept {
        // Either the notifier sees this waiter, or this waiter sees the new sequence.
        waiters.fetch_add(1);
        if (sequence.load() == seen) {
            Platform::System().waitWord(&sequence, seen, nanoseconds);
        }
        waiters.fetch_sub(1, std::memory_order_relaxed);
        return sequence.load(std::memory_order_acquire) != seen;
    }

    /// To be called after the work can be seen. Wakes every waiter.
    void Notify() noexcept {
        sequence.fetch_add(1);
        if (waiters.load() != 0) {
            Platform::System().wakeWord(&sequence, INT_MAX);
        }
    }

private:
    std::atomic<std::uint32_t> sequence{0};
    std::atomic<std::uint32_t> waiters{0};
};

}  // namespace Mivra::Common
