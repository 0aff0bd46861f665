#include "mivra/codecs/h264/ParameterSetCoding.h"

#include "mivra/codecs/h264/ParameterSetElements.h"
#include "mivra/codecs/h264/PictureParameterSetSyntax.h"
#include "mivra/codecs/h264/SequenceParameterSetSyntax.h"
#include "mivra/codecs/h264/SyntaxLister.h"
#include "mivra/codecs/h264/SyntaxReader.h"
#include "mivra/codecs/h264/SyntaxWriter.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/Reference.h"

namespace Mivra::Codecs::H264 {

const SPS264struct NoSps;
const PPS264struct NoPps;

namespace {

template <typename Body>
std::size_t writeBits(std::span<unsigned char> bytes, Body body) {
    const Common::Reference<Common::PacketBuffer> packet = Common::Reference<Common::PacketBuffer>::Adopt(
        new Common::PacketBuffer(reinterpret_cast<char*>(bytes.data()), static_cast<int>(bytes.size())));
    Common::EndianBinaryWriter writer(packet.get());
    writer.SetEndiannes(Common::Endianness::Big);
    SyntaxWriter coder(writer);
    body(coder);
    coder.trailingBits();
    return static_cast<std::size_t>(writer.Position());
}

}  // namespace

bool readSequenceParameterSet(std::span<const unsigned char> rbsp, SPS264struct& sps) {
    sps = NoSps;
    SyntaxReader coder(rbsp);
    seq_parameter_set_data(coder, sps);
    if (!coder.IsWhole()) {
        sps = NoSps;
        return false;
    }
    return true;
}

bool readPictureParameterSet(std::span<const unsigned char> rbsp, int chroma_format_idc, PPS264struct& pps) {
    pps = NoPps;
    SyntaxReader coder(rbsp);
    pic_parameter_set_data(coder, pps, chroma_format_idc);
    if (!coder.IsWhole()) {
        pps = NoPps;
        return false;
    }
    return true;
}

std::size_t writeSequenceParameterSet(const SPS264struct& sps, std::span<unsigned char> rbsp) {
    return writeBits(rbsp, [&](SyntaxWriter& coder) { seq_parameter_set_data(coder, sps); });
}

std::size_t writePictureParameterSet(const PPS264struct& pps, int chroma_format_idc,
                                     std::span<unsigned char> rbsp) {
    return writeBits(rbsp,
                     [&](SyntaxWriter& coder) { pic_parameter_set_data(coder, pps, chroma_format_idc); });
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
