#pragma once

#include <chrono>
#include <cstdint>

#include "tools/mivra/Rescale.h"

namespace Mivra::Tool {

/// When a packet is due if media plays at a rate. One thread.
class PlaybackClock {
public:
    using Clock = std::chrono::steady_clock;

    /// 1: as fast as it plays; below 0: as fast as it goes.
    explicit PlaybackClock(double factor) : rate(factor) {}

    bool Runs() const { return rate > 0; }
    /// The next packet is due at once, and the others counted from there.
    void Restart() { anchored = false; }
    /// When what is decoded at `dts` (kPacketTimeBase) is due; `now` sets the first one's time.
    Clock::time_point DueAt(std::int64_t dts, Clock::time_point now) {
        if (!anchored) {
            anchored = true;
            anchor = now;
            anchorDts = dts;
        }
        const double seconds =
            (static_cast<double>(dts) - static_cast<double>(anchorDts)) / (kPacketSecond * rate);
        // Times of a damaged input may be anything.
        const double sane = seconds < kMost ? (seconds > 0 ? seconds : 0) : kMost;
        return anchor + std::chrono::microseconds(static_cast<std::int64_t>(sane * 1e6));
    }

private:
    static constexpr double kMost = 1e9;  // seconds

    const double rate;
    bool anchored = false;
    Clock::time_point anchor;
    std::int64_t anchorDts = 0;
};

}  // namespace Mivra::Tool
