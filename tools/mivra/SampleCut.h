#pragma once

#include <cstdint>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Reference.h"

namespace Mivra::Tool {

/// How raw samples lie in a buffer: interleaved, or one plane after another.
struct SampleShape {
    int bytes = 0;  ///< of one sample of one channel
    int channels = 0;
    int rate = 0;
    bool planar = false;

    explicit SampleShape(const Common::MediaType& type);
    bool IsKnown() const { return bytes > 0 && channels > 0 && rate > 0; }
    std::int64_t SamplesIn(std::int64_t size) const { return size / (std::int64_t{bytes} * channels); }
};

/// What of the buffer plays from `begin` on and before `end` (kUnsetTime: to its end), to the sample: the
/// buffer itself when that is all of it, else a new one with a time of its own; nothing when none is left.
/// Times are in kPacketTimeBase. std::bad_alloc.
Common::Reference<Common::PacketBuffer> cutSamples(Common::Reference<Common::PacketBuffer> buffer,
                                                   const SampleShape& shape, std::int64_t begin,
                                                   std::int64_t end);

}  // namespace Mivra::Tool
