// A session's own thread and its steps.

#include <algorithm>

#include "mivra/common/model/MediaTime.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/ThreadHelper.h"
#include "mivra/media/Notification.h"
#include "mivra/media/SessionCore.h"
#include "mivra/media/SessionTime.h"
#include "mivra/platform/Relax.h"

namespace Mivra::Media {

using Common::AutoLock;
using Common::FileLog;
using Common::LogLine;
using Common::MediaTime;

namespace {

// Longest sleep of the session's thread between two passes, in nanoseconds.
constexpr std::int64_t kPassSleep = 10'000'000;
// Samples of one pass: time-outs are looked at between two passes, however many samples come.
constexpr int kSamplesPerPass = 256;
// Looks for work before the thread sleeps, some microseconds of them.
constexpr int kLooks = 512;
// After looks in vain the next 1, 3, 7, ... sleeps begin without any, at most 2^this - 1.
constexpr int kMostBackoff = 6;
constexpr std::int64_t kTimeoutCheckInterval = kTimescale;

/// Time-outs that hold when none is set.
struct DefaultTimeouts {
    std::int64_t local;
    std::int64_t network;
};
constexpr DefaultTimeouts kSourceOpen{10 * kTimescale, 60 * kTimescale};
constexpr DefaultTimeouts kSinkOpen{1 * kTimescale, 60 * kTimescale};
constexpr DefaultTimeouts kNoCapture{10 * kTimescale, 60 * kTimescale};

std::int64_t timeout(std::int64_t value, const DefaultTimeouts& defaults, bool network) {
    if (value != SessionCore::Unset) {
        return value;
    }
    return network ? defaults.network : defaults.local;
}

/// A short spin before a sleep: where samples come close upon each other it spares their producer the kernel,
/// where they are rare it is soon left out.
class WorkLooks {
public:
    bool Find(const Common::WakeEvent& work, std::uint32_t seen) {
        if (pause > 0) {
            --pause;
            return false;
        }
        for (int look = 0; look < kLooks; ++look) {
            if (work.Sequence() != seen) {
                backoff = 0;
                return true;
            }
            Platform::Relax();
        }
        backoff = std::min(backoff + 1, kMostBackoff);
        pause = (1 << backoff) - 1;
        return false;
    }

private:
    int backoff = 0;
    int pause = 0;  // sleeps to come without looks
};

std::int64_t now() {
    return MediaTime::Get(kTimescale);
}

}  // namespace

thread_local SessionCore::OwnThread* SessionCore::s_ownThread = nullptr;

bool SessionCore::isOwn(const OwnThread& own) const {
    return own.core == this && !own.detached;
}

void SessionCore::runThread(std::shared_ptr<SessionCore> core, std::uint32_t epoch) {
    OwnThread own{core.get(), epoch};
    s_ownThread = &own;
    core->mainThread(own);
    s_ownThread = nullptr;
    if (!own.detached) {
        core->threadFinished = true;
        core->finished.Notify();
        return;
    }
    // First the session, then the report: who joins this thread waits for nothing of the application's.
    core.reset();
    try {
        Common::ThreadHelper::FinishThread(std::this_thread::get_id());
    } catch (const std::exception&) {
        // Without memory for the report it is joined when the library shuts down.
    }
}

void SessionCore::mainThread(const OwnThread& own) {
    LogLine(FileLog::Debug, "MediaSession::mainThread: Media session thread started");
    {
        AutoLock guard(stateLock);
        if (active(own.epoch)) {
            state = MediaState::Opening;
        }
    }
    try {
        openMembers();
        loop(own.epoch);
    } catch (...) {
        failByException("MediaSession::mainThread", "Session thread");
    }
    // Once it has been stopped from here, all this is another thread's.
    if (!own.detached && state == MediaState::Stopped) {
        queue.Close();
        dropCache();
        reportFailure();
    }
    LogLine(FileLog::Debug, "MediaSession::mainThread: Stopping sources in main thread");
    if (!own.detached) {
        unhookSources();
    }
}

void SessionCore::loop(std::uint32_t epoch) {
    WorkLooks looks;
    while (active(epoch)) {
        const std::uint32_t seen = work.Sequence();
        const bool more = pass(epoch);
        if (active(epoch) && !more && !looks.Find(work, seen)) {
            work.Wait(seen, kPassSleep);
        }
    }
}

bool SessionCore::pass(std::uint32_t epoch) {
    bool more = false;
    switch (state.load()) {
        case MediaState::Opening:
            checkSourcesOpened();
            break;
        case MediaState::Opened:
            assignStreams();
            break;
        case MediaState::Started:
            checkTimeouts();
            processSourceSamples(epoch);
            reportBufferProblem(epoch);
            // What came before Start decides where the output begins.
            if (outputStarted && queue.TakenCount() >= firstLive) {
                more = writeBuffer(epoch);
                reportBufferProblem(epoch);
            }
            break;
        case MediaState::Running:
            checkTimeouts();
            processSourceSamples(epoch);
            break;
        default:
            break;
    }
    const MediaState reached = state;
    const bool takesSamples = reached == MediaState::Started || reached == MediaState::Running;
    return more || (takesSamples && !queue.Empty());
}

void SessionCore::openMembers() {
    if (!acquire(OnBusy::GiveUpWhenEnded)) {
        return;
    }
    SessionLock held(*this);
    if (ended() || !openSources(held) || !openSinks(held)) {
        return;
    }
    if (state == MediaState::Opening && allSourcesStarted()) {
        LogLine(FileLog::Debug, "MediaSession::mainThread: All sources ready");
        advance(MediaState::Opening, MediaState::Opened);
    }
}

bool SessionCore::openSources(const SessionLock& held) {
    try {
        for (auto& [id, record] : sources) {
            record.createdTime = now();
            hook(record);
            record.source->Open();
            record.lastSampleTime = now();  // no source is late for what it took to open
            if (held.Stopped()) {
                return false;
            }
            if (record.source->State() == MediaState::Opened) {
                record.source->Start();
            }
            if (held.Stopped()) {
                return false;
            }
        }
    } catch (...) {
        failByException("MediaSession::mainThread", "Source initialization");
        return false;
    }
    return true;
}

bool SessionCore::openSinks(const SessionLock& held) {
    try {
        for (auto& [id, record] : sinks) {
            record.openTime = now();
            hook(record);
            record.sink->Open();
            if (held.Stopped()) {
                return false;
            }
        }
    } catch (...) {
        failByException("MediaSession::mainThread", "Sink initialization");
        return false;
    }
    return true;
}

bool SessionCore::allSourcesStarted() const {
    return std::all_of(sources.begin(), sources.end(),
                       [](const auto& entry) { return entry.second.source->State() == MediaState::Started; });
}

void SessionCore::checkSourcesOpened() {
    if (!lock.TryLock()) {
        return;
    }
    SessionLock held(*this);
    if (state != MediaState::Opening) {
        return;
    }
    try {
        for (const auto& [id, record] : sources) {
            const std::int64_t limit =
                timeout(sourceOpenTimeout, kSourceOpen, record.source->IsNetworkSource());
            if (record.source->State() != MediaState::Started && now() - record.createdTime >= limit) {
                LogLine(FileLog::Error, "MediaSession::mainThread: Source %s creation timeout",
                        id.ToString().c_str());
                fail({"Source creation timeout"}, currentEpoch);
                return;
            }
        }
    } catch (const std::exception& exception) {
        LogLine(FileLog::Error, "MediaSession::mainThread: Source check exception %s", exception.what());
    }
}

// Numbering, starting the sinks and the change of state are one step under the lock: a sink that opens
// meanwhile is started here or, by its handler, right afterwards.
void SessionCore::assignStreams() {
    if (!acquire(OnBusy::GiveUpWhenEnded)) {
        return;
    }
    SessionLock held(*this);
    try {
        numberStreams(held);
    } catch (...) {
        failByException("MediaSession::mainThread", "Stream assignment");
    }
    if (ended() || held.Stopped()) {
        return;
    }
    for (auto& [id, record] : sinks) {
        if (record.reportedOpened || record.sink->State() == MediaState::Opened) {
            onStartSink(record, held);
            if (held.Stopped()) {
                return;
            }
        }
    }
    const MediaState next = outputStarted ? MediaState::Running : MediaState::Started;
    if (next == MediaState::Started) {
        makeCache();
    }
    if (advance(MediaState::Opened, next)) {
        LogLine(FileLog::Debug, "MediaSession::mainThread: State changed to %d", static_cast<int>(next));
    }
}

void SessionCore::numberStreams(const SessionLock& held) {
    int next = 0;
    writing = false;
    sourcesByPlace.clear();
    for (auto& [id, record] : sources) {
        record.streamMap.clear();
        record.timescales.clear();
        record.place = sourcesByPlace.size();
        record.videoStream = -1;
        sourcesByPlace.push_back(&record);
        const int count = record.source->GetStreamCount();
        for (int stream = 0; stream < count && !held.Stopped(); ++stream) {
            const Common::MediaType type = record.source->GetMediaType(stream);
            if (type.ContentType() == Common::ContentType_t::Video && record.videoStream < 0) {
                record.videoStream = stream;
            }
            record.timescales.push_back(type.Timescale());
            record.streamMap.push_back(next++);
        }
        if (held.Stopped()) {
            return;
        }
    }
}

void SessionCore::onStartSink(MediaSinkState& record, const SessionLock& held) {
    if (record.starting) {
        return;
    }
    record.starting = true;
    LogLine(FileLog::Debug, "MediaSession::onStartSink: Starting sink");
    try {
        for (auto& [id, source] : sources) {
            for (std::size_t stream = 0; stream < source.streamMap.size(); ++stream) {
                Common::MediaType type = source.source->GetMediaType(static_cast<int>(stream));
                if (held.Stopped()) {
                    return;
                }
                record.sink->AddStream(source.streamMap[stream], &type);
                if (held.Stopped()) {
                    return;
                }
            }
        }
        record.sink->Start(!outputStarted);
        if (writing && hasVideo()) {
            record.awaitsKey.assign(sourcesByPlace.size(), true);
        }
        record.started = true;
    } catch (...) {
        failByException("MediaSession::onStartSink", "Sink start");
    }
}

void SessionCore::checkTimeouts() {
    const std::int64_t time = now();
    if (time - lastTimeoutCheck < kTimeoutCheckInterval) {
        return;
    }
    if (lock.TryLock()) {
        SessionLock held(*this);
        checkSinkTimeouts(time);
        if (!ended()) {
            checkSourceTimeouts(time);
        }
    }
    lastTimeoutCheck = time;
}

void SessionCore::checkSinkTimeouts(std::int64_t time) {
    for (const auto& [id, record] : sinks) {
        const std::int64_t limit = timeout(sinkOpenTimeout, kSinkOpen, record.sink->IsNetworkSink());
        if (!record.started && time - record.openTime >= limit) {
            LogLine(FileLog::Error, "MediaSession::checkTimeouts: Sink %s creation timeout",
                    id.ToString().c_str());
            fail({"Sink creation timeout"}, currentEpoch);
        }
    }
}

void SessionCore::checkSourceTimeouts(std::int64_t time) {
    for (const auto& [id, record] : sources) {
        const std::int64_t limit = timeout(noCaptureTimeout, kNoCapture, record.source->IsNetworkSource());
        if (time - record.lastSampleTime >= limit) {
            LogLine(FileLog::Error, "MediaSession::checkTimeouts: Source %s capture timeout",
                    id.ToString().c_str());
            fail({"Capture timeout"}, currentEpoch);
        }
    }
}

void SessionCore::processSourceSamples(std::uint32_t epoch) {
    for (int taken = 0; taken < kSamplesPerPass && active(epoch); ++taken) {
        SampleQueue::Item item;
        if (stalled.sample) {
            std::swap(item, stalled);
        } else if (!queue.Take(item)) {
            return;
        }
        if (!processSourceSample(item)) {
            std::swap(item, stalled);
            return;
        }
    }
}

bool SessionCore::processSourceSample(const SampleQueue::Item& item) {
    if (lockWanted.load(std::memory_order_relaxed) != 0) [[unlikely]] {
        giveWay();
    }
    if (!acquire(OnBusy::GiveUpWhenEnded)) {
        return true;
    }
    SessionLock held(*this);
    const MediaState reached = state;
    if (reached != MediaState::Started && reached != MediaState::Running) {
        return true;
    }
    MediaSourceState* record = findSender(item.sender);
    if (record == nullptr) {
        return true;
    }
    const std::int64_t time = now();
    record->lastSampleTime = time;
    const int stream = item.sample->StreamIndex();
    if (stream < 0 || static_cast<std::size_t>(stream) >= record->streamMap.size()) {
        LogLine(FileLog::Warning, "MediaSession::processSourceSample: Source %s has no stream %d",
                record->source->UniqueId().ToString().c_str(), stream);
        return true;
    }
    if (reached == MediaState::Started) {
        return bufferSample(*record, item, time);
    }
    pushToSinks(*record, item.sample.get(), held);
    return true;
}

// Known by address first: the sender of a sample that arrived late may be gone, and only its record keeps it.
MediaSourceState* SessionCore::findSender(const IMediaSource* sender) {
    if (sender == lastSender && sender->UniqueId() == lastSenderId) {
        return lastSenderState;
    }
    const bool known = std::any_of(sources.begin(), sources.end(), [sender](const auto& entry) {
        return entry.second.source.get() == sender;
    });
    const auto place = known ? sources.find(sender->UniqueId()) : sources.end();
    if (place == sources.end()) {
        return nullptr;
    }
    lastSender = sender;
    lastSenderId = place->first;
    lastSenderState = &place->second;
    return lastSenderState;
}

void SessionCore::pushToSinks(const MediaSourceState& source, Common::PacketBuffer* sample,
                              const SessionLock& held) {
    const int outputIndex = source.streamMap[static_cast<std::size_t>(sample->StreamIndex())];
    try {
        for (auto& [id, record] : sinks) {
            if (record.started && (record.awaitsKey.empty() || takes(record, source, *sample))) {
                record.sink->PushMedia(outputIndex, sample);
                if (held.Stopped()) {
                    return;
                }
            }
        }
    } catch (...) {
        failByException("MediaSession::processSourceSample", "Sample delivery");
    }
}

void SessionCore::reportFailure() {
    std::string message;
    {
        AutoLock guard(stateLock);
        message.swap(lastError);
    }
    try {
        onError(std::move(message), true);
    } catch (...) {
        logListenerException("MediaSession::onError");
    }
}

}  // namespace Mivra::Media
