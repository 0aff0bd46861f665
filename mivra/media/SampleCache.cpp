#include "mivra/media/SampleCache.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <utility>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/media/HeldPacket.h"

namespace Mivra::Media {

using Common::FileLog;
using Common::LogLine;
using Common::PacketBuffer;
using Common::Reference;

namespace {

constexpr std::size_t kLongestName = 512;  // in the log

}  // namespace

SampleCache::SampleCache(std::int64_t longest, const std::vector<Source>& sources) : duration(longest) {
    tracks.reserve(sources.size());
    for (const Source& source : sources) {
        tracks.push_back({SourceClock(source.timescales),
                          source.videoStream,
                          static_cast<int>(source.timescales.size()),
                          {}});
        hasVideo = hasVideo || source.videoStream >= 0;
    }
}

SampleCache::~SampleCache() = default;

void SampleCache::Append(std::size_t source, PacketBuffer* sample, std::int64_t now) {
    Track& track = tracks[source];
    Held held = arrive(track, *sample, now);
    trim(track);
    if (!mayKeep(track, held)) {
        return;
    }
    try {
        if (!store(track, held, sample)) {
            return;
        }
        if (!mayKeep(track, held)) {  // what it follows had to go
            forget(held);
            return;
        }
        track.samples.push_back(std::move(held));
        ++count;
    } catch (const std::bad_alloc&) {
        LogLine(FileLog::Error, "MediaSession::processSourceSample: no memory for the buffer of %zu samples",
                count);
        forget(held);
        clear();
        report("Buffering error: out of memory");
    }
}

bool SampleCache::AppendLive(std::size_t source, PacketBuffer* sample, std::int64_t now) {
    Track& track = tracks[source];
    firstLive = std::min(firstLive, nextNumber);
    try {
        Held held = arrive(track, *sample, now);
        hold(held, sample);
        track.samples.push_back(std::move(held));
        ++count;
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

SampleCache::Take SampleCache::TakeFirst(Taken& taken) {
    while (Track* const track = earliest()) {
        Reference<PacketBuffer> sample;
        try {
            sample = load(track->samples.front());
        } catch (const std::bad_alloc&) {
            LogLine(FileLog::Error, "MediaSession::writeBuffer: buffer exhaustion");
            return Take::NoMemory;
        }
        if (sample && sample->StreamIndex() >= 0 && sample->StreamIndex() < track->streamCount) {
            dropFirst(*track);
            taken.source = static_cast<std::size_t>(track - tracks.data());
            taken.sample = std::move(sample);
            return Take::Sample;
        }
        dropGroup(*track);
    }
    return Take::Empty;
}

void SampleCache::LogTaking() const {
    CacheTime from = 0;
    std::uint64_t first = UINT64_MAX;
    for (const Track& track : tracks) {
        if (!track.samples.empty() && track.samples.front().number < first) {
            first = track.samples.front().number;
            from = track.samples.front().time;
        }
    }
    LogLine(FileLog::Debug, "MediaSession::writeBuffer: Writing cached buffer from %lld to the end",
            static_cast<long long>(from));
}

std::string SampleCache::TakeProblem() {
    return std::exchange(problem, {});
}

void SampleCache::hold(Held& held, PacketBuffer* sample) {
    held.packet = HoldPacket(sample);
}

void SampleCache::clear() {
    for (Track& track : tracks) {
        while (!track.samples.empty()) {
            dropFirst(track);
        }
    }
}

void SampleCache::dropGroup(Track& track) {
    if (track.samples.empty()) {
        return;
    }
    const CacheTime time = track.samples.front().time;
    char name[kLongestName] = "";
    if (track.videoStream >= 0) {
        std::snprintf(name, sizeof name, "%s", nameOf(track.samples.front()));
    }
    int dropped = 0;
    do {
        dropFirst(track);
        ++dropped;
    } while (!track.samples.empty() && !track.samples.front().entry && !isLive(track.samples.front()));
    if (track.videoStream >= 0) {
        LogLine(FileLog::Debug,
                "MediaSession::processSourceSample: Remove keyframe %lld, file %s, flushed %d frames",
                static_cast<long long>(time), name, dropped);
    }
}

// Where video leads, the others begin not before it; and what then comes first may be older than what stood
// in front of it, where streams of a source take turns.
void SampleCache::alignOthers() {
    if (!hasVideo) {
        return;
    }
    const Held* const key = firstKey();
    for (Track& track : tracks) {
        while (track.videoStream < 0 && !track.samples.empty() && !isLive(track.samples.front()) &&
               (key == nullptr || track.samples.front().number < key->number || isTooOld(track))) {
            dropFirst(track);
        }
    }
}

void SampleCache::report(std::string_view text) noexcept {
    if (problem.empty()) {
        try {
            problem = text;
        } catch (const std::bad_alloc&) {
            problem = "Out of memory";  // short enough to need none
        }
    }
}

bool SampleCache::isEntry(const Track& track, PacketBuffer& sample) const {
    return track.videoStream < 0 || (sample.StreamIndex() == track.videoStream && sample.KeyFrame());
}

// Only an entry may be the first of its track, and where video leads, only behind a key frame.
bool SampleCache::mayKeep(const Track& track, const Held& held) const {
    return !track.samples.empty() || leads(track, held) || (held.entry && firstKey() != nullptr);
}

SampleCache::Held SampleCache::arrive(Track& track, PacketBuffer& sample, std::int64_t now) {
    const bool anchor = sample.KeyFrame() || sample.StreamIndex() != track.videoStream;
    const CacheTime time = track.clock.Tell(sample, anchor, now);
    return {nextNumber++, time, isEntry(track, sample), {}};
}

// Every sample is dropped once, so that this costs a constant per sample, however many are held.
void SampleCache::trim(Track& track) {
    bool moved = false;
    while (!track.samples.empty() && isTooOld(track)) {
        dropGroup(track);
        moved = true;
    }
    if (moved && track.videoStream >= 0) {
        alignOthers();
    }
}

bool SampleCache::isTooOld(const Track& track) const {
    return Elapsed(track.samples.front().time, track.clock.Newest()) > duration;
}

void SampleCache::dropFirst(Track& track) {
    forget(track.samples.front());
    track.samples.pop_front();
    --count;
}

SampleCache::Track* SampleCache::earliest() {
    Track* first = nullptr;
    for (Track& track : tracks) {
        if (!track.samples.empty() &&
            (first == nullptr || track.samples.front().number < first->samples.front().number)) {
            first = &track;
        }
    }
    return first;
}

const SampleCache::Held* SampleCache::firstKey() const {
    const Held* first = nullptr;
    for (const Track& track : tracks) {
        if (track.videoStream >= 0 && !track.samples.empty() &&
            (first == nullptr || track.samples.front().number < first->number)) {
            first = &track.samples.front();
        }
    }
    return first;
}

}  // namespace Mivra::Media
