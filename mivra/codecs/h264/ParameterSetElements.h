#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mivra/codecs/h264/ParameterSets.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Codecs::H264 {

/// One syntax element of a parameter set.
struct ParameterSetElement {
    /// As in ITU-T H.264, the index in its array behind it: "cbr_flag[0]".
    std::string name;
    std::int64_t value = 0;

    bool operator==(const ParameterSetElement&) const = default;
};

/// The elements that stand in the stream, and no others, in its order (7.3.2.1.1, 7.3.2.2, E.1); from
/// profile_idc or pic_parameter_set_id on, without the trailing bits. The four bits behind
/// constraint_set3_flag are told one by one. Any thread.
MIVRA_API std::vector<ParameterSetElement> ElementsOf(const SPS264struct& sps);
/// With the chroma_format_idc of the sequence parameter set, on which the number of scaling lists depends.
MIVRA_API std::vector<ParameterSetElement> ElementsOf(const PPS264struct& pps, int chroma_format_idc);

}  // namespace Mivra::Codecs::H264
