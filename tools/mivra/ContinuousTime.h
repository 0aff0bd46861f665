#pragma once

#include <cstdint>
#include <vector>

#include "tools/mivra/Rescale.h"

namespace Mivra::Tool {

/// A time with a shift added; unset stays unset, and so does what does not fit.
inline std::int64_t shifted(std::int64_t time, std::int64_t shift) {
    std::int64_t result = 0;
    return time == kUnsetTime || __builtin_add_overflow(time, shift, &result) ? kUnsetTime : result;
}

/// Times that go on although the media of a source jumps: when it seeks, or begins anew. What it works out is
/// a shift, the same for all streams, that is added to the times of the media. Times are in kPacketTimeBase.
/// One thread.
class ContinuousTime {
public:
    explicit ContinuousTime(int streams) : lines(static_cast<std::size_t>(streams)) {}

    /// What comes next is from elsewhere in the media: it begins where the last stream has ended, or, when
    /// nothing has passed yet, is shown at 0.
    void Jump();
    /// The same media as since the last of these calls comes again: no stream begins before it has ended, and
    /// one at least goes on without a gap.
    void Repeat();

    /// For every packet, in the source's order; pts may be unset. What is to be added to its times.
    std::int64_t Pass(int stream, std::int64_t pts, std::int64_t dts, std::int64_t duration);

    std::int64_t Shift() const { return shift; }
    /// Where the packets that have passed end.
    std::int64_t End() const;

private:
    struct Line {
        std::int64_t first = kUnsetTime;  // dts of the media since the last jump
        std::int64_t last = kUnsetTime;
        std::int64_t end = kUnsetTime;  // of what has passed, shifted
        bool begun = false;             // since the last jump
    };

    void begin();

    std::vector<Line> lines;
    std::int64_t shift = 0;
    bool jumped = false;
};

}  // namespace Mivra::Tool
