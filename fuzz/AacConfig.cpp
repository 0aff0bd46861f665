// Private data of an AAC stream: every configuration is read, normalised and written, whatever the bytes.

#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/AacTables.h"
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
    const unsigned profile = word >> 11;
    Require(type.GetProfileLevel() == profile);
    const unsigned rate = word >> 7 & 15;
    Require(parser.GetSampleRate() == Mivra::Fuzz::kRates[rate]);
    Require(parser.GetChannels() == Mivra::Fuzz::kChannels[word >> 3 & 15]);
    ConfigurationParser::GenerateCodecPrivateData(&type);
    Require(type.CodecPrivateDataSize() == 2);
    // LC without a profile, index 0 without a rate; the configuration of the channels stays.
    const unsigned written = (profile != 0 ? profile : 2) << 11 | (parser.GetSampleRate() != 0 ? rate : 0)
                                                                      << 7;
    const auto* const again = reinterpret_cast<const unsigned char*>(type.CodecPrivateData());
    Require((again[0] << 8 | again[1]) == static_cast<int>(written | (word & 0x78)));
    return 0;
}
