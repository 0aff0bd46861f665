// Sources and sinks of the relay in a session of the test's own: what they hold, and what they give back.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <limits>
#include <semaphore>

#include "mivra/common/identity/Guid.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/common/runtime/ThreadHelper.h"
#include "mivra/media/MediaSession.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"
#include "tools/mivra/FfmpegLog.h"
#include "tools/mivra/FileSource.h"
#include "tools/mivra/Interrupt.h"
#include "tools/mivra/MuxSink.h"
#include "tools/mivra/Relay.h"

namespace Mivra::Tool {
namespace {

using Common::MediaType;
using Common::PacketBuffer;
using Common::Reference;
using Mivra::Test::FaultKind;
using Mivra::Test::FaultPlan;

std::string film(const std::string& name) {
    const char* const folder = std::getenv("MIVRA_FILMS");
    std::string path = (folder != nullptr ? std::string(folder) : ".") + "/" + name;
    if (!std::filesystem::exists(path)) {
        std::fprintf(stderr, "%s is missing: run these by ctest, whose tools.films makes it\n", path.c_str());
        std::exit(1);
    }
    return path;
}

/// Keeps what it is told; holds the session up while the gate is shut.
class RecordingSink : public Media::IMediaSink {
public:
    explicit RecordingSink(std::shared_ptr<RelayShared> with) : shared(std::move(with)) {}
    ~RecordingSink() override { destroying = true; }

    void Open() override { setStateInThread(Media::MediaState::Opened); }
    void Start(bool) override {}
    void Stop() override {}
    void AddStream(int, MediaType* type) override { types.push_back(*type); }
    void PushMedia(int streamIndex, PacketBuffer* sample) override {
        gate.acquire();
        gate.release();
        EXPECT_EQ(sample->StreamIndex(), streamIndex);
        changes += sample->NewMediaType() != nullptr ? 1 : 0;
        discontinuities += sample->Discontinuity() ? 1 : 0;
        if (streamIndex < 2 && changes == 0) {
            EXPECT_GE(sample->Dts(), last[streamIndex]);
            last[streamIndex] = sample->Dts();
        }
        if (sample->NewMediaType() != nullptr) {
            lastChange = *sample->NewMediaType();
        }
        ++packets;  // publishes the rest to whoever counts
        shared->monitor.Consumed();
    }

    std::counting_semaphore<> gate{1};
    std::atomic<int> packets{0};
    std::int64_t last[2] = {INT64_MIN, INT64_MIN};
    int changes = 0;
    int discontinuities = 0;
    MediaType lastChange;
    std::vector<MediaType> types;

private:
    const std::shared_ptr<RelayShared> shared;
};

/// One relay; at its end everything is back where it came from.
class Flow {
public:
    explicit Flow(std::int64_t budget = PacketBudget::kDefaultBytes)
        : shared(std::make_shared<RelayShared>(1, console, budget)) {
        session.SetNoCaptureTimeout(std::numeric_limits<std::int64_t>::max());
    }
    ~Flow() {
        Stop();
        EXPECT_EQ(shared->budget.BytesOut(), 0);
        Common::ThreadHelper::Cleanup();
    }

    FileSource& Read(const std::string& path, double seconds = 0) {
        FileSourceOptions options;
        options.path = path;
        options.length = static_cast<std::int64_t>(seconds * static_cast<double>(kPacketSecond));
        source = Reference<FileSource>(new FileSource(options, shared));
        session.AddSource(source.get());
        return *source.get();
    }
    MuxSink& Write(const std::string& path, bool last) {
        MuxSinkOptions options;
        options.path = path;
        options.format = findOutputFormat(path);
        options.last = last;
        sinks.emplace_back(new MuxSink(options, shared));
        return add(*sinks.back().get());
    }
    RecordingSink& Record() {
        recorder = Reference<RecordingSink>(new RecordingSink(shared));
        return add(*recorder.get());
    }
    void Run() {
        session.Start();
        while (!shared->monitor.Wait(1000, -1)) {
        }
    }
    void StartUntilHeldBack() {
        session.Start();
        for (std::uint64_t before = 0; before == 0 || before != shared->monitor.Packets();) {
            before = shared->monitor.Packets();
            if (shared->monitor.Wait(20, -1)) {
                return;
            }
        }
    }
    void Stop() {
        if (source) {
            source->Stop();
        }
        session.Stop();
        for (const auto& sink : sinks) {
            sink->Stop();
        }
        sinks.clear();
    }

