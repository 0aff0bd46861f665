#include "tests/support/FakeClock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "mivra/platform/System.h"

namespace Mivra::Test {
namespace {

using Platform::g_system;
using Platform::SystemTable;

constexpr std::int64_t kLongestWait = 2 * kMillisecond;

// The real entries, taken once; the stand-ins remain for the life of the program.
const SystemTable s_real = g_system;
constinit std::atomic<bool> s_frozen{false};
constinit std::atomic<std::int64_t> s_shift{0};
constinit std::atomic<std::int64_t> s_wallShift{0};
constinit std::atomic<std::int64_t> s_slept{0};
constinit std::atomic<std::int64_t> s_frozenMonotonic{0};
constinit std::atomic<std::int64_t> s_frozenWall{0};

std::int64_t shifted(std::int64_t (*real)(), const std::atomic<std::int64_t>& frozen) {
    return s_frozen ? frozen.load() + s_shift.load() : real();
}

void fakeSleep(std::int64_t nanoseconds) {
    if (!s_frozen) {
        s_real.sleep(nanoseconds);
        return;
    }
    s_slept += std::max<std::int64_t>(nanoseconds, 0);
    s_shift += std::max<std::int64_t>(nanoseconds, 0);
    std::this_thread::yield();
}

void cutWait(const std::atomic<std::uint32_t>* word, std::uint32_t expected, std::int64_t nanoseconds) {
    if (s_frozen) nanoseconds = std::min(nanoseconds, kLongestWait);
    s_real.waitWord(word, expected, nanoseconds);
}

const bool s_installed = [] {
    g_system.monotonicTime = [] { return shifted(s_real.monotonicTime, s_frozenMonotonic); };
    g_system.coarseTime = [] { return shifted(s_real.coarseTime, s_frozenMonotonic); };
    g_system.wallTime = [] {
        return shifted(s_real.wallTime, s_frozenWall) + (s_frozen ? s_wallShift.load() : 0);
    };
    g_system.sleep = fakeSleep;
    g_system.waitWord = cutWait;
    return true;
}();

}  // namespace

FakeClock::FakeClock() {
    EXPECT_FALSE(s_frozen) << "one fake clock at a time";
    s_shift = s_wallShift = s_slept = 0;
    s_frozenMonotonic = s_real.monotonicTime();
    s_frozenWall = s_real.wallTime();
    s_frozen = true;
}

FakeClock::~FakeClock() {
    s_frozen = false;
}

void FakeClock::Advance(std::int64_t nanoseconds) {
    s_shift += nanoseconds;
}

void FakeClock::AdvanceWall(std::int64_t nanoseconds) {
    s_wallShift += nanoseconds;
}

std::int64_t FakeClock::Slept() const {
    return s_slept.load();
}

}  // namespace Mivra::Test
