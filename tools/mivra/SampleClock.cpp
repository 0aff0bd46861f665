#include "tools/mivra/SampleClock.h"

#include <algorithm>

namespace Mivra::Tool {
namespace {

__extension__ using Wide = __int128;

std::int64_t floorDivide(Wide value, Wide by) {
    return static_cast<std::int64_t>(value / by - (value % by < 0 ? 1 : 0));
}

/// The range of sample counts that a time, rounded to whole units, may stand for.
struct Range {
    std::int64_t first;
    std::int64_t last;
};

Range samplesOf(std::int64_t time, AVRational unit, int rate) {
    const Wide up = Wide{unit.num} * rate;
    const Wide down = Wide{unit.den};
    // From half a unit before to half a unit behind, in half samples, outwards.
    const std::int64_t from = floorDivide((Wide{2} * time - 1) * up, down);
    const std::int64_t to = -floorDivide(-((Wide{2} * time + 1) * up), down);
    return {from >> 1, (to + 1) >> 1};
}

}  // namespace

std::int64_t SampleClock::Convert(std::int64_t time, AVRational from, AVRational to, int rate, int samples) {
    if (time == kUnsetTime || rate <= 0) {
        return rescale(time, from, to);
    }
    const AVRational sample{1, rate};
    const bool isFineEnough = std::int64_t{from.num} * to.den <= std::int64_t{to.num} * from.den;
    if (next != kUnsetTime && samples > 0 && !isFineEnough) {
        const Range meant = samplesOf(time, from, rate);
        const std::int64_t slack = meant.last - meant.first;
        if (next >= meant.first - slack && next <= meant.last + slack) {
            const std::int64_t count = std::clamp(next, meant.first, meant.last);
            next = count + samples;
            return rescale(count, sample, to);
        }
    }
    next = rescale(time, from, sample) + samples;
    return rescale(time, from, to);
}

}  // namespace Mivra::Tool
