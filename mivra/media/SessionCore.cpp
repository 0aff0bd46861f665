#include "mivra/media/SessionCore.h"

#include <exception>
#include <utility>

#include "mivra/common/model/MediaTime.h"
#include "mivra/common/runtime/CallbackThread.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/ThreadHelper.h"
#include "mivra/media/CacheFiles.h"
#include "mivra/media/SessionTime.h"
#include "mivra/platform/System.h"

namespace Mivra::Media {

using Common::AutoLock;
using Common::FileLog;
using Common::GeneralException;
using Common::LogLine;
using Common::Reference;
using Common::ThreadHelper;

namespace {

// Longest sleeps between two looks, in nanoseconds: at a busy session lock, and of Stop at the thread's end.
constexpr std::int64_t kLockPoll = 10'000'000;
constexpr std::int64_t kStopPoll = 1'000'000;

// Gives one reference back on a thread of its own, so that a destructor that blocks stalls nobody.
template <typename T>
void releaseInThread(Reference<T>& reference) {
    T* object = reference.Detach();
    try {
        Common::StartCallbackThread([object] { object->Release(); });
    } catch (const std::exception&) {
        object->Release();
    }
}

void unhook(MediaSourceState& record) {
    record.source->RemoveNewStreamListener(record.newStreamListener);
    record.source->RemoveNewSampleListener(record.newSampleListener);
    record.source->RemoveMediaStateListener(record.stateChangedListener);
    record.source->RemoveErrorListener(record.errorListener);
}

void unhook(MediaSinkState& record) {
    record.sink->RemoveMediaStateListener(record.stateChangedListener);
    record.sink->RemoveErrorListener(record.errorListener);
}

}  // namespace

SessionCore::SessionCore(MediaSession* session)
    : bufferFolder(CacheFiles::DefaultFolder()),
      lastTimeoutCheck(Common::MediaTime::Get(kTimescale)),
      shell(session) {}

SessionCore::~SessionCore() = default;

void SessionCore::AddSource(IMediaSource* source) {
    if (source == nullptr) {
        throw GeneralException("Source can't be null");
    }
    if (!acquireToCall()) {
        throw GeneralException("Source can't be added in running state");
    }
    SessionLock held(*this);
    if (running) {
        throw GeneralException("Source can't be added in running state");
    }
    const Common::Guid id = source->UniqueId();
    const std::string name = id.ToString();
    const auto [place, added] = sources.try_emplace(id);
    if (!added) {
        LogLine(FileLog::Warning, "MediaSession::AddSource: Source %s is known already", name.c_str());
        return;
    }
    place->second.source = Reference<IMediaSource>(source);
    LogLine(FileLog::Debug, "MediaSession::AddSource: Added source %s", name.c_str());
}

void SessionCore::AddSink(IMediaSink* sink) {
    if (sink == nullptr) {
        throw GeneralException("Sink can't be null");
    }
    if (!acquireToCall()) {
        throw GeneralException("Sink can't be added in running state");
    }
    SessionLock held(*this);
    if (running) {
        throw GeneralException("Sink can't be added in running state");
    }
    const Common::Guid id = sink->UniqueId();
    const std::string name = id.ToString();
    const auto [place, added] = sinks.try_emplace(id);
    if (!added) {
        LogLine(FileLog::Warning, "MediaSession::AddSink: Sink %s is known already", name.c_str());
        return;
    }
    place->second.sink = Reference<IMediaSink>(sink);
    LogLine(FileLog::Debug, "MediaSession::AddSink: Added sink %s", name.c_str());
}

void SessionCore::Start() {
    if (!acquireToCall()) {
        return;
    }
    SessionLock held(*this);
    LogLine(FileLog::Debug, "MediaSession::Start: Starting media session");
    if (!outputStarted) {
        firstLive = queue.AppendedCount();
    }
    const bool before = outputStarted.exchange(true);
    if (running) {
        work.Notify();
    } else {
        try {
            startThread();
        } catch (...) {
            outputStarted = before;
            throw;
        }
    }
    LogLine(FileLog::Debug, "MediaSession::Start: Media session started");
}

void SessionCore::StartBuffering(int seconds, MediaSession::BufferingType type) {
    LogLine(FileLog::Debug, "MediaSession::StartBuffering: Starting buffering");
    if (!acquireToCall()) {
        return;
    }
    SessionLock held(*this);
    if (running) {
        return;
    }
    if (seconds < 1) {
        throw GeneralException("Duration must be positive");
    }
    if (type == MediaSession::BufferingType::None) {
        throw GeneralException("Memory or disk buffering must be specified");
    }
    bufferDuration = seconds * kTimescale;
    bufferingType = type;
    // An earlier run may have been started: this one only buffers until Start.
    outputStarted = false;
    firstLive = UINT64_MAX;
    startThread();
    LogLine(FileLog::Debug, "MediaSession::StartBuffering: Started buffering %d seconds in %d", seconds,
            static_cast<int>(type));
}

void SessionCore::Stop() {
    if (!acquireToCall()) {
        return;
    }
    SessionLock held(*this);
    if (!running) {
        return;
    }
    {
        AutoLock guard(stateLock);
        state = MediaState::Stopping;
        running = false;
        ++currentEpoch;
    }
    LogLine(FileLog::Debug, "MediaSession::Stop: Stopping media session");
    work.Notify();
    lockFree.Notify();
    endThread();
    stopSources();
    LogLine(FileLog::Debug, "MediaSession::Stop: Sources stopped");
    stopSinks();
    LogLine(FileLog::Debug, "MediaSession::Stop: Sinks stopped");
    cleanupBuffer();
    LogLine(FileLog::Debug, "MediaSession::Stop: Media session Stopped");
}

void SessionCore::Dispose() {
    shell = nullptr;
    std::map<Common::Guid, MediaSourceState> leftSources;
    std::map<Common::Guid, MediaSinkState> leftSinks;
    if (acquireToCall()) {
        SessionLock held(*this);
        leftSources.swap(sources);
        leftSinks.swap(sinks);
        cleanupBuffer();
    }
}

std::int64_t SessionCore::AddErrorListener(ErrorCallback callback) {
    return AddListener(listenerLock, nextListenerId, errorListeners, std::move(callback));
}

void SessionCore::RemoveErrorListener(std::int64_t id) {
    RemoveListener(listenerLock, errorListeners, id);
}

// The analysis cannot follow a lock through the loop.
bool SessionCore::acquire(OnBusy onBusy) MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    if (lock.TryLock()) {
        return true;
    }
    lockWanted.fetch_add(1);
    bool taken = false;
    for (;;) {
        const std::uint32_t seen = lockFree.Sequence();
        taken = lock.TryLock();
        if (taken || (onBusy == OnBusy::GiveUpWhenEnded && ended()) ||
            (onBusy == OnBusy::GiveUpWhenStopping && !running)) {
            break;
        }
        lockFree.Wait(seen, kLockPoll);
    }
    lockWanted.fetch_sub(1);
    lockTaken.Notify();
    return taken;
}

