#include "mivra/platform/System.h"
#include "tests/media/SessionFixture.h"
#include "tests/support/FakeClock.h"

namespace Mivra::Test {
namespace {

constexpr std::int64_t kMicrosecond = 1000;  // the precision of media time

struct Timeout {
    const char* name;
    enum Kind { SourceOpen, SinkOpen, Capture } kind;
    bool network;
    std::int64_t setting;  // 100 ns; the minimum: the default
    std::int64_t seconds;  // when it fails
    bool buffers = false;
};

const Timeout kTimeouts[] = {
    {"SourceOpen", Timeout::SourceOpen, false, INT64_MIN, 10},
    {"SourceOpenNetwork", Timeout::SourceOpen, true, INT64_MIN, 60},
    {"SourceOpenSet", Timeout::SourceOpen, true, 30'000'000, 3},
    {"SinkOpen", Timeout::SinkOpen, false, INT64_MIN, 1},
    {"SinkOpenNetwork", Timeout::SinkOpen, true, INT64_MIN, 60},
    {"SinkOpenSet", Timeout::SinkOpen, false, 50'000'000, 5},
    {"Capture", Timeout::Capture, false, INT64_MIN, 10},
    {"CaptureNetwork", Timeout::Capture, true, INT64_MIN, 60},
    {"CaptureSet", Timeout::Capture, true, 70'000'000, 7},
    {"SourceOpenBuffering", Timeout::SourceOpen, false, INT64_MIN, 10, true},
    {"SinkOpenBuffering", Timeout::SinkOpen, false, INT64_MIN, 1, true},
    {"SinkOpenNetworkBuffering", Timeout::SinkOpen, true, INT64_MIN, 60, true},
    {"CaptureBuffering", Timeout::Capture, false, INT64_MIN, 10, true},
    {"CaptureSetBuffering", Timeout::Capture, true, 70'000'000, 7, true},
};

/// A clock that stands still, and counts how often it is looked at.
class WatchedClock : public FakeClock {
public:
    WatchedClock() {
        s_watched = Platform::g_system.monotonicTime;
        Platform::g_system.monotonicTime = [] {
            ++s_looks;
            return s_watched();
        };
    }
    ~WatchedClock() { Platform::g_system.monotonicTime = s_watched; }

    /// Returns when the session's thread has looked some times: it does so in each pass.
    void LetItLook() {
        EXPECT_TRUE(Eventually([before = s_looks.load()] { return s_looks >= before + 4; }));
    }

private:
    static inline std::atomic<int> s_looks{0};
    static inline std::int64_t (*s_watched)() = nullptr;
};

class SessionTimeoutTest : public SessionTest, public testing::WithParamInterface<Timeout> {};

TEST_P(SessionTimeoutTest, ComesAtItsEdgeAndNotBefore) {
    const Timeout& timeout = GetParam();
    WatchedClock clock;
    Renew(Timeouts::Default);
    const auto source = AddSource();
    const auto sink = AddSink();
    if (timeout.network) {
        source->BeNetwork();
        sink->BeNetwork();
    }
    std::atomic<bool> asked{false};
    std::string text = "Capture timeout";
    std::string line = "checkTimeouts: Source 00000001-0000-4000-8000-000000000000 capture timeout";
    if (timeout.kind == Timeout::SourceOpen) {
        source->onStart = [&] { asked = true; };
        session->SetSourceOpenTimeout(timeout.setting);
        text = "Source creation timeout";
        line = "mainThread: Source 00000001-0000-4000-8000-000000000000 creation timeout";
    } else if (timeout.kind == Timeout::SinkOpen) {
        sink->onOpen = [] {};
        session->SetSinkOpenTimeout(timeout.setting);
        session->SetNoCaptureTimeout(INT64_MAX);
        text = "Sink creation timeout";
        line = "checkTimeouts: Sink 00000002-0000-4000-8000-000000000000 creation timeout";
    } else {
        session->SetNoCaptureTimeout(timeout.setting);
    }
    const MediaState runs = timeout.buffers ? MediaState::Started : MediaState::Running;
    timeout.buffers ? session->StartBuffering(5, Media::MediaSession::BufferingType::Disk) : session->Start();
    const bool opens = timeout.kind != Timeout::SourceOpen;
    ASSERT_TRUE(opens ? Reaches(runs) : Eventually([&] { return asked.load(); }));
    if (timeout.kind == Timeout::Capture) {
        ASSERT_TRUE(Eventually([&] { return sink->Starts() == 1; }));
    }
    if (opens && timeout.seconds > 1) {
        clock.Advance((timeout.seconds - 1) * kSecond);  // looked at now, and next a second later
        clock.LetItLook();
    }
    const std::int64_t left = opens ? 1 : timeout.seconds;
    clock.Advance(left * kSecond - kMicrosecond);
    clock.LetItLook();
    EXPECT_TRUE(Fatal().empty());
    clock.Advance(kMicrosecond);
    EXPECT_TRUE(Fails(text));
    EXPECT_EQ(BufferFiles(), 0);
    expectedErrors = {"MediaSession::" + line};
    session.reset();
}

INSTANTIATE_TEST_SUITE_P(All, SessionTimeoutTest, testing::ValuesIn(kTimeouts),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(SessionTimeoutTest, SampleOrTheLargestValueHoldsTheCaptureTimeoutOff) {
    WatchedClock clock;
    Renew(Timeouts::Default);
    const auto source = AddSource();
    const auto sink = AddSink();
    source->onOpen = [&] {
        clock.Advance(9 * kSecond);  // which do not count
        source->Store(MediaState::Opened);
    };
    session->Start();
    ASSERT_TRUE(Runs(*sink.get()));
    clock.Advance(8 * kSecond);
    clock.LetItLook();
    source->Send(0);
    ASSERT_TRUE(Eventually([&] { return sink->Samples().size() == 1; }));
    clock.Advance(9 * kSecond);
    clock.LetItLook();
    EXPECT_EQ(session->State(), MediaState::Running);
    session->SetNoCaptureTimeout(INT64_MAX);
    clock.Advance(1'000'000 * kSecond);
    clock.LetItLook();
    EXPECT_EQ(session->State(), MediaState::Running);
    session.reset();
}

}  // namespace
}  // namespace Mivra::Test
