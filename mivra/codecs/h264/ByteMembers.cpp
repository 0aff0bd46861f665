// The parser's members on private data, start codes and emulation prevention: from the pointers and sizes of
// callers to those who do the work.

#include <algorithm>
#include <limits>
#include <span>
#include <utility>
#include <vector>

#include "mivra/codecs/h264/AnnexB.h"
#include "mivra/codecs/h264/EmulationPrevention.h"
#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/codecs/h264/PrivateData.h"
#include "mivra/platform/System.h"

namespace Mivra::Codecs::H264 {

using Common::MediaType;

namespace {

using Bytes = std::span<const unsigned char>;
using UnitList = H264ConfigurationParser::UnitList;

/// Empty for what is no memory.
Bytes bytesAt(const unsigned char* data, int size) {
    return data == nullptr || size < 1 ? Bytes() : Bytes(data, static_cast<std::size_t>(size));
}

std::vector<NalUnit> unitsOf(const UnitList& list) {
    std::vector<NalUnit> units;
    units.reserve(list.size());
    for (const auto& [data, size] : list) {
        units.push_back(bytesAt(data, size));
    }
    return units;
}

/// What points into a caller's data is given back as the caller may write through it.
unsigned char* callersPointer(NalUnit unit) {
    return const_cast<unsigned char*>(unit.data());
}

UnitList listOf(const std::vector<NalUnit>& units) {
    UnitList list;
    list.reserve(units.size());
    for (const NalUnit unit : units) {
        list.emplace_back(callersPointer(unit), static_cast<int>(unit.size()));
    }
    return list;
}

NalUnit firstOf(const std::vector<NalUnit>& units) {
    return units.empty() ? NalUnit() : units.front();
}

void give(NalUnit unit, unsigned char*& data, int& size) {
    data = callersPointer(unit);
    size = static_cast<int>(unit.size());
}

unsigned char* allocate(std::size_t size) {
    return static_cast<unsigned char*>(Platform::System().allocate(std::max<std::size_t>(size, 1)));
}

}  // namespace

bool H264ConfigurationParser::ConvertPrivateDataToAnnexB(MediaType& type) {
    return convertPrivateDataToAnnexB(type);
}

bool H264ConfigurationParser::ConvertPrivateDataToAvc(MediaType& type) {
    return convertPrivateDataToAvc(type);
}

bool H264ConfigurationParser::GenerateCodecPrivateData(MediaType& type, unsigned char* data, int size) {
    return makeAvcPrivateData(type, findParameterSets(bytesAt(data, size)), "GenerateCodecPrivateData");
}

bool H264ConfigurationParser::GenerateCodecPrivateData(MediaType& type, unsigned char* sps, int spsSize,
                                                       unsigned char* pps, int ppsSize) {
    const UnitList ppsList = ppsSize == 0 ? UnitList() : UnitList{{pps, ppsSize}};
    return GenerateCodecPrivateData(type, UnitList{{sps, spsSize}}, ppsList);
}

bool H264ConfigurationParser::GenerateCodecPrivateData(MediaType& type, const UnitList& spsList,
                                                       const UnitList& ppsList) {
    return makeAvcPrivateData(type, {unitsOf(spsList), {}, unitsOf(ppsList)}, "GenerateCodecPrivateData");
}

bool H264ConfigurationParser::GenerateAnnexBCodecPrivateData(MediaType& type, const UnitList& spsList,
                                                             const UnitList& ppsList) {
    return makeAnnexBPrivateData(type, {unitsOf(spsList), {}, unitsOf(ppsList)},
                                 "GenerateAnnexBCodecPrivateData");
}

bool H264ConfigurationParser::FindSpsPpsInInitString(unsigned char* data, int size, unsigned char*& sps,
                                                     int& spsSize, unsigned char*& pps, int& ppsSize) {
    if (size > 0 && data != nullptr && data[0] != AvcConfigurationRecord::Version) {
        return findSpsPps(data, size, sps, spsSize, pps, ppsSize);
    }
    const ParameterSetUnits sets = parameterSetsOf(bytesAt(data, size)).value_or(ParameterSetUnits());
    give(firstOf(sets.sps), sps, spsSize);
    give(firstOf(sets.pps), pps, ppsSize);
    return spsSize > 0;
}

bool H264ConfigurationParser::FindSpsPpsInInitString(unsigned char* data, int size, UnitList& spsList,
                                                     UnitList& ppsList) {
    const ParameterSetUnits sets = parameterSetsOf(bytesAt(data, size)).value_or(ParameterSetUnits());
    UnitList spsFound = listOf(sets.sps);
    ppsList = listOf(sets.pps);
    spsList = std::move(spsFound);
    return !spsList.empty();
}

// Of a byte stream, without a look at what follows the two sets.
bool H264ConfigurationParser::findSpsPps(unsigned char* data, int size, unsigned char*& sps, int& spsSize,
                                         unsigned char*& pps, int& ppsSize) {
    give(findNalUnit(bytesAt(data, size), NalUnitTypes::SequenceParameterSet), sps, spsSize);
    give(findNalUnit(bytesAt(data, size), NalUnitTypes::PictureParameterSet), pps, ppsSize);
    return spsSize > 0;
}

int H264ConfigurationParser::FindNalUnit(unsigned char* data, int size, NalUnitTypes type) {
    const NalUnit unit = findNalUnit(bytesAt(data, size), type);
    return unit.empty() ? -1 : static_cast<int>(unit.data() - data);
}

int H264ConfigurationParser::FindNextStartCode(unsigned char* data, int size, int& codeLength) {
    const auto code = findStartCode(bytesAt(data, size));
    codeLength = code ? static_cast<int>(code->length) : 0;
    return code ? static_cast<int>(code->offset) : -1;
}

bool H264ConfigurationParser::RemoveForbiddenSequenceEmulation(const unsigned char* in, int size,
                                                               unsigned char*& out, int& outSize) {
    outSize = 0;
    out = in == nullptr || size < 0 ? nullptr : allocate(static_cast<std::size_t>(size));
    if (out == nullptr) {
        return false;
    }
    outSize = static_cast<int>(removeEmulationPrevention(bytesAt(in, size), out));
    return true;
}

bool H264ConfigurationParser::ApplyForbiddenSequenceEmulation(const unsigned char* in, int size,
                                                              unsigned char*& out, int& outSize) {
    outSize = 0;
    const Bytes payload = bytesAt(in, size);
    const std::size_t needed = emulationPreventedSize(payload);
    const bool takes = in != nullptr && size >= 0 && needed <= std::numeric_limits<int>::max();
    out = takes ? allocate(needed) : nullptr;
    if (out == nullptr) {
        return false;
    }
    outSize = static_cast<int>(applyEmulationPrevention(payload, out));
    return true;
}

}  // namespace Mivra::Codecs::H264
