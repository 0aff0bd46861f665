#pragma once

#include <cstdint>

namespace Mivra::Test {

/// Time in the test's hands, one instance at a time: shifts the clocks of the system table. A sleep through
/// the table advances the fake time and returns at once. Waits on words stay real, but a limit of theirs is
/// cut to 2 ms. Any thread may advance it.
class FakeClock {
public:
    /// Running: real time plus what was advanced. Frozen: it stands still but for that.
    enum class Mode { Running, Frozen };

    explicit FakeClock(Mode mode = Mode::Running);
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