bool SessionCore::acquireToCall() {
    return acquire(onOwnThread() ? OnBusy::GiveUpWhenStopping : OnBusy::Wait);
}

// Between two samples: the session's thread, which takes the lock again at once, would starve all others.
void SessionCore::giveWay() {
    const std::uint32_t seen = lockTaken.Sequence();
    if (lockWanted.load() != 0) {
        lockTaken.Wait(seen, kLockPoll);
    }
}

void SessionCore::releaseRetired() {
    std::multimap<Common::Guid, MediaSourceState> goneSources;
    std::multimap<Common::Guid, MediaSinkState> goneSinks;
    goneSources.swap(retiredSources);
    goneSinks.swap(retiredSinks);
    lock.Unlock();
    for (auto& [id, record] : goneSources) {
        releaseInThread(record.source);
    }
    for (auto& [id, record] : goneSinks) {
        releaseInThread(record.sink);
    }
}

bool SessionCore::advance(MediaState from, MediaState to) {
    {
        AutoLock guard(stateLock);
        if (!running || state != from) {
            return false;
        }
        state = to;
    }
    work.Notify();
    return true;
}

void SessionCore::fail(std::initializer_list<std::string_view> message, std::uint32_t epoch) noexcept {
    {
        AutoLock guard(stateLock);
        if (!active(epoch)) {
            return;
        }
        state = MediaState::Stopped;
        try {
            lastError.clear();
            for (std::string_view part : message) {
                lastError += part;
            }
        } catch (const std::exception&) {
            lastError = "Out of memory";  // short enough to need none
        }
    }
    work.Notify();
    lockFree.Notify();
}

void SessionCore::failByException(const char* where, const char* step) noexcept {
    const std::uint32_t epoch = onOwnThread() ? s_ownThread->epoch : currentEpoch.load();
    const auto failWith = [&](const char* text) {
        LogLine(FileLog::Error, "%s: %s exception %s", where, step, text);
        fail({step, " error: ", text}, epoch);
    };
    try {
        throw;
    } catch (const std::exception& exception) {
        failWith(exception.what());
    } catch (...) {
        failWith("of unknown type");
    }
}

void SessionCore::startThread() {
    {
        AutoLock guard(stateLock);
        running = true;
    }
    threadFinished = false;
    queue.Open();
    try {
        thread = Platform::System().startThread(
            [core = shared_from_this(), epoch = currentEpoch.load()]() mutable {
                runThread(std::move(core), epoch);
            });
    } catch (...) {
        {
            AutoLock guard(stateLock);
            running = false;
        }
        queue.Close();
        throw;
    }
}

void SessionCore::endThread() {
    if (onOwnThread()) {
        s_ownThread->detached = true;
        try {
            ThreadHelper::QueueThread(thread);
        } catch (const std::exception&) {
            // Without memory the registry cannot have it: nobody joins it then.
            thread->detach();
            delete thread;
        }
        thread = nullptr;
        return;
    }
    for (std::uint32_t seen = finished.Sequence(); !threadFinished; seen = finished.Sequence()) {
        finished.Wait(seen, kStopPoll);
    }
    thread->join();
    delete thread;
    thread = nullptr;
    LogLine(FileLog::Debug, "MediaSession::Stop: Media session thread finished");
}

void SessionCore::stopSources() {
    for (auto& [id, record] : sources) {
        unhook(record);
    }
    lastSender = nullptr;
    sourcesByPlace.clear();
    retiredSources.merge(sources);
}

void SessionCore::stopSinks() {
    for (auto& [id, record] : sinks) {
        unhook(record);
    }
    retiredSinks.merge(sinks);
}

// At the end of the session's thread. Without the lock, which Stop may hold while it waits for this thread:
// the records stay as they are until the thread has ended.
void SessionCore::unhookSources() MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    for (auto& [id, record] : sources) {
        unhook(record);
    }
}

void SessionCore::cleanupBuffer() {
    const int released = queue.Close() + dropCache();
    LogLine(FileLog::Debug, "MediaSession::cleanupBuffer: Released %d buffers", released);
}

void SessionCore::onError(std::string message, bool fatal) {
    ErrorEventArgs args{std::move(message), fatal};
    errorListeners.ForEach([&](const ErrorCallback& callback) {
        // A listener may have destroyed the session.
        if (MediaSession* sender = shell) {
            callback(sender, &args);
        }
    });
}

}  // namespace Mivra::Media
