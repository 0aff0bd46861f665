#pragma once

// The parameter sets of private data, and AVCDecoderConfigurationRecord, the form that they have in files
// with length-prefixed units. Units point into the data that they were found in, or that the caller gave.

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "mivra/codecs/h264/AnnexB.h"

namespace Mivra::Codecs::H264 {

struct ParameterSetUnits {
    std::vector<NalUnit> sps;
    std::vector<NalUnit> spsExtensions;
    std::vector<NalUnit> pps;
};

/// The first sequence and the first picture parameter set; empty for none.
struct FirstParameterSets {
    NalUnit sps;
    NalUnit pps;
};

/// The parameter sets of a byte stream, by their types.
ParameterSetUnits findParameterSets(std::span<const unsigned char> stream);

/// AVCDecoderConfigurationRecord (ISO/IEC 14496-15 5.3.3.1). What kind a unit is of is told by its place.
struct AvcConfigurationRecord {
    static constexpr unsigned char Version = 1;
    static constexpr std::size_t MostSps = 31;
    static constexpr std::size_t MostOthers = 255;
    static constexpr std::size_t LongestUnit = 65535;

    /// The fields of the profiles that have more than 4:2:0 of 8 bits.
    struct SampleFormat {
        int chroma_format = 1;
        int bit_depth_luma_minus8 = 0;
        int bit_depth_chroma_minus8 = 0;
    };

    unsigned char profile = 0;
    unsigned char compatibility = 0;
    unsigned char level = 0;
    /// Bytes of the length in front of the stream's units, 1 to 4.
    int lengthSize = 4;
    ParameterSetUnits sets;
    /// Of a record without it, extensions are none.
    std::optional<SampleFormat> format;

    /// Nothing when the record is cut off or of another version. Empty units are passed over. Older writers
    /// leave the sample format out, or end with other bytes: what cannot be one is not read.
    static std::optional<AvcConfigurationRecord> Read(std::span<const unsigned char> data);
    /// The first set of each kind, of a record that may be cut off: what is behind the cut is none, and so is
    /// a first unit of another type. Takes no memory.
    static FirstParameterSets ReadFirstSets(std::span<const unsigned char> data);
    /// The record of a stream that has these sets. Nothing when there is no sequence parameter set, the first
    /// is not whole as far as the record tells of it, or a record does not hold as many or as long ones.
    static std::optional<AvcConfigurationRecord> Make(ParameterSetUnits sets);

    /// Bytes of the record, less than 36 million.
    std::size_t Size() const;
    void Write(unsigned char* out) const;
};

}  // namespace Mivra::Codecs::H264
