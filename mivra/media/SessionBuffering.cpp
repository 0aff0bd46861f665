// How a session keeps what arrives before Start, and hands it to its sinks.

#include <algorithm>
#include <utility>

#include "mivra/common/model/MediaTime.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/media/DiskCache.h"
#include "mivra/media/MemoryCache.h"
#include "mivra/media/Notification.h"
#include "mivra/media/SessionCore.h"
#include "mivra/media/SessionTime.h"

namespace Mivra::Media {

using Common::FileLog;
using Common::LogLine;
using Common::MediaTime;

namespace {

// What a pass writes at most, in samples and in 100 ns: between two passes arrivals are taken in and
// time-outs looked at. More than a pass takes in, so that the end is reached.
constexpr int kSamplesPerPass = 1024;
constexpr std::int64_t kTimePerPass = kTimescale / 50;

}  // namespace

void SessionCore::makeCache() {
    std::vector<SampleCache::Source> kinds;
    for (const MediaSourceState* record : sourcesByPlace) {
        kinds.push_back({record->timescales, record->videoStream});
    }
    written = 0;
    if (bufferingType == MediaSession::BufferingType::Disk) {
        cache = std::make_unique<DiskCache>(bufferDuration, kinds, bufferFolder);
    } else {
        cache = std::make_unique<MemoryCache>(bufferDuration, kinds);
    }
}

bool SessionCore::bufferSample(const MediaSourceState& source, const SampleQueue::Item& item,
                               std::int64_t time) {
    if (item.number >= firstLive) {
        return cache->AppendLive(source.place, item.sample.get(), time);
    }
    cache->Append(source.place, item.sample.get(), time);
    return true;
}

// Only between two samples may others take the session's lock; so Stop never waits for more than one.
bool SessionCore::writeBuffer(std::uint32_t epoch) {
    const std::int64_t end = MediaTime::Get(kTimescale) + kTimePerPass;
    Drain drain = Drain::Goes;
    for (int count = 0; count < kSamplesPerPass && drain == Drain::Goes && active(epoch); ++count) {
        if (count % 16 == 15 && MediaTime::Get(kTimescale) >= end) {
            break;
        }
        drain = writeSample();
    }
    return drain == Drain::Goes;
}

SessionCore::Drain SessionCore::writeSample() {
    if (lockWanted.load(std::memory_order_relaxed) != 0) [[unlikely]] {
        giveWay();
    }
    if (!acquire(OnBusy::GiveUpWhenEnded)) {
        return Drain::Ends;
    }
    SessionLock held(*this);
    if (state != MediaState::Started || !cache) {
        return Drain::Ends;
    }
    if (!writing) {
        if (!someSinkMayTake()) {
            return Drain::Waits;
        }
        writing = true;
        cache->LogTaking();
    }
    SampleCache::Taken taken;
    switch (cache->TakeFirst(taken)) {
        case SampleCache::Take::Empty:
            return finishWriting();
        case SampleCache::Take::NoMemory:
            return Drain::Waits;
        case SampleCache::Take::Sample:
            break;
    }
    ++written;
    pushToSinks(*sourcesByPlace[taken.source], taken.sample.get(), held);
    return Drain::Goes;
}

SessionCore::Drain SessionCore::finishWriting() {
    LogLine(FileLog::Debug, "MediaSession::writeBuffer: Written %d samples", written);
    bufferProblem = cache->TakeProblem();
    cache.reset();
    if (advance(MediaState::Started, MediaState::Running)) {
        LogLine(FileLog::Debug, "MediaSession::writeBuffer: State changed to %d",
                static_cast<int>(MediaState::Running));
    }
    return Drain::Ends;
}

// What was buffered is not given away while nobody takes it and somebody may yet: a sink that does not open
// in time ends the session.
bool SessionCore::someSinkMayTake() const {
    return sinks.empty() ||
           std::any_of(sinks.begin(), sinks.end(), [](const auto& entry) { return entry.second.started; });
}

bool SessionCore::hasVideo() const {
    return std::any_of(sourcesByPlace.begin(), sourcesByPlace.end(),
                       [](const MediaSourceState* record) { return record->videoStream >= 0; });
}

void SessionCore::reportBufferProblem(std::uint32_t epoch) {
    std::string problem;
    {
        if (!acquire(OnBusy::GiveUpWhenEnded)) {
            return;
        }
        SessionLock held(*this);
        if (!active(epoch)) {
            return;
        }
        problem = cache ? cache->TakeProblem() : std::exchange(bufferProblem, {});
    }
    if (problem.empty()) {
        return;
    }
    try {
        onError(std::move(problem), false);
    } catch (...) {
        logListenerException("MediaSession::onError");
    }
}

// A sink that came too late for the beginning begins with a key frame of each source that has video, and with
// the others when it has one.
bool SessionCore::takes(MediaSinkState& sink, const MediaSourceState& source, Common::PacketBuffer& sample) {
    if (!sink.awaitsKey[source.place]) {
        return true;
    }
    const bool begins =
        source.videoStream < 0 ? sink.begun : sample.StreamIndex() == source.videoStream && sample.KeyFrame();
    if (begins) {
        sink.awaitsKey[source.place] = false;
        sink.begun = true;
    }
    return begins;
}

// Under the session lock, or on the session's thread when it has failed: nobody else touches the cache then,
// and Stop, which may hold the lock, waits for the thread.
int SessionCore::dropCache() MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    const int count = (cache ? static_cast<int>(cache->Count()) : 0) + (stalled.sample ? 1 : 0);
    cache.reset();
    stalled = {};
    return count;
}

}  // namespace Mivra::Media
