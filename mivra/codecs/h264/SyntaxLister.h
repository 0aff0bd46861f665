#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mivra/codecs/h264/ParameterSetElements.h"
#include "mivra/codecs/h264/SyntaxElement.h"

namespace Mivra::Codecs::H264 {

/// Lists the elements that stand in the stream, in its order.
class SyntaxLister {
public:
    explicit SyntaxLister(std::vector<ParameterSetElement>& destination) : list(destination) {}

    void u(ElementName name, std::int64_t value, int) { add(name, value); }
    void flag(ElementName name, std::int64_t value) { add(name, value); }
    void ue(ElementName name, std::int64_t value, std::int64_t) { add(name, value); }
    void se(ElementName name, std::int64_t value, std::int64_t = MinSe, std::int64_t = MaxInt) {
        add(name, value);
    }

    void lastConstraints(std::int32_t value) {
        add("constraint_set4_flag", value >> 3 & 1);
        add("constraint_set5_flag", value >> 2 & 1);
        add("reserved_zero_2bits", value & 3);
    }
    void moreRbspData(std::int32_t) {}
    void sliceGroupIds(ElementName name, const SliceGroupIds& ids, std::int64_t, int) {
        for (std::size_t i = 0; i < ids.Size(); ++i) {
            add({name.name, static_cast<int>(i)}, ids[i]);
        }
    }
    void infer(std::int32_t, std::int32_t) {}

private:
    void add(ElementName name, std::int64_t value);

    std::vector<ParameterSetElement>& list;
};

}  // namespace Mivra::Codecs::H264
