#include "mivra/common/runtime/GeneralException.h"
#include "mivra/media/SessionCore.h"
#include "tests/media/SessionFixture.h"
#include "tests/support/FaultInjection.h"

namespace Mivra::Test {
namespace {

using BufferingType = Media::MediaSession::BufferingType;

std::string thrownBy(const std::function<void()>& call) {
    try {
        call();
    } catch (const Common::GeneralException& exception) {
        return exception.what();
    }
    return "nothing";
}

class MediaSessionTest : public SessionTest {};

TEST_F(MediaSessionTest, LogsItsLife) {
    const auto source = AddSource();
    const auto sink = AddSink();
    sink->onOpen = [&] { sink->Store(MediaState::Opened); };
    source->onStart = [&] { source->Store(MediaState::Started); };
    const std::string address = [&] {
        char text[32];
        std::snprintf(text, sizeof text, "%p", static_cast<void*>(session.get()));
        return std::string(text);
    }();
    session->Start();
    EXPECT_TRUE(Runs(*sink.get()));
    source->Send(0);
    EXPECT_TRUE(Eventually([&] { return sink->Samples().size() == 1; }));
    session->Stop();
    EXPECT_EQ(session->State(), MediaState::Stopping);
    session->Stop();
    session.reset();
    std::vector<std::string> lines;
    for (const std::string& line : log.Lines(Common::FileLog::Debug)) {
        // Start logs its last line while the thread already runs.
        if (line.starts_with("MediaSession::") && line != "MediaSession::Start: Media session started") {
            lines.push_back(line);
        }
    }
    EXPECT_EQ(log.Count("MediaSession::Start: Media session started"), 1);
    const std::vector<std::string> expected = {
        "MediaSession::AddSource: Added source 00000001-0000-4000-8000-000000000000",
        "MediaSession::AddSink: Added sink 00000002-0000-4000-8000-000000000000",
        "MediaSession::Start: Starting media session",
        "MediaSession::mainThread: Media session thread started",
        "MediaSession::mainThread: All sources ready",
        "MediaSession::onStartSink: Starting sink",
        "MediaSession::mainThread: State changed to 4",
        "MediaSession::Stop: Stopping media session",
        "MediaSession::mainThread: Stopping sources in main thread",
        "MediaSession::Stop: Media session thread finished",
        "MediaSession::Stop: Sources stopped",
        "MediaSession::Stop: Sinks stopped",
        "MediaSession::cleanupBuffer: Released 0 buffers",
        "MediaSession::Stop: Media session Stopped",
        "MediaSession::~MediaSession[" + address + "]: de-allocating",
        "MediaSession::cleanupBuffer: Released 0 buffers",
        "MediaSession::~MediaSession[" + address + "]: de-allocated",
    };
    EXPECT_EQ(lines, expected);
}

TEST_F(MediaSessionTest, LogsWhatItsMembersTell) {
    const auto source = AddSource();
    const auto sink = AddSink();
    source->onStart = [] {};
    session->Start();
    // The handler gets the lock when all are opened: from then on only a handler can find the source started.
    ASSERT_TRUE(Eventually(
        [&] { return log.Count("MediaSession::IMediaSink_StateChanged: Sink state changed to 2") == 1; }));
    source->onStart = nullptr;
    source->Start();
    EXPECT_TRUE(Runs(*sink.get()));
    EXPECT_EQ(log.Count("MediaSession::IMediaSource_NewStream: Got new stream " + MediaType().ToString()), 1);
    EXPECT_EQ(log.Count("MediaSession::IMediaSource_StateChanged: All sources ready"), 1);
    EXPECT_EQ(log.Count("MediaSession::mainThread: All sources ready"), 0);
}

TEST_F(MediaSessionTest, NumbersStreamsBySourceIdForEverySink) {
    const auto second = Make<FakeSource>(1);
    const auto first = Make<FakeSource>(2);
    second->SetUniqueId(Id(12));
    first->SetUniqueId(Id(11));
    session->AddSource(second.get());
    session->AddSource(first.get());
    session->AddSource(first.get());  // known already
    EXPECT_EQ(first->GetRefCount(), 2);
    const auto sinkA = AddSink();
    const auto sinkB = AddSink();
    session->Start();
    ASSERT_TRUE(Runs(*sinkA.get()) && Runs(*sinkB.get()));
    first->Send(1, 7);
    first->Send(2, 8);  // no such stream
    first->Send(-1, 8);
    second->Send(0, 9);
    first->Send(0, 10);
    const std::vector<RecordingSink::Sample> expected = {{1, 7}, {2, 9}, {0, 10}};
    for (const auto& sink : {sinkA, sinkB}) {
        EXPECT_TRUE(Eventually([&] { return sink->Samples().size() == 3; }));
        EXPECT_EQ(sink->Samples(), expected);
        EXPECT_EQ(sink->types, (std::vector<std::pair<int, int>>{{0, 100}, {1, 101}, {2, 100}}));
        EXPECT_EQ(sink->starts, std::vector<bool>{false});
    }
    session->Stop();
    first->Send(0, 11);  // nobody listens any more
    EXPECT_EQ(sinkA->Samples().size(), 3U);
    EXPECT_EQ(log.Count("Source 00000011-0000-4000-8000-000000000000 has no stream"), 2);
    Common::ThreadHelper::Cleanup();
    EXPECT_EQ(first->GetRefCount(), 1);
    EXPECT_EQ(sinkA->GetRefCount(), 1);
}

TEST_F(MediaSessionTest, RefusesMisuse) {
    Renew(Timeouts::Default);
    EXPECT_FALSE(session->IsRunning());
    EXPECT_EQ(session->State(), MediaState::None);
    EXPECT_EQ(thrownBy([&] { session->StartBuffering(0, BufferingType::Memory); }),
              "Duration must be positive");
    EXPECT_EQ(thrownBy([&] { session->StartBuffering(5, BufferingType::None); }),
              "Memory or disk buffering must be specified");
    EXPECT_FALSE(session->IsRunning());
    EXPECT_EQ(session->AddErrorListener([](void*, Media::ErrorEventArgs*) {}), 1);  // after the fixture's 0
    for (const auto value :
         {session->SourceOpenTimeout(), session->SinkOpenTimeout(), session->NoCaptureTimeout()}) {
        EXPECT_EQ(value, INT64_MIN);
    }
    const auto sink = AddSink();
    session->Start();  // no sources: ready at once
    EXPECT_TRUE(Runs(*sink.get()));
    EXPECT_EQ(log.Count("MediaSession::mainThread: All sources ready"), 1);
    session->StartBuffering(0, BufferingType::None);  // no effect on a running session
    EXPECT_EQ(thrownBy([&] { AddSource(); }), "Source can't be added in running state");
    EXPECT_EQ(thrownBy([&] { AddSink(); }), "Sink can't be added in running state");
    EXPECT_TRUE(session->IsRunning());
}

TEST_F(MediaSessionTest, IgnoresAnErrorOfAnEarlierRun) {
    const auto old = AddSource();
    std::atomic<bool> reporting{false};
    std::atomic<bool> go{false};
    old->AddErrorListener([&](void*, Media::ErrorEventArgs*) {  // called before the session's listener
        reporting = true;
        EXPECT_TRUE(Eventually([&] { return go.load(); }));
    });
    session->Start();
    ASSERT_TRUE(Reaches(MediaState::Running));
    std::thread reporter([&] { old->onError("late", true); });
    EXPECT_TRUE(Eventually([&] { return reporting.load(); }));
    session->Stop();
    session->Start();
    ASSERT_TRUE(Reaches(MediaState::Running));
    go = true;
    reporter.join();
    EXPECT_EQ(session->State(), MediaState::Running);
}

struct Failure {
    const char* name;
    std::function<void(FakeSource&, RecordingSink&)> script;
    std::string fatal;
    std::string logged;
};

void throwBroken() {
    throw std::runtime_error("broken");
}

const Failure kFailures[] = {
    {"SourceOpen", [](auto& source, auto&) { source.onOpen = throwBroken; },
     "Source initialization error: broken",
     "MediaSession::mainThread: Source initialization exception broken"},
    {"SourceStart", [](auto& source, auto&) { source.onStart = [] { throw 1; }; },
     "Source initialization error: of unknown type",
     "MediaSession::mainThread: Source initialization exception of unknown type"},
    {"SinkOpen", [](auto&, auto& sink) { sink.onOpen = throwBroken; }, "Sink initialization error: broken",
     "MediaSession::mainThread: Sink initialization exception broken"},
    {"GetStreamCount", [](auto& source, auto&) { source.onGetStreamCount = throwBroken; },
     "Stream assignment error: broken", "MediaSession::mainThread: Stream assignment exception broken"},
    {"GetMediaType", [](auto& source, auto&) { source.onGetMediaType = throwBroken; },
     "Stream assignment error: broken", "MediaSession::mainThread: Stream assignment exception broken"},
    {"AddStream", [](auto&, auto& sink) { sink.onAddStream = throwBroken; }, "Sink start error: broken",
     "MediaSession::onStartSink: Sink start exception broken"},
    {"SinkStart", [](auto&, auto& sink) { sink.onStart = throwBroken; }, "Sink start error: broken",
     "MediaSession::onStartSink: Sink start exception broken"},
    {"PushMedia", [](auto&, auto& sink) { sink.onPush = throwBroken; }, "Sample delivery error: broken",
     "MediaSession::processSourceSample: Sample delivery exception broken"},
    {"SourceError",
     [](auto& source, auto&) {
         source.onOpen = [&source] {
             source.onError("minor", false);
             source.onError("first", true);
             source.onError("second", true);
         };
     },
     "first", ""},
    {"SinkErrorFromThread",
     [](auto&, auto& sink) { sink.onPush = [&sink] { sink.raiseErrorInThread("first", true); }; }, "first",
     ""},
};

class SessionFailureTest : public SessionTest, public testing::WithParamInterface<Failure> {};

TEST_P(SessionFailureTest, EndsWithOneFatalError) {
    const auto source = AddSource();
    const auto sink = AddSink();
    GetParam().script(*source.get(), *sink.get());
    session->Start();
    EXPECT_TRUE(Eventually([&] {
        source->Send(0);
        return !Fatal().empty();
    }));
    EXPECT_TRUE(Fails(GetParam().fatal)) << Fatal().front();
    EXPECT_EQ(nonFatal,
              std::vector<std::string>(std::string(GetParam().name) == "SourceError" ? 1 : 0, "minor"));
    if (!GetParam().logged.empty()) {
        expectedErrors = {GetParam().logged};
    }
    EXPECT_TRUE(session->IsRunning());
    source->onError("after the failure", true);
    session->Stop();
    EXPECT_EQ(Fatal().size(), 1U);
    EXPECT_EQ(session->State(), MediaState::Stopping);
}

INSTANTIATE_TEST_SUITE_P(All, SessionFailureTest, testing::ValuesIn(kFailures),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(MediaSessionTest, FailsWhenTheQueueCannotGrow) {
    const auto source = AddSource();
    const auto sink = AddSink();
    session->Start();
    ASSERT_TRUE(Runs(*sink.get()));
    Common::ThreadHelper::Cleanup();  // no other thread that could meet the fault
    {
        const auto sample = Reference<PacketBuffer>::Adopt(Media::MediaGlobal::LockBuffer(100));
        FaultPlan plan(FaultKind::Allocate, 1);
        source->onNewSample(0, sample.get());
    }
    EXPECT_TRUE(Fails("Sample queue error: std::bad_alloc"));
    expectedErrors = {"MediaSession::IMediaSource_NewSample: Sample queue exception std::bad_alloc"};
}

TEST_F(MediaSessionTest, AllocatesNothingInTheSteadyState) {
    const auto source = AddSource();
    const auto sink = AddSink();
    std::atomic<int> pushed{0};
    sink->onPush = [&] { ++pushed; };
    sink->samples.reserve(10'000);
    session->Start();
    ASSERT_TRUE(Runs(*sink.get()));
    const auto send = [&](int count) {
        pushed = 0;
        for (int i = 0; i < count; ++i) {
            source->Send(0);
            if (i % 32 == 31) {
                while (pushed <= i)
                    std::this_thread::yield();
            }
        }
    };
    send(64);
    Common::ThreadHelper::Cleanup();  // no other thread whose allocations would count
    FaultPlan allocations(FaultKind::Allocate, UINT64_MAX);
    send(6400);
    EXPECT_EQ(allocations.Calls(), 0U);
}

TEST_F(MediaSessionTest, IgnoresUnknownSenders) {
    struct OpenCore : Media::SessionCore {
        using SessionCore::IMediaSource_NewSample;
        using SessionCore::SessionCore;
    };
    const auto core = std::make_shared<OpenCore>(session.get());
    const auto source = Make<FakeSource>();
    const auto stranger = Make<FakeSource>();
    const auto sink = Make<RecordingSink>();
    core->AddSource(source.get());
    core->AddSink(sink.get());
    core->Start();
    ASSERT_TRUE(Eventually([&] { return sink->Starts() == 1 && core->State() == MediaState::Running; }));
    const auto sample = Reference<PacketBuffer>::Adopt(Media::MediaGlobal::LockBuffer(1));
    Media::NewSampleEventArgs args{0, sample.get()};
    core->IMediaSource_NewSample(static_cast<Media::IMediaSource*>(stranger.get()), &args);
    source->Send(0, 3);
    EXPECT_TRUE(Eventually([&] { return !sink->Samples().empty(); }));
    EXPECT_EQ(sink->Samples(), (std::vector<RecordingSink::Sample>{{0, 3}}));
    core->Stop();
    core->IMediaSource_NewSample(static_cast<Media::IMediaSource*>(source.get()), &args);  // too late
    EXPECT_EQ(sample->AddRef(), 2);
    sample->Release();
}

}  // namespace
}  // namespace Mivra::Test
