#pragma once

// Internal: the arithmetic of Seek and SeekBits that all streams share.

#include <cstdint>

#include "mivra/common/buffers/IStream.h"

namespace Mivra::Common {

/// Where a seek would end. -1: before the begin, 1: behind the end, 0: inside or at the end, and then
/// `target` is set.
inline int SeekTarget(std::int64_t offset, Origin origin, std::int64_t current, std::int64_t end,
                      std::int64_t& target) {
    std::int64_t result = 0;
    bool overflow = false;
    switch (origin) {
        case Origin::Begin:
            result = offset;
            break;
        case Origin::Current:
            overflow = __builtin_add_overflow(current, offset, &result);
            break;
        case Origin::End:
            overflow = __builtin_sub_overflow(end, offset, &result);
            break;
    }
    if (overflow) {
        return (offset < 0) == (origin == Origin::End) ? 1 : -1;
    }
    if (result < 0) return -1;
    if (result > end) return 1;
    target = result;
    return 0;
}

}  // namespace Mivra::Common
