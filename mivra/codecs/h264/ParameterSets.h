#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Mivra::Codecs::H264 {

// The parameter sets as plain records: one 32-bit integer a syntax element, named and ordered as in ITU-T
// H.264. An element that the stream does not carry holds the value that the standard infers for it, 0 where
// it infers none or infers it from tables (max_num_reorder_frames, max_dec_frame_buffering). Elements of 32
// bits are unsigned, signed ones are se(v), the rest fit either. A default record stands for no set at all.

/// hrd_parameters() (E.1.2).
struct HrdParameters_t {
    static constexpr int MaxCpbCount = 32;

    std::int32_t cpb_cnt_minus1 = 0;
    std::int32_t bit_rate_scale = 0;
    std::int32_t cpb_size_scale = 0;
    std::uint32_t bit_rate_value_minus1[MaxCpbCount] = {};
    std::uint32_t cpb_size_value_minus1[MaxCpbCount] = {};
    std::int32_t cbr_flag[MaxCpbCount] = {};
    std::int32_t initial_cpb_removal_delay_length_minus1 = 23;
    std::int32_t cpb_removal_delay_length_minus1 = 23;
    std::int32_t dpb_output_delay_length_minus1 = 23;
    std::int32_t time_offset_length = 24;

    bool operator==(const HrdParameters_t&) const = default;
};

/// vui_parameters() (E.1.1).
struct VuiParameters_t {
    std::int32_t aspect_ratio_info_present_flag = 0;
    std::int32_t aspect_ratio_idc = 0;
    std::int32_t sar_width = 0;
    std::int32_t sar_height = 0;
    std::int32_t overscan_info_present_flag = 0;
    std::int32_t overscan_appropriate_flag = 0;
    std::int32_t video_signal_type_present_flag = 0;
    std::int32_t video_format = 5;
    std::int32_t video_full_range_flag = 0;
    std::int32_t colour_description_present_flag = 0;
    std::int32_t colour_primaries = 2;
    std::int32_t transfer_characteristics = 2;
    std::int32_t matrix_coefficients = 2;
    std::int32_t chroma_loc_info_present_flag = 0;
    std::int32_t chroma_sample_loc_type_top_field = 0;
    std::int32_t chroma_sample_loc_type_bottom_field = 0;
    std::int32_t timing_info_present_flag = 0;
    std::uint32_t num_units_in_tick = 0;
    std::uint32_t time_scale = 0;
    std::int32_t fixed_frame_rate_flag = 0;
    std::int32_t nal_hrd_parameters_present_flag = 0;
    HrdParameters_t nal_hrd_parameters;
    std::int32_t vcl_hrd_parameters_present_flag = 0;
    HrdParameters_t vcl_hrd_parameters;
    std::int32_t low_delay_hrd_flag = 1;
    std::int32_t pic_struct_present_flag = 0;
    std::int32_t bitstream_restriction_flag = 0;
    std::int32_t motion_vectors_over_pic_boundaries_flag = 1;
    std::int32_t max_bytes_per_pic_denom = 2;
    std::int32_t max_bits_per_mb_denom = 1;
    std::int32_t log2_max_mv_length_horizontal = 15;
    std::int32_t log2_max_mv_length_vertical = 15;
    std::int32_t max_num_reorder_frames = 0;
    std::int32_t max_dec_frame_buffering = 0;

    bool operator==(const VuiParameters_t&) const = default;
};

/// seq_parameter_set_data() (7.3.2.1.1).
struct SPS264struct {
    static constexpr int MaxRefFramesInCycle = 255;
    static constexpr int ScalingLists4x4 = 6;
    static constexpr int ScalingLists8x8 = 6;

    std::int32_t profile_idc = 0;
    std::int32_t constraint_set0_flag = 0;
    std::int32_t constraint_set1_flag = 0;
    std::int32_t constraint_set2_flag = 0;
    std::int32_t constraint_set3_flag = 0;
    /// constraint_set4_flag, constraint_set5_flag and reserved_zero_2bits as one value of four bits.
    std::int32_t reserved_zero_4bits = 0;
    std::int32_t level_idc = 0;
    std::int32_t seq_parameter_set_id = 0;
    std::int32_t chroma_format_idc = 0;
    std::int32_t separate_colour_plane_flag = 0;
    std::int32_t bit_depth_luma_minus8 = 0;
    std::int32_t bit_depth_chroma_minus8 = 0;
    std::int32_t qpprime_y_zero_transform_bypass_flag = 0;
    std::int32_t seq_scaling_matrix_present_flag = 0;
    std::int32_t seq_scaling_list_present_flag[ScalingLists4x4 + ScalingLists8x8] = {};
    /// delta_scale as it stands in the stream, up to the first that makes nextScale 0
    /// (scaling_list(), 7.3.2.1.1.1).
    std::int32_t delta_scale_4x4[ScalingLists4x4][16] = {};
    std::int32_t delta_scale_8x8[ScalingLists8x8][64] = {};
    std::int32_t log2_max_frame_num_minus4 = 0;
    std::int32_t pic_order_cnt_type = 0;
    std::int32_t log2_max_pic_order_cnt_lsb_minus4 = 0;
    std::int32_t delta_pic_order_always_zero_flag = 0;
    std::int32_t offset_for_non_ref_pic = 0;
    std::int32_t offset_for_top_to_bottom_field = 0;
    std::int32_t num_ref_frames_in_pic_order_cnt_cycle = 0;
    std::int32_t offset_for_ref_frame[MaxRefFramesInCycle] = {};
    std::int32_t max_num_ref_frames = 0;
    std::int32_t gaps_in_frame_num_value_allowed_flag = 0;
    std::int32_t pic_width_in_mbs_minus1 = 0;
    std::int32_t pic_height_in_map_units_minus1 = 0;
    std::int32_t frame_mbs_only_flag = 0;
    std::int32_t mb_adaptive_frame_field_flag = 0;
    std::int32_t direct_8x8_inference_flag = 0;
    std::int32_t frame_cropping_flag = 0;
    std::int32_t frame_crop_left_offset = 0;
    std::int32_t frame_crop_right_offset = 0;
    std::int32_t frame_crop_top_offset = 0;
    std::int32_t frame_crop_bottom_offset = 0;
    std::int32_t vui_parameters_present_flag = 0;
    VuiParameters_t vui_parameters;

