#include <gmock/gmock.h>

#include <atomic>
#include <thread>
#include <vector>

#include "mivra/common/MivraCommon.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/runtime/CallbackThread.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/INotifyPropertyChanged.h"
#include "mivra/common/runtime/ThreadHelper.h"
#include "tests/common/runtime/LogFixture.h"
#include "tests/support/FaultInjection.h"

namespace Mivra::Test {
namespace {

using Common::FileLog;
using Common::LogLine;
using Common::LogLineAt;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct Registry : Common::ThreadHelper {
    static bool Empty() {
        Common::AutoLock guard(s_CS);
        return queuedThreads().empty();
    }
};

class EntryPointTest : public ::testing::Test {
protected:
    ~EntryPointTest() override { MivraCommonShutdown(); }

    TempFolder folder;
    std::string path = folder / "app.log";
    std::wstring widePath = Wide(path);
};

TEST_F(EntryPointTest, ASecondCallChangesNothing) {
    EXPECT_EQ(MivraCommonShutdown(), 0);
    EXPECT_EQ(MivraCommonSetLog(3, widePath.c_str()), 0);  // too early: no log to set
    EXPECT_EQ(MivraCommonGetLog(), nullptr);
    EXPECT_EQ(MivraCommonInitialize(), 0);
    FileLog* log = MivraCommonGetLog();
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(log->GetLogLevel(), FileLog::Off);
    EXPECT_EQ(MivraCommonInitialize(), 0);
    EXPECT_EQ(MivraCommonGetLog(), log);
    EXPECT_EQ(MivraCommonShutdown(), 0);
    EXPECT_EQ(MivraCommonGetLog(), nullptr);
    EXPECT_EQ(MivraCommonShutdown(), 0);
    MivraCommonInitialize();
    EXPECT_NE(MivraCommonGetLog(), nullptr);
}

TEST_F(EntryPointTest, LevelZeroIgnoresThePathAndEndsLogging) {
    MivraCommonInitialize();
    MivraCommonSetLog(0, widePath.c_str());
    EXPECT_TRUE(ReadWholeFile(path).empty());
    MivraCommonSetLog(2, widePath.c_str());
    LogLine(FileLog::Warning, "on");
    MivraCommonSetLog(-1, widePath.c_str());
    LogLine(FileLog::Error, "off");
    EXPECT_THAT(ReadMessages(path), ElementsAre("WARN  on"));
}

TEST_F(EntryPointTest, ShutdownJoinsThenFreesThenLogsThenEndsTheLog) {
    MivraCommonInitialize();
    Media::MediaGlobal::Initialize(0.1f);
    Common::PacketBuffer* held = Media::MediaGlobal::LockBuffer(1);
    MivraCommonSetLog(4, widePath.c_str());
    std::atomic<bool> mayLog{false};
    Common::StartCallbackThread([&] {
        while (!mayLog)
            std::this_thread::yield();
        MivraCommonSetLog(4, widePath.c_str());  // takes the library's lock while it shuts down
        LogLineAt("a/b/Callback", 7, FileLog::Error, "still logged");
    });
    std::thread releaser([&] {
        while (!Registry::Empty())  // until the shutdown joins the callback
            std::this_thread::yield();
        mayLog = true;
    });
    MivraCommonShutdown();
    releaser.join();
    EXPECT_FALSE(Media::MediaGlobal::IsInitialized());
    held->Release();
    LogLine(FileLog::Error, "dropped");
    EXPECT_THAT(
        ReadMessages(path),
        ElementsAre("INFO  SetLog: Mivra.Common v2.3.0.0208 log enabled",
                    "INFO  SetLog: Mivra.Common v2.3.0.0208 log enabled", "ERROR [Callback/7] still logged",
                    "DEBUG [ThreadHelper/52] Temporary threads cleaned up",
                    HasSubstr("1 MediaBuffers are still locked"), "INFO  Mivra.Common shutdown"));
}

TEST_F(EntryPointTest, TheHostsLevelHoldsForTheLibrarysLines) {
    MivraCommonInitialize();
    MivraCommonSetLog(1, widePath.c_str());
    LogLine(FileLog::Debug, "not yet");
    MivraCommonGetLog()->SetLogLevel(FileLog::Debug);
    LogLine(FileLog::Debug, "now");
    EXPECT_THAT(ReadMessages(path), ElementsAre("DEBUG now"));
}

// The log goes away and comes back under threads that log; a line is written or dropped.
TEST_F(EntryPointTest, ThreadsMayLogDuringShutdown) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; !stop; ++n)
                LogLine(FileLog::Error, "line %d", n);
        });
    }
    for (int round = 0; round < 10; ++round) {
        MivraCommonInitialize();
        MivraCommonSetLog(5, widePath.c_str());
        std::this_thread::yield();
        MivraCommonShutdown();
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GE(ReadLog(path).size(), 20u);
}

TEST_F(EntryPointTest, OutOfMemoryIsAnswered) {
    ForEachNthFailure(FaultKind::Allocate, [&] {
        EXPECT_EQ(MivraCommonInitialize(), 0);
        EXPECT_EQ(MivraCommonSetLog(5, widePath.c_str()), 0);
        LogLine(FileLog::Error, "line");
        EXPECT_EQ(MivraCommonShutdown(), 0);
        EXPECT_EQ(MivraCommonGetLog(), nullptr);
    });
}

class Subject : public Common::INotifyPropertyChanged {
public:
    using INotifyPropertyChanged::onPropertyChanged;
};

TEST(NotifyPropertyChangedTest, CallsListenersInTheOrderOfTheirIds) {
    Subject first, second;
    EXPECT_EQ(second.GetObjectId(), first.GetObjectId() + 1);
    std::vector<std::string> calls;
    std::int64_t removed = -1;
    EXPECT_EQ(first.AddPropertyChangedListener([&](void* sender, std::string name) {
        calls.push_back("0" + name);
        EXPECT_EQ(sender, &first);
        first.RemovePropertyChangedListener(removed);
        first.RemovePropertyChangedListener(0);  // itself
        first.AddPropertyChangedListener([&](void*, std::string) { calls.push_back("added"); });
    }),
              0);
    removed = first.AddPropertyChangedListener([&](void*, std::string) { calls.push_back("removed"); });
    EXPECT_EQ(removed, 1);
    EXPECT_EQ(first.AddPropertyChangedListener([&](void*, std::string name) { calls.push_back("2" + name); }),
              2);
    first.RemovePropertyChangedListener(99);
    second.onPropertyChanged("nobody");
    first.onPropertyChanged("x");
    EXPECT_THAT(calls, ElementsAre("0x", "2x", "added"));
    second.AddPropertyChangedListener(nullptr);
    EXPECT_THROW(second.onPropertyChanged("x"), std::bad_function_call);
}

}  // namespace
}  // namespace Mivra::Test
