#include "tools/mivra/AacForms.h"

#include <string>

#include "mivra/codecs/aac/ConfigurationParser.h"
#include "mivra/common/binary/EndianBinaryReader.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/Reference.h"

namespace Mivra::Tool {
namespace {

using Codecs::AAC::ConfigurationParser;
using Common::MediaType;
using Common::PacketBuffer;

constexpr int kAdtsHeader = 7;
constexpr int kCheckWord = 2;
constexpr unsigned kSbr = 5;
constexpr unsigned kPs = 29;
constexpr unsigned kEscapedType = 31;
constexpr unsigned kRates = 13;

unsigned byteAt(PacketBuffer& packet, unsigned index) {
    return static_cast<unsigned char>(packet[index]);
}

}  // namespace

std::optional<AacCore> readAacCore(const MediaType& type) {
    if (type.CodecPrivateData() == nullptr) {
        return std::nullopt;
    }
    std::string bytes(type.CodecPrivateData(), static_cast<std::size_t>(type.CodecPrivateDataSize()));
    const auto packet = Common::Reference<PacketBuffer>::Adopt(
        new PacketBuffer(bytes.data(), static_cast<int>(bytes.size())));
    Common::EndianBinaryReader reader(packet.get());
    const auto read = [&reader](int bits) { return static_cast<unsigned>(reader.ReadBits(bits)); };
    AacCore core;
    try {
        core.objectType = read(5);
        core.rateIndex = read(4);
        core.configuration = read(4);
        if (core.objectType == kSbr || core.objectType == kPs) {
            if (read(4) >= kRates) {
                return std::nullopt;
            }
            core.objectType = read(5);
        }
    } catch (const Common::GeneralException&) {
        return std::nullopt;
    }
    return core.objectType == kEscapedType || core.rateIndex >= kRates ? std::nullopt : std::optional(core);
}

bool isAdts(PacketBuffer& packet) {
    if (packet.ActualSize() < kAdtsHeader || ConfigurationParser::AdtsFindSync(&packet, 0) != 0 ||
        (byteAt(packet, 1) & 6) != 0) {  // layer is 0
        return false;
    }
    const unsigned length = (byteAt(packet, 3) & 3) << 11 | byteAt(packet, 4) << 3 | byteAt(packet, 5) >> 5;
    return length <= static_cast<unsigned>(packet.ActualSize()) &&
           length >= static_cast<unsigned>(adtsHeaderSize(packet));
}

int adtsHeaderSize(PacketBuffer& packet) {
    const bool protectionAbsent = (byteAt(packet, 1) & 1) != 0;
    return protectionAbsent ? kAdtsHeader : kAdtsHeader + kCheckWord;
}

int adtsBlocks(PacketBuffer& packet) {
    return static_cast<int>(byteAt(packet, 6) & 3) + 1;
}

void describeByAdts(PacketBuffer& packet, MediaType& type) {
    ConfigurationParser::AdtsReadMediaType(&packet, &type);
    ConfigurationParser::GenerateCodecPrivateData(&type);
    type.CodecMetadata()["IsAdts"] = std::string("1");
}

void setChannelConfiguration(MediaType& type) {
    if (const auto core = readAacCore(type)) {
        type.ChannelLayout() = core->configuration;
    }
}

}  // namespace Mivra::Tool
