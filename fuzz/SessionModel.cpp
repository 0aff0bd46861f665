// A sequence of calls of a session and of what its sources and sinks report, beside a model of its states and
// of what each sink is given.

#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fuzz/OperationSource.h"
#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/common/runtime/ThreadHelper.h"
#include "mivra/media/IMediaSink.h"
#include "mivra/media/IMediaSource.h"
#include "mivra/media/MediaSession.h"

namespace {

using namespace Mivra::Media;
using Mivra::Common::DefaultPacketBufferAllocator;
using Mivra::Common::MediaType;
using Mivra::Common::PacketBuffer;
using Mivra::Common::Reference;

constexpr std::int64_t kSecond = 10'000'000;

/// Waits for what must come.
void settle(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(8);
    while (!condition()) {
        Require(std::chrono::steady_clock::now() < end);
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
}

class Source : public IMediaSource {
public:
    Source(bool startsAtOnce, bool hasVideo) : ready(startsAtOnce), video(hasVideo) {}
    ~Source() override { destroying = true; }
    void Open() override { state = MediaState::Opened; }
    void Start() override {
        asked = true;
        if (ready) BecomeStarted();
    }
    void Stop() override {}
    int GetStreamCount() override { return 1; }
    MediaType GetMediaType(int) override {
        MediaType type;
        if (video) type.ContentType() = Mivra::Common::ContentType_t::Video;
        return type;
    }
    void Discard(std::map<int, bool>) override {}
    void SetDesiredOutputType(int, MediaType) override {}
    void BecomeStarted() { setStateInThread(MediaState::Started); }
    void Send(std::int64_t pts, bool key) {
        const auto packet = Reference<PacketBuffer>::Adopt(MediaGlobal::LockBuffer(100));
        packet->ActualSize() = 100;
        packet->Pts() = pts;
        packet->KeyFrame() = key;
        onNewSample(0, packet.get());
    }
    using IMediaSource::onError;
    std::atomic<bool> asked{false};

private:
    const bool ready;
    const bool video;
};

class Sink : public IMediaSink {
public:
    explicit Sink(bool opensAtOnce) : ready(opensAtOnce) {}
    ~Sink() override { destroying = true; }
    void Open() override {
        asked = true;
        if (ready) BecomeOpened();
    }
    void Start(bool buffering) override {
        flag = buffering;
        ++starts;
    }
    void Stop() override {}
    void AddStream(int, MediaType*) override { ++streams; }
    void PushMedia(int, PacketBuffer* sample) override {
        std::lock_guard guard(mutex);
        got.push_back(sample->Pts());
    }
    void BecomeOpened() { setStateInThread(MediaState::Opened); }
    std::vector<std::int64_t> Got() {
        std::lock_guard guard(mutex);
        return got;
    }
    std::atomic<bool> asked{false};
    std::atomic<int> starts{0};
    std::atomic<int> streams{0};
    std::atomic<bool> flag{false};

private:
    const bool ready;
    std::mutex mutex;
    std::vector<std::int64_t> got;
};

/// One source and up to two sinks, which is enough for every row of the table of states.
class SessionRun {
public:
    explicit SessionRun(OperationSource& from) : operations(from) { renew(); }
    ~SessionRun() {
        session.reset();
        Mivra::Common::ThreadHelper::Cleanup();
        Require(files() == 0);
    }

    void Step() {
        switch (operations.Small() % 10) {
            case 0:
                addMembers();
                break;
            case 1:
                start();
                break;
            case 2:
                startBuffering();
                break;
            case 3:
                stop();
                break;
            case 4:
                fail();
                break;
            case 5:
                becomeReady();
                break;
            default:
                send(1 + operations.Small() % 24);
        }
        check();
    }

private:
    struct SinkModel {
        Reference<Sink> sink;
        bool opened;
        bool started = false;
        bool awaitsKey = false;
        std::vector<std::int64_t> expected;
    };
    struct Sent {
        std::int64_t pts;
        bool key;
    };

    void addMembers() {
        const int form = operations.Small();
        const bool sourceReady = (form & 1) != 0;
        const bool hasVideo = form < 0xC0;
        auto added = Reference<Source>(new Source(sourceReady, hasVideo));
        try {
            session->AddSource(added.get());
            Require(!running);
            if (source) {  // one is enough: this makes way for a fresh session's
                session = std::make_unique<MediaSession>();
                renew();
                session->AddSource(added.get());
            }
            source = added;
            sourceStarted = sourceReady;
            video = hasVideo;
            sinks.clear();
            for (int count = operations.Small() % 3; count > 0; --count) {
                const bool ready = operations.Flag();
                sinks.push_back({Reference<Sink>(new Sink(ready)), ready, false, false, {}});
                session->AddSink(sinks.back().sink.get());
            }
        } catch (const Mivra::Common::GeneralException&) {
            Require(running);
        }
    }
    void renew() {
        session->SetSourceOpenTimeout(INT64_MAX);
        session->SetSinkOpenTimeout(INT64_MAX);
        session->SetNoCaptureTimeout(INT64_MAX);
        session->AddErrorListener(
            [this](void*, ErrorEventArgs* args) { ++(args->fatal ? fatal : nonFatal); });
        state = MediaState::None;
        outputStarted = false;
    }
    void start() {
        session->Start();
        const bool before = std::exchange(outputStarted, true);
        if (!running) {
            begin();
        } else if (!before && state == MediaState::Started) {
            handOver();
        }
    }
    void startBuffering() {
        const int seconds = operations.Small() % 4;
        const auto type = static_cast<MediaSession::BufferingType>(operations.Small() % 3);
        const bool valid = seconds > 0 && type != MediaSession::BufferingType::None;
        try {
            session->StartBuffering(seconds, type);
            Require(running || valid);
        } catch (const Mivra::Common::GeneralException&) {
            Require(!running && !valid);
            return;
        }
        if (!running) {
            outputStarted = false;
            duration = seconds * kSecond;
            begin();
        }
    }
    void begin() {
        running = true;
        handedOver = false;
        fatal = 0;
        cached.clear();
        state = MediaState::Opening;
        settle([this] {
            return (!source || source->asked) && std::all_of(sinks.begin(), sinks.end(), [](auto& model) {
                       return model.sink->asked.load();
                   });
        });
        advance();
    }
    void advance() {
        if (running && state == MediaState::Opening && (!source || sourceStarted)) {
            state = outputStarted ? MediaState::Running : MediaState::Started;
            startSinks();
        }
    }
    void startSinks() {
        for (SinkModel& model : sinks) {
            if (model.opened && !model.started &&
                (state == MediaState::Started || state == MediaState::Running)) {
                model.started = true;
                model.awaitsKey = handedOver && source;
                settle([&] { return model.sink->starts == 1; });
                Require(model.sink->flag == !outputStarted && model.sink->streams == (source ? 1 : 0));
            }
        }
        if (state == MediaState::Started && outputStarted) handOver();
    }
    void handOver() {
        const bool taken = sinks.empty() ||
                           std::any_of(sinks.begin(), sinks.end(), [](auto& model) { return model.started; });
        if (!taken) return;  // it waits for the first
        state = MediaState::Running;
        for (const Sent& sample : std::exchange(cached, {}))
            deliver(sample);
        handedOver = true;
        settle([this] { return session->State() == MediaState::Running; });
    }
    void deliver(const Sent& sample) {
        for (SinkModel& model : sinks) {
            model.awaitsKey = model.awaitsKey && video && !sample.key;
            if (model.started && !model.awaitsKey) model.expected.push_back(sample.pts);
        }
    }
    void stop() {
        session->Stop();
        if (!running) return;
        running = false;
        state = MediaState::Stopping;
        source = {};
        check();
        sinks.clear();
        cached.clear();
        Require(files() == 0);
    }
    void fail() {
        if (!source) return;
        const bool isFatal = operations.Flag();
        source->onError("reported", isFatal);
        if (isFatal && running && state != MediaState::Stopped) {
            state = MediaState::Stopped;
            settle([this] { return fatal == 1; });
            Require(files() == 0);
            cached.clear();
        }
    }
    void becomeReady() {
        if (!running || state == MediaState::Stopped) return;
        if (source && !sourceStarted) {
            sourceStarted = true;
            source->BecomeStarted();
            advance();
            return;
        }
        for (SinkModel& model : sinks) {
            if (!model.opened) {
                model.opened = true;
                model.sink->BecomeOpened();
                startSinks();
                return;
            }
        }
    }
    void send(int count) {
        if (!source) return;
        for (; count > 0; --count) {
            time += kSecond / 10;
            const Sent sample{time, operations.Small() % 8 == 0};
            source->Send(sample.pts, sample.key);
            if (!running || state == MediaState::Stopped) continue;
            if (state == MediaState::Running) {
                deliver(sample);
            } else if (!outputStarted || state == MediaState::Opening) {
                buffer(sample);
            } else {
                cached.push_back(sample);  // live already
            }
        }
    }
    void buffer(const Sent& sample) {
        cached.push_back(sample);
        if (state == MediaState::Opening) return;  // in the queue
        trim();
    }
    void trim() {
        const std::int64_t newest = cached.back().pts;
        const auto first = std::find_if(cached.begin(), cached.end(), [&](const Sent& sent) {
            return (sent.key || !video) && newest - sent.pts <= duration;
        });
        cached.erase(cached.begin(), first);
    }

    void check() {
        if (state == MediaState::Running && !cached.empty()) {  // what came while it opened
            for (const Sent& sample : std::exchange(cached, {}))
                deliver(sample);
        }
        if (state == MediaState::Started && !outputStarted && !cached.empty()) trim();
        settle([this] { return session->State() == state && session->IsRunning() == running; });
        if (state == MediaState::Stopped) return;  // what was on its way may be missing
        // Every sample has left the queue: what is cached is copied, being small.
        if (running && state != MediaState::Opening) settle([] { return poolIsFull(); });
        for (SinkModel& model : sinks) {
            if (running) settle([&] { return model.sink->Got().size() >= model.expected.size(); });
            const std::vector<std::int64_t> got = model.sink->Got();
            Require(got.size() <= model.expected.size() &&
                    std::equal(got.begin(), got.end(), model.expected.begin()));
        }
    }
    static bool poolIsFull() {
        auto& pool = *static_cast<DefaultPacketBufferAllocator*>(MediaGlobal::GetSmallAllocator());
        return pool.FreeBufferCount() == pool.BufferCount();
    }
    static int files() {
        const std::string folder = std::string(::getenv("XDG_DATA_HOME")) + "/Mivrasoft/buffer";
        if (!std::filesystem::exists(folder)) return 0;
        return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder), {}));
    }

    OperationSource& operations;
    std::atomic<int> fatal{0};
    std::atomic<int> nonFatal{0};
    Reference<Source> source;
    bool sourceStarted = false;
    bool video = true;
    std::vector<SinkModel> sinks;
    std::unique_ptr<MediaSession> session = std::make_unique<MediaSession>();
    // The model.
    bool running = false;
    bool outputStarted = false;
    bool handedOver = false;
    MediaState state = MediaState::None;
    std::int64_t duration = 0;
    std::int64_t time = 0;
    std::vector<Sent> cached;
};

const bool s_ready = [] {
    static char folder[] = "/tmp/mivra-fuzz-XXXXXX";
    Require(::mkdtemp(folder) != nullptr);
    ::setenv("XDG_DATA_HOME", folder, 1);
    static const struct Remover {
        ~Remover() { std::filesystem::remove_all(folder); }
    } s_remover;
    MediaGlobal::Initialize(0.5F);
    return true;
}();

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    OperationSource operations(data, size);
    SessionRun run(operations);
    for (int steps = 0; !operations.AtEnd() && steps < 60; ++steps) {
        run.Step();
    }
    return 0;
}
