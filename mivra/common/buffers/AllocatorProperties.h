#pragma once

#include <cstdint>

namespace Mivra::Media {

/// What a pool of packet buffers is made from.
struct AllocatorProperties {
    std::int32_t BufferSize;   ///< bytes
    std::int32_t BufferCount;  ///< made up front
    bool AllowGrowth;          ///< may add buffers when it runs dry
    float GrowthLimit;         ///< up to BufferCount times this
};

}  // namespace Mivra::Media
