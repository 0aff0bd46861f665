// Edits of sequence parameter sets: six bytes choose cropping and aspect ratio, the rest is a configuration.
// What was set is told, by the object and by the set that it writes.

#include "fuzz/H264Sets.h"

namespace {

using Mivra::Codecs::H264::H264ConfigurationParser;
using Mivra::Common::GeneralException;
using Mivra::Common::Rational;
using Mivra::Fuzz::Require;

template <typename Edit>
bool succeeds(H264ConfigurationParser& parser, Edit edit) {
    const auto before = parser.GetSps();
    try {
        edit();
        return true;
    } catch (const GeneralException&) {
        Require(H264ConfigurationParser::IsSpsEqual(before, parser.GetSps()));
        return false;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t EditSize = 6;
    if (size <= EditSize) {
        return 0;
    }
    std::vector<unsigned char> bytes(data + EditSize, data + size);
    H264ConfigurationParser parser;
    parser.Parse(bytes.data(), static_cast<int>(bytes.size()), 0);
    succeeds(parser, [&] { parser.SetCrop(0, 0, 0, 0); });
    const int width = parser.GetWidth();
    const int height = parser.GetHeight();
    if (succeeds(parser, [&] { parser.SetCrop(data[0], data[1], data[2], data[3]); })) {
        Require(width == 0 || parser.GetWidth() == width - data[0] - data[1]);
        Require(height == 0 || parser.GetHeight() == height - data[2] - data[3]);
    }
    const Rational ratio(data[4], data[5]);
    if (succeeds(parser, [&] { parser.SetAspectRatio(ratio); })) {
        Require(parser.GetAspectRatio() == ratio);
    }
    Mivra::Fuzz::AskAll(parser, true);
    return 0;
}
