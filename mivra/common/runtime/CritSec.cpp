#include "mivra/common/runtime/CritSec.h"

#include <algorithm>
#include <system_error>

#include "mivra/platform/Relax.h"
#include "mivra/platform/System.h"

namespace Mivra::Common {
namespace {

// Looks at a busy lock before the kernel is asked; most are held for less. The time between two looks doubles
// up to the longest: while one thread waits, the other takes the lock several times with its data in its own
// cache, which is worth more than taking turns.
constexpr int kLooks = 10;
constexpr int kLongestPause = 64;

}  // namespace

void CritSec::wait() noexcept {
    for (int look = 0, pause = 1; look < kLooks; ++look, pause = std::min(2 * pause, kLongestPause)) {
        std::uint32_t expected = Free;
        if (word.load(std::memory_order_relaxed) == Free &&
            word.compare_exchange_weak(expected, Held, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
            return;
        }
        for (int rest = pause; rest > 0; --rest) {
            Platform::Relax();
        }
    }
    while (word.exchange(Contended, std::memory_order_acquire) != Free) {
        Platform::System().waitWord(&word, Contended, -1);
    }
}

void CritSec::wake() noexcept {
    Platform::System().wakeWord(&word, 1);
}

void CritSec::failNotOwner() {
    throw std::system_error(std::make_error_code(std::errc::operation_not_permitted), "CritSec::Unlock");
}

void CritSec::failTooDeep() {
    throw std::system_error(std::make_error_code(std::errc::value_too_large), "CritSec::Lock");
}

}  // namespace Mivra::Common
