#include "mivra/media/SourceClock.h"

#include <algorithm>
#include <limits>

#include "mivra/common/model/MediaType.h"
#include "mivra/media/SessionTime.h"

namespace Mivra::Media {
namespace {

using Common::Rational;
__extension__ typedef __int128 Wide;

constexpr std::int64_t kNoStamp = std::numeric_limits<std::int64_t>::min();
// Anchors that step back by more have jumped; packets that the network has put out of order step back by
// less.
constexpr std::int64_t kJumpBack = kTimescale;
// A clock that stands still for so long while samples arrive has stopped.
constexpr std::int64_t kStandstill = 10 * kTimescale;
// Farther from zero is cut off, so that a difference of two stamps fits.
constexpr std::int64_t kFarthest = std::int64_t{1} << 61;

std::int64_t toTicks(std::int64_t stamp, const Rational& timescale) {
    Wide ticks = stamp;
    if (!timescale.IsNull() && !(timescale.Num() == 1 && timescale.Den() == kTimescale)) {
        ticks = ticks * timescale.Num() * kTimescale / timescale.Den();
    }
    return static_cast<std::int64_t>(std::clamp<Wide>(ticks, -kFarthest, kFarthest));
}

}  // namespace

SourceClock::SourceClock(const std::vector<Rational>& timescales) {
    streams.reserve(timescales.size());
    for (const Rational& timescale : timescales) {
        streams.push_back({timescale});
    }
}

CacheTime SourceClock::Tell(Common::PacketBuffer& sample, bool anchor, std::int64_t now) {
    Stream& stream = streams[static_cast<std::size_t>(sample.StreamIndex())];
    if (sample.NewMediaType() != nullptr) {
        stream.timescale = sample.NewMediaType()->Timescale();
    }
    const std::int64_t stamp = std::max(sample.Pts(), sample.Dts());
    if (stamp == kNoStamp) {
        moveTo(begun ? newest + static_cast<CacheTime>(now - movedAt) : 0, now);
        return newest;
    }
    const std::int64_t ticks = toTicks(stamp, stream.timescale);
    if (anchor) {
        if (stream.anchored && ticks < stream.lastAnchor - kJumpBack) {
            stream.offset = newest - static_cast<CacheTime>(ticks);
        }
        stream.anchored = true;
        stream.lastAnchor = ticks;
    }
    CacheTime time = static_cast<CacheTime>(ticks) + stream.offset;
    if (!begun || Elapsed(newest, time) > 0) {
        moveTo(time, now);
    } else if (now - movedAt >= kStandstill) {
        const CacheTime later = newest + static_cast<CacheTime>(now - movedAt);
        stream.offset += later - time;
        time = later;
        moveTo(time, now);
    }
    return time;
}

void SourceClock::moveTo(CacheTime time, std::int64_t now) {
    newest = time;
    movedAt = now;
    begun = true;
}

}  // namespace Mivra::Media
