#pragma once

#include <cstddef>
#include <cstdint>

#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// Random numbers fit for keys. Any thread may call it. GeneralException when the system has no randomness.
class MIVRA_API Random {
public:
    static void Fill(void* data, std::size_t size);
    /// Any 64 bits.
    static std::uint64_t Next();
    /// Evenly from 0 to `limit` - 1; 0 when the limit is 0.
    static std::uint64_t Next(std::uint64_t limit);
};

}  // namespace Mivra::Common
