#include "mivra/codecs/h264/PacketConversion.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

#include "mivra/codecs/h264/ByteKernels.h"
#include "mivra/codecs/h264/NalUnitHeader.h"
#include "mivra/codecs/h264/SliceHeader.h"
#include "mivra/codecs/h264/UnitWalk.h"
#include "mivra/codecs/h264/UnitWriter.h"
#include "mivra/common/binary/ByteSwap.h"

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
    void Before(const PlacedUnit& placed) {
        const NalUnit unit = placed.rest;
        const NalUnitTypes type = nalUnitType(unit);
        if (isParameterSet(type)) {
            headers().Remember(placed.Whole());
        }
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

    /// A first macroblock also stands in redundant slices, and behind others where their order is free.
    bool beginsNext(NalUnit slice) {
        if (!isFirstSlice(slice)) {
            return false;
        }
        const auto header = headers().Read(slice);
        const auto previous = headers().Read(picture);
        return !header || !previous || (header->redundant_pic_cnt == 0 && beginsPicture(*header, *previous));
    }

    void beforeIdr(NalUnit slice) {
        if (!pictureBegins && !beginsNext(slice)) {
            return;
        }
        if (!sequenceSeen && !pictureSeen) {
            write(NalUnitTypes::Unspecified);
        } else if (!pictureSeen) {
            write(NalUnitTypes::PictureParameterSet);
        }
        picture = slice;
        pictureBegins = sequenceSeen = pictureSeen = false;
    }

    /// Few packets need them: sets are read when the first one does.
    SliceHeaderReader& headers() {
        if (!reader) {
            reader.emplace();
            AnnexBUnits units(sets);
            while (const auto unit = units.Next()) {
                if (isParameterSet(nalUnitType(*unit))) {
                    reader->Remember(*unit);
                }
            }
        }
        return *reader;
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
    std::optional<SliceHeaderReader> reader;
    /// The slice that the current IDR picture began with.
    NalUnit picture;
    bool pictureBegins = true;
    bool sequenceSeen = false;
    bool pictureSeen = false;
};

/// Where prefixes are as long as start codes: copies everything at once, and then puts the codes in place.
/// False when a unit is empty, something is wrong or there is too little room; nothing is taken then.
bool copyAndRecode(std::span<const unsigned char> in, UnitWriter& writer) {
    const std::span<unsigned char> copy = writer.RoomBehind(0);
    if (in.empty() || copy.size() < in.size()) {
        return false;
    }
    std::memcpy(copy.data(), in.data(), in.size());
    for (std::size_t position = 0; position < in.size();) {
        if (in.size() - position < LongCode) {
            return false;
        }
        unsigned char* const prefix = copy.data() + position;
        const std::size_t size = Common::LoadBig<std::uint32_t>(prefix);
        position += LongCode;
        if (size == 0 || size > in.size() - position) {
            return false;
        }
        Common::StoreBig<std::uint32_t>(1, prefix);
        position += size;
    }
    writer.TakeWritten(in.size());
    return true;
}

struct CopiedUnit {
    std::size_t size;
    /// Offset of the next unit, the size of the data when there is none.
    std::size_t next;
};

/// Copies the unit that the data begins with as far as there is room, in one look at the bytes; without
/// trailing zeros it ends at the next start code.
CopiedUnit copyUnit(std::span<const unsigned char> data, std::span<unsigned char> room) {
    constexpr std::size_t PrefixSize = 3;
    const unsigned char* const begin = data.data();
    const unsigned char* const end = begin + data.size();
    const unsigned char* const limit = begin + std::min(data.size(), room.size());
    const unsigned char* prefix = byteKernels().copyToPrefix(begin, limit, room.data());
    if (prefix == limit && limit != end) {
        const std::ptrdiff_t across = std::min<std::ptrdiff_t>(limit - begin, PrefixSize - 1);
        prefix = byteKernels().findPrefix(limit - across, end);
    }
    auto size = static_cast<std::size_t>(prefix - begin);
    const std::size_t next = prefix == end ? data.size() : size + PrefixSize;
    while (size > 0 && begin[size - 1] == 0) {
        --size;
    }
    return {size, next};
}

}  // namespace

Conversion convertToAnnexB(std::span<const unsigned char> in, int lengthSize, Common::PacketBuffer& out) {
    UnitWriter writer(out);
    if (lengthSize == LongCode && copyAndRecode(in, writer)) {
        return finish(writer, false);
    }
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
        missing.Before(*unit);
        const bool longCode = writer.Empty() || isParameterSet(nalUnitType(unit->rest));
        writer.StartCoded(unit->rest, longCode ? LongCode : ShortCode);
    }
    return finish(writer, units.Malformed());
}

Conversion convertToAvc(std::span<const unsigned char> in, int lengthSize, bool dropParameterSets,
                        Common::PacketBuffer& out) {
    if (!beginsWithStartCode(in)) {
        return Conversion::Malformed;
    }
    const auto prefix = static_cast<std::size_t>(lengthSize);
    UnitWriter writer(out);
    const auto first = findStartCode(in);
    std::span<const unsigned char> rest = first ? in.subspan(first->offset + first->length) : in;
    while (!rest.empty() && !writer.Full()) {
        const auto [size, next] = copyUnit(rest, writer.RoomBehind(prefix));
        const bool dropped = size == 0 || (dropParameterSets && isParameterSet(nalUnitType(rest)));
        if (!dropped && std::uint64_t{size} >> lengthSize * 8 != 0) {
            return Conversion::Malformed;
        }
        if (!dropped) {
            writer.PrefixWritten(size, prefix);
        }
        rest = rest.subspan(next);
    }
    return finish(writer, false);
}

}  // namespace Mivra::Codecs::H264
