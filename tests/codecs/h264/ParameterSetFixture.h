#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/codecs/h264/ParameterSetElements.h"
#include "mivra/common/runtime/GeneralException.h"
#include "tests/codecs/h264/Packets.h"

namespace Mivra::Test {

inline Bytes annexB(const Bytes& sps, const Bytes& pps) {
    return joined({coded(sps), coded(pps, false)});
}

/// One set of each kind, in an AVC decoder configuration record.
inline Bytes record(const Bytes& sps, const Bytes& pps) {
    return joined({{1, 0x64, 0, 40, 0xFF, 0xE1}, prefixed(sps, 2), {1}, prefixed(pps, 2)});
}

/// Parses a copy that ends with its memory.
inline int parse(Codecs::H264::H264ConfigurationParser& parser, const Bytes& bytes, int flags = 0) {
    Bytes copy = bytes;
    return parser.Parse(copy.data(), static_cast<int>(copy.size()), flags);
}

/// The sequence parameter set as the parser writes it.
inline Bytes written(const Codecs::H264::H264ConfigurationParser& parser, int room = 16384) {
    const Packet packet({}, static_cast<std::size_t>(room));
    try {
        parser.ToPacketBuffer(packet.get());
    } catch (...) {
        EXPECT_EQ(packet->ActualSize(), 0);
        throw;
    }
    return packet.Content();
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

}  // namespace Mivra::Test
