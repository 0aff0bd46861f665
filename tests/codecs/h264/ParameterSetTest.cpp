// Parameter sets of every kind: what they say, and that they are written as they were read.

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>
#include <utility>

#include "mivra/codecs/h264/EmulationPrevention.h"
#include "mivra/codecs/h264/ParameterSetCoding.h"
#include "tests/codecs/h264/ParameterSetFixture.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace {

using namespace Mivra::Test;
using namespace Mivra::Codecs::H264;
using Mivra::Common::Rational;

const char* const PlainPps = "68dae3882d80";

struct Case {
    const char* seed;  // of the fuzz target; no encoder writes these
    int width, height;
    int profileLevel;
    int depth;
    const char* elements;  // in order, among others
    int ratioNum = 0, ratioDen = 0, rateNum = 0, rateDen = 0;
    std::int64_t bitrate = 0;
    std::int64_t maxBitrate = 0;
    bool depthTold = false;
};

const Case Cases[] = {
    // Main 4.0, 120 x 34 map units of field pairs, MBAFF allowed; bottom crop 2 of CropUnitY 4. The depth
    // deliberately takes a map unit for a macroblock: 32768 / 120 / 34.
    {"paff_annexb", 1920, 1080, 0x4D0028, 8,
     "frame_mbs_only_flag=0 mb_adaptive_frame_field_flag=1; frame_crop_bottom_offset=2"},
    // Slice groups of every map type (7.3.2.2).
    {"groups_interleaved_record", 704, 560, 0x58001E, 5,
     "num_slice_groups_minus1=2 slice_group_map_type=0 run_length_minus1[0]=3 run_length_minus1[1]=4 "
     "run_length_minus1[2]=5 num_ref_idx_l0_default_active_minus1=1"},
    {"groups_dispersed_units", 704, 560, 0x58001E, 5,
     "num_slice_groups_minus1=7 slice_group_map_type=1 num_ref_idx_l0_default_active_minus1=1"},
    {"groups_foreground_annexb", 704, 560, 0x58001E, 5,
     "slice_group_map_type=2 top_left[0]=3 bottom_right[0]=60 top_left[1]=100 bottom_right[1]=200 num_ref"},
    {"groups_box_out_record", 704, 560, 0x58001E, 5,
     "slice_group_map_type=3 slice_group_change_direction_flag=1 slice_group_change_rate_minus1=9 num_ref"},
    {"groups_raster_units", 704, 560, 0x58001E, 5,
     "slice_group_map_type=4 slice_group_change_direction_flag=0 slice_group_change_rate_minus1=98"},
    {"groups_wipe_annexb", 704, 560, 0x58001E, 5,
     "slice_group_map_type=5 slice_group_change_direction_flag=1 slice_group_change_rate_minus1=0"},
    // 4 x 3 macroblocks; ids of 3 bits (five groups) and of 1 bit (two).
    {"groups_explicit_record", 64, 48, 0x58001E, 16,
     "slice_group_map_type=6 pic_size_in_map_units_minus1=11 slice_group_id[0]=0 slice_group_id[1]=1; "
     "slice_group_id[4]=4 slice_group_id[5]=0; slice_group_id[11]=1 num_ref_idx_l0"},
    {"groups_explicit_2_units", 64, 48, 0x58001E, 16,
     "slice_group_id[0]=0 slice_group_id[1]=1 slice_group_id[2]=0; slice_group_id[11]=1 num_ref_idx_l0"},
    // POC type 1 with the longest codes of se(v): 31 zeros in front.
    {"poc_1_annexb", 704, 560, 0x42001E, 5,
     "pic_order_cnt_type=1 delta_pic_order_always_zero_flag=0 offset_for_non_ref_pic=-3 "
     "offset_for_top_to_bottom_field=5 num_ref_frames_in_pic_order_cnt_cycle=4 offset_for_ref_frame[0]=1 "
     "offset_for_ref_frame[1]=-1 offset_for_ref_frame[2]=2147483647 offset_for_ref_frame[3]=-2147483647"},
    {"poc_2_units", 704, 560, 0x42001E, 5, "pic_order_cnt_type=2 max_num_ref_frames=1"},
    // High with 8 lists in either set: whole, absent, ended by the third delta (-11 makes nextScale 0),
    // default.
    {"high_lists_annexb", 704, 560, 0x64001F, 11,
     "seq_scaling_list_present_flag[2]=1 delta_scale[0]=1 delta_scale[1]=2 delta_scale[2]=-11 "
     "seq_scaling_list_present_flag[3]=1 delta_scale[0]=-8 seq_scaling_list_present_flag[4]=0; "
     "delta_scale[63]=1 seq_scaling_list_present_flag[7]=0 log2; pic_scaling_list_present_flag[6]=1; "
     "pic_scaling_list_present_flag[7]=0 second_chroma_qp_index_offset=5"},
    // Without 8x8 transform the picture set has six lists.
    {"lists_without_8x8_record", 704, 560, 0x64001F, 11,
     "transform_8x8_mode_flag=0 pic_scaling_matrix_present_flag=1 pic_scaling_list_present_flag[0]=1; "
     "delta_scale[15]=3 second_chroma_qp_index_offset=-12"},
    // High 4:4:4 Predictive of 14 and 13 bits: 12 lists in either set.
    {"high444_lists_units", 704, 560, 0xF4001F, 11,
     "chroma_format_idc=3 separate_colour_plane_flag=0 bit_depth_luma_minus8=6 bit_depth_chroma_minus8=5; "
     "seq_scaling_list_present_flag[9]=0 seq_scaling_list_present_flag[10]=1 delta_scale[0]=1; "
     "seq_scaling_list_present_flag[11]=1 delta_scale[0]=4; pic_scaling_list_present_flag[11]=1; "
     "second_chroma_qp_index_offset=12"},
    // Cropping by 1, 2, 3, 4 crop units: separate planes and 4:0:0 (1 x 1), 4:2:2 of field pairs (2 x 2).
    {"separate_planes_annexb", 701, 553, 0xF4001F, 11, "separate_colour_plane_flag=1"},
    {"monochrome_crop_record", 701, 553, 0x64001F, 11, "chroma_format_idc=0"},
    {"crop_422_units", 698, 1106, 0x7A001F, 11, "chroma_format_idc=2"},
    // constraint_set3_flag in an intra-only profile: no reordering, though nothing tells so.
    {"intra_constraint_annexb", 704, 560, 0x6E101F, 0, "bit_depth_luma_minus8=2"},
    {"cavlc444_record", 704, 560, 0x2C101F, 0, "chroma_format_idc=3"},
    // Outside the intra-only profiles it means level 1b, which deliberately has no case of its own; all six
    // flags end in the constraint byte.
    {"constraints_annexb", 176, 144, 0x42FC0B, 9,
     "constraint_set3_flag=1 constraint_set4_flag=1 constraint_set5_flag=1 reserved_zero_2bits=0 "
     "level_idc=11"},
    {"ids_record", 704, 560, 0x4D001E, 5, "level_idc=30 seq_parameter_set_id=31; pic_parameter_set_id=255"},
    // BitRate = (value + 1) << (6 + scale). The VCL's alone, then 32 of the NAL's, which come first.
    {"hrd_vcl_annexb", 704, 560, 0x4D0028, 16,
     "nal_hrd_parameters_present_flag=0 vcl_hrd_parameters_present_flag=1 cpb_cnt_minus1=1; "
     "low_delay_hrd_flag=0 pic_struct_present_flag=1",
     0, 0, 25, 1, 500 * 128, 700 * 128},
    {"hrd_32_units", 704, 560, 0x640028, 16,
     "cpb_cnt_minus1=31; bit_rate_value_minus1[31]=31999 cpb_size_value_minus1[31]=1999 cbr_flag[31]=1; "
     "bit_rate_scale=15 cpb_size_scale=15 bit_rate_value_minus1[0]=4294967294",
     0, 0, 0, 0, 1000 * 512, 32000 * 512},
    {"vui_all_record", 704, 560, 0x640028, 3,
     "aspect_ratio_idc=255 sar_width=64 sar_height=45 overscan_info_present_flag=1 "
     "overscan_appropriate_flag=1; video_format=1 video_full_range_flag=1 colour_description_present_flag=1 "
     "colour_primaries=9 transfer_characteristics=16 matrix_coefficients=9; "
     "chroma_sample_loc_type_top_field=2 chroma_sample_loc_type_bottom_field=3; max_num_reorder_frames=3 "
     "max_dec_frame_buffering=4",
     64, 45, 60000, 1001, 0, 0, true},
    {"vui_none_units", 704, 560, 0x640028, 16, "bitstream_restriction_flag=0"},
    // 4294967279 / 8589934582 does not fit a fraction of 32 bits; the nearest is told.
    {"timing_too_fine_record", 704, 560, 0x4D0028, 16, "fixed_frame_rate_flag=0", 0, 0, 1, 2},
    // 4294967295 / 8589934590.
    {"timing_largest_annexb", 704, 560, 0x4D0028, 16, "num_units_in_tick=4294967295 time_scale=4294967295", 4,
     3, 1, 2},
};

