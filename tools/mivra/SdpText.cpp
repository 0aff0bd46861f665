#include "tools/mivra/SdpText.h"

#include <cstdint>

#include "mivra/crypto/CryptoHelper.h"
#include "tools/mivra/AacForms.h"
#include "tools/mivra/H264Sets.h"

namespace Mivra::Tool {
namespace {

using Common::Codec_t;
using Common::MediaType;

constexpr int kFirstDynamicType = 96;
constexpr int kLastDynamicType = 127;

void appendHex(std::string& text, unsigned byte, const char* digits) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
}

/// Three bytes, as SDP has the profile and level of H.264.
std::string profileLevelId(std::uint64_t value) {
    std::string text;
    for (const int shift : {16, 8, 0}) {
        appendHex(text, static_cast<unsigned>(value >> shift) & 0xFF, "0123456789ABCDEF");
    }
    return text;
}

/// The sets one after the other in Base64, sequence parameter sets first.
std::string spropParameterSets(const H264Sets& sets) {
    std::string text;
    for (const H264Sets::UnitList* const list : {&sets.Sps(), &sets.Pps()}) {
        for (const auto& [data, size] : *list) {
            text.append(text.empty() ? "" : ",").append(Crypto::CryptoHelper::ToBase64(data, size));
        }
    }
    return text;
}

std::vector<std::string> section(const char* kind, int number, const std::string& map,
                                 const std::string& parameters, int bitrate) {
    const std::string type = std::to_string(number);
    std::vector<std::string> lines = {std::string("m=") + kind + " 0 RTP/AVP " + type};
    if (bitrate > 0) {
        lines.push_back("b=AS:" + std::to_string((bitrate + 999) / 1000));
    }
    lines.push_back("a=rtpmap:" + type + " " + map);
    lines.push_back("a=fmtp:" + type + " " + parameters);
    return lines;
}

/// audioProfileLevelIndication (ISO/IEC 14496-3 Table 1.14) of the AAC profile, which LC makes; 254 is no
/// profile.
int audioProfileLevel(const AacCore& core) {
    constexpr unsigned kLowComplexity = 2;
    constexpr unsigned kIndexOf24000 = 6;
    constexpr unsigned kIndexOf48000 = 3;
    if (core.objectType != kLowComplexity || core.configuration == 0 || core.configuration > 6) {
        return 0xFE;
    }
    if (core.rateIndex < kIndexOf48000) {
        return 0x2B;
    }
    if (core.configuration > 2) {
        return 0x2A;
    }
    return core.rateIndex < kIndexOf24000 ? 0x29 : 0x28;
}

std::vector<std::string> h264Lines(const MediaType& type, int number) {
    const H264Sets sets(type);
    if (sets.Sps().empty() || sets.Pps().empty()) {
        return {};
    }
    return section("video", number, "H264/90000",
                   "packetization-mode=1;profile-level-id=" + profileLevelId(type.GetProfileLevel()) +
                       ";sprop-parameter-sets=" + spropParameterSets(sets),
                   type.Bitrate());
}

std::vector<std::string> aacLines(const MediaType& type, int number) {
    const auto core = readAacCore(type);
    if (!core) {
        return {};
    }
    std::string config;
    for (int i = 0; i < type.CodecPrivateDataSize(); ++i) {
        appendHex(config, static_cast<unsigned char>(type.CodecPrivateData()[i]), "0123456789abcdef");
    }
    // The number of channels is optional, and configuration 0 tells none.
    std::string encoding = "mpeg4-generic/" + std::to_string(type.SampleRate());
    if (type.Channels() > 0) {
        encoding.append("/").append(std::to_string(type.Channels()));
    }
    return section("audio", number, encoding,
                   "streamtype=5;profile-level-id=" + std::to_string(audioProfileLevel(*core)) +
                       ";mode=AAC-hbr;sizelength=13;indexlength=3;indexdeltalength=3;config=" + config,
                   type.Bitrate());
}

}  // namespace

std::vector<std::string> sdpLines(const MediaType& type, int index) {
    const int number = kFirstDynamicType + index % (kLastDynamicType - kFirstDynamicType + 1);
    switch (type.CodecId()) {
        case Codec_t::H264:
            return h264Lines(type, number);
        case Codec_t::AAC:
            return aacLines(type, number);
        default:
            return {};
    }
}

}  // namespace Mivra::Tool
