#include "tools/mivra/PictureRate.h"

#include <algorithm>
#include <utility>

#include "mivra/common/model/MediaType.h"

namespace Mivra::Tool {

PictureRate::PictureRate(AVRational rate, Give to) : base{rate.den, rate.num}, give(std::move(to)) {}

void PictureRate::Push(Picture picture) {
    const std::int64_t slot = std::max<std::int64_t>(0, rescale(picture->Pts(), kPacketTimeBase, base));
    if (waiting) {
        giveUntil(slot);
    }
    begin = waiting ? std::max(begin, slot) : slot;
    end = picture->Pts() + std::max<std::int64_t>(0, picture->Duration());
    if (waiting && waiting->NewMediaType() != nullptr && picture->NewMediaType() == nullptr) {
        std::swap(waiting->NewMediaType(), picture->NewMediaType());
    }
    waiting = std::move(picture);
}

void PictureRate::giveUntil(std::int64_t slot) {
    for (; begin < slot; ++begin) {
        waiting->Pts() = waiting->Dts() = rescale(begin, base, kPacketTimeBase);
        waiting->Duration() = rescale(begin + 1, base, kPacketTimeBase) - waiting->Pts();
        give(*waiting.get());
        given = true;
        delete std::exchange(waiting->NewMediaType(), nullptr);  // told once
    }
}

void PictureRate::Finish(std::int64_t limit) {
    if (waiting) {
        const std::int64_t last = limit != kUnsetTime ? std::min(limit, end) : end;
        const std::int64_t slot = rescale(last, kPacketTimeBase, base);
        giveUntil(given ? slot : std::max(begin + 1, slot));
        waiting = {};
    }
}

}  // namespace Mivra::Tool