Bytes seed(const std::string& name) {
    const std::string bytes = ReadWholeFile(MIVRA_SOURCE_DIR "/fuzz/corpus/h264_parse/" + name);
    EXPECT_FALSE(bytes.empty()) << name;
    return {bytes.begin(), bytes.end()};
}

int parseSeed(H264ConfigurationParser& parser, const std::string& name) {
    return parse(parser, seed(name), name.ends_with("_units") ? 1 : 0);
}

TEST(ParameterSet, SaysWhatItHolds) {
    H264ConfigurationParser parser;  // of all cases: nothing of the last one stays
    for (const Case& wanted : Cases) {
        SCOPED_TRACE(wanted.seed);
        ASSERT_EQ(parseSeed(parser, wanted.seed), 1);
        EXPECT_EQ(parser.GetWidth(), wanted.width);
        EXPECT_EQ(parser.GetHeight(), wanted.height);
        EXPECT_EQ(parser.GetProfileLevel(), wanted.profileLevel);
        EXPECT_EQ(parser.GetProfile(), wanted.profileLevel >> 16);
        EXPECT_EQ(parser.GetLevel(), wanted.profileLevel & 0xFF);
        EXPECT_EQ(parser.GetReorderingQueueDepth(), wanted.depth);
        int depth = -1;
        EXPECT_EQ(parser.TryGetReorderingQueueDepth(&depth), wanted.depthTold);
        EXPECT_EQ(depth, wanted.depth);
        EXPECT_TRUE(parser.GetAspectRatio() == Rational(wanted.ratioNum, wanted.ratioDen));
        EXPECT_TRUE(parser.GetFrameRate() == Rational(wanted.rateNum, wanted.rateDen));
        EXPECT_EQ(parser.GetBitrate(), wanted.bitrate);
        EXPECT_EQ(parser.GetMaxBitrate(), wanted.maxBitrate);
        const std::string text = elementText(parser);
        std::size_t at = 0;
        std::istringstream elements(wanted.elements);
        for (std::string element; std::getline(elements >> std::ws, element, ';');) {
            at = text.find(" " + element, at);
            EXPECT_NE(at, std::string::npos) << element << " in" << text;
        }
    }
}

