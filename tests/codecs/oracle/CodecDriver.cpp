// Answers requests about H.264 and AAC data, one JSON object a line in and one out, so that the oracle tests
// reach every public operation of the parsers. Bytes travel as hexadecimal text. An exception is an answer
// too.
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "mivra/mivra.h"

namespace {

using Json = nlohmann::json;
using Bytes = std::vector<unsigned char>;
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

Bytes bytes(const Json& hex) {
    const auto& text = hex.get_ref<const std::string&>();
    Bytes all;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        all.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return all;
}

std::string hex(const unsigned char* data, std::size_t size) {
    const char* digits = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += {digits[data[i] >> 4], digits[data[i] & 15]};
    }
    return text;
}

std::string hex(const Bytes& data) {
    return hex(data.data(), data.size());
}

int length(const Bytes& data) {
    return static_cast<int>(data.size());
}

/// A packet with its one reference.
class Packet {
public:
    explicit Packet(PacketBuffer* taken) : buffer(taken) {}
    Packet(const Bytes& data, int room) : buffer(Mivra::Media::MediaGlobal::LockBuffer(length(data) + room)) {
        buffer->Append(data.data(), length(data));
        buffer->Position() = 0;
    }
    explicit Packet(const Json& data, int room = 0) : Packet(bytes(data), room) {}
    ~Packet() { buffer->Release(); }
    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;
    PacketBuffer* operator->() const { return buffer; }
    PacketBuffer* Get() const { return buffer; }
    std::string Hex() const {
        return hex(reinterpret_cast<unsigned char*>(buffer->Buffer()),
                   static_cast<std::size_t>(buffer->ActualSize()));
    }

private:
    PacketBuffer* buffer;
};

void setPrivate(MediaType& type, const Bytes& data) {
    std::free(type.CodecPrivateData());
    type.CodecPrivateData() = nullptr;
    type.CodecPrivateDataSize() = length(data);
    if (!data.empty()) {
        type.CodecPrivateData() = static_cast<char*>(std::malloc(data.size()));
        std::copy(data.begin(), data.end(), type.CodecPrivateData());
    }
}

Json describe(MediaType& type) {
    return {{"private", hex(reinterpret_cast<unsigned char*>(type.CodecPrivateData()),
                            static_cast<std::size_t>(type.CodecPrivateDataSize()))},
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
    setPrivate(type, bytes(request.value("private", "")));
    return type;
}

MediaType audioType(const Json& request) {
    MediaType type;
    type.ContentType() = ContentType_t::Audio;
    type.CodecId() = Codec_t::AAC;
    setPrivate(type, bytes(request.value("private", "")));
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
    const Packet out(Bytes(), 4096);
    parser.ToPacketBuffer(out.Get());
    return {{"unit", out.Hex()}, {"size", {parser.GetWidth(), parser.GetHeight()}}};
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
    answer["first"] = {hex(sps, static_cast<std::size_t>(spsSize)),
                       hex(pps, static_cast<std::size_t>(ppsSize))};
    for (auto& [name, units] : {std::pair{"sps", spsList}, std::pair{"pps", ppsList}}) {
        answer[name] = Json::array();
        for (const auto& [unit, size] : units) {
            answer[name].push_back(hex(unit, static_cast<std::size_t>(size)));
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
    const Packet in(data, 0);
    const Packet out(Bytes(), 2 * length(data) + length(sets) + 64);
    bool done = false;
    if (to == "avc") {
        done = H264::ConvertToAvcBitstream(data.data(), length(data), size, out.Get(),
                                           request.value("drop", false));
    } else if (to == "refined") {
        done = H264::RefineAnnexBBitstream(in.Get(), out.Get(), sets.data(), length(sets));
    } else if (sets.empty()) {
        done = H264::ConvertToAnnexBBitstream(in.Get(), out.Get(), size);
    } else {
        done = H264::ConvertToAnnexBBitstream(in.Get(), out.Get(), size, sets.data(), length(sets));
    }
    return {{"done", done}, {"data", out.Hex()}};
}

Json look(const Json& request) {
    Bytes data = bytes(request["data"]);
    const Packet in(data, 0);
    bool key = false;
    bool reference = false;
    int offset = -2;
    Json answer;
    answer["slices"] = H264::DetectFrameType(in.Get(), key, reference);
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
    const auto payload = H264::FindSei(in.Get(), SeiPayloadTypes(request.value("type", 5)));
    answer["sei"] = payload ? Json(hex(*payload)) : Json();
    return answer;
}

Json insertSei(const Json& request) {
    const Bytes payload = bytes(request["payload"]);
    const Packet in(request["data"], 3 * length(payload) + 64);
    const bool done = H264::InsertSei(in.Get(), SeiPayloadTypes(request["type"].get<int>()), payload.data(),
                                      length(payload));
    return {{"done", done}, {"data", in.Hex()}};
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
        const Packet in(one);
        PacketBuffer* out = nullptr;
        parser.AdtsInsertHeader(in.Get(), out);
        frames.push_back(Packet(out).Hex());
    }
    return {{"frames", frames},
            {"header", hex(parser.GetAdtsHeader(), static_cast<std::size_t>(parser.GetAdtsHeaderLength()))}};
}

Json aacRead(const Json& request) {
    const Packet in(request["data"]);
    MediaType type = audioType(Json::object());
    Aac::AdtsReadMediaType(in.Get(), &type);
    PacketBuffer* same = nullptr;
    Aac::AdtsRemoveHeader(in.Get(), same);
    const Packet kept(same);
    Aac::GenerateCodecPrivateData(&type);
    Json answer = describe(type);
    answer["sync"] = Aac::AdtsFindSync(in.Get(), request.value("start", 0));
    answer["kept"] = kept.Hex();
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
