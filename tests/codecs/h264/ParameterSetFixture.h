#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/codecs/h264/ParameterSetElements.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Test {

using Bytes = std::vector<unsigned char>;

/// Two hexadecimal digits a byte.
inline Bytes fromHex(std::string_view text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

inline void append(Bytes& bytes, const Bytes& more) {
    std::copy(more.begin(), more.end(), std::back_inserter(bytes));
}

inline Bytes annexB(const Bytes& sps, const Bytes& pps) {
    Bytes bytes = {0, 0, 0, 1};
    append(bytes, sps);
    append(bytes, {0, 0, 1});
    append(bytes, pps);
    return bytes;
}

/// One set of each kind, in an AVC decoder configuration record.
inline Bytes record(const Bytes& sps, const Bytes& pps) {
    const auto high = [](const Bytes& unit) { return static_cast<unsigned char>(unit.size() >> 8); };
    const auto low = [](const Bytes& unit) { return static_cast<unsigned char>(unit.size()); };
    Bytes bytes = {1, 0x64, 0, 40, 0xFF, 0xE1, high(sps), low(sps)};
    append(bytes, sps);
    append(bytes, {1, high(pps), low(pps)});
    append(bytes, pps);
    return bytes;
}

/// Parses a copy that ends with its memory.
inline int parse(Codecs::H264::H264ConfigurationParser& parser, const Bytes& bytes, int flags = 0) {
    Bytes copy = bytes;
    return parser.Parse(copy.data(), static_cast<int>(copy.size()), flags);
}

/// The sequence parameter set as the parser writes it.
inline Bytes written(const Codecs::H264::H264ConfigurationParser& parser, int room = 16384) {
    Bytes bytes(static_cast<std::size_t>(room));
    auto* packet = new Common::PacketBuffer(reinterpret_cast<char*>(bytes.data()), room);
    packet->ActualSize() = 0;
    try {
        parser.ToPacketBuffer(packet);
    } catch (...) {
        EXPECT_EQ(packet->ActualSize(), 0);
        packet->Release();
        throw;
    }
    bytes.resize(static_cast<std::size_t>(packet->ActualSize()));
    packet->Release();
    return bytes;
}

/// " name=value" for each element of both sets.
inline std::string elementText(const Codecs::H264::H264ConfigurationParser& parser) {
    std::string text;
    auto elements = ElementsOf(parser.GetSps());
    const auto more = ElementsOf(parser.GetPps(), parser.GetSps().chroma_format_idc);
    elements.insert(elements.end(), more.begin(), more.end());
    for (const auto& element : elements) {
        text += " " + element.name + "=" + std::to_string(element.value);
    }
    return text + " ";
}

inline Bytes contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace Mivra::Test
