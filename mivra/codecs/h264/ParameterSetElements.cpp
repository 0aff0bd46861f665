#include "mivra/codecs/h264/ParameterSetElements.h"

#include "mivra/codecs/h264/PictureParameterSetSyntax.h"
#include "mivra/codecs/h264/SequenceParameterSetSyntax.h"
#include "mivra/codecs/h264/SyntaxLister.h"

namespace Mivra::Codecs::H264 {

void SyntaxLister::add(ElementName name, std::int64_t value) {
    std::string text = name.name;
    if (name.index != ElementName::NoIndex) {
        text.append("[").append(std::to_string(name.index)).append("]");
    }
    list.push_back({std::move(text), value});
}

std::vector<ParameterSetElement> ElementsOf(const SPS264struct& sps) {
    std::vector<ParameterSetElement> list;
    SyntaxLister coder(list);
    seq_parameter_set_data(coder, sps);
    return list;
}

std::vector<ParameterSetElement> ElementsOf(const PPS264struct& pps, int chroma_format_idc) {
    std::vector<ParameterSetElement> list;
    SyntaxLister coder(list);
    pic_parameter_set_data(coder, pps, chroma_format_idc);
    return list;
}

}  // namespace Mivra::Codecs::H264
