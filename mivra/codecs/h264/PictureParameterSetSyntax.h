#pragma once

#include <bit>

#include "mivra/codecs/h264/ParameterSets.h"
#include "mivra/codecs/h264/ScalingListSyntax.h"
#include "mivra/codecs/h264/SyntaxElement.h"

namespace Mivra::Codecs::H264 {

/// The slice groups in pic_parameter_set_rbsp(); there are at least two.
template <typename Coder, typename Pps>
void slice_group_data(Coder& coder, Pps& pps) {
    coder.ue("slice_group_map_type", pps.slice_group_map_type, 6);
    switch (pps.slice_group_map_type) {
        case 0:
            for (int i = 0; i <= pps.num_slice_groups_minus1; ++i) {
                coder.ue({"run_length_minus1", i}, pps.run_length_minus1[i], MaxMapUnits - 1);
            }
            break;
        case 2:
            for (int i = 0; i < pps.num_slice_groups_minus1; ++i) {
                coder.ue({"top_left", i}, pps.top_left[i], MaxMapUnits - 1);
                coder.ue({"bottom_right", i}, pps.bottom_right[i], MaxMapUnits - 1);
            }
            break;
        case 3:
        case 4:
        case 5:
            coder.flag("slice_group_change_direction_flag", pps.slice_group_change_direction_flag);
            coder.ue("slice_group_change_rate_minus1", pps.slice_group_change_rate_minus1, MaxMapUnits - 1);
            break;
        case 6:
            coder.ue("pic_size_in_map_units_minus1", pps.pic_size_in_map_units_minus1, MaxMapUnits - 1);
            coder.sliceGroupIds(
                "slice_group_id", pps.slice_group_id, pps.pic_size_in_map_units_minus1 + 1,
                static_cast<unsigned>(std::bit_width(static_cast<unsigned>(pps.num_slice_groups_minus1))));
            break;
        default:  // 1, dispersed, has no parameters
            break;
    }
}

/// What stands behind redundant_pic_cnt_present_flag in a set that has it.
template <typename Coder, typename Pps>
void pic_parameter_set_extension(Coder& coder, Pps& pps, int chroma_format_idc) {
    coder.flag("transform_8x8_mode_flag", pps.transform_8x8_mode_flag);
    coder.flag("pic_scaling_matrix_present_flag", pps.pic_scaling_matrix_present_flag);
    if (pps.pic_scaling_matrix_present_flag != 0) {
        const int lists8x8 = pps.transform_8x8_mode_flag != 0 ? scalingLists8x8(chroma_format_idc) : 0;
        scaling_matrix(coder, pps, "pic_scaling_list_present_flag", pps.pic_scaling_list_present_flag,
                       SPS264struct::ScalingLists4x4 + lists8x8);
    }
    coder.se("second_chroma_qp_index_offset", pps.second_chroma_qp_index_offset);
}

/// pic_parameter_set_rbsp() (7.3.2.2) without its trailing bits.
template <typename Coder, typename Pps>
void pic_parameter_set_data(Coder& coder, Pps& pps, int chroma_format_idc) {
    coder.ue("pic_parameter_set_id", pps.pic_parameter_set_id, 255);
    coder.ue("seq_parameter_set_id", pps.seq_parameter_set_id, 31);
    coder.flag("entropy_coding_mode_flag", pps.entropy_coding_mode_flag);
    coder.flag("bottom_field_pic_order_in_frame_present_flag",
               pps.bottom_field_pic_order_in_frame_present_flag);
    coder.ue("num_slice_groups_minus1", pps.num_slice_groups_minus1, PPS264struct::MaxSliceGroups - 1);
    if (pps.num_slice_groups_minus1 > 0) {
        slice_group_data(coder, pps);
    }
    coder.ue("num_ref_idx_l0_default_active_minus1", pps.num_ref_idx_l0_default_active_minus1, 31);
    coder.ue("num_ref_idx_l1_default_active_minus1", pps.num_ref_idx_l1_default_active_minus1, 31);
    coder.flag("weighted_pred_flag", pps.weighted_pred_flag);
    coder.u("weighted_bipred_idc", pps.weighted_bipred_idc, 2);
    coder.se("pic_init_qp_minus26", pps.pic_init_qp_minus26);
    coder.se("pic_init_qs_minus26", pps.pic_init_qs_minus26);
    coder.se("chroma_qp_index_offset", pps.chroma_qp_index_offset);
    coder.flag("deblocking_filter_control_present_flag", pps.deblocking_filter_control_present_flag);
    coder.flag("constrained_intra_pred_flag", pps.constrained_intra_pred_flag);
    coder.flag("redundant_pic_cnt_present_flag", pps.redundant_pic_cnt_present_flag);
    coder.moreRbspData(pps.more_rbsp_data);
    if (pps.more_rbsp_data != 0) {
        pic_parameter_set_extension(coder, pps, chroma_format_idc);
    } else {
        coder.infer(pps.second_chroma_qp_index_offset, pps.chroma_qp_index_offset);
    }
}

}  // namespace Mivra::Codecs::H264
