#pragma once

namespace Mivra::Codecs::H264 {

/// nal_unit_type (ITU-T H.264 Table 7-1). Types that are not named are reserved or unspecified.
enum class NalUnitTypes : int {
    Unspecified = 0,
    Slice = 1,
    SliceDataPartitionA = 2,
    SliceDataPartitionB = 3,
    SliceDataPartitionC = 4,
    SliceIdr = 5,
    Sei = 6,
    SequenceParameterSet = 7,
    PictureParameterSet = 8,
    AccessUnitDelimiter = 9,
    EndOfSequence = 10,
    EndOfStream = 11,
    FillerData = 12,
    SequenceParameterSetExtension = 13,
    PrefixNalUnit = 14,
    SubsetSequenceParameterSet = 15,
    DepthParameterSet = 16,
    AuxiliarySlice = 19,
    SliceExtension = 20,
    SliceExtensionDepth = 21,
};

}  // namespace Mivra::Codecs::H264
