#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "mivra/common/identity/Guid.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/common/runtime/WakeEvent.h"
#include "mivra/media/IMediaSink.h"
#include "mivra/media/IMediaSource.h"
#include "mivra/media/ListenerMap.h"
#include "mivra/media/MediaSession.h"
#include "mivra/media/SampleCache.h"
#include "mivra/media/SampleQueue.h"

namespace Mivra::Media {

/// What a session knows of one source. The reference is the session's.
struct MediaSourceState {
    Common::Reference<IMediaSource> source;
    std::int64_t newStreamListener = 0;  // ids on the source; 0: none
    std::int64_t newSampleListener = 0;
    std::int64_t stateChangedListener = 0;
    std::int64_t errorListener = 0;
    std::int64_t createdTime = 0;
    std::int64_t lastSampleTime = 0;
    std::vector<int> streamMap;  // output index of each stream
    std::size_t place = 0;       // among the session's sources
    std::vector<Common::Rational> timescales;
    int videoStream = -1;  // the first stream that is video; -1: none
};

/// What a session knows of one sink. The reference is the session's.
struct MediaSinkState {
    Common::Reference<IMediaSink> sink;
    std::int64_t stateChangedListener = 0;
    std::int64_t errorListener = 0;
    std::int64_t openTime = 0;
    bool starting = false;  // from the first AddStream on
    bool started = false;
    bool reportedOpened = false;
    /// Of a sink that was started after what was buffered had begun to go out: the sources, by place, of
    /// which it has seen no key frame yet. Empty: it takes everything.
    std::vector<bool> awaitsKey;
    bool begun = false;  // it has taken a sample meanwhile
};

/// The session itself, behind the public shell. Owned together by the shell, the session's thread and the
/// handlers on sources and sinks, so that each of them may outlive the others; a handler that arrives late
/// finds nothing to do.
///
/// Locks: the session lock guards the records of sources and sinks, and is held while sources and sinks are
/// called; their locks come after it. Who wants it polls, so that it can give up while Stop, which waits for
/// the session's thread under the lock, is at work. The state lock and the queue's lock are leaves.
class SessionCore : public std::enable_shared_from_this<SessionCore> {
public:
    explicit SessionCore(MediaSession* session);
    ~SessionCore();
    SessionCore(const SessionCore&) = delete;
    SessionCore& operator=(const SessionCore&) = delete;

    void AddSource(IMediaSource* source);
    void AddSink(IMediaSink* sink);
    void Start();
    void StartBuffering(int seconds, MediaSession::BufferingType type);
    void Stop();
    /// After Stop: releases what was never started, and forgets the shell.
    void Dispose();

    std::int64_t AddErrorListener(ErrorCallback callback);
    void RemoveErrorListener(std::int64_t id);

    bool IsRunning() const { return running; }
    MediaState State() const { return state; }

    // Unset: the minimum.
    static constexpr std::int64_t Unset = std::numeric_limits<std::int64_t>::min();
    std::atomic<std::int64_t> sourceOpenTimeout{Unset};
    std::atomic<std::int64_t> sinkOpenTimeout{Unset};
    std::atomic<std::int64_t> noCaptureTimeout{Unset};

protected:
    // Handlers, on the threads of sources and sinks.
    void IMediaSource_NewStream(void* sender, NewStreamEventArgs* args);
    void IMediaSource_NewSample(void* sender, NewSampleEventArgs* args);
    void IMediaSource_StateChanged(void* sender, MediaState newState);
    /// The errors of sinks come here too. epoch: of the run that registered the handler.
    void IMediaSource_Error(void* sender, ErrorEventArgs* args, std::uint32_t epoch);
    void IMediaSink_StateChanged(void* sender, MediaState newState);

private:
    class SessionLock;
    struct OwnThread;
    enum class OnBusy { Wait, GiveUpWhenEnded, GiveUpWhenStopping };

    // Taking the session lock.
    bool acquire(OnBusy onBusy) MIVRA_TRY_ACQUIRE(true, lock);
    /// For callers from outside; on the session's own thread it gives up while another thread stops the
    /// session.
    bool acquireToCall() MIVRA_TRY_ACQUIRE(true, lock);
    void giveWay();
    bool onOwnThread() const { return s_ownThread != nullptr && isOwn(*s_ownThread); }
    bool isOwn(const OwnThread& own) const;
    void releaseRetired() MIVRA_RELEASE(lock);

