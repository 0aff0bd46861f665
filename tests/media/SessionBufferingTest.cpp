// A session that buffers, from StartBuffering to the sinks.

#include <system_error>

#include "mivra/media/SessionCore.h"
#include "tests/media/SessionFixture.h"
#include "tests/support/FakeClock.h"
#include "tests/support/FaultInjection.h"

namespace Mivra::Test {
namespace {

using BufferingType = Media::MediaSession::BufferingType;
using Sample = RecordingSink::Sample;

class SessionBufferingTest : public SessionTest, public testing::WithParamInterface<BufferingType> {
protected:
    /// A source whose stream 0 is video, with a key frame every ten samples of 100 ms.
    Reference<FakeSource> AddVideo() {
        auto source = AddSource();
        source->content = Common::ContentType_t::Video;
        return source;
    }
    static void SendFrames(FakeSource& source, int from, int to) {
        for (int i = from; i < to; ++i)
            source.Send(0, i * std::int64_t{1'000'000}, i % 10 == 0);
    }
    static std::vector<Sample> Frames(int from, int to) {
        std::vector<Sample> frames;
        for (int i = from; i < to; ++i)
            frames.push_back({0, i * std::int64_t{1'000'000}});
        return frames;
    }
    static bool Gets(RecordingSink& sink, const std::vector<Sample>& expected) {
        const bool enough = Eventually([&] { return sink.Samples().size() >= expected.size(); });
        return enough && sink.Samples() == expected;
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, SessionBufferingTest,
                         testing::Values(BufferingType::Memory, BufferingType::Disk), [](const auto& test) {
                             return test.param == BufferingType::Memory ? "Memory" : "Disk";
                         });

TEST_P(SessionBufferingTest, GivesWhatCameBeforeStartFromAKeyFrameOn) {
    const bool onDisk = GetParam() == BufferingType::Disk;
    const auto source = AddVideo();
    const auto sink = AddSink();
    session->StartBuffering(3, GetParam());
    ASSERT_TRUE(Reaches(MediaState::Started) && Eventually([&] { return sink->Starts() == 1; }));
    EXPECT_EQ(sink->starts, std::vector<bool>{true});
    EXPECT_EQ(BufferFiles(), onDisk ? 1 : 0);
    SendFrames(*source.get(), 3, 75);
    session->Start();
    SendFrames(*source.get(), 75, 80);
    EXPECT_TRUE(Gets(*sink.get(), Frames(50, 80)));  // 74 - 40 is more than three seconds
    EXPECT_TRUE(Reaches(MediaState::Running));
    EXPECT_EQ(sink->Starts(), 1U);
    EXPECT_EQ(BufferFiles(), 0);
    EXPECT_EQ(log.Count("MediaSession::StartBuffering: Starting buffering"), 1);
    EXPECT_EQ(log.Count("StartBuffering: Started buffering 3 seconds in " + std::string(onDisk ? "2" : "1")),
              1);
    EXPECT_EQ(log.Count("MediaSession::mainThread: State changed to 3"), 1);
    EXPECT_EQ(log.Count("MediaSession::processSourceSample: Remove keyframe 10000000, file " +
                        (onDisk ? dataHome.Path() : "memory, flushed 10 frames")),
              1);
    EXPECT_TRUE(Eventually([&] { return log.Count("MediaSession::writeBuffer: State changed to 4") == 1; }));
    EXPECT_TRUE(log.Contains("MediaSession::writeBuffer: Written "));
    EXPECT_EQ(log.Contains("MediaSession::writeBuffer: Writing cached buffer from 50000000 to the end"),
              !onDisk);
    EXPECT_EQ(log.Contains("MediaSession::writeBuffer: Deleting file "), onDisk);
    EXPECT_TRUE(nonFatal.empty());
}

// Four sources send as fast as they can while the output begins.
TEST_P(SessionBufferingTest, LosesRepeatsAndOvertakesNothing) {
    const int samples = Cycles(2500, 25'000);
    std::vector<Reference<FakeSource>> sources;
    std::vector<Reference<RecordingSink>> sinks;
    for (int i = 0; i < 4; ++i)
        sources.push_back(AddVideo());
    for (int i = 0; i < 3; ++i)
        sinks.push_back(AddSink());
    session->StartBuffering(50, GetParam());
    ASSERT_TRUE(Reaches(MediaState::Started) && Eventually([&] { return sinks[2]->Starts() == 1; }));
    std::atomic<int> half{0};
    std::vector<std::thread> threads;
    for (const auto& source : sources) {
        threads.emplace_back([&, &source = *source.get()] {
            SendFrames(source, 0, samples / 2);
            ++half;
            SendFrames(source, samples / 2, samples);
        });
    }
    EXPECT_TRUE(Eventually([&] { return half == 4; }));
    session->Start();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(Eventually([&] {
        const std::vector<Sample> got = sinks[2]->Samples();
        int ended = 0;
        for (const Sample& sample : got)
            ended += sample.pts == (samples - 1) * std::int64_t{1'000'000} ? 1 : 0;
        return ended == 4;
    }));
    const std::vector<Sample> got = sinks[0]->Samples();
    EXPECT_TRUE(sinks[1]->Samples() == got && sinks[2]->Samples() == got);
    std::vector<std::int64_t> next(4, -1);
    for (const Sample& sample : got) {
        std::int64_t& expected = next[static_cast<std::size_t>(sample.stream)];
        const std::int64_t number = sample.pts / 1'000'000;
        ASSERT_TRUE(expected == -1 ? number % 10 == 0 : number == expected);
        expected = number + 1;
    }
    EXPECT_EQ(next, std::vector<std::int64_t>(4, samples));
    EXPECT_TRUE(nonFatal.empty());
}

class SessionBusyTest : public SessionBufferingTest {};

INSTANTIATE_TEST_SUITE_P(Kinds, SessionBusyTest,
                         testing::Values(BufferingType::None, BufferingType::Memory, BufferingType::Disk),
                         [](const auto& test) {
                             return "Kind" + std::to_string(static_cast<int>(test.param));
                         });

TEST_P(SessionBusyTest, StopsBetweenTwoSamplesOfALongQueueOrDrain) {
    const bool live = GetParam() == BufferingType::None;
    const auto source = AddVideo();
    const auto sink = AddSink();
    std::atomic<int> pushed{0};
    sink->onPush = [&] {
        ++pushed;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    live ? session->Start() : session->StartBuffering(1000, GetParam());
    ASSERT_TRUE(Reaches(live ? MediaState::Running : MediaState::Started));
    ASSERT_TRUE(Eventually([&] { return sink->Starts() == 1; }));
    SendFrames(*source.get(), 0, 900);
    session->Start();
    ASSERT_TRUE(Eventually([&] { return pushed > 2; }));
    const int before = pushed;
    session->Stop();
    EXPECT_LT(pushed - before, 10);
    EXPECT_EQ(BufferFiles(), 0);
    EXPECT_FALSE(log.Contains("MediaSession::cleanupBuffer: Released 0 buffers"));
}

TEST_P(SessionBufferingTest, StartsAndStopsAtOnce) {
    const int cycles = Cycles(30, 1000);
    for (int cycle = 0; cycle < cycles; ++cycle) {
        const auto source = AddVideo();
        const auto sink = AddSink();
        session->StartBuffering(1, GetParam());
        if (cycle % 3 != 0) {
            ASSERT_TRUE(Reaches(MediaState::Started));
        }
        SendFrames(*source.get(), 0, cycle % 7);
        std::thread starter([&] { session->Start(); });
        std::thread stopper([&] { session->Stop(); });
        SendFrames(*source.get(), 7, 12);
        starter.join();
        stopper.join();
        session->Stop();
        EXPECT_EQ(BufferFiles(), 0);
        EXPECT_EQ(sink->Starts() > 1, false);
    }
}

TEST_F(SessionBufferingTest, GoesOnWithoutADisk) {
    WriteWholeFile(dataHome / "Mivrasoft", "a file");
    const auto source = AddVideo();
    const auto sink = AddSink();
    session->StartBuffering(5, BufferingType::Disk);
    ASSERT_TRUE(Reaches(MediaState::Started) && Eventually([&] { return sink->Starts() == 1; }));
    SendFrames(*source.get(), 0, 15);
    session->Start();
    SendFrames(*source.get(), 15, 30);
    EXPECT_TRUE(Gets(*sink.get(), Frames(15, 30)));
    const std::string folder = dataHome / "Mivrasoft/buffer/";
    EXPECT_EQ(nonFatal, std::vector<std::string>{"Buffering error: " + folder + ": Not a directory"});
    expectedErrors = {"MediaSession: no buffer on disk, " + folder + ": Not a directory"};
}

// Whatever call fails, what came after Start arrives, or the session has said why it ends.
TEST_F(SessionBufferingTest, LosesNothingLiveWhateverCallFails) {
    const std::pair<FaultKind, BufferingType> cases[] = {
        {FaultKind::StartThread, BufferingType::None}, {FaultKind::StartThread, BufferingType::Disk},
        {FaultKind::Allocate, BufferingType::None},    {FaultKind::Allocate, BufferingType::Disk},
        {FaultKind::Open, BufferingType::Disk},        {FaultKind::Unlink, BufferingType::Disk}};
    for (const auto& [kind, type] : cases) {
        int completed = 0;
        const auto life = [&, buffers = type != BufferingType::None] {
            try {
                Renew();
                const auto source = AddVideo();
                const auto sink = AddSink();
                buffers ? session->StartBuffering(5, BufferingType::Disk) : session->Start();
                const auto failed = [&] { return session->State() == MediaState::Stopped; };
                const MediaState runs = buffers ? MediaState::Started : MediaState::Running;
                EXPECT_TRUE(Eventually(
                    [&] { return (sink->Starts() == 1 && session->State() == runs) || failed(); }));
                SendFrames(*source.get(), 0, 12);
                session->Start();
                SendFrames(*source.get(), 12, 15);
                EXPECT_TRUE(Eventually([&] {
                    const std::vector<Sample> got = sink->Samples();
                    const std::vector<Sample> live = Frames(buffers ? 12 : 0, 15);
                    return failed() || (got.size() >= live.size() &&
                                        std::equal(live.rbegin(), live.rend(), got.rbegin()));
                }));
                session->Stop();
                ++completed;
            } catch (const std::bad_alloc&) {
            } catch (const std::system_error&) {
            }
            session.reset();
            Common::ThreadHelper::Cleanup();
            EXPECT_EQ(g_fakes, 0);
        };
        EXPECT_GT(ForEachNthFailure(kind, life),
                  kind == FaultKind::Allocate && !kCountsOperatorNew ? 0U : 1U);
        EXPECT_GT(completed, 0);
    }
    Renew();  // what could not be deleted goes with the next session that buffers
    session->StartBuffering(1, BufferingType::Disk);
    EXPECT_TRUE(Reaches(MediaState::Started));
    session->Stop();
    expectedErrors = log.Errors();
}

}  // namespace
}  // namespace Mivra::Test
