#include <system_error>

#include "mivra/common/runtime/GeneralException.h"
#include "tests/media/Fakes.h"
#include "tests/support/FaultInjection.h"

namespace Mivra::Test {
namespace {

using Media::ErrorEventArgs;
using Media::NewSampleEventArgs;
using Media::NewStreamEventArgs;

/// What sources and sinks have in common.
template <typename T>
class MemberTest : public MediaTest {
protected:
    const char* Name() { return std::is_same_v<T, FakeSource> ? "IMediaSource" : "IMediaSink"; }
};
using Members = testing::Types<FakeSource, RecordingSink>;
TYPED_TEST_SUITE(MemberTest, Members);

TYPED_TEST(MemberTest, CountsListenersOfAllEventsFromOne) {
    const auto member = Make<TypeParam>();
    int errors = 0;
    EXPECT_EQ(member->AddErrorListener([&](void* sender, ErrorEventArgs* args) {
        EXPECT_EQ(sender, member.get());
        EXPECT_EQ(args->message, "broken");
        EXPECT_TRUE(args->fatal);
        ++errors;
    }),
              1);
    EXPECT_EQ(member->AddStateChangedListener([](void*, MediaState) {}), 2);
    EXPECT_EQ(member->AddErrorListener(nullptr), 3);
    EXPECT_THROW(member->onError("broken", true), std::bad_function_call);
    member->RemoveErrorListener(3);
    member->RemoveErrorListener(99);
    member->RemoveMediaStateListener(1);  // another event's
    member->onError("broken", true);
    member->RemoveErrorListener(1);
    member->onError("broken", true);
    EXPECT_EQ(errors, 2);
    EXPECT_FALSE(member->UniqueId().IsEmpty());
    EXPECT_NE(member->UniqueId(), Make<TypeParam>()->UniqueId());
}

TYPED_TEST(MemberTest, TellsEachNewStateOnceFromAThreadThatHoldsIt) {
    std::atomic<int> calls{0};
    std::atomic<bool> go{false};
    auto member = Make<TypeParam>();
    TypeParam* raw = member.get();
    raw->AddStateChangedListener([&, caller = std::this_thread::get_id()](void* sender, MediaState state) {
        EXPECT_EQ(sender, raw);
        EXPECT_EQ(state, MediaState::Opened);
        EXPECT_EQ(raw->State(), MediaState::Opened);
        EXPECT_NE(std::this_thread::get_id(), caller);
        EXPECT_TRUE(Eventually([&] { return go.load(); }));
        ++calls;
    });
    raw->AddErrorListener([&](void*, ErrorEventArgs* args) {
        EXPECT_EQ(args->message, "asynchronous");
        ++calls;
        throw std::runtime_error("let out");
    });
    raw->setStateInThread(MediaState::Opened);
    raw->setStateInThread(MediaState::Opened);
    EXPECT_EQ(raw->State(), MediaState::Opened);
    raw->raiseErrorInThread("asynchronous", false);
    member = {};  // the threads keep it
    EXPECT_EQ(g_fakes, 1);
    go = true;
    Common::ThreadHelper::Cleanup();
    EXPECT_EQ(calls, 2);
    this->expectedErrors = {std::string(this->Name()) + "::raiseErrorInThread: listener exception let out"};
}

TYPED_TEST(MemberTest, IsSilentOnceDestructionHasBegun) {
    const auto member = Make<TypeParam>();
    member->AddStateChangedListener([](void*, MediaState) { ADD_FAILURE(); });
    member->AddErrorListener([](void*, ErrorEventArgs*) { ADD_FAILURE(); });
    member->destroying = true;
    FaultPlan threads(FaultKind::StartThread, 100);
    member->setStateInThread(MediaState::Opened);
    member->raiseErrorInThread("late", true);
    EXPECT_EQ(threads.Calls(), 0U);
    EXPECT_EQ(member->State(), MediaState::None);
}

TYPED_TEST(MemberTest, GivesTheReferenceBackWhenThereIsNoThread) {
    const auto member = Make<TypeParam>();
    const auto expectBusy = [&](const std::function<void()>& notify) {
        FaultPlan plan(FaultKind::StartThread, 1);
        try {
            notify();
            ADD_FAILURE() << "no exception";
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
        }
        EXPECT_EQ(member->GetRefCount(), 1);
    };
    expectBusy([&] { member->setStateInThread(MediaState::Opened); });
    expectBusy([&] { member->raiseErrorInThread("error", true); });
}

class MediaSourceTest : public MediaTest {};

TEST_F(MediaSourceTest, DispatchesStreamsAndSamplesOnTheCallersThread) {
    const auto source = Make<FakeSource>(2);
    const auto sample = Reference<PacketBuffer>::Adopt(Media::MediaGlobal::LockBuffer(10));
    source->onNewSample(0, sample.get());  // nobody listens, nothing is touched
    std::vector<std::string> calls;
    source->AddNewStreamListener([&](void* sender, NewStreamEventArgs* args) {
        EXPECT_EQ(sender, source.get());
        calls.push_back("stream " + std::to_string(args->streamIndex) + "/" +
                        std::to_string(args->streamCount));
    });
    EXPECT_EQ(source->AddNewSampleListener([&](void*, NewSampleEventArgs* args) {
        calls.push_back(args->sample == nullptr ? "null" : std::to_string(args->sample->AddRef()));
        if (args->sample != nullptr) args->sample->Release();
    }),
              2);
    source->Start();
    source->onNewSample(0, sample.get());
    source->onNewSample(0, nullptr);
    source->AddSourceChangedListener([&](void*) { calls.push_back("changed"); });
    source->onSourceChanged();
    source->RemoveSourceChangedListener(3);
    source->onSourceChanged();
    EXPECT_EQ(calls, (std::vector<std::string>{"stream 0/2", "stream 1/2", "3", "null", "changed"}));
    EXPECT_EQ(sample->ReferenceCount(), 1);
    Common::ThreadHelper::Cleanup();
    EXPECT_EQ(log.Count("IMediaSource::setStateInThread: started"), 1);
    EXPECT_EQ(log.Count("IMediaSource::setStateInThread: finished"), 1);
}

TEST_F(MediaSourceTest, KeepsInteractiveSettingsOnceOpened) {
    const auto source = Make<FakeSource>();
    source->SetCachePath("/before");
    source->Store(MediaState::Opening);
    const std::function<void()> setters[] = {
        [&] { source->SetAllowEos(false); }, [&] { source->SetLoop(true); },
        [&] { source->SetMonitor(true); },   [&] { source->SetPlaybackRate(2); },
        [&] { source->SetCachePath("/x"); },
    };
    for (const auto& set : setters) {
        try {
            set();
            ADD_FAILURE() << "no exception";
        } catch (const Common::GeneralException& exception) {
            EXPECT_STREQ(exception.what(), "Value can't be changed after the source opened");
        }
    }
    EXPECT_TRUE(source->GetAllowEos());
    EXPECT_FALSE(source->IsLoop() || source->IsMonitor() || source->CanSeek() || source->CanPause() ||
                 source->IsEos() || source->IsChangeable());
    EXPECT_EQ(source->GetPlaybackRate(), 1.7976931348623157e+308);
    EXPECT_EQ(source->GetCachePath(), "/before");
    EXPECT_EQ(source->GetDuration(), 0);

    source->SetPosition(50);
    EXPECT_EQ(source->GetPosition(), 0);
    EXPECT_EQ(source->lastAction.action, 3);
    EXPECT_EQ(source->lastAction.position, 50);
    EXPECT_EQ(source->lastAction.value, 0.0);
    EXPECT_EQ(Media::ActionRequiredEventArgs().position, INT64_MIN);
}

}  // namespace
}  // namespace Mivra::Test
