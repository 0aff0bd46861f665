// Configurations of H.264 in all three forms: whatever was read can be told, and reads the same when written.

#include "fuzz/H264Sets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Mivra::Codecs::H264::H264ConfigurationParser;
    std::vector<unsigned char> bytes(data, data + size);
    H264ConfigurationParser parser;
    for (const int flags : {0, 1}) {
        const int result = parser.Parse(bytes.data(), static_cast<int>(size), flags);
        Mivra::Fuzz::Require(result == 1 || (result == -1 && (size == 0 || bytes[0] > 1)));
        Mivra::Fuzz::AskAll(parser, flags == 0);
    }
    return 0;
}
