// Packets of H.264 in both carriages: conversion both ways, refinement, frame types, video start, text.
// The first byte picks the length size (0: Annex B), whether parameter sets are left out, and where to look
// from.

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/OperationSource.h"
#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/codecs/h264/UnitWalk.h"
#include "mivra/common/runtime/Reference.h"

namespace {

using namespace Mivra::Codecs::H264;
using Mivra::Common::PacketBuffer;
using Mivra::Common::Reference;
using Parser = H264ConfigurationParser;
using Bytes = std::vector<unsigned char>;

const unsigned char Sets[] = {0, 0, 0, 1, 0x67, 0x42, 0, 10, 0xDA, 0x79, 0, 0, 0, 1, 0x68, 0xCE, 0x38, 0x80};
constexpr int SetsSize = sizeof Sets;

int sizeOf(const Bytes& bytes) {
    return static_cast<int>(bytes.size());
}

Reference<PacketBuffer> over(Bytes& bytes) {
    return Reference<PacketBuffer>::Adopt(
        new PacketBuffer(reinterpret_cast<char*>(bytes.data()), sizeOf(bytes)));
}

/// What a conversion into a packet with so much room writes; nothing when it fails, and then nothing changed.
template <typename Convert>
std::optional<Bytes> converted(std::size_t room, Convert convert) {
    Bytes memory(room + 1, 0xEE);  // what was there before is no zero
    const auto out = over(memory);
    out->ActualSize() = 1;
    if (!convert(out.get())) {
        Require(out->ActualSize() == 1);
        return std::nullopt;
    }
    return Bytes(memory.begin() + 1, memory.begin() + out->ActualSize());
}

/// The result, which takes exactly its own size.
template <typename Convert>
std::optional<Bytes> convertedExactly(std::size_t room, Convert convert) {
    const auto result = converted(room, convert);
    if (result) {
        Require(converted(result->size(), convert) == result);
        Require(result->empty() || !converted(result->size() - 1, convert));
    }
    return result;
}

std::vector<Bytes> unitsOf(const Bytes& data, int lengthSize) {
    std::vector<Bytes> units;
    UnitWalk walk(data, lengthSize);
    while (const auto unit = walk.Next()) {
        const NalUnit whole = unit->Whole();
        units.emplace_back(whole.begin(), whole.end());
    }
    return units;
}

using Units = std::optional<std::vector<Bytes>>;

/// The units of a byte stream as Annex B tells them; none when it does not begin with a start code.
Units splitStream(const Bytes& data) {
    std::vector<Bytes> units;
    const unsigned char prefix[] = {0, 0, 1};
    auto at = std::search(data.begin(), data.end(), prefix, prefix + 3);
    if (std::any_of(data.begin(), at, [](unsigned char byte) { return byte != 0; }) ||
        (at == data.end() && !data.empty())) {
        return std::nullopt;
    }
    while (at != data.end()) {
        const auto begin = at + 3;
        at = std::search(begin, data.end(), prefix, prefix + 3);
        Bytes unit(begin, at);
        while (!unit.empty() && unit.back() == 0)
            unit.pop_back();
        if (!unit.empty()) units.push_back(unit);
    }
    return units;
}

/// The units behind their lengths; none when the data end too early.
Units splitPrefixed(const Bytes& data, int lengthSize) {
    std::vector<Bytes> units;
    for (std::size_t at = 0; at < data.size();) {
        std::size_t size = 0;
        for (int i = 0; i < lengthSize && at <= data.size(); ++i, ++at)
            size = size << 8 | (at < data.size() ? data[at] : 0);
        if (at > data.size() || size > data.size() - at) return std::nullopt;
        if (size > 0) units.emplace_back(data.data() + at, data.data() + at + size);
        at += size;
    }
    return units;
}

/// Units behind lengths of so many bytes, or 0: start codes of four; nothing when one is too long.
std::optional<Bytes> joined(const Units& units, int lengthSize) {
    if (!units) return std::nullopt;
    Bytes whole;
    for (const Bytes& unit : *units) {
        const std::uint64_t prefix = lengthSize == 0 ? 1 : unit.size();
        const int size = lengthSize == 0 ? 4 : lengthSize;
        if (prefix >> size * 8 != 0) return std::nullopt;
        for (int shift = (size - 1) * 8; shift >= 0; shift -= 8)
            whole.push_back(static_cast<unsigned char>(prefix >> shift));
        whole.insert(whole.end(), unit.begin(), unit.end());
    }
    return whole;
}

bool isParameterSet(const Bytes& unit) {
    const int type = unit[0] & 31;
    return type == 7 || type == 8;
}

void convertStream(Bytes& data, bool drop) {
    Units units = splitStream(data);
    if (units && drop) std::erase_if(*units, isParameterSet);
    for (int lengthSize = 1; lengthSize <= 4; ++lengthSize) {
        const auto avc = convertedExactly(data.size() * 2 + 4, [&](PacketBuffer* out) {
            return Parser::ConvertToAvcBitstream(data.data(), sizeOf(data), lengthSize, out, drop);
        });
        Require(avc == joined(units, lengthSize));
    }
    const auto in = over(data);
    const auto refine = [](PacketBuffer* from) {
        return convertedExactly(
            static_cast<std::size_t>(from->ActualSize()) * 16 + SetsSize,
            [&](PacketBuffer* out) { return Parser::RefineAnnexBBitstream(from, out, Sets, SetsSize); });
    };
    if (auto refined = refine(in.get())) {
        const auto again = over(*refined);
        Require(refine(again.get()).has_value());
        bool key[2];
        bool reference[2];
        const bool found = Parser::DetectFrameType(in.get(), key[0], reference[0]);
        Require(Parser::DetectFrameType(again.get(), key[1], reference[1]) == found);
        Require(key[0] == key[1] && reference[0] == reference[1]);
    }
}

void convertPrefixed(Bytes& data, int lengthSize) {
    const auto in = over(data);
    const auto plain = convertedExactly(data.size() * 5 + 4, [&](PacketBuffer* out) {
        return Parser::ConvertToAnnexBBitstream(in.get(), out, lengthSize);
    });
    const auto withSets = convertedExactly(data.size() * (5 + SetsSize), [&](PacketBuffer* out) {
        return Parser::ConvertToAnnexBBitstream(in.get(), out, lengthSize, Sets, SetsSize);
    });
    Require(plain == joined(splitPrefixed(data, lengthSize), 0));
    Require(plain.has_value() == withSets.has_value());
    Require(!plain || withSets->size() + unitsOf(data, lengthSize).size() >= plain->size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    OperationSource options(input, std::min<std::size_t>(size, 1));
    const int choice = options.Small();
    const int lengthSize = choice % 5;
    Bytes data(input + std::min<std::size_t>(size, 1), input + size);
    if (lengthSize == 0) {
        convertStream(data, (choice & 0x80) != 0);
    } else {
        convertPrefixed(data, lengthSize);
    }
    const std::string text = Parser::PrintNalUnits(data.data(), sizeOf(data), lengthSize);
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    const std::size_t units = unitsOf(data, lengthSize).size();
    Require(lines == units || (lengthSize > 0 && lines == units + 1));
    int last = -1;
    int offset = 0;
    for (int i = 0; i < 8 && Parser::FindVideoStart(data.data(), sizeOf(data), last + 1, lengthSize, offset);
         ++i) {
        Require(offset > last && offset < sizeOf(data));
        last = offset;
    }
    return 0;
}
