#pragma once

#include <cstdint>

#include "tools/mivra/Rescale.h"

namespace Mivra::Tool {

/// Times of audio packets at the precision of their samples. Where an input's time base is coarse (1 ms,
/// say), the times of packets jitter by its rounding; counting samples from packet to packet gives the time
/// that was meant, for as long as the count agrees with the input's times within that rounding.
class SampleClock {
public:
    /// The time of the next packet, which is `time` in units of `from` and holds `samples` (0: unknown) at
    /// `rate` Hz, in units of `to`.
    std::int64_t Convert(std::int64_t time, AVRational from, AVRational to, int rate, int samples);

private:
    std::int64_t next = kUnsetTime;  // where the next packet begins, in samples
};

}  // namespace Mivra::Tool
