#include "mivra/common/runtime/ThreadHelper.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "mivra/common/runtime/CallbackThread.h"
#include "mivra/common/runtime/WakeEvent.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/LogCapture.h"

namespace Mivra::Test {
namespace {

using Common::AutoLock;
using Common::StartCallbackThread;
using Common::ThreadHelper;
using ::testing::ElementsAre;

struct Registry : ThreadHelper {
    static std::size_t Queued() {
        AutoLock guard(s_CS);
        return queuedThreads().size();
    }
    static std::size_t Finished() {
        AutoLock guard(s_CS);
        return finishedThreads().size();
    }
    static void Reap() {
        AutoLock guard(s_CS);
        cleanCallbackThreads(false);
    }
};

// Runs until it is let go, then reports its end when it is told to.
class Worker {
public:
    explicit Worker(bool reports = true)
        : thread(new std::thread([state = state, reports] {
              while (!state->go)
                  std::this_thread::yield();
              if (reports) ThreadHelper::FinishThread(std::this_thread::get_id());
          })) {}
    void Go() { state->go = true; }

private:
    struct State {
        std::atomic<bool> go{false};
    };
    std::shared_ptr<State> state = std::make_shared<State>();

public:
    std::thread* thread;
};

void waitForReports(std::size_t count) {
    while (Registry::Finished() < count)
        std::this_thread::yield();
}

TEST(ThreadHelperTest, TheNextHandOverJoinsWhatHasReported) {
    Worker first, second, third;
    ThreadHelper::QueueThread(first.thread);
    ThreadHelper::QueueThread(first.thread);  // the same one stays one entry
    ThreadHelper::QueueThread(second.thread);
    EXPECT_EQ(Registry::Queued(), 2u);
    first.Go();
    waitForReports(1);
    ThreadHelper::QueueThread(third.thread);
    EXPECT_EQ(Registry::Queued(), 2u);
    EXPECT_EQ(Registry::Finished(), 0u);
    second.Go();
    third.Go();
    ThreadHelper::Cleanup();
    EXPECT_EQ(Registry::Queued(), 0u);
    EXPECT_EQ(Registry::Finished(), 0u);
}

TEST(ThreadHelperTest, AReportThatBelongsToNobodyLeavesNoTrace) {
    std::thread stranger([] { ThreadHelper::FinishThread(std::this_thread::get_id()); });
    stranger.join();
    Registry::Reap();
    EXPECT_EQ(Registry::Finished(), 1u);  // nothing is queued: the report stays
    Worker worker;
    ThreadHelper::QueueThread(worker.thread);
    Registry::Reap();
    EXPECT_EQ(Registry::Finished(), 0u);
    worker.Go();
    ThreadHelper::Cleanup();
    ThreadHelper::FinishThread(std::thread::id());
    ThreadHelper::Cleanup();
    EXPECT_EQ(Registry::Finished(), 0u);
}

// An old report under the id of a running thread: the system gives ids out again. A registry that trusts it
// waits here for ever.
TEST(ThreadHelperTest, AnOldReportDoesNotMakeItJoinARunningThread) {
    Worker running, other;
    ThreadHelper::FinishThread(running.thread->get_id());
    ThreadHelper::QueueThread(running.thread);
    ThreadHelper::QueueThread(other.thread);
    EXPECT_EQ(Registry::Queued(), 2u);
    running.Go();
    other.Go();
    ThreadHelper::Cleanup();
}

TEST(ThreadHelperTest, ACallbackMayQueueAnotherDuringCleanup) {
    std::atomic<int> ran{0};
    StartCallbackThread([&] {
        StartCallbackThread([&] { ++ran; });
        ++ran;
    });
    ThreadHelper::Cleanup();
    EXPECT_EQ(ran, 2);
    EXPECT_EQ(Registry::Queued(), 0u);
}

TEST(ThreadHelperTest, AJoinThatFailsIsASystemErrorAndNothingLeaks) {
    ThreadHelper::QueueThread(new std::thread);
    EXPECT_THROW(ThreadHelper::Cleanup(), std::system_error);
    EXPECT_EQ(Registry::Queued(), 0u);
}

TEST(CallbackThreadTest, TheNextOneFindsTheLastJoinedAndItsCapturesGone) {
    auto held = std::make_shared<int>(0);
    for (int i = 0; i < 200; ++i) {
        StartCallbackThread([held] {});
        waitForReports(1);
        EXPECT_EQ(held.use_count(), 1);
        EXPECT_EQ(Registry::Queued(), 1u);
    }
    ThreadHelper::Cleanup();
}

TEST(CallbackThreadTest, LogsAnExceptionOutOfTheBody) {
    LogCapture log;
    StartCallbackThread([] { throw std::runtime_error("what happened"); });
    StartCallbackThread([] { throw 1; });
    ThreadHelper::Cleanup();
    EXPECT_EQ(log.Errors().size(), 2u);
    EXPECT_TRUE(log.Contains("what happened"));
}

TEST(CallbackThreadTest, WhatCannotBeStartedHasNotHappened) {
    for (const FaultKind kind : {FaultKind::StartThread, FaultKind::Allocate}) {
        const std::uint64_t failed = ForEachNthFailure(kind, [] {
            std::atomic<int> ran{0};
            int thrown = 0;
            try {
                StartCallbackThread([&] { ++ran; });
            } catch (const std::system_error& error) {
                EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
                ++thrown;
            }
            EXPECT_EQ(Registry::Queued(), thrown == 0 ? 1u : 0u);
            ThreadHelper::Cleanup();
            EXPECT_EQ(ran + thrown, 1);
        });
        EXPECT_TRUE(failed > 0 || !kCountsOperatorNew);
    }
}

// In a process of its own, where the registry has not been used yet.
TEST(CallbackThreadDeathTest, TheFirstOneStartsWholeOrNotAtAllWithoutMemory) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto startWithoutMemory = [] {
        ForEachNthFailure(FaultKind::Allocate, [] {
            try {
                StartCallbackThread([] {});
            } catch (const std::system_error&) {
            }
        });
        ThreadHelper::Cleanup();
        std::exit(0);
    };
    EXPECT_EXIT(startWithoutMemory(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Mivra::Test
