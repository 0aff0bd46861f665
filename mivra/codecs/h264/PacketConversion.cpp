#include "mivra/codecs/h264/PacketConversion.h"

#include <cstdint>

#include "mivra/codecs/h264/NalUnitHeader.h"
#include "mivra/codecs/h264/UnitWalk.h"
#include "mivra/codecs/h264/UnitWriter.h"

namespace Mivra::Codecs::H264 {

namespace {

constexpr std::size_t LongCode = 4;
constexpr std::size_t ShortCode = 3;

/// What was written becomes valid, unless it is not all or what was read is not right.
Conversion finish(UnitWriter& writer, bool malformed) {
    if (malformed || writer.Full()) {
        return malformed ? Conversion::Malformed : Conversion::TooLittleRoom;
    }
    writer.Commit();
    return Conversion::Done;
}

/// Decides where an access unit on its way to Annex B lacks parameter sets.
class MissingSets {
public:
    MissingSets(std::span<const unsigned char> sets_, UnitWriter& writer_) : sets(sets_), writer(writer_) {}

    /// Writes what has to stand in front of the unit.
    void Before(NalUnit unit) {
        const NalUnitTypes type = nalUnitType(unit);
        if (type == NalUnitTypes::SequenceParameterSet) {
            sequenceSeen = pictureBegins = true;
        } else if (type == NalUnitTypes::PictureParameterSet) {
            if (!sequenceSeen) {
                write(NalUnitTypes::SequenceParameterSet);
            }
            sequenceSeen = pictureSeen = pictureBegins = true;
        } else if (type == NalUnitTypes::SliceIdr) {
            beforeIdr(unit);
        } else if (type == NalUnitTypes::Slice) {
            pictureBegins = true;
            sequenceSeen = pictureSeen = false;
        }
    }

private:
    /// first_mb_in_slice 0 is one bit, a 1 behind the header byte.
    static bool isFirstSlice(NalUnit slice) { return slice.size() > 1 && (slice[1] & 0x80) != 0; }

    void beforeIdr(NalUnit slice) {
        if (!pictureBegins && !isFirstSlice(slice)) {
            return;
        }
        pictureBegins = sequenceSeen || pictureSeen;
        if (!pictureBegins) {
            write(NalUnitTypes::Unspecified);
        } else if (!pictureSeen) {
            write(NalUnitTypes::PictureParameterSet);
        }
    }

    /// All sets, or those of one kind.
    void write(NalUnitTypes kind) {
        AnnexBUnits units(sets);
        while (const auto unit = units.Next()) {
            if (kind == NalUnitTypes::Unspecified || nalUnitType(*unit) == kind) {
                writer.StartCoded(*unit, LongCode);
            }
        }
    }

    std::span<const unsigned char> sets;
    UnitWriter& writer;
    bool pictureBegins = true;
    bool sequenceSeen = false;
    bool pictureSeen = false;
};

}  // namespace

Conversion convertToAnnexB(std::span<const unsigned char> in, int lengthSize, Common::PacketBuffer& out) {
    UnitWriter writer(out);
    UnitWalk units(in, lengthSize);
    while (const auto unit = units.Next()) {
        writer.StartCoded(unit->rest, LongCode);
    }
    return finish(writer, units.Malformed());
}

Conversion convertToAnnexB(std::span<const unsigned char> in, int lengthSize,
                           std::span<const unsigned char> sets, Common::PacketBuffer& out) {
    if (!beginsWithStartCode(sets)) {
        return Conversion::Malformed;
    }
    UnitWriter writer(out);
    MissingSets missing(sets, writer);
    UnitWalk units(in, lengthSize);
    while (const auto unit = units.Next()) {
        missing.Before(unit->rest);
        const bool longCode = writer.Empty() || isParameterSet(nalUnitType(unit->rest));
        writer.StartCoded(unit->rest, longCode ? LongCode : ShortCode);
    }
    return finish(writer, units.Malformed());
}

Conversion convertToAvc(std::span<const unsigned char> in, int lengthSize, bool dropParameterSets,
                        Common::PacketBuffer& out) {
    bool malformed = !beginsWithStartCode(in);
    UnitWriter writer(out);
    AnnexBUnits units(in);
    while (const auto unit = malformed ? std::nullopt : units.Next()) {
        malformed = std::uint64_t{unit->size()} >> lengthSize * 8 != 0;
        if (!dropParameterSets || !isParameterSet(nalUnitType(*unit))) {
            writer.Prefixed(*unit, lengthSize);
        }
    }
    return finish(writer, malformed);
}

}  // namespace Mivra::Codecs::H264
