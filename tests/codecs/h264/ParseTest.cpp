// Forms of input, and input that is wrong; cut and distorted input is the fuzz target's to replay.

#include <cstdint>

#include "mivra/codecs/h264/ParameterSetCoding.h"
#include "mivra/codecs/h264/SyntaxElement.h"
#include "tests/codecs/h264/ParameterSetFixture.h"
#include "tests/support/FaultInjection.h"

namespace {

using namespace Mivra::Test;
using namespace Mivra::Codecs::H264;

const char* const Small = "674d0028ed02c12c80";   // id 0, 352 x 288
const char* const Other = "674d001e5b4142b2";     // id 1, 160 x 160
const char* const Pps = "68dae3882d80";           // id 0
const char* const OtherPps = "6800805ae3882d80";  // id 255

TEST(Parse, ChoosesTheFormByTheFirstByte) {
    const Bytes sps = fromHex(Small);
    const Bytes pps = fromHex(Pps);
    const Bytes other = fromHex(Other);
    const Bytes otherPps = fromHex(OtherPps);
    Bytes twoOfEach =
        joined({{1, 77, 0, 40, 0xFF, 0xE2, 0, 9}, sps, {0, 8}, other, {2, 0, 6}, pps, {0, 8}, otherPps});
    struct Case {
        const char* name;
        Bytes bytes;
        int flags;
        int result;
        int spsId, width;  // 0: no sequence set
        int ppsRefs;       // num_ref_idx_l0_default_active_minus1 is 1 in both picture sets
        int ppsId;
    };
    const Case cases[] = {
        {"Annex B, first of each", joined({annexB(sps, pps), {0, 0, 1}, other, {0, 0, 1}, otherPps}), 0, 1, 0,
         352, 1, 0},
        {"picture set first", annexB(pps, sps), 0, 1, 0, 352, 1, 0},
        {"Annex B without sets", {0, 0, 1, 9, 0xF0}, 0, 1, 0, 0, 0, 0},
        {"zeros", {0, 0, 0, 0}, 0, 1, 0, 0, 0, 0},
        {"record of two, the first of each", twoOfEach, 0, 1, 0, 352, 1, 0},
        {"record without sequence set", joined({{1, 77, 0, 40, 0xFF, 0xE0, 1, 0, 6}, pps}), 0, 1, 0, 0, 1, 0},
        {"record without sets", {1, 77, 0, 40, 0xFF, 0xE0, 0}, 0, 1, 0, 0, 0, 0},
        {"record of one byte", {1}, 0, 1, 0, 0, 0, 0},
        {"sets in each other's place", record(pps, sps), 0, 1, 0, 0, 0, 0},
        {"empty sets", {1, 77, 0, 40, 0xFF, 0xE1, 0, 0, 1, 0, 0}, 0, 1, 0, 0, 0, 0},
        {"one sequence set", other, 0, 1, 1, 160, 0, 0},
        {"one picture set", otherPps, 0, 1, 0, 0, 1, 255},
        {"another unit", {0x65, 0x88, 0x84}, 0, 1, 0, 0, 0, 0},
        {"negative flags are none", other, -1, 1, 1, 160, 0, 0},
        // Only the third byte of a prefix counts; every set is read, the last one stays.
        {"prefixed", joined({{2, 3, 9}, sps, {4, 5, 2}, {0x65, 0x88}, {0, 1, 8}, other, {9, 9, 0}, otherPps}),
         1, 1, 1, 160, 1, 255},
        {"prefix of nothing", joined({{2, 0, 9}, sps, {0, 0, 0}}), 1, 1, 0, 352, 0, 0},
        {"prefix too long", joined({{2, 0, 10}, sps}), 1, -1, 0, 0, 0, 0},
        {"prefix cut off", joined({{2, 0, 9}, sps, {0, 0}}), 1, -1, 0, 352, 0, 0},
        // Emulation prevention goes before lengths are looked at: these eleven bytes count as ten.
        {"prefix of what is left",
         fromHex("02000b"
                 "674d0028ec00000300be2259"),
         1, -1, 0, 0, 0, 0},
        {"malformed", {0x67, 0x4D}, 0, -1, 0, 0, 0, 0},
        {"malformed picture set", joined({{2, 0, 9}, sps, {2, 0, 2}, {0x68, 0x00}}), 1, -1, 0, 352, 0, 0},
        {"malformed in Annex B", annexB({0x67, 0x4D}, pps), 0, 1, 0, 0, 1, 0},
        {"malformed in a record", record({0x67, 0x4D}, pps), 0, 1, 0, 0, 1, 0},
        // Zeros behind the trailing bits do no harm, anything else does.
        {"trailing zeros", joined({sps, {0, 0}}), 0, 1, 0, 352, 0, 0},
        {"trailing bytes", joined({sps, {1}}), 0, -1, 0, 0, 0, 0},
    };
    H264ConfigurationParser parser;
    for (const Case& wanted : cases) {
        SCOPED_TRACE(wanted.name);
        EXPECT_EQ(parse(parser, wanted.bytes, wanted.flags), wanted.result);
        EXPECT_EQ(parser.GetSpsId(), wanted.spsId);
        EXPECT_EQ(parser.GetWidth(), wanted.width);
        EXPECT_EQ(parser.GetPps().num_ref_idx_l0_default_active_minus1, wanted.ppsRefs);
        EXPECT_EQ(parser.GetPpsId(), wanted.ppsId);
        EXPECT_EQ(parser.GetPpsSpsId(), 0);
    }
    unsigned char byte = 0x67;
    EXPECT_EQ(parser.Parse(nullptr, 10, 0), -1);
    EXPECT_EQ(parser.Parse(&byte, 0, 0), -1);
    EXPECT_EQ(parser.Parse(&byte, -1, 0), -1);
}

TEST(Parse, RefusesCountsThatTheStandardDoesNotHave) {
    const std::pair<const char*, const char*> sets[] = {
        {"seq_parameter_set_id 32", "6742001e043b405808f2"},
        {"chroma_format_idc 4", "6764001e973680b011e4"},
        {"bit_depth_luma_minus8 7", "6764001ea113680b011e40"},
        {"bit_depth_chroma_minus8 7", "6764001ea883680b011e40"},
        {"max_num_ref_frames 17", "6742001eec2405808f20"},
        {"pic_order_cnt_type 3", "6742001ec880b011e4"},
        {"256 frames in the cycle",
         "6742001ed30080ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffa02c0479"},
        {"max_num_reorder_frames 17", "674d0028ed016023d01da08844241180"},
        {"33 schedules", "6742001eed016023d0410806db6db6db6db6db6db6db6db6bbcb8280"},
        {"nine slice groups", "68d12971c416c0"},
        {"slice_group_map_type 7", "68d42171c416c0"},
        {"139265 map units", "68d47000044002b8e20b60"},
        {"2^32 - 1 map units", "68d470000003001fffffffeb8e20b6"},
    };
    for (const auto& [name, set] : sets) {
        H264ConfigurationParser parser;
        EXPECT_EQ(parse(parser, fromHex(set)), -1) << name;
        EXPECT_TRUE(H264ConfigurationParser::IsSpsEqual(parser.GetSps(), SPS264struct()));
        EXPECT_TRUE(H264ConfigurationParser::IsPpsEqual(parser.GetPps(), PPS264struct()));
    }
}

TEST(Parse, TakesLittleMemory) {
    // The largest slice group map, 139264 ids of three bits, as it comes and with a start code in front.
    PPS264struct pps;
    pps.num_slice_groups_minus1 = 7;
    pps.slice_group_map_type = 6;
    pps.pic_size_in_map_units_minus1 = MaxMapUnits - 1;
    for (int i = 0; i < MaxMapUnits; ++i) {
        pps.slice_group_id.Append(i * 5 % 8);
    }
    Bytes unit(65536);
    unit[0] = 0x68;
    unit.resize(1 + writePictureParameterSet(pps, 1, std::span(unit).subspan(1)));
    for (const Bytes& bytes : {unit, annexB(fromHex(Small), unit), Bytes(1 << 20, 0x67), Bytes(1 << 20, 0)}) {
        H264ConfigurationParser parser;
        Bytes copy = bytes;
        const AllocationMeter meter;
        parser.Parse(copy.data(), static_cast<int>(copy.size()), 0);
        EXPECT_LE(meter.Peak(), static_cast<std::int64_t>(bytes.size()) + 65536);
        EXPECT_EQ(bytes.size() > 60000 || H264ConfigurationParser::IsPpsEqual(parser.GetPps(), pps), true);
    }
    H264ConfigurationParser parser;
    const FaultPlan noMemory(FaultKind::Allocate, 1);
    EXPECT_EQ(parser.Parse(unit.data(), static_cast<int>(unit.size()), 0), -1);
}

}  // namespace
