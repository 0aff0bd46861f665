#pragma once

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "tests/media/Fakes.h"
#include "tests/support/Soak.h"
#include "tests/support/TempFolder.h"

namespace Mivra::Test {

/// A session with scripted members, numbered ids in the order in which they are made, and what it reports.
class SessionTest : public MediaTest {
protected:
    SessionTest() {
        ::setenv("XDG_DATA_HOME", dataHome.Path().c_str(), 1);
        Renew();
    }
    ~SessionTest() override {
        session.reset();
        EXPECT_EQ(BufferFiles(), 0);
    }
    /// Files in the folder in which sessions buffer on disk.
    int BufferFiles() const {
        const std::string folder = dataHome / "Mivrasoft/buffer";
        if (!std::filesystem::exists(folder)) return 0;
        return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder), {}));
    }

    enum class Timeouts { Default, Never };
    /// A fresh session without members; one that never times out bears a machine that is busy for seconds.
    void Renew(Timeouts timeouts = Timeouts::Never) {
        session = std::make_unique<Media::MediaSession>();
        if (timeouts == Timeouts::Never) {
            session->SetSourceOpenTimeout(INT64_MAX);
            session->SetSinkOpenTimeout(INT64_MAX);
            session->SetNoCaptureTimeout(INT64_MAX);
        }
        session->AddErrorListener([this](void* sender, Media::ErrorEventArgs* args) {
            EXPECT_EQ(sender, session.get());
            std::lock_guard guard(reportMutex);
            (args->fatal ? fatal : nonFatal).push_back(args->message);
        });
    }

    /// Ids that sort as they are numbered.
    static Common::Guid Id(int number) {
        char text[40];
        std::snprintf(text, sizeof text, "%08d-0000-4000-8000-000000000000", number);
        return Common::Guid(std::string(text));
    }
    Reference<FakeSource> AddSource(int streams = 1) {
        auto source = Make<FakeSource>(streams);
        source->SetUniqueId(Id(++members));
        session->AddSource(source.get());
        return source;
    }
    Reference<RecordingSink> AddSink() {
        auto sink = Make<RecordingSink>();
        sink->SetUniqueId(Id(++members));
        session->AddSink(sink.get());
        return sink;
    }
    bool Reaches(MediaState state) {
        return Eventually([&] { return session->State() == state; });
    }
    /// Running with this sink started.
    bool Runs(RecordingSink& sink) {
        return Reaches(MediaState::Running) && Eventually([&] { return sink.Starts() == 1; });
    }
    std::vector<std::string> Fatal() {
        std::lock_guard guard(reportMutex);
        return fatal;
    }
    /// Waits for the one fatal error.
    bool Fails(const std::string& message) {
        return Eventually([&] { return !Fatal().empty(); }) && Fatal() == std::vector<std::string>{message} &&
               session->State() == MediaState::Stopped;
    }

    const TempFolder dataHome;
    std::unique_ptr<Media::MediaSession> session;
    std::vector<std::string> nonFatal;

private:
    std::mutex reportMutex;
    std::vector<std::string> fatal;
    int members = 0;
};

/// How many cycles a test of races runs.
inline int Cycles(int plain, int soak) {
    return SoakCount(plain, soak);
}

}  // namespace Mivra::Test