// That it reads the same again in any form is the fuzz target's.
TEST(ParameterSet, IsWrittenAsItWas) {
    for (const Case& wanted : Cases) {
        SCOPED_TRACE(wanted.seed);
        H264ConfigurationParser parser;
        parseSeed(parser, wanted.seed);
        Bytes pps(4096, 0x68);
        Bytes rbsp(pps.size());
        rbsp.resize(writePictureParameterSet(parser.GetPps(), parser.GetSps().chroma_format_idc, rbsp));
        pps.resize(1 + applyEmulationPrevention(rbsp, &pps[1]));
        const Bytes whole = seed(wanted.seed);
        for (const Bytes& unit : {written(parser), pps}) {
            EXPECT_NE(std::search(whole.begin(), whole.end(), unit.begin(), unit.end()), whole.end());
        }
    }
}

// Bits behind the last element, which read as no extension: its scaling lists end too early.
TEST(ParameterSet, PassesOverStrayBitsWhereNoExtensionIs) {
    const struct {
        const char* sps;
        const char* pps;
        bool read;
    } cases[] = {
        {"6742001eda02c04790", "68ce3cff", true},     // Baseline
        {"674d001eda02c04790", "68ce3cff", true},     // Main
        {"6764001eda02c04790", "68ce3cff", false},    // no sequence set: that one ends too early for High
        {"6742001eda02c04790", "68a38f3fff", false},  // of sequence set 1, which is not there
        {"6742001eda02c04790", "68ce", false},        // cut off in front of them
    };
    for (const auto& [sps, pps, read] : cases) {
        SCOPED_TRACE(std::string(sps) + " " + pps);
        H264ConfigurationParser parser;
        parse(parser, annexB(fromHex(sps), fromHex(pps)));
        EXPECT_EQ(parser.GetPps().deblocking_filter_control_present_flag, read ? 1 : 0);
        EXPECT_EQ(parser.GetPps().more_rbsp_data, 0);
        EXPECT_EQ(parser.GetPps().pic_scaling_matrix_present_flag, 0);
    }
}

