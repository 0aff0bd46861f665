#pragma once

#include "mivra/codecs/h264/AspectRatios.h"
#include "mivra/codecs/h264/HrdSyntax.h"
#include "mivra/codecs/h264/ParameterSets.h"
#include "mivra/codecs/h264/SyntaxElement.h"

namespace Mivra::Codecs::H264 {

/// vui_parameters() (E.1.1).
template <typename Coder, typename Vui>
void vui_parameters(Coder& coder, Vui& vui) {
    coder.flag("aspect_ratio_info_present_flag", vui.aspect_ratio_info_present_flag);
    if (vui.aspect_ratio_info_present_flag != 0) {
        coder.u("aspect_ratio_idc", vui.aspect_ratio_idc, 8);
        if (vui.aspect_ratio_idc == Extended_SAR) {
            coder.u("sar_width", vui.sar_width, 16);
            coder.u("sar_height", vui.sar_height, 16);
        }
    }
    coder.flag("overscan_info_present_flag", vui.overscan_info_present_flag);
    if (vui.overscan_info_present_flag != 0) {
        coder.flag("overscan_appropriate_flag", vui.overscan_appropriate_flag);
    }
    coder.flag("video_signal_type_present_flag", vui.video_signal_type_present_flag);
    if (vui.video_signal_type_present_flag != 0) {
        coder.u("video_format", vui.video_format, 3);
        coder.flag("video_full_range_flag", vui.video_full_range_flag);
        coder.flag("colour_description_present_flag", vui.colour_description_present_flag);
        if (vui.colour_description_present_flag != 0) {
            coder.u("colour_primaries", vui.colour_primaries, 8);
            coder.u("transfer_characteristics", vui.transfer_characteristics, 8);
            coder.u("matrix_coefficients", vui.matrix_coefficients, 8);
        }
    }
    coder.flag("chroma_loc_info_present_flag", vui.chroma_loc_info_present_flag);
    if (vui.chroma_loc_info_present_flag != 0) {
        coder.ue("chroma_sample_loc_type_top_field", vui.chroma_sample_loc_type_top_field, MaxInt);
        coder.ue("chroma_sample_loc_type_bottom_field", vui.chroma_sample_loc_type_bottom_field, MaxInt);
    }
    coder.flag("timing_info_present_flag", vui.timing_info_present_flag);
    if (vui.timing_info_present_flag != 0) {
        coder.u("num_units_in_tick", vui.num_units_in_tick, 32);
        coder.u("time_scale", vui.time_scale, 32);
        coder.flag("fixed_frame_rate_flag", vui.fixed_frame_rate_flag);
    }
    coder.flag("nal_hrd_parameters_present_flag", vui.nal_hrd_parameters_present_flag);
    if (vui.nal_hrd_parameters_present_flag != 0) {
        hrd_parameters(coder, vui.nal_hrd_parameters);
    }
    coder.flag("vcl_hrd_parameters_present_flag", vui.vcl_hrd_parameters_present_flag);
    if (vui.vcl_hrd_parameters_present_flag != 0) {
        hrd_parameters(coder, vui.vcl_hrd_parameters);
    }
    if (vui.nal_hrd_parameters_present_flag != 0 || vui.vcl_hrd_parameters_present_flag != 0) {
        coder.flag("low_delay_hrd_flag", vui.low_delay_hrd_flag);
    } else {
        coder.infer(vui.low_delay_hrd_flag, 1 - vui.fixed_frame_rate_flag);
    }
    coder.flag("pic_struct_present_flag", vui.pic_struct_present_flag);
    coder.flag("bitstream_restriction_flag", vui.bitstream_restriction_flag);
    if (vui.bitstream_restriction_flag != 0) {
        coder.flag("motion_vectors_over_pic_boundaries_flag", vui.motion_vectors_over_pic_boundaries_flag);
        coder.ue("max_bytes_per_pic_denom", vui.max_bytes_per_pic_denom, MaxInt);
        coder.ue("max_bits_per_mb_denom", vui.max_bits_per_mb_denom, MaxInt);
        coder.ue("log2_max_mv_length_horizontal", vui.log2_max_mv_length_horizontal, MaxInt);
        coder.ue("log2_max_mv_length_vertical", vui.log2_max_mv_length_vertical, MaxInt);
        coder.ue("max_num_reorder_frames", vui.max_num_reorder_frames, MaxDpbFrames);
        coder.ue("max_dec_frame_buffering", vui.max_dec_frame_buffering, MaxDpbFrames);
    }
}

}  // namespace Mivra::Codecs::H264
