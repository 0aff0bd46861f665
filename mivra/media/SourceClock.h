#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/Rational.h"

namespace Mivra::Media {

/// A moment on a source's clock, in 100 ns from an arbitrary start. Wraps: only differences mean something.
using CacheTime = std::uint64_t;

/// From one moment to another of the same clock, in 100 ns.
inline std::int64_t Elapsed(CacheTime from, CacheTime to) {
    return static_cast<std::int64_t>(to - from);
}

/// Makes one clock of the time stamps of a source's streams, each in the timescale of its stream. A sample's
/// stamp is the later of its presentation and decoding time; the minimum 64-bit value is none. Where stamps
/// jump back (a loop, a counter that wraps) the clock goes on from where it was; where they stand still or
/// are missing it goes on with the time of arrival: so what is measured by it never grows without end.
/// Belongs to one thread at a time.
class SourceClock {
public:
    explicit SourceClock(const std::vector<Common::Rational>& timescales);

    /// The moment of a sample, which arrives at `now` (100 ns). anchor: no later sample of its stream is
    /// earlier, but after a jump: a key frame, or any sample of a stream that is not video. The sample's
    /// stream index is that of a stream.
    CacheTime Tell(Common::PacketBuffer& sample, bool anchor, std::int64_t now);
    /// The latest moment told so far.
    CacheTime Newest() const { return newest; }

private:
    struct Stream {
        Common::Rational timescale;
        CacheTime offset = 0;         // from converted stamps to the clock
        std::int64_t lastAnchor = 0;  // converted stamp
        bool anchored = false;
    };

    void moveTo(CacheTime time, std::int64_t now);

    std::vector<Stream> streams;
    CacheTime newest = 0;
    std::int64_t movedAt = 0;  // arrival of the sample that moved `newest`
    bool begun = false;
};

}  // namespace Mivra::Media
