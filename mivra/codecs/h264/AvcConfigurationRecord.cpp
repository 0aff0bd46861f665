#include "mivra/codecs/h264/AvcConfigurationRecord.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "mivra/codecs/h264/BitCursor.h"
#include "mivra/codecs/h264/EmulationPrevention.h"
#include "mivra/codecs/h264/SequenceParameterSetSyntax.h"

namespace Mivra::Codecs::H264 {

namespace {

using Bytes = std::span<const unsigned char>;
using Units = std::vector<NalUnit>;

// The reserved bits of the record, all set, above the fields that share their bytes.
constexpr unsigned char AboveLengthSize = 0xFC;
constexpr unsigned char AboveSpsCount = 0xE0;
constexpr unsigned char AboveChromaFormat = 0xFC;
constexpr unsigned char AboveBitDepth = 0xF8;

constexpr unsigned char SpsCountBits = 0x1F;
constexpr unsigned char CountBits = 0xFF;

constexpr std::size_t HeaderSize = 5;  // version, profile, compatibility, level, length size
constexpr std::size_t LengthSize = 2;  // of a unit in the record
constexpr std::size_t FormatSize = 3;

/// Header byte, profile_idc, constraints, level_idc.
constexpr std::size_t SpsBeginning = 4;

/// 5.3.3.1.2: the profiles whose records end with the picture sets.
bool endsWithPictureSets(int profile) {
    return profile == 66 || profile == 77 || profile == 88;
}

/// Takes a unit off behind its length. Nothing when it is cut off.
std::optional<NalUnit> takeUnit(Bytes& rest) {
    if (rest.size() < LengthSize) {
        return std::nullopt;
    }
    const std::size_t size = static_cast<std::size_t>(rest[0]) << 8 | rest[1];
    if (size > rest.size() - LengthSize) {
        return std::nullopt;
    }
    const NalUnit unit = rest.subspan(LengthSize, size);
    rest = rest.subspan(LengthSize + size);
    return unit;
}

/// Takes a count and as many units off, and gives each to body. False when the data end too early; then
/// nothing is left.
template <typename Body>
bool forEachCountedUnit(Bytes& rest, unsigned char countBits, Body body) {
    if (rest.empty()) {
        return false;
    }
    std::size_t count = rest[0] & countBits;
    for (rest = rest.subspan(1); count > 0; --count) {
        const auto unit = takeUnit(rest);
        if (!unit) {
            rest = {};
            return false;
        }
        body(*unit);
    }
    return true;
}

bool takeCountedUnits(Bytes& rest, unsigned char countBits, Units& units) {
    return forEachCountedUnit(rest, countBits, [&units](NalUnit unit) {
        if (!unit.empty()) {
            units.push_back(unit);
        }
    });
}

/// The first of the units, if it is of the type.
NalUnit takeFirstUnit(Bytes& rest, unsigned char countBits, NalUnitTypes type) {
    NalUnit first;
    forEachCountedUnit(rest, countBits, [&first, type, number = 0](NalUnit unit) mutable {
        if (number++ == 0 && !unit.empty() && nalUnitType(unit) == type) {
            first = unit;
        }
    });
    return first;
}

std::optional<AvcConfigurationRecord::SampleFormat> takeSampleFormat(Bytes& rest) {
    const bool there = rest.size() > FormatSize && (rest[0] & AboveChromaFormat) == AboveChromaFormat &&
                       (rest[1] & rest[2] & AboveBitDepth) == AboveBitDepth;
    if (!there) {
        return std::nullopt;
    }
    const AvcConfigurationRecord::SampleFormat format{rest[0] & ~AboveChromaFormat, rest[1] & ~AboveBitDepth,
                                                      rest[2] & ~AboveBitDepth};
    rest = rest.subspan(FormatSize);
    return format;
}

/// From the first elements of a set (7.3.2.1.1). Nothing when it is malformed.
std::optional<AvcConfigurationRecord::SampleFormat> sampleFormatOf(NalUnit sps) {
    AvcConfigurationRecord::SampleFormat format;
    if (!carriesChromaFormat(sps[1])) {
        return format;
    }
    constexpr std::size_t Enough =
        16;  // the elements end within the eighth byte, without emulation prevention
    unsigned char rbsp[Enough];
    const Bytes head = sps.first(std::min(Enough, sps.size()));
    BitCursor bits(Bytes(rbsp, removeEmulationPrevention(head, rbsp)).subspan(SpsBeginning));
    const std::uint64_t id = bits.ExpGolomb();  // seq_parameter_set_id
    const std::uint64_t chroma = bits.ExpGolomb();
    if (chroma == 3) {
        bits.Flag();  // separate_colour_plane_flag
    }
    const std::uint64_t luma = bits.ExpGolomb();
    const std::uint64_t chromaDepth = bits.ExpGolomb();
    if (bits.Failed() || id > 31 || chroma > 3 || luma > 6 || chromaDepth > 6) {
        return std::nullopt;
    }
    return AvcConfigurationRecord::SampleFormat{static_cast<int>(chroma), static_cast<int>(luma),
                                                static_cast<int>(chromaDepth)};
}

bool fit(const Units& units, std::size_t most) {
    return units.size() <= most && std::all_of(units.begin(), units.end(), [](NalUnit unit) {
               return !unit.empty() && unit.size() <= AvcConfigurationRecord::LongestUnit;
           });
}

bool isWholeSps(NalUnit unit) {
    return unit.size() >= SpsBeginning && nalUnitType(unit) == NalUnitTypes::SequenceParameterSet;
}

std::size_t sizeOf(const Units& units) {
    std::size_t size = 1;
    for (const NalUnit unit : units) {
        size += LengthSize + unit.size();
    }
    return size;
}

unsigned char* writeUnits(const Units& units, unsigned char aboveCount, unsigned char* out) {
    *out++ = static_cast<unsigned char>(aboveCount | units.size());
    for (const NalUnit unit : units) {
        *out++ = static_cast<unsigned char>(unit.size() >> 8);
        *out++ = static_cast<unsigned char>(unit.size());
        out = std::copy(unit.begin(), unit.end(), out);
    }
    return out;
}

}  // namespace

ParameterSetUnits findParameterSets(Bytes stream) {
    ParameterSetUnits sets;
    AnnexBUnits units(stream);
    for (auto unit = units.Next(); unit; unit = units.Next()) {
        switch (nalUnitType(*unit)) {
            case NalUnitTypes::SequenceParameterSet:
                sets.sps.push_back(*unit);
                break;
            case NalUnitTypes::SequenceParameterSetExtension:
                sets.spsExtensions.push_back(*unit);
                break;
            case NalUnitTypes::PictureParameterSet:
                sets.pps.push_back(*unit);
                break;
            default:
                break;
        }
    }
    return sets;
}

std::optional<AvcConfigurationRecord> AvcConfigurationRecord::Read(Bytes data) {
    if (data.size() < HeaderSize || data[0] != Version) {
        return std::nullopt;
    }
    AvcConfigurationRecord record;
    record.profile = data[1];
    record.compatibility = data[2];
    record.level = data[3];
    record.lengthSize = (data[4] & ~AboveLengthSize & 0xFF) + 1;
    Bytes rest = data.subspan(HeaderSize);
    if (!takeCountedUnits(rest, SpsCountBits, record.sets.sps) ||
        !takeCountedUnits(rest, CountBits, record.sets.pps)) {
        return std::nullopt;
    }
    if (!endsWithPictureSets(record.profile)) {
        record.format = takeSampleFormat(rest);
        if (record.format && !takeCountedUnits(rest, CountBits, record.sets.spsExtensions)) {
            return std::nullopt;
        }
    }
    return record;
}

FirstParameterSets AvcConfigurationRecord::ReadFirstSets(Bytes data) {
    Bytes rest = data.subspan(std::min(HeaderSize, data.size()));
    const NalUnit sps = takeFirstUnit(rest, SpsCountBits, NalUnitTypes::SequenceParameterSet);
    return {sps, takeFirstUnit(rest, CountBits, NalUnitTypes::PictureParameterSet)};
}

std::optional<AvcConfigurationRecord> AvcConfigurationRecord::Make(ParameterSetUnits sets) {
    if (sets.sps.empty() || !fit(sets.sps, MostSps) || !fit(sets.spsExtensions, MostOthers) ||
        !fit(sets.pps, MostOthers) || !std::all_of(sets.sps.begin(), sets.sps.end(), isWholeSps)) {
        return std::nullopt;
    }
    AvcConfigurationRecord record;
    const NalUnit first = sets.sps.front();
    record.profile = first[1];
    record.compatibility = first[2];
    // What all sets keep to, and the highest level of any.
    for (const NalUnit sps : sets.sps) {
        record.compatibility &= sps[2];
        record.level = std::max(record.level, sps[3]);
    }
    if (!endsWithPictureSets(record.profile)) {
        record.format = sampleFormatOf(first);
        if (!record.format) {
            return std::nullopt;
        }
    }
    record.sets = std::move(sets);
    return record;
}

std::size_t AvcConfigurationRecord::Size() const {
    return HeaderSize + sizeOf(sets.sps) + sizeOf(sets.pps) +
           (format ? FormatSize + sizeOf(sets.spsExtensions) : 0);
}

void AvcConfigurationRecord::Write(unsigned char* out) const {
    *out++ = Version;
    *out++ = profile;
    *out++ = compatibility;
    *out++ = level;
    *out++ = static_cast<unsigned char>(AboveLengthSize | (lengthSize - 1));
    out = writeUnits(sets.sps, AboveSpsCount, out);
    out = writeUnits(sets.pps, 0, out);
    if (format) {
        *out++ = static_cast<unsigned char>(AboveChromaFormat | format->chroma_format);
        *out++ = static_cast<unsigned char>(AboveBitDepth | format->bit_depth_luma_minus8);
        *out++ = static_cast<unsigned char>(AboveBitDepth | format->bit_depth_chroma_minus8);
        writeUnits(sets.spsExtensions, 0, out);
    }
}

}  // namespace Mivra::Codecs::H264
