// Edited sets, and the helpers over single bits.

#include <climits>
#include <optional>

#include "tests/codecs/h264/ParameterSetFixture.h"

namespace {

using namespace Mivra::Test;
using namespace Mivra::Codecs::H264;
using Mivra::Common::GeneralException;
using Mivra::Common::Rational;

const char* const High1080 = "67640028acda01e0089f95";  // 1920 x 1088, 4:2:0, 8 lines cropped, no VUI

// Which elements an edit changes is the oracle's: FFmpeg writes the same bytes.
TEST(ParameterSetEdit, CropsInLumaSamples) {
    const char* const Paff = "674d0028ed00f0089fb4";           // rows of 4
    const char* const Fields422 = "677a001fbcda02c046e990a8";  // 704 x 1120; columns of 2, rows of 2
    const char* const Gray = "6764001ff3680b011f4c8540";       // 704 x 560; any
    const struct {
        const char* sps;
        int left, right, top, bottom;
        int width, height;  // 0: refused
    } cases[] = {
        {High1080, 0, 0, 0, 8, 1920, 1080},
        {High1080, 2, 4, 6, 8, 1914, 1074},
        {High1080, 0, 0, 0, 0, 1920, 1088},
        {High1080, 0, 0, 0, 1086, 1920, 2},
        {Paff, 0, 0, 4, 0, 1920, 1084},
        {Fields422, 2, 4, 6, 10, 698, 1104},
        {Gray, 1, 2, 3, 5, 701, 552},
        {High1080, 1, 0, 0, 0, 0, 0},
        {High1080, 0, 0, 0, 7, 0, 0},
        {High1080, -2, 0, 0, 0, 0, 0},
        {High1080, 0, INT_MIN, 0, 0, 0, 0},
        {High1080, 960, 960, 0, 0, 0, 0},
        {High1080, INT_MAX - 1, INT_MAX - 1, 0, 0, 0, 0},
        {High1080, 0, 0, 2, 1086, 0, 0},
        {Paff, 0, 0, 2, 0, 0, 0},
    };
    for (const auto& [sps, left, right, top, bottom, width, height] : cases) {
        SCOPED_TRACE(testing::Message() << sps << " " << left << " " << right << " " << top << " " << bottom);
        H264ConfigurationParser parser;
        parse(parser, fromHex(sps));
        if (width == 0) {
            EXPECT_THROW(parser.SetCrop(left, right, top, bottom), GeneralException);
            EXPECT_EQ(written(parser), fromHex(sps));
            continue;
        }
        parser.SetCrop(left, right, top, bottom);
        H264ConfigurationParser again;
        EXPECT_EQ(parse(again, written(parser)), 1);
        EXPECT_EQ(std::pair(again.GetWidth(), again.GetHeight()), std::pair(width, height));
        EXPECT_EQ(again.GetSps().frame_cropping_flag, left + right + top + bottom == 0 ? 0 : 1);
    }
}

TEST(ParameterSetEdit, SetsTheAspectRatio) {
    constexpr int Refused = -1;
    const struct {
        Rational ratio;
        int aspect_ratio_idc;
    } cases[] = {{{}, 0},
                 {{1, 1}, 1},
                 {{160, 99}, 13},
                 {{4, 2}, 16},
                 {{65535, 65534}, 255},
                 {{65536, 1}, Refused},
                 {{1, 65537}, Refused},
                 {{0, 1}, Refused},
                 {{-1, -1}, Refused}};
    for (const auto& [ratio, aspect_ratio_idc] : cases) {
        SCOPED_TRACE(testing::Message() << ratio.Num() << ":" << ratio.Den());
        H264ConfigurationParser parser;
        parse(parser, fromHex(High1080));
        if (aspect_ratio_idc == Refused) {
            EXPECT_THROW(parser.SetAspectRatio(ratio), GeneralException);
            EXPECT_EQ(written(parser), fromHex(High1080));
            continue;
        }
        parser.SetAspectRatio(ratio);
        EXPECT_EQ(parser.GetSps().vui_parameters.aspect_ratio_idc, aspect_ratio_idc);
        EXPECT_EQ(parser.GetSps().vui_parameters_present_flag, aspect_ratio_idc == 0 ? 0 : 1);
        H264ConfigurationParser again;
        EXPECT_EQ(parse(again, written(parser)), 1);
        EXPECT_TRUE(again.GetAspectRatio() == ratio);
        EXPECT_EQ(again.GetReorderingQueueDepth(), 4);  // the new VUI tells nothing else
    }
    // What stands already stays, in whatever form; no ratio leaves the rest of the VUI.
    H264ConfigurationParser parser;
    const Bytes whole = fromHex("67640028acda02c047bff0040002de7091009b2400000fa4000753007682211216");
    parse(parser, whole);
    parser.SetAspectRatio({64, 45});
    EXPECT_EQ(written(parser), whole);
    SPS264struct without = parser.GetSps();
    auto& vui = without.vui_parameters;
    vui.aspect_ratio_info_present_flag = vui.aspect_ratio_idc = vui.sar_width = vui.sar_height = 0;
    parser.SetAspectRatio({});
    EXPECT_TRUE(H264ConfigurationParser::IsSpsEqual(parser.GetSps(), without));
}

TEST(ParameterSetEdit, KeepsTheHeaderAndWhatDoesNotFit) {
    const std::pair<unsigned char, unsigned char> headers[] = {
        {0x67, 0x67}, {0x27, 0x27}, {0xE7, 0x67}, {0x07, 0x67}};  // nal_ref_idc 0 is not for parameter sets
    for (const auto& [given, expected] : headers) {
        Bytes sps = fromHex(High1080);
        sps[0] = given;
        H264ConfigurationParser parser;
        parse(parser, sps);
        EXPECT_EQ(written(parser)[0], expected);
        EXPECT_THROW(written(parser, static_cast<int>(sps.size()) - 1), GeneralException);
        EXPECT_EQ(written(parser, static_cast<int>(sps.size())).size(), sps.size());
        EXPECT_THROW(parser.ToPacketBuffer(nullptr), GeneralException);
    }
    H264ConfigurationParser empty;
    EXPECT_THROW(empty.SetCrop(0, 0, 0, 0), GeneralException);
    EXPECT_THROW(empty.SetAspectRatio({1, 1}), GeneralException);
    EXPECT_THROW(written(empty), GeneralException);
    EXPECT_EQ(empty.GetWidth() + empty.GetHeight(), 0);
}

/// Opens the helpers that only the family of parsers uses.
struct BitReader : H264ConfigurationParser {
    using H264ConfigurationParser::checkRbspTrailingBits;
    using H264ConfigurationParser::convertBits2Int;
    using H264ConfigurationParser::convertSignedExpGolomb2Int;
};

struct BitPlace {
    unsigned char* data;
    int bytesLeft;
    int bit;
};

TEST(BitConversion, MovesOverFieldsAndCodes) {
    // u(3) 101, ue(v) 1 010 011 00100, se(v) 00101, and four bits more.
    Bytes bytes = fromHex("b4c858");
    BitPlace at{bytes.data(), static_cast<int>(bytes.size()), 0};
    EXPECT_EQ(BitReader::convertBits2Int(&at.data, &at.bytesLeft, &at.bit, 3), 5);
    for (const int value : {0, 1, 2, 3}) {
        EXPECT_EQ(BitReader::ConvertExpGolomb2Int(&at.data, &at.bytesLeft, &at.bit), value);
    }
    EXPECT_EQ(BitReader::convertSignedExpGolomb2Int(&at.data, &at.bytesLeft, &at.bit), -2);
    EXPECT_EQ(at.data - bytes.data(), 2);
    EXPECT_EQ(at.bytesLeft, 1);
    EXPECT_EQ(at.bit, 4);
    EXPECT_TRUE(BitReader::checkRbspTrailingBits(at.data, at.bytesLeft, at.bit));
    EXPECT_FALSE(BitReader::checkRbspTrailingBits(at.data, at.bytesLeft, 3));
    EXPECT_FALSE(BitReader::checkRbspTrailingBits(at.data, 0, 0));
    EXPECT_EQ(BitReader::convertBits2Int(&at.data, &at.bytesLeft, &at.bit, 0), 0);
    EXPECT_EQ(BitReader::convertBits2Int(&at.data, &at.bytesLeft, &at.bit, 4), 8);
    EXPECT_EQ(at.bytesLeft, 0);
    EXPECT_EQ(BitReader::convertBits2Int(&at.data, &at.bytesLeft, &at.bit, 1), 0);
    EXPECT_EQ(at.bytesLeft, -1);
}

TEST(BitConversion, TellsFailureByTheLengthLeft) {
    struct Case {
        const char* bytes;
        int bit;
        std::optional<int> value;
    };
    const Case codes[] = {
        {"80", 0, 0},
        {"01", 7, 0},
        {"40", 0, 1},
        {"04", 5, 0},
        {"00", 0, {}},
        {"01", 0, {}},                           // seven bits are missing
        {"0000000fffffff80", 0, (1 << 29) - 2},  // 28 zeros, the longest in one word
        {"00000007ffffffe0", 0, (1 << 30) - 2},  // 29
        {"00000001fffffffe", 0, -2},             // 2^32 - 2, as an int
        {"00000001fffffe", 0, {}},               // the same, cut off
        {"00000000ffffffff80", 0, -2},           // 32 zeros: 2^33 - 2, cut to 32 bits
        {"000000007fffffffe0", 0, {}},           // 33
        {"80", 8, {}},
        {"80", -1, {}},
    };
    for (const Case& code : codes) {
        SCOPED_TRACE(code.bytes);
        Bytes bytes = fromHex(code.bytes);
        BitPlace at{bytes.data(), static_cast<int>(bytes.size()), code.bit};
        EXPECT_EQ(BitReader::ConvertExpGolomb2Int(&at.data, &at.bytesLeft, &at.bit), code.value.value_or(0));
        EXPECT_EQ(at.bytesLeft == -1, !code.value.has_value());
    }
    BitPlace nowhere{nullptr, 5, 0};
    EXPECT_EQ(BitReader::ConvertExpGolomb2Int(&nowhere.data, &nowhere.bytesLeft, &nowhere.bit), 0);
    EXPECT_EQ(nowhere.bytesLeft, -1);
}

}  // namespace
