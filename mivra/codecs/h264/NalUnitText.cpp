#include "mivra/codecs/h264/NalUnitText.h"

#include <cstddef>
#include <iterator>

#include "mivra/codecs/h264/NalUnitHeader.h"
#include "mivra/codecs/h264/SliceHeader.h"
#include "mivra/codecs/h264/UnitWalk.h"

namespace Mivra::Codecs::H264 {

namespace {

/// By nal_unit_type (Table 7-1); null for what is reserved or unspecified.
constexpr const char* TypeNames[32] = {
    nullptr,
    "Slice",
    "SliceDataPartitionA",
    "SliceDataPartitionB",
    "SliceDataPartitionC",
    "SliceIdr",
    "Sei",
    "SequenceParameterSet",
    "PictureParameterSet",
    "AccessUnitDelimiter",
    "EndOfSequence",
    "EndOfStream",
    "FillerData",
    "SequenceParameterSetExtension",
    "PrefixNalUnit",
    "SubsetSequenceParameterSet",
    "DepthParameterSet",
    nullptr,
    nullptr,
    "AuxiliarySlice",
    "SliceExtension",
    "SliceExtensionDepth",
};

/// By slice_type (Table 7-6); from 5 on the same, of all slices of the picture.
constexpr const char* SliceNames[] = {"P", "B", "I", "SP", "SI"};

void appendUnit(std::string& text, std::size_t offset, NalUnit unit) {
    const auto type = nalUnitType(unit);
    const auto number = static_cast<std::size_t>(type);
    text += std::to_string(offset) + ": ";
    text += TypeNames[number] != nullptr ? TypeNames[number] : "Type " + std::to_string(number);
    text += ", " + std::to_string(unit.size()) + " bytes, ref " + std::to_string(referenceIdc(unit));
    const auto slice = hasSliceHeader(type) ? readSliceBeginning(unit) : std::nullopt;
    if (slice && slice->slice_type < 2 * std::size(SliceNames)) {
        text += std::string(", ") + SliceNames[slice->slice_type % std::size(SliceNames)];
    }
    text += '\n';
}

}  // namespace

std::string describeUnits(std::span<const unsigned char> data, int lengthSize) {
    std::string text;
    UnitWalk units(data, lengthSize);
    while (const auto unit = units.Next()) {
        const NalUnit whole = unit->Whole();
        appendUnit(text, static_cast<std::size_t>(whole.data() - data.data()), whole);
    }
    if (units.Malformed()) {
        text += std::to_string(units.Position()) + ": malformed length\n";
    }
    return text;
}

}  // namespace Mivra::Codecs::H264