    // Changes of state.
    bool advance(MediaState from, MediaState to);
    void fail(std::initializer_list<std::string_view> message, std::uint32_t epoch) noexcept;
    /// Inside a catch block: logs the exception and makes it the fatal error "<step> error: <its text>".
    void failByException(const char* where, const char* step) noexcept;
    bool ended() const { return !running || state == MediaState::Stopped; }
    bool active(std::uint32_t epoch) const { return !ended() && epoch == currentEpoch; }

    // Lifecycle.
    void startThread() MIVRA_REQUIRES(lock);
    void endThread() MIVRA_REQUIRES(lock);
    void stopSources() MIVRA_REQUIRES(lock);
    void stopSinks() MIVRA_REQUIRES(lock);
    void unhookSources();
    void cleanupBuffer() MIVRA_REQUIRES(lock);
    void onError(std::string message, bool fatal);

    // The session's thread. Each step that calls sources or sinks ends when one of them has stopped the
    // session.
    static void runThread(std::shared_ptr<SessionCore> core, std::uint32_t epoch);
    void mainThread(const OwnThread& own);
    void loop(std::uint32_t epoch);
    /// True: there is more to do at once.
    bool pass(std::uint32_t epoch);
    void openMembers();
    bool openSources(const SessionLock& held) MIVRA_REQUIRES(lock);
    bool openSinks(const SessionLock& held) MIVRA_REQUIRES(lock);
    void hook(MediaSourceState& record) MIVRA_REQUIRES(lock);
    void hook(MediaSinkState& record) MIVRA_REQUIRES(lock);
    bool allSourcesStarted() const MIVRA_REQUIRES(lock);
    void checkSourcesOpened();
    void assignStreams();
    void numberStreams(const SessionLock& held) MIVRA_REQUIRES(lock);
    void onStartSink(MediaSinkState& record, const SessionLock& held) MIVRA_REQUIRES(lock);
    void checkTimeouts();
    void checkSinkTimeouts(std::int64_t now) MIVRA_REQUIRES(lock);
    void checkSourceTimeouts(std::int64_t now) MIVRA_REQUIRES(lock);
    void processSourceSamples(std::uint32_t epoch);
    /// False: the sample has to wait, for want of memory to buffer it.
    bool processSourceSample(const SampleQueue::Item& item);
    MediaSourceState* findSender(const IMediaSource* sender) MIVRA_REQUIRES(lock);
    void pushToSinks(const MediaSourceState& source, Common::PacketBuffer* sample, const SessionLock& held)
        MIVRA_REQUIRES(lock);
    void reportFailure();

    // Buffering, on the session's thread.
    void makeCache() MIVRA_REQUIRES(lock);
    bool bufferSample(const MediaSourceState& source, const SampleQueue::Item& item, std::int64_t now)
        MIVRA_REQUIRES(lock);
    enum class Drain { Goes, Waits, Ends };
    bool writeBuffer(std::uint32_t epoch);
    Drain writeSample();
    Drain finishWriting() MIVRA_REQUIRES(lock);
    bool someSinkMayTake() const MIVRA_REQUIRES(lock);
    bool hasVideo() const MIVRA_REQUIRES(lock);
    void reportBufferProblem(std::uint32_t epoch);
    static bool takes(MediaSinkState& sink, const MediaSourceState& source, Common::PacketBuffer& sample);
    int dropCache();

    static thread_local OwnThread* s_ownThread;  // on a session's thread

    // The session lock, and who waits for it.
    Common::CritSec lock;
    std::atomic<int> lockWanted{0};
    const Common::Guid uniqueId = Common::Guid::NewGuid();
    const std::string bufferFolder;  // empty: there is none to be had
    Common::WakeEvent lockFree;      // the lock was given back, or the session ends
    Common::WakeEvent lockTaken;     // somebody who wanted it has it

