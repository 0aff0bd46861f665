#pragma once

#include <atomic>
#include <cstdint>

#include "mivra/common/runtime/Annotations.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// A small recursive lock: the thread that holds it may take it again and gives it back as often. Taking and
/// giving back a free one costs one atomic exchange each; a busy one is waited for in the kernel. Any thread
/// may call it; it must be free when it is destroyed.
class MIVRA_API MIVRA_CAPABILITY("mutex") CritSec {
public:
    CritSec() noexcept = default;
    ~CritSec() = default;
    CritSec(const CritSec&) = delete;
    CritSec& operator=(const CritSec&) = delete;

    /// Waits until the lock is free. std::system_error (value_too_large) when it is taken 2^32 - 1 times.
    void Lock() MIVRA_ACQUIRE() {
        const std::uintptr_t thread = self();
        if (owner.load(std::memory_order_relaxed) == thread) {
            deepen();
            return;
        }
        std::uint32_t expected = Free;
        if (!word.compare_exchange_strong(expected, Held, std::memory_order_acquire,
                                          std::memory_order_relaxed)) [[unlikely]] {
            wait();
        }
        owner.store(thread, std::memory_order_relaxed);
        depth = 1;
    }

    /// False only when another thread holds the lock.
    bool TryLock() MIVRA_TRY_ACQUIRE(true) {
        const std::uintptr_t thread = self();
        if (owner.load(std::memory_order_relaxed) == thread) {
            deepen();
            return true;
        }
        std::uint32_t expected = Free;
        if (!word.compare_exchange_strong(expected, Held, std::memory_order_acquire,
                                          std::memory_order_relaxed)) {
            return false;
        }
        owner.store(thread, std::memory_order_relaxed);
        depth = 1;
        return true;
    }

    /// std::system_error (operation_not_permitted) when the calling thread does not hold the lock.
    void Unlock() MIVRA_RELEASE() {
        if (owner.load(std::memory_order_relaxed) != self()) [[unlikely]] {
            failNotOwner();
        }
        if (--depth != 0) {
            return;
        }
        owner.store(0, std::memory_order_relaxed);
        if (word.exchange(Free, std::memory_order_release) == Contended) [[unlikely]] {
            wake();
        }
    }

private:
    enum : std::uint32_t { Free = 0, Held = 1, Contended = 2 };

    // Distinct for every living thread and never 0.
    static std::uintptr_t self() noexcept {
        return reinterpret_cast<std::uintptr_t>(__builtin_thread_pointer());
    }

    void deepen() {
        if (depth == UINT32_MAX) [[unlikely]] {
            failTooDeep();
        }
        ++depth;
    }

    void wait() noexcept;
    void wake() noexcept;
    [[noreturn]] static void failNotOwner();
    [[noreturn]] static void failTooDeep();

    std::atomic<std::uint32_t> word{Free};
    std::uint32_t depth = 0;  // touched by the owner only
    std::atomic<std::uintptr_t> owner{0};
};

/// Holds a CritSec for the lifetime of a scope.
class MIVRA_SCOPED_CAPABILITY AutoLock {
public:
    /// Tag of the constructor that takes over a lock which the calling thread already holds.
    struct Adopt {};

    explicit AutoLock(CritSec& section) MIVRA_ACQUIRE(section) : lock(section) { lock.Lock(); }
    AutoLock(CritSec& section, Adopt) MIVRA_REQUIRES(section) : lock(section) {}
    ~AutoLock() MIVRA_RELEASE() { lock.Unlock(); }
    AutoLock(const AutoLock&) = delete;
    AutoLock& operator=(const AutoLock&) = delete;

private:
    CritSec& lock;
};

}  // namespace Mivra::Common