    bool operator==(const SPS264struct&) const = default;
};

/// slice_group_id of every map unit, 0 to 7, three bits each, so that the largest map takes 52 KiB.
class SliceGroupIds {
public:
    std::size_t Size() const { return size; }
    int operator[](std::size_t index) const {
        const std::size_t bit = index * BitsPerId;
        const unsigned next = bit % 8 > 8 - BitsPerId ? packed[bit / 8 + 1] : 0u;
        return static_cast<int>((packed[bit / 8] | next << 8) >> bit % 8 & 7);
    }
    void Reserve(std::size_t count) { packed.reserve((count * BitsPerId + 7) / 8); }
    void Append(int id) {
        const std::size_t bit = size++ * BitsPerId;
        if (bit + BitsPerId > packed.size() * 8) {
            packed.push_back(0);
        }
        const unsigned shifted = (static_cast<unsigned>(id) & 7) << bit % 8;
        packed[bit / 8] = static_cast<std::uint8_t>(packed[bit / 8] | shifted);
        if (shifted > 0xFF) {
            packed[bit / 8 + 1] = static_cast<std::uint8_t>(shifted >> 8);
        }
    }

    bool operator==(const SliceGroupIds&) const = default;

private:
    static constexpr std::size_t BitsPerId = 3;

    std::vector<std::uint8_t> packed;
    std::size_t size = 0;
};

/// pic_parameter_set_rbsp() (7.3.2.2).
struct PPS264struct {
    static constexpr int MaxSliceGroups = 8;

    std::int32_t pic_parameter_set_id = 0;
    std::int32_t seq_parameter_set_id = 0;
    std::int32_t entropy_coding_mode_flag = 0;
    std::int32_t bottom_field_pic_order_in_frame_present_flag = 0;
    std::int32_t num_slice_groups_minus1 = 0;
    std::int32_t slice_group_map_type = 0;
    std::int32_t run_length_minus1[MaxSliceGroups] = {};
    std::int32_t top_left[MaxSliceGroups] = {};
    std::int32_t bottom_right[MaxSliceGroups] = {};
    std::int32_t slice_group_change_direction_flag = 0;
    std::int32_t slice_group_change_rate_minus1 = 0;
    std::int32_t pic_size_in_map_units_minus1 = 0;
    SliceGroupIds slice_group_id;
    std::int32_t num_ref_idx_l0_default_active_minus1 = 0;
    std::int32_t num_ref_idx_l1_default_active_minus1 = 0;
    std::int32_t weighted_pred_flag = 0;
    std::int32_t weighted_bipred_idc = 0;
    std::int32_t pic_init_qp_minus26 = 0;
    std::int32_t pic_init_qs_minus26 = 0;
    std::int32_t chroma_qp_index_offset = 0;
    std::int32_t deblocking_filter_control_present_flag = 0;
    std::int32_t constrained_intra_pred_flag = 0;
    std::int32_t redundant_pic_cnt_present_flag = 0;
    /// more_rbsp_data() was true: what follows stood in the stream.
    std::int32_t more_rbsp_data = 0;
    std::int32_t transform_8x8_mode_flag = 0;
    std::int32_t pic_scaling_matrix_present_flag = 0;
    std::int32_t
        pic_scaling_list_present_flag[SPS264struct::ScalingLists4x4 + SPS264struct::ScalingLists8x8] = {};
    std::int32_t delta_scale_4x4[SPS264struct::ScalingLists4x4][16] = {};
    std::int32_t delta_scale_8x8[SPS264struct::ScalingLists8x8][64] = {};
    std::int32_t second_chroma_qp_index_offset = 0;

    bool operator==(const PPS264struct&) const = default;
};

}  // namespace Mivra::Codecs::H264
