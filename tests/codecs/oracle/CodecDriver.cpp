// Answers requests about H.264 and AAC data, one JSON object a line in and one out, so that the oracle tests
// reach every public operation of the parsers. Bytes travel as hexadecimal text. An exception is an answer
// too.
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "mivra/mivra.h"
#include "tests/codecs/h264/Packets.h"
#include "tests/support/PrivateData.h"

namespace {

using Json = nlohmann::json;
using Aac = Mivra::Codecs::AAC::ConfigurationParser;
using H264 = Mivra::Codecs::H264::H264ConfigurationParser;
using Mivra::Codecs::H264::NalUnitTypes;
using Mivra::Codecs::H264::ParameterSetElement;
using Mivra::Codecs::H264::SeiPayloadTypes;
using Mivra::Common::Codec_t;
using Mivra::Common::ContentType_t;
using Mivra::Common::MediaType;
using Mivra::Common::PacketBuffer;
using Mivra::Common::Rational;
using Mivra::Test::Bytes;
using Mivra::Test::Packet;

Bytes bytes(const Json& hex) {
    return Mivra::Test::fromHex(hex.get_ref<const std::string&>());
}

std::string hex(std::span<const unsigned char> data) {
    const char* digits = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : data) {
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

int length(const Bytes& data) {
    return static_cast<int>(data.size());
}

/// What a packet that is given away holds.
std::string taken(PacketBuffer* packet) {
    const auto owner = Mivra::Common::Reference<PacketBuffer>::Adopt(packet);
    return hex(
        {reinterpret_cast<unsigned char*>(owner->Buffer()), static_cast<std::size_t>(owner->ActualSize())});
}

Json describe(MediaType& type) {
    return {{"private", hex(Mivra::Test::PrivateDataOf<Bytes>(type))},
            {"rate", type.SampleRate()},
            {"channels", type.Channels()},
            {"layout", type.ChannelLayout()},
            {"profileLevel", type.GetProfileLevel()},
            {"depth", type.GetReorderingQueueDepth()},
            {"codecs", type.ToBucketMediaType()},
            {"parameters", type.ToParameterString()}};
}

MediaType videoType(const Json& request) {
    MediaType type;
    type.ContentType() = ContentType_t::Video;
    type.CodecId() = Codec_t::H264;
    Mivra::Test::SetPrivateData(type, bytes(request.value("private", "")));
    return type;
}

MediaType audioType(const Json& request) {
    MediaType type;
    type.ContentType() = ContentType_t::Audio;
    type.CodecId() = Codec_t::AAC;
    Mivra::Test::SetPrivateData(type, bytes(request.value("private", "")));
    type.SampleRate() = request.value("rate", 0);
    type.Channels() = request.value("channels", 0);
    type.ChannelLayout() = request.value("layout", 0U);
    if (const int profile = request.value("profile", 0); profile != 0) {
        type.SetProfileLevel(static_cast<std::uint64_t>(profile));
    }
    return type;
}

Json listed(const std::vector<ParameterSetElement>& elements) {
    Json list = Json::array();
    for (const auto& [name, value] : elements) {
        list.push_back({name, value});
    }
    return list;
}

Json parse(const Json& request) {
    Bytes data = bytes(request["data"]);
    H264 parser;
    const int result = parser.Parse(data.data(), length(data), request.value("flags", 0));
    int depth = -1;
    const bool told = parser.TryGetReorderingQueueDepth(&depth);
    return {{"result", result},
            {"elements",
             {{"sps", listed(ElementsOf(parser.GetSps()))},
              {"pps", listed(ElementsOf(parser.GetPps(),
                                        request.value("chroma", parser.GetSps().chroma_format_idc)))}}},
            {"size", {parser.GetWidth(), parser.GetHeight()}},
            {"rate", {parser.GetFrameRate().Num(), parser.GetFrameRate().Den()}},
            {"bitrates", {parser.GetBitrate(), parser.GetMaxBitrate()}},
            {"told", told ? Json(depth) : Json()}};
}

Json edit(const Json& request) {
    Bytes data = bytes(request["data"]);
    H264 parser;
    parser.Parse(data.data(), length(data), 0);
    if (request.contains("crop")) {
        const auto crop = request["crop"].get<std::vector<int>>();
        parser.SetCrop(crop.at(0), crop.at(1), crop.at(2), crop.at(3));
    }
    if (request.contains("aspect")) {
        parser.SetAspectRatio(Rational(request["aspect"][0].get<int>(), request["aspect"][1].get<int>()));
    }
    const Packet out({}, 4096);
    parser.ToPacketBuffer(out.get());
    return {{"unit", hex(out.Content())}, {"size", {parser.GetWidth(), parser.GetHeight()}}};
}

H264::UnitList list(std::vector<Bytes>& units) {
    H264::UnitList all;
    for (Bytes& unit : units) {
        all.emplace_back(unit.data(), length(unit));
    }
    return all;
}

Json record(const Json& request) {
    MediaType type = videoType(request);
    bool done = false;
    if (request.contains("data")) {
        Bytes data = bytes(request["data"]);
        done = H264::GenerateCodecPrivateData(type, data.data(), length(data));
    } else {
        std::vector<Bytes> sps;
        std::vector<Bytes> pps;
        for (const Json& one : request["sps"])
            sps.push_back(bytes(one));
        for (const Json& one : request["pps"])
            pps.push_back(bytes(one));
        if (request.value("annexb", false)) {
            done = H264::GenerateAnnexBCodecPrivateData(type, list(sps), list(pps));
        } else if (request.value("single", false)) {
            done = H264::GenerateCodecPrivateData(type, sps.at(0).data(), length(sps.at(0)), pps.at(0).data(),
                                                  length(pps.at(0)));
        } else {
            done = H264::GenerateCodecPrivateData(type, list(sps), list(pps));
        }
    }
    Json answer = describe(type);
    answer["done"] = done;
    return answer;
}

Json convertPrivate(const Json& request) {
    MediaType type = videoType(request);
    const bool done =
        request["to"] == "avc" ? H264::ConvertPrivateDataToAvc(type) : H264::ConvertPrivateDataToAnnexB(type);
    Json answer = describe(type);
    answer["done"] = done;
    return answer;
}

Json find(const Json& request) {
    Bytes data = bytes(request["data"]);
    unsigned char* sps = nullptr;
    unsigned char* pps = nullptr;
    int spsSize = 0;
    int ppsSize = 0;
    H264::UnitList spsList;
    H264::UnitList ppsList;
    Json answer;
    answer["done"] = H264::FindSpsPpsInInitString(data.data(), length(data), sps, spsSize, pps, ppsSize) &&
                     H264::FindSpsPpsInInitString(data.data(), length(data), spsList, ppsList);
    answer["first"] = {hex({sps, static_cast<std::size_t>(spsSize)}),
                       hex({pps, static_cast<std::size_t>(ppsSize)})};
    for (auto& [name, units] : {std::pair{"sps", spsList}, std::pair{"pps", ppsList}}) {
        answer[name] = Json::array();
        for (const auto& [unit, size] : units) {
            answer[name].push_back(hex({unit, static_cast<std::size_t>(size)}));
        }
    }
    return answer;
}

/// A conversion of a packet: what to do, what came out.
Json packet(const Json& request) {
    Bytes data = bytes(request["data"]);
    const Bytes sets = bytes(request.value("sets", ""));
    const std::string to = request["to"];
    const int size = request.value("length", 4);
    const Packet in(data);
    const Packet out({}, 2 * data.size() + sets.size() + 64);
    bool done = false;
    if (to == "avc") {
        done = H264::ConvertToAvcBitstream(data.data(), length(data), size, out.get(),
                                           request.value("drop", false));
    } else if (to == "refined") {
        done = H264::RefineAnnexBBitstream(in.get(), out.get(), sets.data(), length(sets));
    } else if (sets.empty()) {
        done = H264::ConvertToAnnexBBitstream(in.get(), out.get(), size);
    } else {
        done = H264::ConvertToAnnexBBitstream(in.get(), out.get(), size, sets.data(), length(sets));
    }
    return {{"done", done}, {"data", hex(out.Content())}};
}

Json look(const Json& request) {
    Bytes data = bytes(request["data"]);
    const Packet in(data);
    bool key = false;
    bool reference = false;
    int offset = -2;
    Json answer;
    answer["slices"] = H264::DetectFrameType(in.get(), key, reference);
    answer["key"] = key;
    answer["reference"] = reference;
    H264::FindVideoStart(data.data(), length(data), 0, request.value("length", 0), offset);
    answer["start"] = offset;
    answer["sps"] = H264::FindNalUnit(data.data(), length(data), NalUnitTypes::SequenceParameterSet);
    Json starts = Json::array();
    for (int at = 0, code = 0; at < length(data);) {
        const int next = H264::FindNextStartCode(data.data() + at, length(data) - at, code);
        if (next < 0) {
            break;
        }
        at += next + code;
        starts.push_back(at);
    }
    answer["starts"] = starts;
    const auto payload = H264::FindSei(in.get(), SeiPayloadTypes(request.value("type", 5)));
    answer["sei"] = payload ? Json(hex(*payload)) : Json();
    return answer;
}

Json insertSei(const Json& request) {
    const Bytes payload = bytes(request["payload"]);
    const Packet in(bytes(request["data"]), 3 * payload.size() + 64);
    const bool done = H264::InsertSei(in.get(), SeiPayloadTypes(request["type"].get<int>()), payload.data(),
                                      length(payload));
    return {{"done", done}, {"data", hex(in.Content())}};
}

Json aacParse(const Json& request) {
    Bytes data = bytes(request["data"]);
    Aac parser;
    const bool done = parser.Parse(data.data(), request.value("offset", 0), length(data));
    return {{"done", done}, {"rate", parser.GetSampleRate()}, {"channels", parser.GetChannels()}};
}

Json aacFrames(const Json& request) {
    MediaType type = audioType(request);
    Aac parser;
    parser.Parse(&type);
    Json frames = Json::array();
    for (const Json& one : request["frames"]) {
        const Packet in(bytes(one));
        PacketBuffer* out = nullptr;
        parser.AdtsInsertHeader(in.get(), out);
        frames.push_back(taken(out));
    }
    return {
        {"frames", frames},
        {"header", hex({parser.GetAdtsHeader(), static_cast<std::size_t>(parser.GetAdtsHeaderLength())})}};
}

Json aacRead(const Json& request) {
    const Packet in(bytes(request["data"]));
    MediaType type = audioType(Json::object());
    Aac::AdtsReadMediaType(in.get(), &type);
    PacketBuffer* same = nullptr;
    Aac::AdtsRemoveHeader(in.get(), same);
    const std::string kept = taken(same);
    Aac::GenerateCodecPrivateData(&type);
    Json answer = describe(type);
    answer["sync"] = Aac::AdtsFindSync(in.get(), request.value("start", 0));
    answer["kept"] = kept;
    return answer;
}

template <void (*change)(MediaType*)>
Json changedAudio(const Json& request) {
    MediaType type = audioType(request);
    change(&type);
    return describe(type);
}

Json describeType(const Json& request) {
    MediaType type = request.value("audio", false) ? audioType(request) : videoType(request);
    return describe(type);
}

Json answer(const std::string& line) {
    static const std::map<std::string, Json (*)(const Json&)> commands = {
        {"parse", parse},
        {"edit", edit},
        {"record", record},
        {"private", convertPrivate},
        {"find", find},
        {"packet", packet},
        {"look", look},
        {"sei", insertSei},
        {"aac-parse", aacParse},
        {"aac-frames", aacFrames},
        {"aac-read", aacRead},
        {"aac-generate", changedAudio<Aac::GenerateCodecPrivateData>},
        {"aac-convert", changedAudio<Aac::ConvertCodecPrivateData>},
        {"describe", describeType}};
    try {
        const Json request = Json::parse(line);
        return commands.at(request["do"].get<std::string>())(request);
    } catch (const std::exception& error) {
        return {{"error", error.what()}};
    }
}

}  // namespace

int main() {
    MivraCommonInitialize();
    Mivra::Media::MediaGlobal::Initialize(1 << 16, 16, 1 << 20, 16, 1 << 23, 4);
    for (std::string line; std::getline(std::cin, line);) {
        std::cout << answer(line).dump() << std::endl;
    }
    MivraCommonShutdown();
    return 0;
}
