#include "mivra/codecs/h264/BitstreamRefinement.h"

#include <algorithm>
#include <array>
#include <optional>

#include "mivra/codecs/h264/AccessUnits.h"
#include "mivra/codecs/h264/BitCursor.h"
#include "mivra/codecs/h264/NalUnitHeader.h"
#include "mivra/codecs/h264/Sei.h"
#include "mivra/codecs/h264/UnitWalk.h"
#include "mivra/codecs/h264/UnitWriter.h"

namespace Mivra::Codecs::H264 {

namespace {

constexpr std::size_t CodeLength = 4;

/// What stands in front of the first slice of an access unit, looked at before anything of it is written.
struct Outlook {
    bool keyFrame = false;
    bool sequenceSets = false;
    bool pictureSets = false;
    std::optional<NalUnit> delimiter;
};

Outlook lookAhead(PlacedUnit unit, UnitWalk following) {
    Outlook outlook;
    std::optional<PlacedUnit> next = unit;
    for (; next && !hasSliceHeader(nalUnitType(next->rest)); next = following.Next()) {
        const NalUnitTypes type = nalUnitType(next->rest);
        outlook.sequenceSets = outlook.sequenceSets || type == NalUnitTypes::SequenceParameterSet;
        outlook.pictureSets = outlook.pictureSets || type == NalUnitTypes::PictureParameterSet;
        if (type == NalUnitTypes::Sei) {
            outlook.keyFrame = outlook.keyFrame || recoversAtOnce(next->Whole());
        }
        if (type == NalUnitTypes::AccessUnitDelimiter && !outlook.delimiter) {
            outlook.delimiter = next->Whole();
        }
    }
    outlook.keyFrame = next && (outlook.keyFrame || nalUnitType(next->rest) == NalUnitTypes::SliceIdr);
    return outlook;
}

/// The parameter sets that an access unit has so far, by kind and id.
class KnownSets {
public:
    /// Takes a unit of type 7 or 8; false when it says again what the last one of its id said. What has no
    /// readable id is new.
    bool IsNew(NalUnit set) {
        const bool sequence = nalUnitType(set) == NalUnitTypes::SequenceParameterSet;
        const std::size_t front = sequence ? 1 + 3 : 1;  // header byte, and profile_idc to level_idc
        if (set.size() <= front) {
            return true;
        }
        // The id is at most 8 bits behind 8 zeros: no emulation prevention is that near.
        BitCursor bits(set.subspan(front));
        const std::uint64_t id = bits.ExpGolomb();
        if (bits.Failed() || id >= (sequence ? sequences.size() : pictures.size())) {
            return true;
        }
        NalUnit& last = sequence ? sequences[id] : pictures[id];
        const bool same =
            std::equal(last.begin() + (last.empty() ? 0 : 1), last.end(), set.begin() + 1, set.end());
        last = set;
        if (sequence && !same) {
            pictures = {};  // what they say may depend on it
        }
        return !same;
    }

private:
    std::array<NalUnit, 32> sequences;
    std::array<NalUnit, 256> pictures;
};

/// Writes one access unit after the other.
class Refinement {
public:
    Refinement(std::span<const unsigned char> sets_, UnitWriter& writer_) : sets(sets_), writer(writer_) {}

    void Begin(const Outlook& outlook) {
        known = {};
        if (outlook.delimiter) {
            writer.StartCoded(*outlook.delimiter, CodeLength);
        }
        if (outlook.keyFrame && !outlook.sequenceSets) {
            addSets(NalUnitTypes::SequenceParameterSet);
        }
        lacksPictureSets = outlook.keyFrame && !outlook.pictureSets;
    }

    void Take(NalUnit unit) {
        const NalUnitTypes type = nalUnitType(unit);
        if (type == NalUnitTypes::AccessUnitDelimiter || type == NalUnitTypes::FillerData) {
            return;
        }
        if (lacksPictureSets && type != NalUnitTypes::SequenceParameterSet &&
            type != NalUnitTypes::SequenceParameterSetExtension) {
            lacksPictureSets = false;
            addSets(NalUnitTypes::PictureParameterSet);
        }
        write(unit);
    }

private:
    void write(NalUnit unit) {
        if (!isParameterSet(nalUnitType(unit)) || known.IsNew(unit)) {
            writer.StartCoded(unit, CodeLength);
        }
    }

    /// A sequence parameter set has its extension behind it.
    void addSets(NalUnitTypes kind) {
        AnnexBUnits units(sets);
        while (const auto unit = units.Next()) {
            const NalUnitTypes type = nalUnitType(*unit);
            if (type == kind || (kind == NalUnitTypes::SequenceParameterSet &&
                                 type == NalUnitTypes::SequenceParameterSetExtension)) {
                write(*unit);
            }
        }
    }

    std::span<const unsigned char> sets;
    UnitWriter& writer;
    KnownSets known;
    bool lacksPictureSets = false;
};

}  // namespace

Conversion refineAnnexB(std::span<const unsigned char> in, std::span<const unsigned char> sets,
                        Common::PacketBuffer& out) {
    if (!beginsWithStartCode(in) || !beginsWithStartCode(sets)) {
        return Conversion::Malformed;
    }
    UnitWriter writer(out);
    Refinement refinement(sets, writer);
    AccessUnitBoundaries boundaries;
    UnitWalk units(in, 0);
    while (const auto unit = units.Next()) {
        if (boundaries.Begins(*unit, units)) {
            refinement.Begin(lookAhead(*unit, units));
        }
        refinement.Take(unit->Whole());
    }
    if (writer.Full()) {
        return Conversion::TooLittleRoom;
    }
    writer.Commit();
    return Conversion::Done;
}

}  // namespace Mivra::Codecs::H264
