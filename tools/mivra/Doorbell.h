#pragma once

#include <atomic>
#include <cstdint>

namespace Mivra::Tool {

/// Lets one thread sleep until a number that other threads change is right.
class Doorbell {
public:
    /// Sleeps until `isRight` holds, which it looks at after every Ring.
    template <typename Condition>
    void WaitUntil(Condition isRight) {
        for (std::uint32_t before = rings.load(); !isRight(); before = rings.load()) {
            rings.wait(before);
        }
    }
    void Ring() {
        rings.fetch_add(1);
        rings.notify_all();
    }

private:
    std::atomic<std::uint32_t> rings{0};
};

}  // namespace Mivra::Tool
