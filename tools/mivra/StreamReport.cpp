#include "tools/mivra/StreamReport.h"

#include <cstdio>
#include <map>

#include "mivra/codecs/aac/ConfigurationParser.h"
#include "mivra/codecs/h264/ParameterSetElements.h"
#include "tools/mivra/AacForms.h"
#include "tools/mivra/H264Sets.h"
#include "tools/mivra/SdpText.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {
namespace {

using Codecs::H264::ParameterSetElement;
using Common::Codec_t;
using Common::ContentType_t;
using Common::MediaType;
using Common::PacketBuffer;
using Common::Rational;
using Json = nlohmann::ordered_json;
using Unit = std::pair<unsigned char*, int>;

/// "25/1"; null for a fraction that is unknown.
Json fraction(const Rational& value) {
    if (value.IsNull()) {
        return nullptr;
    }
    return std::to_string(value.Num()) + "/" + std::to_string(value.Den());
}

/// A number that is not known is null.
Json known(std::int64_t value) {
    return value > 0 ? Json(value) : Json(nullptr);
}

std::string hexDigits(const char* data, int size) {
    std::string text;
    for (int i = 0; i < size; ++i) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(data[i]));
        text += digits;
    }
    return text;
}

Json reportSet(const char* kind, int id, Unit unit, const std::vector<ParameterSetElement>& elements) {
    Json set = {{"kind", kind}, {"id", id}, {"bytes", unit.second}, {"elements", Json::array()}};
    for (const ParameterSetElement& element : elements) {
        set["elements"].push_back({{"name", element.name}, {"value", element.value}});
    }
    return set;
}

Json malformedSet(const char* kind, Unit unit) {
    return {{"kind", kind}, {"id", nullptr}, {"bytes", unit.second}, {"malformed", true}};
}

/// Every set with its elements. A picture parameter set is read with the sequence parameter set it names, of
/// which depends how many scaling lists it has.
Json reportSets(const H264Sets& sets) {
    Json list = Json::array();
    std::map<int, Unit> spsOfId;
    for (const Unit& unit : sets.Sps()) {
        const auto parser = H264Sets::Parse(unit);
        if (parser) {
            spsOfId[parser->GetSpsId()] = unit;
            list.push_back(reportSet("sps", parser->GetSpsId(), unit, ElementsOf(parser->GetSps())));
        } else {
            list.push_back(malformedSet("sps", unit));
        }
    }
    for (const Unit& unit : sets.Pps()) {
        auto parser = spsOfId.empty() ? std::nullopt : H264Sets::Parse(spsOfId.begin()->second, unit);
        if (parser && spsOfId.count(parser->GetPpsSpsId()) != 0) {
            parser = H264Sets::Parse(spsOfId[parser->GetPpsSpsId()], unit);
        }
        list.push_back(parser ? reportSet("pps", parser->GetPpsId(), unit,
                                          ElementsOf(parser->GetPps(), parser->GetSps().chroma_format_idc))
                              : malformedSet("pps", unit));
    }
    return list;
}

Json reportH264(const MediaType& type) {
    const H264Sets sets(type);
    const int lengthSize = h264LengthSize(type);
    Json h264 = {{"form", lengthSize > 0 ? "avcc" : "annexb"}};
    h264["lengthSize"] = lengthSize > 0 ? Json(lengthSize) : Json(nullptr);
    const auto parser = sets.Sps().empty() ? std::nullopt : H264Sets::Parse(sets.Sps().front());
    if (parser) {
        int depth = 0;
        const bool exact = parser->TryGetReorderingQueueDepth(&depth);
        h264["profile"] = parser->GetProfile();
        h264["level"] = parser->GetLevel();
        h264["width"] = parser->GetWidth();
        h264["height"] = parser->GetHeight();
        h264["aspectRatio"] = fraction(parser->GetAspectRatio());
        h264["frameRate"] = fraction(parser->GetFrameRate());
        h264["bitrate"] = known(parser->GetBitrate());
        h264["maxBitrate"] = known(parser->GetMaxBitrate());
        h264["reordering"] = {{"depth", depth}, {"exact", exact}};
    }
    h264["sets"] = reportSets(sets);
    return h264;
}

Json reportAac(const MediaType& type) {
    const bool adts = type.CodecMetadata().ContainsKey("IsAdts");
    Json aac = {{"form", adts ? "adts" : "asc"}};
    const auto core = readAacCore(type);
    aac["objectType"] = core ? Json(core->objectType) : Json(nullptr);
    aac["channelConfiguration"] = core ? Json(core->configuration) : Json(nullptr);
    Codecs::AAC::ConfigurationParser parser;
    MediaType copy(type);
    // With escape values the parser's figures would be read from the wrong bits.
    const bool parsed = core && parser.Parse(reinterpret_cast<unsigned char*>(copy.CodecPrivateData()), 0,
                                             copy.CodecPrivateDataSize());
    aac["sampleRate"] = parsed ? known(parser.GetSampleRate()) : Json(nullptr);
    aac["channels"] = parsed ? known(parser.GetChannels()) : Json(nullptr);
    aac["config"] = hexDigits(type.CodecPrivateData(), type.CodecPrivateDataSize());
    return aac;
}

const char* contentName(ContentType_t content) {
    switch (content) {
        case ContentType_t::Video:
            return "video";
        case ContentType_t::Audio:
            return "audio";
        case ContentType_t::Text:
            return "text";
        default:
            return "data";
    }
}

void addFormat(const MediaType& type, Json& stream) {
    if (type.ContentType() == ContentType_t::Video) {
        stream["width"] = type.Width();
        stream["height"] = type.Height();
        stream["frameRate"] = fraction(type.Framerate());
        const bool unknown = numberOf(type, Key::kAspectUnknown, 0) != 0;
        stream["aspectRatio"] = unknown ? Json(nullptr) : fraction(type.PixelAspectRatio());
    } else if (type.ContentType() == ContentType_t::Audio) {
        stream["sampleRate"] = type.SampleRate();
        stream["channels"] = type.Channels();
    }
}

}  // namespace

Json reportStream(int index, MediaType& type, PacketBuffer* first, bool sdp) {
    const bool aac = type.CodecId() == Codec_t::AAC;
    if (aac && type.CodecPrivateDataSize() == 0 && first != nullptr && isAdts(*first)) {
        describeByAdts(*first, type);
    } else if (aac) {
        setChannelConfiguration(type);
    }
    Json stream = {{"index", index}, {"content", contentName(type.ContentType())}};
    stream["codec"] = codecName(static_cast<int>(type.CodecId()));
    stream["codecs"] = type.ToBucketMediaType();
    stream["text"] = type.ToString();
    stream["parameters"] = type.ToParameterString();
    stream["bitrate"] = known(type.Bitrate());
    addFormat(type, stream);
    if (type.CodecId() == Codec_t::H264) {
        stream["h264"] = reportH264(type);
    } else if (aac) {
        stream["aac"] = reportAac(type);
    }
    if (sdp) {
        stream["sdp"] = sdpLines(type, index);
    }
    return stream;
}

}  // namespace Mivra::Tool
