#pragma once

#include <cstdint>

namespace Mivra::Common {

/// Internal, for the inline parts of the reader and the writer: the cursor of a VersatileBufferStream and,
/// while all of its bytes are one run in memory, their address: the reader and the writer work on it
/// directly, without a call or a lock per field. The record is the stream's own state: it lives as long as
/// the stream and the stream keeps it true. Look at `data` before every use, since each call that changes the
/// chain (Append, SetLength, TrimBegin, MoveTo, a write that grows) may change or clear it. Only one thread
/// may use a stream while it is worked on through its window.
struct StreamWindow {
    unsigned char* data = nullptr;  ///< first byte of the stream; null while it is not one run
    std::int64_t length = 0;        ///< bytes in the stream
    std::int64_t position = 0;      ///< 0 to length
    int bitPosition = 0;            ///< 0 to 7
};

}  // namespace Mivra::Common