    Console console{STDERR_FILENO};
    std::shared_ptr<RelayShared> shared;
    Media::MediaSession session;

private:
    template <typename Sink>
    Sink& add(Sink& sink) {
        char id[37];
        std::snprintf(id, sizeof(id), "00000000-0000-4000-8000-%012d", ++number);
        sink.SetUniqueId(Common::Guid(id));
        session.AddSink(&sink);
        return sink;
    }

    Reference<FileSource> source;
    std::vector<Reference<MuxSink>> sinks;
    Reference<RecordingSink> recorder;
    int number = 0;
};

class RelayTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(ffmpeg.IsLoaded());
        FFmpeg::RouteFfmpegLog();
    }
    void TearDown() override { EXPECT_EQ(log.Errors(), std::vector<std::string>()); }

    Mivra::Test::LogCapture log;
    Mivra::Test::TempFolder folder;
    FfmpegUse ffmpeg;
};

TEST_F(RelayTest, MediaTypesSayWhatASinkNeeds) {
    Flow flow;
    RecordingSink& sink = flow.Record();
    flow.Read(film("bframes.mp4"));
    flow.Run();
    EXPECT_EQ(sink.packets, 361);
    ASSERT_EQ(sink.types.size(), 2u);
    const MediaType& video = sink.types[0];
    EXPECT_EQ(video.ContentType(), Common::ContentType_t::Video);
    EXPECT_EQ(video.CodecId(), Common::Codec_t::H264);
    EXPECT_EQ(std::pair(video.Width(), video.Height()), std::pair(320, 180));
    EXPECT_EQ(video.Framerate(), Common::Rational(25, 1));
    EXPECT_EQ(video.FrameDuration(), 400000);
    EXPECT_EQ(video.Timescale(), Common::Rational(1, 10000000));
    EXPECT_EQ(video.GetReorderingQueueDepth(), 2);
    ASSERT_GT(video.CodecPrivateDataSize(), 7);
    EXPECT_EQ(video.CodecPrivateData()[0], 1);  // avcC, version 1
    const MediaType& audio = sink.types[1];
    EXPECT_EQ(audio.CodecId(), Common::Codec_t::AAC);
    EXPECT_EQ(std::pair(audio.SampleRate(), audio.Channels()), std::pair(48000, 1));
    EXPECT_EQ(audio.FrameDuration(), 213333);
}

TEST_F(RelayTest, AMediaTypeThatChangesTravelsWithItsPacket) {
    Flow flow;
    RecordingSink& sink = flow.Record();
    flow.Read(film("changes.flv"));
    flow.Run();
    EXPECT_EQ(sink.changes, 2);
    EXPECT_GT(sink.lastChange.CodecPrivateDataSize(), 0);
}

// With so little to lend, large packets go by the reserve and the muxer gets copies.
TEST_F(RelayTest, AllBuffersComeBackWhateverTheBudget) {
    for (const std::int64_t budget :
         {std::int64_t{64} << 10, std::int64_t{1} << 20, PacketBudget::kDefaultBytes}) {
        for (const char* const name : {"bframes.mp4", "apart.flv", "two-of-each.ts"}) {
            Flow flow(budget);
            flow.Read(film(name));
            MuxSink& first = flow.Write(folder / "a.mkv", false);
            flow.Write(folder / "a.ts", true);
            flow.Run();
            EXPECT_FALSE(flow.shared->monitor.FirstFailure().has_value());
            flow.session.Stop();
            first.Stop();
            EXPECT_EQ(first.GetSummary().written.packets, flow.shared->monitor.Packets()) << name;
            EXPECT_LE(flow.shared->budget.PeakBytesOut(), budget);
        }
    }
}

