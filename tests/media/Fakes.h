#pragma once

// A source and a sink whose every operation a test can script, and the fixture around them.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/common/runtime/ThreadHelper.h"
#include "mivra/media/IInteractiveMediaSource.h"
#include "mivra/media/IMediaSink.h"
#include "mivra/media/MediaSession.h"
#include "tests/support/LogCapture.h"

namespace Mivra::Test {

using Common::MediaType;
using Common::PacketBuffer;
using Common::Reference;
using Media::MediaState;

/// Fakes that are still there.
inline std::atomic<int> g_fakes{0};

inline Common::DefaultPacketBufferAllocator& SmallPool() {
    return *static_cast<Common::DefaultPacketBufferAllocator*>(Media::MediaGlobal::GetSmallAllocator());
}

/// Opens at once, announces its streams on Start and goes to Started. An empty script is the default.
class FakeSource : public Media::IInteractiveMediaSource {
public:
    explicit FakeSource(int streamCount = 1) : streams(streamCount) { ++g_fakes; }
    ~FakeSource() override {
        destroying = true;
        onDestroy();
        --g_fakes;
    }

    void Open() override { onOpen ? onOpen() : Store(MediaState::Opened); }
    void Start() override {
        if (onStart) {
            onStart();
            return;
        }
        for (int i = 0; i < streams; ++i) {
            MediaType type;
            onNewStream(i, streams, &type);
        }
        setStateInThread(MediaState::Started);
    }
    void Stop() override {
        setStateInThread(MediaState::Stopping);
        setStateInThread(MediaState::Stopped);
    }
    int GetStreamCount() override {
        onGetStreamCount();
        return streams;
    }
    MediaType GetMediaType(int stream) override {
        onGetMediaType();
        MediaType type;
        type.Width() = 100 + stream;
        type.ContentType() = content;
        return type;
    }
    void Discard(std::map<int, bool>) override {}
    void SetDesiredOutputType(int, MediaType) override {}
    void Pause() override {}
    void Resume() override {}
    void OnActionRequired(std::shared_ptr<Media::ActionRequiredEventArgs> args) override {
        lastAction = *args;
    }

    /// One sample of a stream, with this time stamp. Waits while the pool has few left.
    void Send(int stream, std::int64_t pts = 0, bool key = false) {
        while (SmallPool().FreeBufferCount() < 10)
            std::this_thread::yield();
        const auto sample = Reference<PacketBuffer>::Adopt(Media::MediaGlobal::LockBuffer(100));
        sample->StreamIndex() = stream;
        sample->Pts() = pts;
        sample->KeyFrame() = key;
        onNewSample(stream, sample.get());
    }
    void Store(MediaState value) { state = value; }
    void BeNetwork() { isNetworkSource = true; }
    using IInteractiveMediaSource::onSourceChanged;
    using IMediaSource::destroying;
    using IMediaSource::onError;
    using IMediaSource::onNewSample;
    using IMediaSource::onStateChanged;
    using IMediaSource::raiseErrorInThread;
    using IMediaSource::setStateInThread;

    int streams;
    Common::ContentType_t content = Common::ContentType_t::Unknown;  // of every stream
    Media::ActionRequiredEventArgs lastAction;
    std::function<void()> onOpen;
    std::function<void()> onStart;
    std::function<void()> onGetStreamCount = [] {};
    std::function<void()> onGetMediaType = [] {};
    std::function<void()> onDestroy = [] {};
};

/// Reports Opened on Open and records what it is given.
class RecordingSink : public Media::IMediaSink {
public:
    struct Sample {
        int stream;
        std::int64_t pts;
        bool operator==(const Sample&) const = default;
    };

    RecordingSink() { ++g_fakes; }
    ~RecordingSink() override {
        destroying = true;
        --g_fakes;
    }

    template <typename Read>
    auto Record(Read&& read) {
        std::lock_guard guard(mutex);
        return read();
    }
    void Open() override { onOpen ? onOpen() : setStateInThread(MediaState::Opened); }
    void Start(bool buffering) override {
        onStart();
        Record([&] { starts.push_back(buffering); });
    }
    void Stop() override {}
    void AddStream(int stream, MediaType* type) override {
        onAddStream();
        Record([&] { types.emplace_back(stream, type->Width()); });
    }
    void PushMedia(int stream, PacketBuffer* sample) override {
        onPush();
        Record([&] { samples.push_back({stream, sample->Pts()}); });
    }

    std::size_t Starts() {
        return Record([&] { return starts.size(); });
    }
    std::vector<Sample> Samples() {
        return Record([&] { return samples; });
    }
    void Store(MediaState value) { state = value; }
    void BeNetwork() { isNetworkSink = true; }
    using IMediaSink::destroying;
    using IMediaSink::onError;
    using IMediaSink::onStateChanged;
    using IMediaSink::raiseErrorInThread;
    using IMediaSink::setStateInThread;

    std::vector<bool> starts;
    std::vector<std::pair<int, int>> types;  // output index and width
    std::vector<Sample> samples;
    std::function<void()> onOpen;
    std::function<void()> onAddStream = [] {};
    std::function<void()> onStart = [] {};
    std::function<void()> onPush = [] {};

private:
    std::mutex mutex;
};

template <typename T, typename... Arguments>
Reference<T> Make(Arguments&&... arguments) {
    return Reference<T>(new T(std::forward<Arguments>(arguments)...));
}

/// Waits, in real time and up to 20 s, until the condition holds.
inline bool Eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    return true;
}

/// Ends with every fake destroyed, every thread joined, every buffer back in its pool, and no line of level 1
/// in the log but those that were expected.
class MediaTest : public testing::Test {
protected:
    MediaTest() { Media::MediaGlobal::Initialize(1.0F); }
    ~MediaTest() override {
        Common::ThreadHelper::Cleanup();
        EXPECT_EQ(g_fakes, 0);
        EXPECT_EQ(SmallPool().FreeBufferCount(), SmallPool().BufferCount());
        EXPECT_EQ(log.Errors(), expectedErrors);
        Media::MediaGlobal::Uninitialize();
    }

    LogCapture log;
    std::vector<std::string> expectedErrors;
};

}  // namespace Mivra::Test
