// A sequence of reader and writer operations against a bit-vector model, both byte orders, over a packet, a
// contiguous stream, a chain of small slices and a stream without a window.

#include "fuzz/ReaderWriterSequence.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Mivra::Test::ReaderWriterSequence::Run(data, size);
    return 0;
}
