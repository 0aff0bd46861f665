#pragma once

#include "mivra/codecs/h264/AnnexB.h"
#include "mivra/codecs/h264/NalUnitTypes.h"

namespace Mivra::Codecs::H264 {

// What the header byte of a unit tells beyond its type (ITU-T H.264 7.3.1).

inline int referenceIdc(NalUnit unit) {
    return unit.front() >> 5 & 3;
}

/// A slice, or the partition of one that carries its header: what a coded picture begins with.
inline bool hasSliceHeader(NalUnitTypes type) {
    return type == NalUnitTypes::Slice || type == NalUnitTypes::SliceIdr ||
           type == NalUnitTypes::SliceDataPartitionA;
}

/// The two sets that every stream has.
inline bool isParameterSet(NalUnitTypes type) {
    return type == NalUnitTypes::SequenceParameterSet || type == NalUnitTypes::PictureParameterSet;
}

}  // namespace Mivra::Codecs::H264
