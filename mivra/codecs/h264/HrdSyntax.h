#pragma once

#include "mivra/codecs/h264/ParameterSets.h"
#include "mivra/codecs/h264/SyntaxElement.h"

namespace Mivra::Codecs::H264 {

/// hrd_parameters() (E.1.2).
template <typename Coder, typename Hrd>
void hrd_parameters(Coder& coder, Hrd& hrd) {
    coder.ue("cpb_cnt_minus1", hrd.cpb_cnt_minus1, HrdParameters_t::MaxCpbCount - 1);
    coder.u("bit_rate_scale", hrd.bit_rate_scale, 4);
    coder.u("cpb_size_scale", hrd.cpb_size_scale, 4);
    for (int i = 0; i <= hrd.cpb_cnt_minus1; ++i) {
        coder.ue({"bit_rate_value_minus1", i}, hrd.bit_rate_value_minus1[i], MaxUe);
        coder.ue({"cpb_size_value_minus1", i}, hrd.cpb_size_value_minus1[i], MaxUe);
        coder.flag({"cbr_flag", i}, hrd.cbr_flag[i]);
    }
    coder.u("initial_cpb_removal_delay_length_minus1", hrd.initial_cpb_removal_delay_length_minus1, 5);
    coder.u("cpb_removal_delay_length_minus1", hrd.cpb_removal_delay_length_minus1, 5);
    coder.u("dpb_output_delay_length_minus1", hrd.dpb_output_delay_length_minus1, 5);
    coder.u("time_offset_length", hrd.time_offset_length, 5);
}

}  // namespace Mivra::Codecs::H264