TEST_F(RelayTest, ASlowSinkHoldsTheSourceBack) {
    Flow flow(256 << 10);
    RecordingSink& sink = flow.Record();
    flow.Read(film("bframes.mp4"));
    sink.gate.acquire();
    flow.StartUntilHeldBack();
    EXPECT_LT(flow.shared->monitor.Packets(), 361u);
    EXPECT_LE(flow.shared->budget.PeakBytesOut(), 256 << 10);
    sink.gate.release();
    while (!flow.shared->monitor.Wait(1000, -1)) {
    }
    EXPECT_EQ(sink.packets, 361);
}

TEST_F(RelayTest, StopEndsASourceThatWaitsForBuffers) {
    Flow flow(256 << 10);
    RecordingSink& sink = flow.Record();
    FileSource& source = flow.Read(film("bframes.mp4"));
    sink.gate.acquire();
    flow.StartUntilHeldBack();
    {
        const FaultPlan noThreads(FaultKind::StartThread, 1, FaultPlan::Span::FromThenOn);
        EXPECT_THROW(source.Stop(), std::system_error);  // which tell of it; it stops all the same
    }
    EXPECT_EQ(source.State(), Media::MediaState::Stopped);
    sink.gate.release();
    flow.shared->monitor.Wait(1000, -1);
    EXPECT_LT(flow.shared->monitor.Packets(), 361u);
}

TEST_F(RelayTest, PauseHoldsAndSettingsAnswer) {
    Flow flow;
    RecordingSink& sink = flow.Record();
    FileSource& source = flow.Read(film("bframes.mp4"));
    EXPECT_TRUE(source.CanPause());
    EXPECT_FALSE(source.CanSeek());  // not known yet
    std::vector<std::string> errors;
    source.AddErrorListener([&](void*, Media::ErrorEventArgs* args) {
        EXPECT_FALSE(args->fatal);
        errors.push_back(args->message);
    });
    source.Pause();
    flow.session.Start();
    while (flow.session.State() != Media::MediaState::Running) {
        flow.shared->monitor.Wait(5, -1);
    }
    EXPECT_FALSE(flow.shared->monitor.Wait(20, -1));
    EXPECT_EQ(sink.packets, 0);
    EXPECT_TRUE(source.CanSeek());
    EXPECT_THROW(source.SetLoop(true), Common::GeneralException);
    source.SetPosition(60000000);
    source.SetPosition(-1);
    source.OnActionRequired(nullptr);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_NE(errors[0].find("it lasts from 0 to 5.0"), std::string::npos) << errors[0];
    source.Discard({{1, true}});
    source.Resume();
    while (!flow.shared->monitor.Wait(1000, -1)) {
    }
    EXPECT_EQ(sink.packets, 125);
    EXPECT_TRUE(source.IsEos());
    EXPECT_NEAR(static_cast<double>(source.GetPosition()), 5e7, 2e6);
    EXPECT_NEAR(static_cast<double>(source.GetDuration()), 5e7, 2e6);
    source.SetPosition(0);
    EXPECT_EQ(errors.size(), 4u);  // it has ended
}

// Without an end of stream the source waits behind its last packet; a seek takes it back, paused or not, and
// times go on.
TEST_F(RelayTest, SeeksGoOnInTime) {
    Flow flow;
    RecordingSink& sink = flow.Record();
    FileSource& source = flow.Read(film("bframes.mp4"));
    source.SetAllowEos(false);
    source.SetPosition(21000000);     // the key frame at 2 s
    constexpr int kFirst = 75 + 141;  // pictures and sound from there, and from 4 s
    constexpr int kSecond = 25 + 47;
    const auto reaches = [&](int packets) {
        for (int i = 0; i < 2000 && sink.packets < packets; ++i) {
            flow.shared->monitor.Wait(5, -1);
        }
        return sink.packets == packets;
    };
    flow.session.Start();
    EXPECT_TRUE(reaches(kFirst));
    EXPECT_FALSE(source.IsEos());
    EXPECT_EQ(sink.discontinuities, 0);
    source.Pause();
    source.SetPosition(45000000);
    for (int i = 0; i < 2000 && source.GetPosition() != 40000000; ++i) {
        flow.shared->monitor.Wait(5, -1);
    }
    EXPECT_EQ(source.GetPosition(), 40000000);
    EXPECT_EQ(sink.packets, kFirst);
    source.Resume();
    EXPECT_TRUE(reaches(kFirst + kSecond));
    EXPECT_EQ(sink.packets, kFirst + kSecond);
    EXPECT_EQ(sink.discontinuities, 2);  // one of each stream
    EXPECT_NEAR(static_cast<double>(source.Played()), 4e7, 3e6);
}