    int lockDepth MIVRA_GUARDED_BY(lock) = 0;
    std::map<Common::Guid, MediaSourceState> sources MIVRA_GUARDED_BY(lock);
    std::map<Common::Guid, MediaSinkState> sinks MIVRA_GUARDED_BY(lock);
    /// What Stop has taken out; released when the lock is given back for good, since a call of one of them
    /// may be on the stack.
    std::multimap<Common::Guid, MediaSourceState> retiredSources MIVRA_GUARDED_BY(lock);
    std::multimap<Common::Guid, MediaSinkState> retiredSinks MIVRA_GUARDED_BY(lock);
    std::thread* thread MIVRA_GUARDED_BY(lock) = nullptr;
    std::int64_t bufferDuration MIVRA_GUARDED_BY(lock) = 0;  // 100 ns
    MediaSession::BufferingType bufferingType MIVRA_GUARDED_BY(lock) = MediaSession::BufferingType::None;
    /// From the step that numbers the streams until what was buffered has gone out.
    std::unique_ptr<SampleCache> cache MIVRA_GUARDED_BY(lock);
    bool writing MIVRA_GUARDED_BY(lock) = false;  // since what was buffered began to go out
    int written MIVRA_GUARDED_BY(lock) = 0;
    std::string bufferProblem MIVRA_GUARDED_BY(lock);  // of the cache that has gone
    std::vector<MediaSourceState*> sourcesByPlace MIVRA_GUARDED_BY(lock);
    // The sender of the last sample, and its record.
    const IMediaSource* lastSender MIVRA_GUARDED_BY(lock) = nullptr;
    Common::Guid lastSenderId MIVRA_GUARDED_BY(lock);
    MediaSourceState* lastSenderState MIVRA_GUARDED_BY(lock) = nullptr;

    // Changed under the state lock, read anywhere.
    Common::CritSec stateLock;
    std::atomic<bool> running{false};
    std::atomic<MediaState> state{MediaState::None};
    std::atomic<std::uint32_t> currentEpoch{0};  // one higher from each Stop on
    std::string lastError MIVRA_GUARDED_BY(stateLock);

    std::atomic<bool> outputStarted{false};
    std::atomic<bool> threadFinished{false};
    Common::WakeEvent finished;
    Common::WakeEvent work;         // a sample queued, a state changed, an end asked for
    std::int64_t lastTimeoutCheck;  // the session's thread only
    SampleQueue queue;
    /// Samples with this number in the queue and later ones came after Start: they are live.
    std::atomic<std::uint64_t> firstLive{UINT64_MAX};
    SampleQueue::Item stalled;  // taken from the queue and not to be buffered; the session's thread only

    std::atomic<MediaSession*> shell;
    Common::CritSec listenerLock;
    std::int64_t nextListenerId = 0;  // guarded by listenerLock
    ListenerMap<ErrorCallback> errorListeners;
};

/// Takes over the session lock, which the calling thread has just acquired, until the end of the scope. When
/// the thread gives it back for good, those who wait for it are told, and what Stop took out meanwhile is
/// released.
class MIVRA_SCOPED_CAPABILITY SessionCore::SessionLock {
public:
    explicit SessionLock(SessionCore& session) MIVRA_REQUIRES(session.lock)
        : core(session), epoch(session.currentEpoch) {
        ++core.lockDepth;
    }
    ~SessionLock() MIVRA_RELEASE() {
        if (--core.lockDepth == 0 && !(core.retiredSources.empty() && core.retiredSinks.empty()))
            [[unlikely]] {
            core.releaseRetired();
        } else {
            core.lock.Unlock();
        }
        if (core.lockWanted.load() != 0) [[unlikely]] {
            core.lockFree.Notify();
        }
    }
    SessionLock(const SessionLock&) = delete;
    SessionLock& operator=(const SessionLock&) = delete;

    /// True when the session was stopped under this very lock, by what its holder called: the records that
    /// the holder walks are out of their maps then, but still there.
    bool Stopped() const { return core.currentEpoch != epoch; }

private:
    SessionCore& core;
    const std::uint32_t epoch;
};

/// What the session's thread keeps about itself.
struct SessionCore::OwnThread {
    SessionCore* core;
    std::uint32_t epoch;
    bool detached = false;  // stopped from this very thread, which ThreadHelper joins then
};

}  // namespace Mivra::Media
