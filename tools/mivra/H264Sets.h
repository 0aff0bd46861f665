#pragma once

#include <optional>
#include <span>
#include <vector>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/common/model/MediaType.h"

namespace Mivra::Tool {

/// The parameter sets of an H.264 stream, taken from a copy of its private data in either form.
class H264Sets {
public:
    using UnitList = Codecs::H264::H264ConfigurationParser::UnitList;

    /// Empty lists when there is no private data or it is malformed.
    explicit H264Sets(const Common::MediaType& type);

    /// Header byte first; they live as long as this object.
    const UnitList& Sps() const { return sps; }
    const UnitList& Pps() const { return pps; }

    /// A parser that has read this sequence parameter set, and with it a picture parameter set; empty for the
    /// first of those. Empty when a set is malformed.
    static std::optional<Codecs::H264::H264ConfigurationParser> Parse(
        std::pair<unsigned char*, int> sps, std::pair<unsigned char*, int> pps = {});

private:
    std::vector<unsigned char> data;
    UnitList sps;
    UnitList pps;
};

/// Frames that may be reordered, told by the stream or estimated; 0 also when its sets are missing.
int h264ReorderingDepth(const Common::MediaType& type);

/// Bytes of the lengths in front of a stream's units, 1 to 4; 0 for start codes.
int h264LengthSize(const Common::MediaType& type);

/// The units of an access unit, header byte first, into `units`. Length size 0 for start codes. False when a
/// length does not fit into what is left: the units are those before it.
bool h264Units(std::span<const unsigned char> data, int lengthSize,
               std::vector<std::span<const unsigned char>>& units);

}  // namespace Mivra::Tool
