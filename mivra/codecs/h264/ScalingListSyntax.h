#pragma once

#include <cstdint>

#include "mivra/codecs/h264/ParameterSets.h"
#include "mivra/codecs/h264/SyntaxElement.h"

namespace Mivra::Codecs::H264 {

/// scaling_list() (7.3.2.1.1.1), as far as it stands in the stream: up to the delta that makes nextScale 0.
template <typename Coder, typename Int>
void scaling_list(Coder& coder, Int* delta_scale, int sizeOfScalingList) {
    int lastScale = 8;
    for (int j = 0; j < sizeOfScalingList; ++j) {
        coder.se({"delta_scale", j}, delta_scale[j], -128, 127);
        const int nextScale = (lastScale + delta_scale[j] + 256) % 256;
        if (nextScale == 0) {
            return;
        }
        lastScale = nextScale;
    }
}

/// The scaling matrix of a set: count flags, each with its list when it is set.
template <typename Coder, typename Set, typename Int>
void scaling_matrix(Coder& coder, Set& set, const char* flagName, Int* list_present_flag, int count) {
    for (int i = 0; i < count; ++i) {
        coder.flag({flagName, i}, list_present_flag[i]);
        if (list_present_flag[i] == 0) {
            continue;
        }
        if (i < SPS264struct::ScalingLists4x4) {
            scaling_list(coder, set.delta_scale_4x4[i], 16);
        } else {
            scaling_list(coder, set.delta_scale_8x8[i - SPS264struct::ScalingLists4x4], 64);
        }
    }
}

/// How many 8x8 lists there are: two, and the four of chroma with 4:4:4.
inline int scalingLists8x8(int chroma_format_idc) {
    return chroma_format_idc == 3 ? SPS264struct::ScalingLists8x8 : 2;
}

}  // namespace Mivra::Codecs::H264
