#include "mivra/codecs/h264/AccessUnits.h"

#include <utility>

#include "mivra/codecs/h264/NalUnitHeader.h"
#include "mivra/codecs/h264/Sei.h"

namespace Mivra::Codecs::H264 {

bool AccessUnitBoundaries::beginsNext(const std::optional<SliceHeader>& slice) const {
    return pictureSeen && picture && slice && slice->redundant_pic_cnt == 0 &&
           beginsPicture(*slice, *picture);
}

bool AccessUnitBoundaries::Begins(const PlacedUnit& unit, UnitWalk following) {
    bool begins = std::exchange(first, false);
    const NalUnitTypes type = nalUnitType(unit.rest);
    switch (type) {
        case NalUnitTypes::Slice:
        case NalUnitTypes::SliceDataPartitionA:
        case NalUnitTypes::SliceIdr:
            if (const auto header = slices.Read(unit.rest)) {
                begins = begins || beginsNext(header);
                picture = header->redundant_pic_cnt == 0 ? header : picture;
            }
            pictureSeen = true;
            return begins;
        case NalUnitTypes::PrefixNalUnit:
            if (const auto slice = following.Next(); slice && hasSliceHeader(nalUnitType(slice->rest))) {
                begins = begins || beginsNext(slices.Read(slice->rest));
                pictureSeen = pictureSeen && !begins;
                return begins;
            }
            break;
        case NalUnitTypes::SequenceParameterSet:
        case NalUnitTypes::PictureParameterSet:
            slices.Remember(unit.Whole());
            break;
        case NalUnitTypes::AccessUnitDelimiter:
        case NalUnitTypes::Sei:
        case NalUnitTypes::SubsetSequenceParameterSet:
        case NalUnitTypes::DepthParameterSet:
            break;
        default:
            // 17 and 18 are reserved for units in front of a picture.
            if (type != static_cast<NalUnitTypes>(17) && type != static_cast<NalUnitTypes>(18)) {
                return begins;
            }
    }
    return std::exchange(pictureSeen, false) || begins;
}

std::optional<FrameType> detectFrameType(std::span<const unsigned char> annexB) {
    FrameType frame;
    UnitWalk units(annexB, 0);
    while (const auto unit = units.Next()) {
        const NalUnitTypes type = nalUnitType(unit->rest);
        if (hasSliceHeader(type)) {
            frame.keyFrame = frame.keyFrame || type == NalUnitTypes::SliceIdr;
            frame.reference = referenceIdc(unit->rest) != 0;
            return frame;
        }
        frame.keyFrame = frame.keyFrame || (type == NalUnitTypes::Sei && recoversAtOnce(unit->Whole()));
    }
    return std::nullopt;
}

std::optional<std::size_t> findVideoStart(std::span<const unsigned char> data, std::size_t from,
                                          int lengthSize) {
    UnitWalk units(data, lengthSize);
    AccessUnitBoundaries boundaries;
    std::size_t beginning = 0;
    bool recovers = false;
    bool judged = false;
    while (const auto unit = units.Next()) {
        const NalUnitTypes type = nalUnitType(unit->rest);
        const bool slice = hasSliceHeader(type);
        if (boundaries.Begins(*unit, units)) {
            beginning = unit->offset;
            recovers = false;
            // Data may begin in the middle of a picture.
            const auto header = slice ? readSliceBeginning(unit->rest) : std::nullopt;
            judged = slice && (!header || header->first_mb_in_slice != 0);
        }
        if (judged || beginning < from) {
            continue;
        }
        recovers = recovers || (type == NalUnitTypes::Sei && recoversAtOnce(unit->Whole()));
        judged = slice;
        if (slice && (recovers || type == NalUnitTypes::SliceIdr)) {
            return beginning;
        }
    }
    return std::nullopt;
}

}  // namespace Mivra::Codecs::H264
