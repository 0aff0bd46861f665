#include "tools/mivra/H264Sets.h"

#include <climits>

namespace Mivra::Tool {
namespace {

using Bytes = std::span<const unsigned char>;
using Codecs::H264::H264ConfigurationParser;
using Codecs::H264::PPS264struct;

constexpr char kRecordVersion = 1;
constexpr int kLengthSizeOffset = 4;

bool isRecord(const Common::MediaType& type) {
    return type.CodecPrivateData() != nullptr && type.CodecPrivateDataSize() > kLengthSizeOffset &&
           *type.CodecPrivateData() == kRecordVersion;
}

bool takePrefixed(Bytes data, std::size_t lengthSize, std::vector<Bytes>& units) {
    while (data.size() >= lengthSize) {
        std::size_t size = 0;
        for (const unsigned char byte : data.first(lengthSize)) {
            size = size << 8 | byte;
        }
        data = data.subspan(lengthSize);
        if (size > data.size()) {
            return false;
        }
        if (size > 0) {
            units.push_back(data.first(size));
        }
        data = data.subspan(size);
    }
    return data.empty();
}

void takeStartCoded(Bytes data, std::vector<Bytes>& units) {
    const auto next = [](Bytes from, int& length) {
        const int offset = H264ConfigurationParser::FindNextStartCode(const_cast<unsigned char*>(from.data()),
                                                                      static_cast<int>(from.size()), length);
        return offset < 0 ? from.size() : static_cast<std::size_t>(offset);
    };
    int length = 0;
    for (std::size_t at = next(data, length); at < data.size();) {
        data = data.subspan(at + static_cast<std::size_t>(length));
        at = next(data, length);
        Bytes unit = data.first(at);
        while (!unit.empty() && unit.back() == 0) {
            unit = unit.first(unit.size() - 1);  // trailing_zero_8bits
        }
        if (!unit.empty()) {
            units.push_back(unit);
        }
    }
}

void appendUnit(std::vector<unsigned char>& stream, std::pair<unsigned char*, int> unit) {
    stream.insert(stream.end(), {0, 0, 0, 1});
    stream.insert(stream.end(), unit.first, unit.first + unit.second);
}

}  // namespace

H264Sets::H264Sets(const Common::MediaType& type)
    : data(type.CodecPrivateData(), type.CodecPrivateData() + type.CodecPrivateDataSize()) {
    if (!H264ConfigurationParser::FindSpsPpsInInitString(data.data(), static_cast<int>(data.size()), sps,
                                                         pps)) {
        sps.clear();
        pps.clear();
    }
}

std::optional<H264ConfigurationParser> H264Sets::Parse(std::pair<unsigned char*, int> sps,
                                                       std::pair<unsigned char*, int> pps) {
    std::vector<unsigned char> stream;
    appendUnit(stream, sps);
    if (pps.second > 0) {
        appendUnit(stream, pps);
    }
    H264ConfigurationParser parser;
    parser.Parse(stream.data(), static_cast<int>(stream.size()), 0);
    // A malformed set stays zeroed. No level is 0, and of whole picture parameter sets only the shortest is.
    constexpr unsigned char kShortest = 0xCE;
    const bool badPps = pps.second > 1 && pps.first[1] != kShortest && parser.GetPps() == PPS264struct();
    return parser.GetLevel() == 0 || badPps ? std::nullopt : std::optional(std::move(parser));
}

int h264ReorderingDepth(const Common::MediaType& type) {
    const H264Sets sets(type);
    const auto parser = sets.Sps().empty() ? std::nullopt : H264Sets::Parse(sets.Sps().front());
    return parser ? parser->GetReorderingQueueDepth() : 0;
}

int h264LengthSize(const Common::MediaType& type) {
    return isRecord(type) ? (type.CodecPrivateData()[kLengthSizeOffset] & 3) + 1 : 0;
}

bool h264Units(Bytes data, int lengthSize, std::vector<Bytes>& units) {
    units.clear();
    if (data.size() > INT_MAX) {
        return false;
    }
    if (lengthSize > 0) {
        return takePrefixed(data, static_cast<std::size_t>(lengthSize), units);
    }
    takeStartCoded(data, units);
    return true;
}

}  // namespace Mivra::Tool