// The depth is an estimate from MaxDpbMbs over the picture's macroblocks, 16 at most (Table A-1).
TEST(ParameterSet, EstimatesTheDepthFromTheLevel) {
    struct Level {
        unsigned char level_idc;
        int depths[3];
    };
    // Level 9 (1b of High) and others that are not in the table deliberately give 0.
    const Level levels[] = {{9, {0, 0, 0}},    {10, {1, 0, 0}},    {11, {2, 0, 0}},    {12, {6, 0, 0}},
                            {13, {6, 0, 0}},   {20, {6, 0, 0}},    {21, {12, 0, 0}},   {22, {16, 0, 0}},
                            {30, {16, 0, 0}},  {31, {16, 2, 0}},   {32, {16, 2, 0}},   {40, {16, 4, 1}},
                            {41, {16, 4, 1}},  {42, {16, 4, 1}},   {50, {16, 13, 3}},  {51, {16, 16, 5}},
                            {52, {16, 16, 5}}, {60, {16, 16, 16}}, {61, {16, 16, 16}}, {62, {16, 16, 16}},
                            {63, {0, 0, 0}},   {255, {0, 0, 0}}};
    // Of 22 x 18, 120 x 68 and 240 x 135 macroblocks.
    const char* const sets[] = {"674d0028ed02c12c80", "674d0028ed00f0044c80", "674d0028ed00780087c8"};
    for (const Level& level : levels) {
        for (int i = 0; i < 3; ++i) {
            Bytes sps = fromHex(sets[i]);
            sps[3] = level.level_idc;
            H264ConfigurationParser parser;
            parse(parser, sps);
            EXPECT_EQ(parser.GetReorderingQueueDepth(), level.depths[i]) << int{level.level_idc} << ", " << i;
        }
    }
}

TEST(ParameterSet, TellsWhatACudaDecoderTakes) {
    const std::pair<const char*, bool> sets[] = {
        {"674d0028ed02c12c80", true},         // Main has 4:2:0 of 8 bits without saying so
        {"6764001facda02c04790", true},       // High, told
        {"6764001ff3680b011f4c8540", false},  // 4:0:0
        {"676e101fa6cda02c0479", false},      // 10 bits
    };
    LogCapture log;
    for (const auto& [set, compatible] : sets) {
        H264ConfigurationParser parser;
        parse(parser, fromHex(set));
        EXPECT_EQ(parser.IsCudaCompatible(), compatible) << set;
    }
    EXPECT_THAT(
        log.Lines(Mivra::Common::FileLog::Debug),
        testing::Contains("H264ConfigurationParser::IsCudaCompatible: profile 110, chroma_format_idc 1, "
                          "bit_depth_luma_minus8 2"));
}

TEST(ParameterSet, InfersWhatIsNotThere) {
    H264ConfigurationParser parser;
    parse(parser, fromHex("674d0028ed02c12c80"));
    EXPECT_EQ(parser.GetSps().chroma_format_idc, 1);
    EXPECT_EQ(parser.GetSps().vui_parameters.low_delay_hrd_flag, 1);
    parse(parser, fromHex(PlainPps));
    EXPECT_EQ(parser.GetPps().second_chroma_qp_index_offset, -2);
    // An aspect ratio without width or height is none.
    for (const char* const set : {"67640028acda02c047bff000000302de7091009b2400000fa4000753007682211216",
                                  "67640028acda02c047bff00400000e7091009b2400000fa4000753007682211216"}) {
        EXPECT_EQ(parse(parser, fromHex(set)), 1) << set;
        EXPECT_TRUE(parser.GetAspectRatio() == Rational()) << set;
    }
    // A fixed frame rate without HRDs: no low delay.
    parse(parser, fromHex("674d0028ed016023d08000000300800000194a"));
    EXPECT_EQ(parser.GetSps().vui_parameters.low_delay_hrd_flag, 0);
}

}  // namespace
