// A session that buffers, from StartBuffering to the sinks.

#include <numeric>

#include "mivra/media/SessionCore.h"
#include "tests/media/SessionFixture.h"
#include "tests/support/FakeClock.h"

namespace Mivra::Test {
namespace {

using BufferingType = Media::MediaSession::BufferingType;
using Sample = RecordingSink::Sample;

class SessionBufferingTest : public SessionTest {
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

TEST_F(SessionBufferingTest, GivesWhatCameBeforeStartFromAKeyFrameOn) {
    const auto source = AddVideo();
    const auto sink = AddSink();
    session->StartBuffering(3, BufferingType::Memory);
    ASSERT_TRUE(Reaches(MediaState::Started) && Eventually([&] { return sink->Starts() == 1; }));
    EXPECT_EQ(sink->starts, std::vector<bool>{true});
    SendFrames(*source.get(), 3, 75);
    session->Start();
    SendFrames(*source.get(), 75, 80);
    EXPECT_TRUE(Gets(*sink.get(), Frames(50, 80)));  // 74 - 40 is more than three seconds
    EXPECT_TRUE(Reaches(MediaState::Running));
    EXPECT_EQ(sink->Starts(), 1U);
    for (const char* line :
         {"MediaSession::StartBuffering: Starting buffering",
          "MediaSession::StartBuffering: Started buffering 3 seconds in 1",
          "MediaSession::mainThread: State changed to 3",
          "MediaSession::processSourceSample: Remove keyframe 10000000, file memory, flushed 10 frames",
          "MediaSession::writeBuffer: Writing cached buffer from 50000000 to the end",
          "MediaSession::writeBuffer: State changed to 4"})
        EXPECT_EQ(log.Count(line), 1) << line;
    EXPECT_TRUE(log.Contains("MediaSession::writeBuffer: Written "));
    EXPECT_TRUE(nonFatal.empty());
}

TEST_F(SessionBufferingTest, BuffersAgainAfterALiveRun) {
    for (int run = 0; run < 2; ++run) {
        const auto source = AddVideo();
        const auto sink = AddSink();
        if (run == 0) {
            session->Start();
            EXPECT_TRUE(Runs(*sink.get()));
        } else {
            session->StartBuffering(1, BufferingType::Memory);
            EXPECT_TRUE(Reaches(MediaState::Started));  // and not live at once because of the first run
            SendFrames(*source.get(), 0, 5);
        }
        session->Stop();
    }
    EXPECT_TRUE(log.Contains("MediaSession::cleanupBuffer: Released 5 buffers"));
}

TEST_F(SessionBufferingTest, KeepsWhatIsBufferedForASinkThatOpensLast) {
    const auto source = AddVideo();
    const auto sink = AddSink();
    const auto late = AddSink();
    sink->onOpen = late->onOpen = [] {};
    session->StartBuffering(2, BufferingType::Memory);
    ASSERT_TRUE(Reaches(MediaState::Started));
    SendFrames(*source.get(), 0, 35);
    session->Start();
    SendFrames(*source.get(), 35, 95);
    sink->setStateInThread(MediaState::Opened);
    EXPECT_TRUE(Gets(*sink.get(), Frames(20, 95)));
    ASSERT_TRUE(Reaches(MediaState::Running));
    late->setStateInThread(MediaState::Opened);
    EXPECT_TRUE(Eventually([&] { return late->Starts() == 1; }));
    EXPECT_EQ(late->starts, std::vector<bool>{false});
    SendFrames(*source.get(), 95, 120);
    EXPECT_TRUE(Gets(*sink.get(), Frames(20, 120)));
    EXPECT_EQ(late->Samples(), Frames(100, 120));  // from the next key frame on
}

}  // namespace
}  // namespace Mivra::Test
