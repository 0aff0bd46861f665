// Many threads, many cycles: what a session promises whenever it is stopped.

#include "tests/media/SessionFixture.h"

namespace Mivra::Test {
namespace {

using BufferingType = Media::MediaSession::BufferingType;

class SessionRaceTest : public SessionTest {
protected:
    /// A thread that floods a source with samples until it is asked to end.
    class Flood {
    public:
        explicit Flood(const Reference<FakeSource>& source)
            : thread([this, source] {
                  for (int i = 0; !done; ++i) {
                      source->Send(0, i);
                      if (i % 16 == 0) std::this_thread::yield();
                  }
              }) {}
        ~Flood() {
            done = true;
            thread.join();
        }

    private:
        std::atomic<bool> done{false};
        std::thread thread;
    };
};

TEST_F(SessionRaceTest, StartsASinkThatOpensWhileTheStateChanges) {
    const int cycles = Cycles(300, 10'000);
    for (int cycle = 0; cycle < cycles; ++cycle) {
        const auto source = AddSource();
        const auto sink = AddSink();
        std::atomic<bool> go{false};
        source->onGetMediaType = [&] { go = true; };
        sink->onOpen = [] {};
        std::thread opener([&] {
            while (!go)
                std::this_thread::yield();
            for (int i = 0; i < cycle % 64; ++i)
                std::this_thread::yield();
            sink->setStateInThread(MediaState::Opened);
        });
        session->Start();
        EXPECT_TRUE(Runs(*sink.get())) << cycle;
        opener.join();
        session->Stop();
        EXPECT_EQ(sink->Starts(), 1U);
    }
}

TEST_F(SessionRaceTest, StartsAndStopsWithFourSourcesAndFourSinks) {
    const int cycles = Cycles(30, 1000);
    for (int cycle = 0; cycle < cycles; ++cycle) {
        std::vector<Reference<FakeSource>> sources;
        std::vector<Reference<RecordingSink>> sinks;
        for (int i = 0; i < 4; ++i) {
            sources.push_back(AddSource(2));
            sinks.push_back(AddSink());
        }
        {
            const Flood flood(sources[0]);
            if (cycle % 3 != 0) {
                session->StartBuffering(1, cycle % 3 == 1 ? BufferingType::Memory : BufferingType::Disk);
            }
            session->Start();
            if (cycle % 2 == 0) {
                EXPECT_TRUE(Eventually([&] { return !sinks[3]->Samples().empty(); }));
            }
            session->Stop();
        }
        EXPECT_FALSE(session->IsRunning());
        if (cycle % 10 == 9) Renew();
    }
}

using Place = std::function<void(FakeSource&, RecordingSink&, std::function<void()>)>;
struct Callback {
    const char* name;
    Place place;
    bool outputs = false;  // only once the output has started
};

const Callback kCallbacks[] = {
    {"SourceOpen", [](auto& source, auto&, auto act) { source.onOpen = act; }},
    {"SourceStart", [](auto& source, auto&, auto act) { source.onStart = act; }},
    {"StreamCount", [](auto& source, auto&, auto act) { source.onGetStreamCount = act; }},
    {"MediaType", [](auto& source, auto&, auto act) { source.onGetMediaType = act; }},
    {"SinkOpen", [](auto&, auto& sink, auto act) { sink.onOpen = act; }},
    {"AddStream", [](auto&, auto& sink, auto act) { sink.onAddStream = act; }},
    {"SinkStart", [](auto&, auto& sink, auto act) { sink.onStart = act; }},
    {"SinkStartFromItsThread",
     [](auto&, auto& sink, auto act) {
         sink.onOpen = [&sink] { sink.Store(MediaState::Opening); };
         sink.onStart = act;
     }},
    {"PushMedia", [](auto&, auto& sink, auto act) { sink.onPush = act; }, true},
    {"SampleListener",
     [](auto& source, auto&, auto act) { source.AddNewSampleListener([act](auto...) { act(); }); }},
    {"StateListener",
     [](auto& source, auto&, auto act) { source.AddStateChangedListener([act](auto...) { act(); }); }},
    {"ErrorListenerFatal",
     [](auto& source, auto&, auto) { source.onStart = [&source] { source.onError("fatal", true); }; }},
    {"ErrorListenerNonFatal",
     [](auto&, auto& sink, auto) {
         sink.onPush = [&sink] {
             if (sink.Samples().empty()) sink.raiseErrorInThread("minor", false);
         };
     },
     true},
};

class SessionStopTest : public SessionRaceTest,
                        public testing::WithParamInterface<std::tuple<Callback, bool, BufferingType>> {};

const char* FromWhere(BufferingType type) {
    return type == BufferingType::None ? "" : type == BufferingType::Memory ? "FromMemory" : "FromDisk";
}

TEST_P(SessionStopTest, StopsFromTheCallback) {
    const auto& [callback, destroys, buffering] = GetParam();
    const bool buffers = buffering != BufferingType::None;
    const auto source = AddSource();
    const auto sink = AddSink();
    std::atomic<bool> acted{false};
    std::atomic<bool> finished{false};
    const auto act = [&, destroy = destroys] {
        if (acted.exchange(true)) return;
        if (destroy) {
            delete session.release();
        } else {
            session->Stop();
            EXPECT_FALSE(session->IsRunning());
        }
        finished = true;
    };
    session->AddErrorListener([&](void*, Media::ErrorEventArgs*) { act(); });
    session->AddErrorListener(
        [&, destroy = destroys](void*, Media::ErrorEventArgs*) { EXPECT_FALSE(destroy); });
    callback.place(*source.get(), *sink.get(), act);
    {
        buffers ? session->StartBuffering(1, buffering) : session->Start();
        const Flood flood(source);
        if (std::string(callback.name) == "SinkStartFromItsThread") {
            EXPECT_TRUE(Reaches(buffers ? MediaState::Started : MediaState::Running));
            sink->setStateInThread(MediaState::Opened);
        } else if (buffers && callback.outputs) {
            EXPECT_TRUE(Reaches(MediaState::Started));
            session->Start();
        }
        EXPECT_TRUE(Eventually([&] { return finished.load(); }));
    }
    // Where nothing else holds them, the session's references go at once.
    EXPECT_TRUE(Eventually([&] { return sink->GetRefCount() == 1 && source->GetRefCount() == 1; }));
    EXPECT_FALSE(std::string(callback.name) == "AddStream" && sink->Starts() != 0);  // the step ends there
    session.reset();
}

INSTANTIATE_TEST_SUITE_P(All, SessionStopTest,
                         testing::Combine(testing::ValuesIn(kCallbacks), testing::Bool(),
                                          testing::Values(BufferingType::None, BufferingType::Memory,
                                                          BufferingType::Disk)),
                         [](const auto& test) {
                             return std::string(std::get<0>(test.param).name) +
                                    (std::get<1>(test.param) ? "Destroys" : "Stops") +
                                    FromWhere(std::get<2>(test.param));
                         });

TEST_F(SessionRaceTest, StopsOnTwoThreadsAtOnce) {
    const int cycles = Cycles(50, 1000);
    for (int cycle = 0; cycle < cycles; ++cycle) {
        const auto source = AddSource();
        const auto sink = AddSink();
        std::atomic<bool> go{false};
        sink->onPush = [&] {
            go = true;
            session->Stop();
        };
        std::thread other([&] {
            while (!go)
                std::this_thread::yield();
            session->Stop();
        });
        const Flood flood(source);
        session->Start();
        other.join();
        EXPECT_FALSE(session->IsRunning());
    }
}

TEST_F(SessionRaceTest, KeepsSourcesThatAreReleasedSlowlyOutOfStop) {
    std::atomic<bool> go{false};
    auto source = AddSource();
    source->onDestroy = [&] { EXPECT_TRUE(Eventually([&] { return go.load(); })); };
    const auto sink = AddSink();
    session->Start();
    ASSERT_TRUE(Runs(*sink.get()));
    source = {};
    session->Stop();
    EXPECT_EQ(g_fakes, 2);  // Stop did not wait for it
    go = true;
    Common::ThreadHelper::Cleanup();
}

}  // namespace
}  // namespace Mivra::Test
