#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/Rational.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/media/SourceClock.h"

namespace Mivra::Media {

/// What a session keeps until its output starts: of each source at most the last `duration` of media, by the
/// source's own time stamps. The part of a source with video begins at a key frame of its (first) video
/// stream; sources without video follow the earliest of these, so that the whole begins at a key frame, and
/// in a session without video they begin at any sample. Samples come out in the order in which they came in,
/// over all sources, each with all its attributes.
///
/// The session owns it, feeds it, and drains it once its output has started: what is live then is never
/// dropped. One thread at a time, under the session's lock. How a sample is held is the matter of the two
/// kinds, MemoryCache and DiskCache.
///
/// Memory is bounded without a key frame, too. A source that never sends one has nothing to begin with, and
/// each of its samples is dropped at once; when the last key frame has become too old it goes with all that
/// follows it, and the source is back to that. Time goes on even where stamps do not (SourceClock).
class SampleCache {
public:
    struct Source {
        std::vector<Common::Rational> timescales;  // one for each stream
        int videoStream = -1;                      // the first of them that is video; -1: none
    };
    struct Taken {
        std::size_t source = 0;
        Common::Reference<Common::PacketBuffer> sample;
    };
    enum class Take { Sample, Empty, NoMemory };

    /// duration in 100 ns.
    SampleCache(std::int64_t duration, const std::vector<Source>& sources);
    virtual ~SampleCache();
    SampleCache(const SampleCache&) = delete;
    SampleCache& operator=(const SampleCache&) = delete;

    /// Adds a sample of a source, whose stream index is in range, at `now` (100 ns); takes a reference or a
    /// copy. What fails costs what is held, and is a problem to be told, but never the session.
    void Append(std::size_t source, Common::PacketBuffer* sample, std::int64_t now);
    /// From the first call on the output has started: the sample is kept whatever its age and kind. False
    /// when there is no memory: then the cache is as before.
    bool AppendLive(std::size_t source, Common::PacketBuffer* sample, std::int64_t now);
    /// Moves the earliest sample out. What cannot be read back is left out up to the next key frame of its
    /// source. NoMemory: nothing has changed, try later.
    Take TakeFirst(Taken& taken);
    /// Samples that are held.
    std::size_t Count() const { return count; }
    /// Tells the log that the samples will be taken now.
    virtual void LogTaking() const;
    /// What went wrong since the last call, in words for the application; empty when nothing did.
    std::string TakeProblem();

protected:
    struct Held {
        std::uint64_t number;  // place in the order of arrival
        CacheTime time;
        bool entry;  // its source's part may begin here
        // In memory, where it is whole; or for a sample on disk what has no place in the file, or null.
        Common::Reference<Common::PacketBuffer> packet;
        // On disk; size 0: not there.
        std::uint32_t file = 0;
        std::uint32_t offset = 0;
        std::uint32_t size = 0;
    };
    struct Track {
        SourceClock clock;
        int videoStream;
        int streamCount;
        std::deque<Held> samples;
    };

    /// Puts a sample away; std::bad_alloc when there is no memory. False: it is lost, and the kind has
    /// already dropped what cannot stay without it.
    virtual bool store(const Track& track, Held& held, Common::PacketBuffer* sample) = 0;
    /// The sample itself; null when it is lost. std::bad_alloc when there is no memory.
    virtual Common::Reference<Common::PacketBuffer> load(const Held& held) = 0;
    /// A sample has left the cache, or is about to be destroyed.
    virtual void forget(const Held&) {}
    /// Where a sample is, for the log.
    virtual const char* nameOf(const Held&) const { return "memory"; }

    /// Keeps the sample in memory: the reference itself, or a copy of its own.
    static void hold(Held& held, Common::PacketBuffer* sample);
    /// Drops everything.
    void clear();
    /// Drops the first sample of a track and what follows it up to the next entry; what is live stays. Tracks
    /// without video keep step only after alignOthers.
    void dropGroup(Track& track);
    void alignOthers();
    void report(std::string_view text) noexcept;
    bool isLive(const Held& held) const { return held.number >= firstLive; }
    /// Whether the whole may begin with this sample.
    bool leads(const Track& track, const Held& held) const {
        return held.entry && (track.videoStream >= 0 || !hasVideo);
    }
    Track* earliest();

    std::vector<Track> tracks;

private:
    bool isEntry(const Track& track, Common::PacketBuffer& sample) const;
    Held arrive(Track& track, Common::PacketBuffer& sample, std::int64_t now);
    void trim(Track& track);
    bool mayKeep(const Track& track, const Held& held) const;
    /// The first sample, which there is, by its source's own clock.
    bool isTooOld(const Track& track) const;
    void dropFirst(Track& track);
    const Held* firstKey() const;

    const std::int64_t duration;
    bool hasVideo = false;
    std::uint64_t nextNumber = 0;
    std::uint64_t firstLive = UINT64_MAX;
    std::size_t count = 0;
    std::string problem;
};

}  // namespace Mivra::Media
