#include "mivra/common/runtime/CritSec.h"

#include <gtest/gtest.h>

#include <system_error>
#include <thread>
#include <vector>

#include "mivra/common/runtime/WakeEvent.h"

namespace Mivra::Test {
namespace {

using Common::AutoLock;
using Common::CritSec;
using Common::WakeEvent;

bool isFreeForOthers(CritSec& lock) {
    bool taken = false;
    std::thread([&]() MIVRA_NO_THREAD_SAFETY_ANALYSIS {
        taken = lock.TryLock();
        if (taken) lock.Unlock();
    }).join();
    return taken;
}

// Recursion is beyond what the compiler's analysis follows.
TEST(CritSecTest, ItsThreadTakesItAgainAndGivesItBackAsOften) MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    CritSec lock;
    lock.Lock();
    EXPECT_TRUE(lock.TryLock());
    {
        AutoLock guard(lock);
        EXPECT_FALSE(isFreeForOthers(lock));
    }
    lock.Unlock();
    EXPECT_FALSE(isFreeForOthers(lock));
    lock.Unlock();
    EXPECT_TRUE(isFreeForOthers(lock));
    if (lock.TryLock()) {
        AutoLock guard(lock, AutoLock::Adopt{});
    }
    EXPECT_TRUE(isFreeForOthers(lock));
}

TEST(CritSecTest, MisuseIsASystemError) MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    CritSec lock;
    EXPECT_THROW(lock.Unlock(), std::system_error);
    lock.Lock();
    std::thread([&]() MIVRA_NO_THREAD_SAFETY_ANALYSIS {
        EXPECT_THROW(lock.Unlock(), std::system_error);
    }).join();
    EXPECT_FALSE(isFreeForOthers(lock));
    lock.Unlock();
}

// The counter is no atomic: a lock that lets two threads in loses counts, and ThreadSanitizer tells.
TEST(CritSecTest, LetsOneThreadInAtATime) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    CritSec lock;
    int counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&]() MIVRA_NO_THREAD_SAFETY_ANALYSIS {
            for (int round = 0; round < kRounds; ++round) {
                if (round % 3 == 0) {
                    while (!lock.TryLock())
                        std::this_thread::yield();
                } else {
                    lock.Lock();
                }
                const AutoLock guard(lock);
                ++counter;
                lock.Unlock();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, kThreads * kRounds);
}

// A notification that is lost leaves a thread waiting for ever.
TEST(WakeEventTest, LosesNoNotification) {
    constexpr int kRounds = 5000;
    WakeEvent ping, pong;
    std::atomic<int> asked{0}, answered{0};
    std::thread other([&] {
        for (int round = 1; round <= kRounds; ++round) {
            for (std::uint32_t seen = ping.Sequence(); asked.load() < round; seen = ping.Sequence()) {
                ping.Wait(seen, -1);
            }
            answered = round;
            pong.Notify();
        }
    });
    for (int round = 1; round <= kRounds; ++round) {
        asked = round;
        ping.Notify();
        for (std::uint32_t seen = pong.Sequence(); answered.load() < round; seen = pong.Sequence()) {
            pong.Wait(seen, -1);
        }
    }
    other.join();
}

int s_wakes = 0;

TEST(WakeEventTest, DoesNotEnterTheKernelWhenNobodyWaits) {
    const auto real = Platform::g_system.wakeWord;
    Platform::g_system.wakeWord = [](const std::atomic<std::uint32_t>*, int) { ++s_wakes; };
    WakeEvent event;
    const std::uint32_t seen = event.Sequence();
    EXPECT_FALSE(event.Wait(seen, 0));
    event.Notify();
    EXPECT_TRUE(event.Wait(seen, -1));
    Platform::g_system.wakeWord = real;
    EXPECT_EQ(s_wakes, 0);
}

}  // namespace
}  // namespace Mivra::Test
