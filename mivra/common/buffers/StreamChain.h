#pragma once

// What the source files of VersatileBufferStream share.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "mivra/common/buffers/VersatileBufferStream.h"
#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Common {

[[noreturn]] inline void FailStreamRange(const char* operation) {
    throw GeneralException("VersatileBufferStream::%s: Argument out of range", operation);
}

[[noreturn]] inline void FailStreamRange(const char* operation, int number) {
    throw GeneralException("VersatileBufferStream::%s: Argument out of range #%d", operation, number);
}

/// The slice that holds an offset inside the stream.
inline std::size_t VersatileBufferStream::sliceAt(std::int64_t offset) const {
    const auto next = std::upper_bound(chain.begin(), chain.end(), offset,
                                       [](std::int64_t at, const Slice& slice) { return at < slice.start; });
    return static_cast<std::size_t>(next - chain.begin()) - 1;
}

template <typename Visit>
void VersatileBufferStream::visitRange(std::int64_t offset, std::int64_t count, Visit visit) const {
    if (count <= 0) {
        return;
    }
    for (std::size_t index = sliceAt(offset); count > 0; ++index) {
        const Slice& slice = chain[index];
        const std::int64_t inside = offset - slice.start;
        const std::int64_t bytes = std::min(count, slice.count - inside);
        if (bytes > 0) {
            char* const storage = slice.buffer->GetPointer() + slice.offset;
            visit(reinterpret_cast<unsigned char*>(storage + inside), static_cast<std::size_t>(bytes));
            offset += bytes;
            count -= bytes;
        }
    }
}

}  // namespace Mivra::Common
