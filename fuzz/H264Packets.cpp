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
    Bytes memory(room + 1);
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

void convertStream(Bytes& data, bool drop) {
    for (int lengthSize = 1; lengthSize <= 4; ++lengthSize) {
        const auto avc = convertedExactly(data.size() * 2 + 4, [&](PacketBuffer* out) {
            return Parser::ConvertToAvcBitstream(data.data(), sizeOf(data), lengthSize, out, drop);
        });
        Require(!avc || drop || unitsOf(*avc, lengthSize) == unitsOf(data, 0));
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
