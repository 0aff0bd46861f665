#pragma once

#include <cstdint>
#include <functional>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/Reference.h"
#include "tools/mivra/Rescale.h"

namespace Mivra::Tool {

/// Gives pictures an even rate: the picture nearest to each of the times 0, 1/rate, 2/rate, ..., so some are
/// left out and others come again. Of two that are nearest to the same time, the later one counts. Times are
/// in kPacketTimeBase. One thread.
class PictureRate {
public:
    using Picture = Common::Reference<Common::PacketBuffer>;
    /// Takes a picture with its new time and duration; it may come again, the same object, with others.
    using Give = std::function<void(Common::PacketBuffer&)>;

    /// rate: pictures a second.
    PictureRate(AVRational rate, Give give);

    void Push(Picture picture);
    /// The last picture stays until its own end, or until `end` when that is not unset and comes first; what
    /// would begin only there is left out, unless it is all there is.
    void Finish(std::int64_t end);

private:
    void giveUntil(std::int64_t slot);

    const AVRational base;
    const Give give;
    Picture waiting;
    std::int64_t begin = 0;  // its slot
    std::int64_t end = 0;    // in time, of the picture that waits
    bool given = false;
};

}  // namespace Mivra::Tool
