#include "mivra/codecs/h264/AccessUnits.h"

#include <gtest/gtest.h>

#include <climits>
#include <initializer_list>
#include <string>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "tests/codecs/h264/Packets.h"

namespace Mivra::Codecs::H264 {
namespace {

using namespace Test;
using Parser = H264ConfigurationParser;

// Everything that a slice header may hold: fields, order count type 0 with 4 bits, redundant pictures.
const Bytes FieldSps = unitOfBits(0x67, "01000010 00000000 00001010 1 1 1 1 010 0 1 1 0 0 1 0 0");
const Bytes FieldPps = unitOfBits(0x68, "1 1 0 1 1 1 1 0 00 1 1 1 0 0 1");
// Set 1 of order count type 1, and picture sets 1 (with bottom field order) for it.
const Bytes CycleSps = unitOfBits(0x67, "01000010 00000000 00001010 010 1 010 0 1 1 1 010 0 1 1 1 1 0 0");
const Bytes CyclePps = unitOfBits(0x68, "010 010 0 1 1 1 1 0 00 1 1 1 0 0 0");

/// Numbers of the units that begin an access unit.
std::vector<int> beginnings(std::initializer_list<Bytes> units) {
    Bytes stream;
    for (const Bytes& unit : units) {
        stream = stream + coded(unit);
    }
    std::vector<int> numbers;
    AccessUnitBoundaries boundaries;
    UnitWalk walk(stream, 0);
    for (int number = 0; const auto unit = walk.Next(); ++number) {
        if (boundaries.Begins(*unit, walk)) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

Bytes slice(unsigned char header, std::string_view bits) {
    return unitOfBits(header, std::string(bits) + " 1111 0000 1111");
}

TEST(AccessUnits, APictureBeginsWhereItsSliceHeaderSaysSo) {
    const Bytes P = slice(0x41, "1 00110 1 0001 0 0011 1 1");
    // first_mb, slice_type 5, set; then frame_num, field, bottom, (idr_pic_id), order count, (delta),
    // redundant.
    const struct {
        const char* what;
        Bytes first;
        Bytes second;
        bool begins;
    } cases[] = {
        {"another slice", P, slice(0x41, "011 00110 1 0001 0 0011 1 1"), false},
        {"the first macroblock does not matter", P, P, false},
        {"frame_num", P, slice(0x41, "011 00110 1 0010 0 0011 1 1"), true},
        {"the set", P, slice(0x41, "1 00110 010 0001 1 1"), true},
        {"field_pic_flag", P, slice(0x41, "1 00110 1 0001 1 0 0011 1"), true},
        {"bottom_field_flag", slice(0x41, "1 00110 1 0001 1 0 0011 1"),
         slice(0x41, "1 00110 1 0001 1 1 0011 1"), true},
        {"nal_ref_idc is 0", P, slice(0x01, "1 00110 1 0001 0 0011 1 1"), true},
        {"nal_ref_idc is not", P, slice(0x61, "1 00110 1 0001 0 0011 1 1"), false},
        {"the type", slice(0x65, "1 00110 1 0001 0 1 0011 1 1"), slice(0x61, "1 00110 1 0001 0 0011 1 1"),
         true},
        {"idr_pic_id", slice(0x65, "1 00110 1 0000 0 1 0011 1 1"),
         slice(0x65, "1 00110 1 0000 0 010 0011 1 1"), true},
        {"order count", P, slice(0x41, "1 00110 1 0001 0 0101 1 1"), true},
        {"its delta", P, slice(0x41, "1 00110 1 0001 0 0011 010 1"), true},
        {"a redundant picture", P, slice(0x41, "1 00110 1 0001 0 0101 1 010"), false},
        {"partitions", slice(0x42, "1 00110 1 0001 0 0011 1 1"), slice(0x42, "1 00110 1 0010 0 0011 1 1"),
         true},
        {"delta 0", slice(0x41, "1 00110 010 0001 1 1"), slice(0x41, "1 00110 010 0001 010 1"), true},
        {"delta 1", slice(0x41, "1 00110 010 0001 1 1"), slice(0x41, "1 00110 010 0001 1 010"), true},
        {"no set known, first macroblock", slice(0x41, "1 00110 011 0001"), slice(0x41, "1 00110 011 0001"),
         true},
        {"no set known, another", slice(0x41, "1 00110 011 0001"), slice(0x41, "011 00110 011 0010"), false},
        {"a set that cannot be", slice(0x41, "1 00110 00000000 1 00000001 1"),
         slice(0x41, "011 00110 00000000 1 00000001 1"), false},
        {"cut off", P, Bytes{0x41}, false},
    };
    for (const auto& [what, first, second, begins] : cases) {
        const std::vector<int> expected = begins ? std::vector{0, 5} : std::vector{0};
        EXPECT_EQ(beginnings({FieldSps, FieldPps, CycleSps, CyclePps, first, second}), expected) << what;
    }
}

TEST(AccessUnits, BeginWithTheFirstUnitThatBelongsToThePicture) {
    const Bytes endOfSequence{0x0A};
    const Bytes prefix{0x6E, 0x40, 0x50, 0x67};
    const Bytes brokenPps{0x68, 0x00};
    const struct {
        const char* what;
        std::initializer_list<Bytes> units;
        std::vector<int> expected;
    } cases[] = {
        {"delimiters", {Aud, Sps, Pps, Idr, Aud, P1, Aud, P2}, {0, 4, 6}},
        {"sets and messages", {Sps, Pps, Idr, Recovery, P1, Pps, P2, Sps, Pps, Idr}, {0, 3, 5, 7}},
        {"slices only", {Sps, Pps, Idr, P1, P2}, {0, 3, 4}},
        {"what belongs to the picture in front",
         {Sps, Pps, Idr, Filler, {0x13, 0x88}, {0x14, 0x88}, {0x03}, endOfSequence, P1},
         {0, 8}},
        {"reserved for pictures to come",
         {Idr, {0x11}, P1, {0x12}, P2, {0x0F, 1}, P1, {0x10, 1}, P2},
         {0, 1, 3, 5, 7}},
        {"prefix units", {Sps, Pps, prefix, Idr, prefix, Idr, prefix, P1, prefix}, {0, 6, 8}},
        {"a set that is malformed", {Sps, brokenPps, Pps, Idr, P1}, {0, 4}},
        {"a beginning in the middle", {P1, P2}, {0, 1}},
    };
    for (const auto& [what, units, expected] : cases) {
        EXPECT_EQ(beginnings(units), expected) << what;
    }
}

TEST(AccessUnits, KeyFramesAndReferencesAreDetected) {
    const struct {
        Bytes units;
        bool found;
        bool key;
        bool reference;
    } cases[] = {
        {{}, false, false, false},
        {coded(Recovery), false, false, false},
        {coded(Aud) + coded(Sps) + coded(Pps) + coded(Idr), true, true, true},
        {coded(P1, false), true, false, true},
        {coded(P2) + coded(Idr), true, false, false},
        {coded(Recovery) + coded(P2), true, true, false},
        {coded(LateRecovery) + coded(P1), true, false, true},
        {coded({0x06, 0x06, 0x00, 0x80}) + coded(P1), true, false, true},
        {coded({0x42, 0x88}), true, false, true},
    };
    for (const auto& [units, found, key, reference] : cases) {
        bool isKey = !key;
        bool isReference = !reference;
        EXPECT_EQ(Parser::DetectFrameType(Packet(Bytes{3} + units, 0, 1).get(), isKey, isReference), found);
        EXPECT_EQ(isKey, key);
        EXPECT_EQ(isReference, reference);
    }
    bool unused = true;
    EXPECT_FALSE(Parser::DetectFrameType(nullptr, unused, unused));
}

TEST(AccessUnits, VideoStartsWithAWholeKeyFrame) {
    const Bytes secondSlice = unitOfBits(0x65, "011 0001000 1 0000 1");
    // Units, and the number of the unit where video starts when looked for from the beginning of each.
    const struct {
        const char* what;
        std::vector<Bytes> units;
        std::vector<int> starts;
    } cases[] = {
        {"nothing", {}, {}},
        {"no key frame", {Aud, P1, P2}, {-1, -1, -1}},
        {"groups",
         {Aud, Sps, Pps, Idr, secondSlice, Aud, P1, Sps, Pps, Idr},
         {0, 7, 7, 7, 7, 7, 7, 7, -1, -1}},
        {"a recovery point", {P1, Recovery, P2}, {1, 1, -1}},
        {"gradual refresh", {P1, LateRecovery, P2}, {-1, -1, -1}},
        {"the rest of a picture", {secondSlice, P1, Sps, Pps, Idr}, {2, 2, 2, -1, -1}},
        {"an unreadable slice", {{0x65}, Aud, Idr}, {1, 1, -1}},
        {"messages of the picture in front", {Recovery, P1, Aud, P2}, {0, -1, -1, -1}},
    };
    for (const auto& [what, units, starts] : cases) {
        for (const int lengthSize : {0, 1, 4}) {
            Bytes data{};
            std::vector<int> offsets;
            for (const Bytes& unit : units) {
                offsets.push_back(static_cast<int>(data.size()));
                data = data +
                       (lengthSize == 0 ? coded(unit, offsets.size() % 2 == 0) : prefixed(unit, lengthSize));
            }
            for (std::size_t i = 0; i < units.size(); ++i) {
                for (const int from : {offsets[i], i == 0 ? 0 : offsets[i - 1] + 1}) {
                    const int expected = starts[i] < 0 ? -1 : offsets[static_cast<std::size_t>(starts[i])];
                    int offset = 7;
                    EXPECT_EQ(Parser::FindVideoStart(data.data(), static_cast<int>(data.size()), from,
                                                     lengthSize, offset),
                              expected >= 0);
                    EXPECT_EQ(offset, expected) << what << ", length size " << lengthSize << ", unit " << i;
                }
            }
        }
    }
    Bytes data = coded(Idr);
    const int size = static_cast<int>(data.size());
    int offset = 0;
    const struct {
        unsigned char* data;
        int size, from, lengthSize;
    } wrong[] = {{nullptr, size, 0, 0},      {nullptr, 0, 0, 0},
                 {data.data(), -1, 0, 0},    {data.data(), size, -1, 0},
                 {data.data(), size, 99, 0}, {data.data(), size, 0, -1},
                 {data.data(), size, 0, 5},  {data.data(), size, INT_MAX, 4},
                 {data.data(), 4, 0, 0},     {data.data(), size, 0, 4}};
    for (const auto& [pointer, bytes, from, lengthSize] : wrong) {
        EXPECT_FALSE(Parser::FindVideoStart(pointer, bytes, from, lengthSize, offset));
        EXPECT_EQ(offset, -1);
    }
}

TEST(AccessUnits, EveryUnitIsALineOfText) {
    const auto print = [](Bytes data, int lengthSize) {
        return Parser::PrintNalUnits(data.data(), static_cast<int>(data.size()), lengthSize);
    };
    EXPECT_EQ(print(coded(Sps) + coded(Pps, false) + coded(Idr) + Bytes{0, 0} + coded(P1) + coded({0x41}) +
                        coded({0x78, 1}),
                    0),
              "4: SequenceParameterSet, 6 bytes, ref 3\n"
              "13: PictureParameterSet, 4 bytes, ref 3\n"
              "21: SliceIdr, 5 bytes, ref 3, I\n"
              "32: Slice, 4 bytes, ref 2, P\n"
              "40: Slice, 1 bytes, ref 2\n"
              "45: Type 24, 2 bytes, ref 3\n");
    EXPECT_EQ(print(prefixed(Aud, 2) + prefixed({}, 2) + Bytes{0, 9, 1}, 2),
              "2: AccessUnitDelimiter, 2 bytes, ref 0\n6: malformed length\n");
    EXPECT_EQ(print(unitOfBits(0x41, "1 0001011 1"), 0), "");
    EXPECT_EQ(print(coded(unitOfBits(0x41, "1 0001011 1")), 0), "4: Slice, 3 bytes, ref 2\n");
    EXPECT_EQ(print(coded(Sps), 5), "");
    EXPECT_EQ(Parser::PrintNalUnits(nullptr, 1, 0), "");
}

}  // namespace
}  // namespace Mivra::Codecs::H264
