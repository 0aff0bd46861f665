// Private data of an AAC stream: every configuration is read, normalised and written, whatever the bytes.

#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/BinaryForm.h"
#include "mivra/codecs/aac/ConfigurationParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Mivra::Codecs::AAC::ConfigurationParser;
    using Mivra::Fuzz::Require;
    // Copied, so that a byte read too far is found.
    std::vector<unsigned char> bytes(data, data + size);
    Mivra::Common::MediaType type;
    type.CodecId() = Mivra::Common::Codec_t::AAC;
    type.CodecPrivateDataSize() = static_cast<int>(size);
    if (size > 0) {
        type.CodecPrivateData() = static_cast<char*>(std::malloc(size));
        std::memcpy(type.CodecPrivateData(), data, size);
    }
    ConfigurationParser::ConvertCodecPrivateData(&type);
    const std::size_t kept = size < 2 ? 0 : size > 13 ? size - 12 : size;
    Require(type.CodecPrivateDataSize() == static_cast<int>(kept));
    Require(kept == 0 || std::memcmp(type.CodecPrivateData(), data + size - kept, kept) == 0);

    ConfigurationParser parser;
    const int offset = static_cast<int>(size - kept);
    Require(parser.Parse(bytes.data(), offset, static_cast<int>(kept)) == (kept >= 2));
    if (kept < 2) {
        return 0;
    }
    const unsigned word = static_cast<unsigned>(bytes[size - kept] << 8 | bytes[size - kept + 1]);
    type.SampleRate() = parser.GetSampleRate();
    type.ChannelLayout() = word >> 3 & 15;
    const std::uint64_t profile = type.GetProfileLevel();
    Require(profile == word >> 11);
    ConfigurationParser::GenerateCodecPrivateData(&type);
    Require(type.CodecPrivateDataSize() == 2);
    ConfigurationParser again;
    Require(again.Parse(reinterpret_cast<unsigned char*>(type.CodecPrivateData()), 0, 2));
    // Without a rate it is index 0, without a configuration that of the channels, of which there are none.
    Require(again.GetSampleRate() == (parser.GetSampleRate() != 0 ? parser.GetSampleRate() : 96000));
    Require(again.GetChannels() == parser.GetChannels());
    return 0;
}
