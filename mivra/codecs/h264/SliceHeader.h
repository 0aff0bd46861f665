#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "mivra/codecs/h264/AnnexB.h"

namespace Mivra::Codecs::H264 {

/// What of slice_header() (ITU-T H.264 7.3.3) tells one coded picture from the next. Signed elements are
/// held as their code numbers.
struct SliceHeader {
    std::uint64_t first_mb_in_slice = 0;
    std::uint64_t slice_type = 0;
    std::uint64_t pic_parameter_set_id = 0;
    int nal_ref_idc = 0;
    bool idr = false;
    /// The parameter sets were known, and what follows is from the stream.
    bool complete = false;
    std::uint32_t frame_num = 0;
    bool field_pic_flag = false;
    bool bottom_field_flag = false;
    std::uint64_t idr_pic_id = 0;
    std::uint32_t pic_order_cnt_lsb = 0;
    std::uint64_t delta_pic_order_cnt_bottom = 0;
    std::uint64_t delta_pic_order_cnt[2] = {};
    std::uint64_t redundant_pic_cnt = 0;
};

/// The elements in front of those that need parameter sets; nothing when the unit ends before them.
std::optional<SliceHeader> readSliceBeginning(NalUnit slice);

/// Reads slice headers, and remembers of the parameter sets in between what that takes.
class SliceHeaderReader {
public:
    /// A unit of type 7 or 8; a malformed one changes nothing.
    void Remember(NalUnit set);
    /// A unit with a slice header, or one with more bytes behind it; nothing when not even the beginning can
    /// be read.
    std::optional<SliceHeader> Read(NalUnit slice) const;

private:
    struct Sequence {
        bool known = false;
        bool separateColourPlanes = false;
        bool framesOnly = false;
        bool deltaAlwaysZero = false;
        std::uint8_t profile = 0;
        std::uint8_t chromaFormat = 0;
        std::uint8_t frameNumBitsMinus4 = 0;
        std::uint8_t orderCountType = 0;
        std::uint8_t orderCountBitsMinus4 = 0;
    };
    struct Picture {
        bool known = false;
        bool bottomFieldOrder = false;
        bool redundantPictures = false;
        std::uint8_t sequence = 0;
    };

    void rememberSequence(std::span<const unsigned char> rbsp);
    void rememberPicture(std::span<const unsigned char> rbsp);

    std::array<Sequence, 32> sequences;
    std::array<Picture, 256> pictures;
};

/// Whether a slice begins another coded picture than the one in front of it belongs to (7.4.1.2.4). Where the
/// parameter sets are not known, a slice with the first macroblock does.
bool beginsPicture(const SliceHeader& slice, const SliceHeader& previous);

}  // namespace Mivra::Codecs::H264
