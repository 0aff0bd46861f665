// What a media type tells of its codec's private data. This is the one source file of the model that may know
// codec parsers. There is none for MPEG-2 and MPEG-4: for these every parse counts as failed.

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/crypto/CryptoHelper.h"

namespace Mivra::Common {

namespace {

using Codecs::H264::H264ConfigurationParser;

/// Reads the sets of H.264 private data; false when that fails.
bool parseH264(H264ConfigurationParser& parser, char* data, std::int32_t size) {
    return parser.Parse(reinterpret_cast<unsigned char*>(data), size, 0) >= 0;
}

/// First byte of an AVC decoder configuration record (ISO/IEC 14496-15 5.3.3.1).
constexpr char RecordVersion = 1;

/// Takes one unit behind its 16-bit length off the front; nothing when it is cut off.
std::optional<std::string_view> takeUnit(std::string_view& data) {
    if (data.size() < 2) {
        return std::nullopt;
    }
    const std::size_t size = static_cast<std::size_t>(static_cast<unsigned char>(data[0])) << 8 |
                             static_cast<unsigned char>(data[1]);
    if (data.size() - 2 < size) {
        return std::nullopt;
    }
    const std::string_view unit = data.substr(2, size);
    data.remove_prefix(2 + size);
    return unit;
}

std::string base64(std::string_view bytes) {
    return Crypto::CryptoHelper::ToBase64(std::string(bytes));
}

/// The first sequence and the first picture parameter set in the form of sprop-parameter-sets (RFC 6184
/// 8.1); empty for a record without a whole sequence parameter set.
std::string sdpParameterSets(std::string_view record) {
    constexpr std::size_t SetsOffset = 5;
    if (record.size() <= SetsOffset) {
        return {};
    }
    const int spsCount = record[SetsOffset] & 0x1F;
    record.remove_prefix(SetsOffset + 1);
    std::string sets;
    for (int i = 0; i < spsCount; ++i) {
        const auto unit = takeUnit(record);
        if (!unit) {
            return sets;
        }
        if (i == 0) {
            sets = base64(*unit);
        }
    }
    if (sets.empty() || record.empty() || record.front() == 0) {
        return sets;
    }
    record.remove_prefix(1);
    if (const auto unit = takeUnit(record)) {
        sets += ',';
        sets += base64(*unit);
    }
    return sets;
}

std::string sixHexDigits(std::uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "%06llx", static_cast<unsigned long long>(value));
    return text;
}

}  // namespace

std::uint64_t MediaType::GetProfileLevel() const {
    if (profileLevel != 0 || !hasPrivateData()) {
        return profileLevel;
    }
    if (codecId == Codec_t::AAC || codecId == Codec_t::AAC_LATM) {
        profileLevel = audioObjectType();
    } else if (codecId == Codec_t::H264) {
        H264ConfigurationParser parser;
        if (parseH264(parser, codecPrivateData, codecPrivateDataSize)) {
            profileLevel = static_cast<std::uint64_t>(std::int64_t{parser.GetProfileLevel()});
        }
    }
    return profileLevel;
}

int MediaType::GetReorderingQueueDepth() const {
    if (reorderingQueueDepth >= 0) {
        return reorderingQueueDepth;
    }
    reorderingQueueDepth = 0;
    if (hasPrivateData() && codecId == Codec_t::H264) {
        H264ConfigurationParser parser;
        if (parseH264(parser, codecPrivateData, codecPrivateDataSize)) {
            reorderingQueueDepth = parser.GetReorderingQueueDepth();
        }
    }
    return reorderingQueueDepth;
}

// Of an AudioSpecificConfig (ISO/IEC 14496-3 1.6.2.1), without the escape value.
unsigned MediaType::audioObjectType() const {
    return static_cast<unsigned char>(codecPrivateData[0]) >> 3;
}

// The sets are told from a record, for which other private data is converted: in a copy, the type's own
// stays. A record that cannot be made or holds no sequence parameter set leaves the piece out.
std::string MediaType::codecParameters() const {
    if (codecId != Codec_t::H264) {
        return {};
    }
    MediaType converted;
    std::string_view record(codecPrivateData, static_cast<std::size_t>(codecPrivateDataSize));
    if (record.front() != RecordVersion) {
        char* copied = allocatePrivateData(codecPrivateDataSize);
        std::memcpy(copied, codecPrivateData, record.size());
        converted.replacePrivateData(copied, codecPrivateDataSize);
        if (H264ConfigurationParser::ConvertPrivateDataToAvc(converted)) {
            record = {converted.codecPrivateData, static_cast<std::size_t>(converted.codecPrivateDataSize)};
        }
    }
    std::string pieces;
    const std::string sets = record.front() == RecordVersion ? sdpParameterSets(record) : std::string();
    if (!sets.empty()) {
        pieces.append("&privateDataSdp=").append(sets);
    }
    return pieces.append("&profileLevel=").append(sixHexDigits(GetProfileLevel()));
}

std::string MediaType::ToBucketMediaType() const {
    if (!hasPrivateData()) {
        return {};
    }
    switch (codecId) {
        case Codec_t::H264:
            return std::string("avc1.").append(sixHexDigits(GetProfileLevel()));
        case Codec_t::AAC:
        case Codec_t::AAC_LATM:
            return std::string("mp4a.40.").append(std::to_string(audioObjectType()));
        default:
            return {};
    }
}

}  // namespace Mivra::Common
