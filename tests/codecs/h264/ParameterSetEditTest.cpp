// Edited sets, and the helpers over single bits.

#include <algorithm>
#include <climits>
#include <optional>

#include "tests/codecs/h264/ParameterSetFixture.h"

namespace {

using namespace Mivra::Test;
using namespace Mivra::Codecs::H264;
using Mivra::Common::GeneralException;
using Mivra::Common::Rational;

const char* const High1080 = "67640028acda01e0089f95";  // 1920 x 1088, 4:2:0, 8 lines cropped, no VUI

/// The names of the elements whose values differ or that only one of the sets has.
std::string difference(const SPS264struct& before, const SPS264struct& after) {
    const auto left = ElementsOf(before);
    const auto right = ElementsOf(after);
    std::string names;
    const auto addMissing = [&names](const auto& these, const auto& those) {
        for (const auto& element : these) {
            if (std::find(those.begin(), those.end(), element) == those.end()) {
                names += element.name + "=" + std::to_string(element.value) + " ";
            }
        }
    };
    addMissing(right, left);
    return names;
}

TEST(ParameterSetEdit, CropsInLumaSamples) {
    struct Case {
        const char* sps;
        int left, right, top, bottom;
        const char* changed;  // null: refused
    };
    const char* const paff = "674d0028ed00f0089fb4";           // rows of 4
    const char* const fields422 = "677a001fbcda02c046e990a8";  // 704 x 1120; columns of 2, rows of 2
    const char* const gray = "6764001ff3680b011f4c8540";       // 704 x 560; any
    const Case cases[] = {
        {High1080, 0, 0, 0, 8, ""},
        {High1080, 2, 4, 6, 8, "frame_crop_left_offset=1 frame_crop_right_offset=2 frame_crop_top_offset=3 "},
        {High1080, 0, 0, 0, 0, "frame_cropping_flag=0 "},
        {High1080, 1, 0, 0, 0, nullptr},
        {High1080, 0, 0, 0, 7, nullptr},
        {High1080, -2, 0, 0, 0, nullptr},
        {High1080, 0, INT_MIN, 0, 0, nullptr},
        {High1080, 960, 960, 0, 0, nullptr},
        {High1080, INT_MAX - 1, INT_MAX - 1, 0, 0, nullptr},
        {High1080, 0, 0, 0, 1086, "frame_crop_bottom_offset=543 "},
        {High1080, 0, 0, 2, 1086, nullptr},
        {paff, 0, 0, 4, 0, "frame_crop_top_offset=1 frame_crop_bottom_offset=0 "},
        {paff, 0, 0, 2, 0, nullptr},
        {fields422, 2, 4, 6, 10, "frame_crop_bottom_offset=5 "},
        {gray, 1, 2, 3, 5, "frame_crop_bottom_offset=5 "},
    };
    for (const Case& wanted : cases) {
        SCOPED_TRACE(testing::Message() << wanted.sps << " " << wanted.left << " " << wanted.right << " "
                                        << wanted.top << " " << wanted.bottom);
        H264ConfigurationParser parser;
        parse(parser, fromHex(wanted.sps));
        const SPS264struct before = parser.GetSps();
        const auto edit = [&] { parser.SetCrop(wanted.left, wanted.right, wanted.top, wanted.bottom); };
        if (wanted.changed == nullptr) {
            EXPECT_THROW(edit(), GeneralException);
            EXPECT_EQ(written(parser), fromHex(wanted.sps));
        } else {
            edit();
            EXPECT_EQ(difference(before, parser.GetSps()), wanted.changed);
            H264ConfigurationParser again;
            EXPECT_EQ(parse(again, written(parser)), 1);
            EXPECT_EQ(again.GetHeight(), parser.GetHeight());
        }
    }
}

TEST(ParameterSetEdit, SetsTheAspectRatio) {
    struct Case {
        Rational ratio;
        const char* changed;  // null: refused
    };
    const Case cases[] = {
        {{}, ""},
        {{1, 1}, "vui_parameters_present_flag=1 aspect_ratio_info_present_flag=1 aspect_ratio_idc=1"},
        {{160, 99}, "vui_parameters_present_flag=1 aspect_ratio_info_present_flag=1 aspect_ratio_idc=13"},
        {{4, 2}, "vui_parameters_present_flag=1 aspect_ratio_info_present_flag=1 aspect_ratio_idc=16"},
        {{65535, 65534},
         "vui_parameters_present_flag=1 aspect_ratio_info_present_flag=1 aspect_ratio_idc=255 "
         "sar_width=65535 "
         "sar_height=65534"},
        {{65536, 1}, nullptr},
        {{1, 65537}, nullptr},
        {{0, 1}, nullptr},
        {{-1, -1}, nullptr}};
    for (const Case& wanted : cases) {
        SCOPED_TRACE(testing::Message() << wanted.ratio.Num() << ":" << wanted.ratio.Den());
        H264ConfigurationParser parser;
        parse(parser, fromHex(High1080));
        const SPS264struct before = parser.GetSps();
        if (wanted.changed == nullptr) {
            EXPECT_THROW(parser.SetAspectRatio(wanted.ratio), GeneralException);
            EXPECT_EQ(written(parser), fromHex(High1080));
            continue;
        }
        parser.SetAspectRatio(wanted.ratio);
        EXPECT_EQ(difference(before, parser.GetSps()).rfind(wanted.changed, 0), 0u);
        EXPECT_EQ(difference(before, parser.GetSps()).empty(), *wanted.changed == 0);
        H264ConfigurationParser again;
        EXPECT_EQ(parse(again, written(parser)), 1);
        EXPECT_TRUE(again.GetAspectRatio() == wanted.ratio);
        EXPECT_EQ(again.GetReorderingQueueDepth(), 4);  // the new VUI tells nothing else
    }
    // What stands already stays, in whatever form; no ratio leaves the rest of the VUI.
    H264ConfigurationParser parser;
    const Bytes whole = fromHex("67640028acda02c047bff0040002de7091009b2400000fa4000753007682211216");
    parse(parser, whole);
    parser.SetAspectRatio({64, 45});
    EXPECT_EQ(written(parser), whole);
    const SPS264struct before = parser.GetSps();
    parser.SetAspectRatio({});
    EXPECT_EQ(difference(before, parser.GetSps()), "aspect_ratio_info_present_flag=0 ");
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
