#pragma once

#include <cstdint>

namespace Mivra::Test {

/// Time in the test's hands, one instance at a time: the clocks of the system table stand still but for what
/// they are advanced by. A sleep through the table advances them and returns at once. Waits on words stay
/// real, but a limit of theirs is cut to 2 ms. Any thread may advance it.
class FakeClock {
public:
    FakeClock();
    ~FakeClock();
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    /// Moves the monotonic, coarse and wall clocks by nanoseconds.
    void Advance(std::int64_t nanoseconds);
    /// Moves the wall clock alone, also backwards.
    void AdvanceWall(std::int64_t nanoseconds);
    /// Nanoseconds that were slept through so far, by all threads.
    std::int64_t Slept() const;
};

constexpr std::int64_t kMillisecond = 1'000'000;
constexpr std::int64_t kSecond = 1'000'000'000;

}  // namespace Mivra::Test
