#include "tools/mivra/ContinuousTime.h"

#include <algorithm>

namespace Mivra::Tool {
namespace {

/// Times of a damaged input may be anything.
std::int64_t sum(std::int64_t a, std::int64_t b) {
    std::int64_t result = 0;
    return __builtin_add_overflow(a, b, &result) ? (a < 0 ? INT64_MIN + 1 : INT64_MAX) : result;
}

std::int64_t difference(std::int64_t a, std::int64_t b) {
    return sum(a, b == INT64_MIN ? INT64_MAX : -b);
}

}  // namespace

void ContinuousTime::begin() {
    for (Line& line : lines) {
        line.begun = false;
        line.last = kUnsetTime;
    }
}

void ContinuousTime::Jump() {
    begin();
    jumped = true;
}

void ContinuousTime::Repeat() {
    std::int64_t next = kUnsetTime;
    for (const Line& line : lines) {
        if (line.begun) {
            next = std::max(next, difference(line.end, line.first));
        }
    }
    begin();
    jumped = false;
    if (next != kUnsetTime) {
        shift = next;
    }
}

std::int64_t ContinuousTime::Pass(int stream, std::int64_t pts, std::int64_t dts, std::int64_t duration) {
    if (jumped) {
        jumped = false;
        const std::int64_t end = End();
        shift = end == kUnsetTime ? difference(0, pts != kUnsetTime ? pts : dts) : difference(end, dts);
    }
    Line& line = lines[static_cast<std::size_t>(stream)];
    if (!line.begun) {
        line.begun = true;
        line.first = dts;
        if (line.end != kUnsetTime) {
            shift = std::max(shift, difference(line.end, dts));
        }
    }
    // Without a duration it lasts as long as the packet before.
    const std::int64_t step =
        line.last == kUnsetTime ? 0 : std::max<std::int64_t>(difference(dts, line.last), 0);
    line.last = dts;
    line.end = std::max(line.end, sum(sum(dts, shift), duration > 0 ? duration : step));
    return shift;
}

std::int64_t ContinuousTime::End() const {
    std::int64_t end = kUnsetTime;
    for (const Line& line : lines) {
        end = std::max(end, line.end);
    }
    return end;
}

}  // namespace Mivra::Tool
