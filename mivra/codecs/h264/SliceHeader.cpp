#include "mivra/codecs/h264/SliceHeader.h"

#include <algorithm>

#include "mivra/codecs/h264/BitCursor.h"
#include "mivra/codecs/h264/EmulationPrevention.h"
#include "mivra/codecs/h264/NalUnitHeader.h"
#include "mivra/codecs/h264/ParameterSetCoding.h"
#include "mivra/codecs/h264/Rbsp.h"

namespace Mivra::Codecs::H264 {

namespace {

/// The first bytes of a slice's payload: more than the elements that are read can take.
class SlicePayload {
public:
    explicit SlicePayload(NalUnit slice) {
        NalUnit bytes = slice.subspan(1, std::min(slice.size() - 1, sizeof rbsp));
        if (const auto code = findStartCode(bytes)) {
            bytes = bytes.first(code->offset);
        }
        size = removeEmulationPrevention(bytes, rbsp);
    }
    std::span<const unsigned char> Bytes() const { return {rbsp, size}; }

private:
    unsigned char rbsp[96];
    std::size_t size;
};

SliceHeader readBeginning(BitCursor& bits, NalUnit slice) {
    SliceHeader header;
    header.nal_ref_idc = referenceIdc(slice);
    header.idr = nalUnitType(slice) == NalUnitTypes::SliceIdr;
    header.first_mb_in_slice = bits.ExpGolomb();
    header.slice_type = bits.ExpGolomb();
    header.pic_parameter_set_id = bits.ExpGolomb();
    return header;
}

}  // namespace

std::optional<SliceHeader> readSliceBeginning(NalUnit slice) {
    const SlicePayload payload(slice);
    BitCursor bits(payload.Bytes());
    const SliceHeader header = readBeginning(bits, slice);
    return bits.Failed() ? std::nullopt : std::optional(header);
}

void SliceHeaderReader::Remember(NalUnit set) {
    const Rbsp rbsp(set);
    if (nalUnitType(set) == NalUnitTypes::SequenceParameterSet) {
        rememberSequence(rbsp.Payload());
    } else {
        rememberPicture(rbsp.Payload());
    }
}

void SliceHeaderReader::rememberSequence(std::span<const unsigned char> rbsp) {
    SPS264struct sps;
    if (!readSequenceParameterSet(rbsp, sps)) {
        return;
    }
    Sequence& sequence = sequences[static_cast<std::size_t>(sps.seq_parameter_set_id)];
    sequence.known = true;
    sequence.separateColourPlanes = sps.separate_colour_plane_flag != 0;
    sequence.framesOnly = sps.frame_mbs_only_flag != 0;
    sequence.deltaAlwaysZero = sps.delta_pic_order_always_zero_flag != 0;
    sequence.profile = static_cast<std::uint8_t>(sps.profile_idc);
    sequence.chromaFormat = static_cast<std::uint8_t>(sps.chroma_format_idc);
    sequence.frameNumBitsMinus4 = static_cast<std::uint8_t>(sps.log2_max_frame_num_minus4);
    sequence.orderCountType = static_cast<std::uint8_t>(sps.pic_order_cnt_type);
    sequence.orderCountBitsMinus4 = static_cast<std::uint8_t>(sps.log2_max_pic_order_cnt_lsb_minus4);
}

void SliceHeaderReader::rememberPicture(std::span<const unsigned char> rbsp) {
    BitCursor bits(rbsp);
    bits.ExpGolomb();  // pic_parameter_set_id
    const std::uint64_t sequence = bits.ExpGolomb();
    PPS264struct pps;
    if (sequence >= sequences.size() ||
        !readPictureParameterSet(rbsp, sequences[sequence].chromaFormat, pps, sequences[sequence].profile)) {
        return;
    }
    Picture& picture = pictures[static_cast<std::size_t>(pps.pic_parameter_set_id)];
    picture.known = true;
    picture.bottomFieldOrder = pps.bottom_field_pic_order_in_frame_present_flag != 0;
    picture.redundantPictures = pps.redundant_pic_cnt_present_flag != 0;
    picture.sequence = static_cast<std::uint8_t>(sequence);
}

std::optional<SliceHeader> SliceHeaderReader::Read(NalUnit slice) const {
    const SlicePayload payload(slice);
    BitCursor bits(payload.Bytes());
    SliceHeader header = readBeginning(bits, slice);
    if (bits.Failed()) {
        return std::nullopt;
    }
    if (header.pic_parameter_set_id >= pictures.size()) {
        return header;
    }
    const Picture& picture = pictures[header.pic_parameter_set_id];
    const Sequence& sequence = sequences[picture.sequence];
    if (!picture.known || !sequence.known) {
        return header;
    }
    if (sequence.separateColourPlanes) {
        bits.Bits(2);  // colour_plane_id
    }
    header.frame_num = bits.Bits(sequence.frameNumBitsMinus4 + 4U);
    if (!sequence.framesOnly) {
        header.field_pic_flag = bits.Flag();
        header.bottom_field_flag = header.field_pic_flag && bits.Flag();
    }
    header.idr_pic_id = header.idr ? bits.ExpGolomb() : 0;
    const bool bottomOrder = picture.bottomFieldOrder && !header.field_pic_flag;
    if (sequence.orderCountType == 0) {
        header.pic_order_cnt_lsb = bits.Bits(sequence.orderCountBitsMinus4 + 4U);
        header.delta_pic_order_cnt_bottom = bottomOrder ? bits.ExpGolomb() : 0;
    } else if (sequence.orderCountType == 1 && !sequence.deltaAlwaysZero) {
        header.delta_pic_order_cnt[0] = bits.ExpGolomb();
        header.delta_pic_order_cnt[1] = bottomOrder ? bits.ExpGolomb() : 0;
    }
    header.redundant_pic_cnt = picture.redundantPictures ? bits.ExpGolomb() : 0;
    header.complete = !bits.Failed();
    return header;
}

bool beginsPicture(const SliceHeader& slice, const SliceHeader& previous) {
    if (slice.pic_parameter_set_id != previous.pic_parameter_set_id || slice.idr != previous.idr ||
        (slice.nal_ref_idc == 0) != (previous.nal_ref_idc == 0)) {
        return true;
    }
    if (!slice.complete || !previous.complete) {
        return slice.first_mb_in_slice == 0;
    }
    // What does not apply is 0 in both.
    return slice.frame_num != previous.frame_num || slice.field_pic_flag != previous.field_pic_flag ||
           slice.bottom_field_flag != previous.bottom_field_flag || slice.idr_pic_id != previous.idr_pic_id ||
           slice.pic_order_cnt_lsb != previous.pic_order_cnt_lsb ||
           slice.delta_pic_order_cnt_bottom != previous.delta_pic_order_cnt_bottom ||
           slice.delta_pic_order_cnt[0] != previous.delta_pic_order_cnt[0] ||
           slice.delta_pic_order_cnt[1] != previous.delta_pic_order_cnt[1];
}

}  // namespace Mivra::Codecs::H264
