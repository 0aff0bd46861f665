#pragma once

#include "mivra/codecs/h264/ParameterSets.h"
#include "mivra/codecs/h264/ScalingListSyntax.h"
#include "mivra/codecs/h264/SyntaxElement.h"
#include "mivra/codecs/h264/VuiSyntax.h"

namespace Mivra::Codecs::H264 {

/// Whether sets of the profile carry chroma_format_idc and what follows it (7.3.2.1.1).
inline bool carriesChromaFormat(int profile_idc) {
    switch (profile_idc) {
        case 44:
        case 83:
        case 86:
        case 100:
        case 110:
        case 118:
        case 122:
        case 128:
        case 134:
        case 135:
        case 138:
        case 139:
        case 244:
            return true;
        default:
            return false;
    }
}

/// The part of seq_parameter_set_data() that only the profiles above have.
template <typename Coder, typename Sps>
void chroma_format_data(Coder& coder, Sps& sps) {
    coder.ue("chroma_format_idc", sps.chroma_format_idc, 3);
    if (sps.chroma_format_idc == 3) {
        coder.flag("separate_colour_plane_flag", sps.separate_colour_plane_flag);
    }
    coder.ue("bit_depth_luma_minus8", sps.bit_depth_luma_minus8, 6);
    coder.ue("bit_depth_chroma_minus8", sps.bit_depth_chroma_minus8, 6);
    coder.flag("qpprime_y_zero_transform_bypass_flag", sps.qpprime_y_zero_transform_bypass_flag);
    coder.flag("seq_scaling_matrix_present_flag", sps.seq_scaling_matrix_present_flag);
    if (sps.seq_scaling_matrix_present_flag != 0) {
        scaling_matrix(coder, sps, "seq_scaling_list_present_flag", sps.seq_scaling_list_present_flag,
                       SPS264struct::ScalingLists4x4 + scalingLists8x8(sps.chroma_format_idc));
    }
}

/// The picture order count in seq_parameter_set_data().
template <typename Coder, typename Sps>
void pic_order_cnt_data(Coder& coder, Sps& sps) {
    coder.ue("pic_order_cnt_type", sps.pic_order_cnt_type, 2);
    if (sps.pic_order_cnt_type == 0) {
        coder.ue("log2_max_pic_order_cnt_lsb_minus4", sps.log2_max_pic_order_cnt_lsb_minus4, 12);
    } else if (sps.pic_order_cnt_type == 1) {
        coder.flag("delta_pic_order_always_zero_flag", sps.delta_pic_order_always_zero_flag);
        coder.se("offset_for_non_ref_pic", sps.offset_for_non_ref_pic);
        coder.se("offset_for_top_to_bottom_field", sps.offset_for_top_to_bottom_field);
        coder.ue("num_ref_frames_in_pic_order_cnt_cycle", sps.num_ref_frames_in_pic_order_cnt_cycle,
                 SPS264struct::MaxRefFramesInCycle);
        for (int i = 0; i < sps.num_ref_frames_in_pic_order_cnt_cycle; ++i) {
            coder.se({"offset_for_ref_frame", i}, sps.offset_for_ref_frame[i]);
        }
    }
}

/// seq_parameter_set_data() (7.3.2.1.1).
template <typename Coder, typename Sps>
void seq_parameter_set_data(Coder& coder, Sps& sps) {
    coder.u("profile_idc", sps.profile_idc, 8);
    coder.flag("constraint_set0_flag", sps.constraint_set0_flag);
    coder.flag("constraint_set1_flag", sps.constraint_set1_flag);
    coder.flag("constraint_set2_flag", sps.constraint_set2_flag);
    coder.flag("constraint_set3_flag", sps.constraint_set3_flag);
    coder.lastConstraints(sps.reserved_zero_4bits);
    coder.u("level_idc", sps.level_idc, 8);
    coder.ue("seq_parameter_set_id", sps.seq_parameter_set_id, 31);
    if (carriesChromaFormat(sps.profile_idc)) {
        chroma_format_data(coder, sps);
    } else {
        coder.infer(sps.chroma_format_idc, 1);
    }
    coder.ue("log2_max_frame_num_minus4", sps.log2_max_frame_num_minus4, 12);
    pic_order_cnt_data(coder, sps);
    coder.ue("max_num_ref_frames", sps.max_num_ref_frames, MaxDpbFrames);
    coder.flag("gaps_in_frame_num_value_allowed_flag", sps.gaps_in_frame_num_value_allowed_flag);
    coder.ue("pic_width_in_mbs_minus1", sps.pic_width_in_mbs_minus1, MaxInt);
    coder.ue("pic_height_in_map_units_minus1", sps.pic_height_in_map_units_minus1, MaxInt);
    coder.flag("frame_mbs_only_flag", sps.frame_mbs_only_flag);
    if (sps.frame_mbs_only_flag == 0) {
        coder.flag("mb_adaptive_frame_field_flag", sps.mb_adaptive_frame_field_flag);
    }
    coder.flag("direct_8x8_inference_flag", sps.direct_8x8_inference_flag);
    coder.flag("frame_cropping_flag", sps.frame_cropping_flag);
    if (sps.frame_cropping_flag != 0) {
        coder.ue("frame_crop_left_offset", sps.frame_crop_left_offset, MaxInt);
        coder.ue("frame_crop_right_offset", sps.frame_crop_right_offset, MaxInt);
        coder.ue("frame_crop_top_offset", sps.frame_crop_top_offset, MaxInt);
        coder.ue("frame_crop_bottom_offset", sps.frame_crop_bottom_offset, MaxInt);
    }
    coder.flag("vui_parameters_present_flag", sps.vui_parameters_present_flag);
    if (sps.vui_parameters_present_flag != 0) {
        vui_parameters(coder, sps.vui_parameters);
    }
}

}  // namespace Mivra::Codecs::H264
