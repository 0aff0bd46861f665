#pragma once

// What the targets of H.264 parameter sets share.

#include <vector>

#include "fuzz/BinaryForm.h"
#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/codecs/h264/ParameterSetCoding.h"
#include "mivra/codecs/h264/ParameterSetElements.h"

namespace Mivra::Fuzz {

/// The sequence parameter set as the parser writes it.
inline std::vector<char> Written(const Codecs::H264::H264ConfigurationParser& parser) {
    std::vector<char> unit(16384);
    WithPacket(unit, [&](Common::PacketBuffer* buffer) {
        buffer->ActualSize() = 0;
        parser.ToPacketBuffer(buffer);
        unit.resize(static_cast<std::size_t>(buffer->ActualSize()));
    });
    return unit;
}

/// Asks everything that can be asked, and writes both sets: they read the same again. The picture parameter
/// set only when it was read in the light of the sequence parameter set that is there.
inline void AskAll(const Codecs::H264::H264ConfigurationParser& parser, bool oneSequenceSet) {
    using namespace Codecs::H264;
    Require(parser.GetWidth() >= 0 && parser.GetHeight() >= 0);
    Require(parser.GetBitrate() <= parser.GetMaxBitrate());
    Require(parser.GetReorderingQueueDepth() >= 0);
    parser.GetAspectRatio();
    parser.GetFrameRate();
    parser.IsCudaCompatible();
    const int chroma = parser.GetSps().chroma_format_idc;
    ElementsOf(parser.GetSps());
    ElementsOf(parser.GetPps(), chroma);

    std::vector<unsigned char> rbsp(4096 + parser.GetPps().slice_group_id.Size());
    const std::size_t size = writePictureParameterSet(parser.GetPps(), chroma, rbsp);
    PPS264struct pps;
    Require(!oneSequenceSet || (readPictureParameterSet({rbsp.data(), size}, chroma, pps) &&
                                H264ConfigurationParser::IsPpsEqual(pps, parser.GetPps())));
    if (parser.GetProfile() != 0) {
        std::vector<char> unit = Written(parser);
        H264ConfigurationParser again;
        Require(again.Parse(reinterpret_cast<unsigned char*>(unit.data()), static_cast<int>(unit.size()),
                            0) == 1);
        Require(H264ConfigurationParser::IsSpsEqual(again.GetSps(), parser.GetSps()));
        Require(Written(again) == unit);
    }
}

}  // namespace Mivra::Fuzz
