#pragma once

#include <cstddef>
#include <span>

#include "mivra/codecs/h264/ParameterSets.h"

namespace Mivra::Codecs::H264 {

// Parameter sets from and to payloads: without header byte and emulation prevention, with trailing bits.

/// Makes a default record of one that these functions filled: the large arrays, which few sets use, are
/// touched only where the set says that it does.
void clear(SPS264struct& sps);
void clear(PPS264struct& pps);

/// False when the payload is malformed; the set is then a default one. Zero bytes behind the trailing bits do
/// no harm, other bytes make it malformed.
bool readSequenceParameterSet(std::span<const unsigned char> rbsp, SPS264struct& sps);
/// The chroma_format_idc of the sequence parameter set decides on the number of scaling lists. profile_idc is
/// that of the sequence parameter set that this one names, 0 when it is not known: in the profiles 66, 77 and
/// 88, which have no use for what may stand behind redundant_pic_cnt_present_flag, bits there that cannot be
/// read are taken for stray ones of the encoder, and passed over as decoders do (more_rbsp_data is then 0).
bool readPictureParameterSet(std::span<const unsigned char> rbsp, int chroma_format_idc, PPS264struct& pps,
                             int profile_idc = 0);

/// Room for any sequence parameter set: 255 offsets, two HRDs of 32 schedules and 12 scaling lists with the
/// longest codes come to 5 KiB.
constexpr std::size_t MaxSpsSize = 8192;

/// The bytes written; GeneralException when they do not fit.
std::size_t writeSequenceParameterSet(const SPS264struct& sps, std::span<unsigned char> rbsp);
std::size_t writePictureParameterSet(const PPS264struct& pps, int chroma_format_idc,
                                     std::span<unsigned char> rbsp);

}  // namespace Mivra::Codecs::H264