// Pictures wait for sound that never comes: only the end of the file finds out that one is not to be had.
TEST_F(RelayTest, APacketThatTheEndRefusesIsDamageAndKeepsNoOtherBack) {
    MediaType video;
    video.ContentType() = Common::ContentType_t::Video;
    video.CodecId() = Common::Codec_t::H264;
    video.Width() = video.Height() = 16;
    MediaType audio;
    audio.ContentType() = Common::ContentType_t::Audio;
    audio.CodecId() = Common::Codec_t::AAC;
    audio.SampleRate() = 48000;
    audio.Channels() = 2;
    const StopSignal stop;
    Muxer muxer(folder / "a.ts", *findOutputFormat("a.ts"), stop);
    muxer.Begin({video, audio});
    for (int i = 0; i < 3; ++i) {
        char bytes[] = {0, 0, 0, i == 0 ? '\5' : '\1', 9, '\x10', 0, 0};
        const auto packet = Reference<PacketBuffer>::Adopt(new PacketBuffer(bytes, sizeof(bytes)));
        packet->KeyFrame() = true;
        packet->Pts() = packet->Dts() = i * 400000;
        EXPECT_EQ(muxer.Write(0, *packet.get()), Muxer::Result::Done);
    }
    EXPECT_EQ(muxer.Finish(), Muxer::Result::BadPacket);
    EXPECT_EQ(muxer.Written().packets, 2u);
    EXPECT_EQ(muxer.Written().bytes, 16u);
    EXPECT_TRUE(log.Contains("no startcode found"));
    log.Clear();
}

// The end of a relay starts five threads to tell of it; the file does not depend on any of them.
TEST_F(RelayTest, OutputsAreFinishedWhenNoThreadCanBeStarted) {
    RelayOptions options;
    options.inputs = {film("bframes.mp4")};
    options.outputs = {folder / "a.mp4"};
    options.statsSeconds = 0;
    std::uint64_t threads = 0;
    {
        const FaultPlan counter(FaultKind::StartThread, UINT64_MAX);
        ASSERT_EQ(relay(options), ExitCode::Done);
        threads = counter.Calls();
    }
    const auto size = std::filesystem::file_size(options.outputs[0]);
    for (std::uint64_t nth = threads - 4; nth <= threads; ++nth) {
        std::filesystem::remove(options.outputs[0]);
        const FaultPlan fault(FaultKind::StartThread, nth, FaultPlan::Span::FromThenOn);
        EXPECT_EQ(relay(options), ExitCode::Done) << nth;
        EXPECT_TRUE(fault.Reached());
        EXPECT_EQ(std::filesystem::file_size(options.outputs[0]), size) << nth;
    }
    log.Clear();
}

// Four seconds take no more memory from the system than one: no packet takes any.
TEST_F(RelayTest, TheSteadyStateAllocatesNothing) {
    if (!Mivra::Test::kCountsOperatorNew) {
        GTEST_SKIP() << "this sanitizer keeps its own operator new";
    }
    for (const char* const name : {"bframes.mp4", "bframes.ts", "bframes.mkv"}) {
        std::uint64_t calls[2];
        std::uint64_t packets[2];
        for (const int i : {0, 1}) {
            const FaultPlan counter(FaultKind::Allocate, UINT64_MAX);
            Flow flow;
            flow.Read(film(name), i == 0 ? 1 : 4);
            flow.Write(folder / "a.ts", false);
            flow.Write(folder / "a.mp4", true);
            flow.Run();
            calls[i] = counter.Calls();
            packets[i] = flow.shared->monitor.Packets();
        }
        EXPECT_GT(packets[1], packets[0] + 200);
        // Queues grow by doubling when the threads happen to run apart; a packet's own memory would show as
        // hundreds.
        EXPECT_LE(calls[1], calls[0] + 40) << name;
    }
}

}  // namespace
}  // namespace Mivra::Tool
