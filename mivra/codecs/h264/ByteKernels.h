#pragma once

// The inner loops of the byte stream format, written for what processors offer. All of them look for two zero
// bytes and a small one, and give the same results.

#include <cstddef>
#include <span>

namespace Mivra::Codecs::H264 {

struct ByteKernels {
    const char* name;
    /// The first 00 00 01 in [begin, end), or end.
    const unsigned char* (*findPrefix)(const unsigned char* begin, const unsigned char* end);
    /// The same, and copies what is in front of it; may write anything into the first end - begin bytes of
    /// out.
    const unsigned char* (*copyToPrefix)(const unsigned char* begin, const unsigned char* end,
                                         unsigned char* out);
    /// Copies what is not a 03 behind 00 00; may write anything into the first end - begin bytes of out. The
    /// size of the result.
    std::size_t (*removePrevention)(const unsigned char* begin, const unsigned char* end, unsigned char* out);
    /// The size of what insertPrevention() writes.
    std::size_t (*preventedSize)(const unsigned char* begin, const unsigned char* end);
    /// Copies with a 03 between 00 00 and a byte of at most 3. The size of the result.
    std::size_t (*insertPrevention)(const unsigned char* begin, const unsigned char* end, unsigned char* out);
};

/// Those that this processor can run, the fastest last; the first runs everywhere.
std::span<const ByteKernels* const> usableByteKernels();

/// The fastest, chosen once.
const ByteKernels& byteKernels();

}  // namespace Mivra::Codecs::H264
