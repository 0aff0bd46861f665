#include <gtest/gtest.h>

#include <climits>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "tests/codecs/h264/Packets.h"
#include "tests/support/LogCapture.h"

namespace Mivra::Codecs::H264 {
namespace {

using namespace Test;
using Parser = H264ConfigurationParser;

const Bytes Sets = coded(Sps) + coded(Pps);

bool toAnnexBWithSets(const Bytes& in, Packet& out, const Bytes& sets, int lengthSize = 4) {
    return Parser::ConvertToAnnexBBitstream(Packet(in).get(), out.get(), lengthSize, sets.data(),
                                            static_cast<int>(sets.size()));
}

bool toAvc(Bytes in, Packet& out, int lengthSize, bool drop = false) {
    return Parser::ConvertToAvcBitstream(in.data(), static_cast<int>(in.size()), lengthSize, out.get(), drop);
}

bool refine(const Bytes& in, Packet& out, const Bytes& sets = Sets) {
    return Parser::RefineAnnexBBitstream(Packet(in).get(), out.get(), sets.data(),
                                         static_cast<int>(sets.size()));
}

Bytes avc(std::initializer_list<Bytes> units, int lengthSize = 4) {
    Bytes packet;
    for (const Bytes& unit : units) {
        packet = packet + prefixed(unit, lengthSize);
    }
    return packet;
}

Bytes annexB(std::initializer_list<Bytes> units) {
    Bytes packet;
    for (const Bytes& unit : units) {
        packet = packet + coded(unit);
    }
    return packet;
}

// What comes out of well and badly formed packets is told by the fuzz target's loops over them.
TEST(PacketConversion, NeedsNoRoomForWhatIsLeftOut) {
    // Nothing follows that needs room, and the start code in front of it reaches over the end of the room.
    for (const std::size_t more : {0U, 1U, 2U, 3U}) {
        Packet out({}, avc({P1}).size() + more);
        EXPECT_TRUE(toAvc(coded(P1) + Bytes{0, 0, 1} + coded(Sps, false), out, 4, true)) << more;
        EXPECT_EQ(out.Content(), avc({P1})) << more;
    }
}

TEST(PacketConversion, RefusesWhatIsTooLongOrMissing) {
    Mivra::Test::LogCapture log;
    // The longest unit that a prefix can tell, and one byte more.
    for (const int lengthSize : {1, 2, 3}) {
        const std::size_t longest = (std::size_t{1} << lengthSize * 8) - 1;
        for (const std::size_t size : {longest, longest + 1}) {
            Packet out({}, size + 4);
            EXPECT_EQ(toAvc(coded(Bytes(size, 0x41)), out, lengthSize), size == longest);
        }
    }
    Packet in(avc({P1}));
    Packet out({}, 64);
    unsigned char byte = 0;
    for (const int lengthSize : {INT_MIN, -1, 0, 5, INT_MAX}) {
        EXPECT_FALSE(Parser::ConvertToAnnexBBitstream(in.get(), out.get(), lengthSize));
        EXPECT_FALSE(Parser::ConvertToAnnexBBitstream(in.get(), out.get(), lengthSize, &byte, 0));
        EXPECT_FALSE(Parser::ConvertToAvcBitstream(&byte, 1, lengthSize, out.get(), false));
    }
    for (const int size : {INT_MIN, -1}) {
        EXPECT_FALSE(Parser::ConvertToAnnexBBitstream(in.get(), out.get(), 4, &byte, size));
        EXPECT_FALSE(Parser::ConvertToAvcBitstream(&byte, size, 4, out.get(), false));
        EXPECT_FALSE(Parser::RefineAnnexBBitstream(in.get(), out.get(), &byte, size));
    }
    EXPECT_FALSE(Parser::ConvertToAnnexBBitstream(nullptr, out.get(), 4));
    EXPECT_FALSE(Parser::ConvertToAnnexBBitstream(in.get(), nullptr, 4));
    EXPECT_FALSE(Parser::ConvertToAvcBitstream(nullptr, 1, 4, out.get(), false));
    EXPECT_FALSE(Parser::ConvertToAvcBitstream(&byte, 1, 4, nullptr, false));
    EXPECT_FALSE(Parser::RefineAnnexBBitstream(in.get(), nullptr, nullptr, 0));
    for (const int position : {-1, in->ActualSize() + 1}) {
        in->Position() = position;
        EXPECT_FALSE(Parser::ConvertToAnnexBBitstream(in.get(), out.get(), 4));
    }
    EXPECT_TRUE(out.Content().empty());
    EXPECT_FALSE(log.Lines().empty());
}

TEST(PacketConversion, BeginsAtThePositionAndHandsTheAttributesOn) {
    Packet in(Bytes{1, 2, 3} + avc({P1}), 0, 3);
    in->Pts() = 40;
    in->KeyFrame() = true;
    Packet out({9}, 64);
    EXPECT_TRUE(Parser::ConvertToAnnexBBitstream(in.get(), out.get(), 4));
    EXPECT_EQ(out.Content(), Bytes{9} + coded(P1));
    EXPECT_EQ(out->Pts(), 40);
    EXPECT_TRUE(out->KeyFrame());
    EXPECT_EQ(in->Position(), 3);
    in->Pts() = 50;
    Packet full({9});
    EXPECT_FALSE(Parser::ConvertToAnnexBBitstream(in.get(), full.get(), 4));
    EXPECT_EQ(full->Pts(), 0);
}

TEST(PacketConversion, SetsGoInFrontOfTheFirstSliceOfAnIdrPictureThatHasNone) {
    const Bytes secondSlice = unitOfBits(0x65, "011 0001000 1 0000 1");
    const Bytes NextIdr = unitOfBits(0x65, "1 0001000 1 0000 010 1111");  // idr_pic_id 1
    const struct {
        Bytes in;
        Bytes out;
    } cases[] = {
        {avc({P1, P2}), coded(P1) + coded(P2, false)},
        {avc({Idr, secondSlice}), Sets + coded(Idr, false) + coded(secondSlice, false)},
        {avc({Aud, Recovery, Idr}), coded(Aud) + coded(Recovery, false) + Sets + coded(Idr, false)},
        {avc({Sps, Pps, Idr}), Sets + coded(Idr, false)},
        {avc({Sps, Idr}), Sets + coded(Idr, false)},
        {avc({Pps, Idr}), Sets + coded(Idr, false)},
        // Pictures one after the other.
        {avc({Idr, NextIdr}), Sets + coded(Idr, false) + Sets + coded(NextIdr, false)},
        {avc({Sps, Pps, Idr, NextIdr}), Sets + coded(Idr, false) + Sets + coded(NextIdr, false)},
        {avc({Sps, Pps, Idr, P1, Idr}),
         Sets + coded(Idr, false) + coded(P1, false) + Sets + coded(Idr, false)},
        // Slices of one picture, in any order: the first macroblock need not come first.
        {avc({Sps, Idr, secondSlice}), Sets + coded(Idr, false) + coded(secondSlice, false)},
        {avc({Pps, Idr, secondSlice}), Sets + coded(Idr, false) + coded(secondSlice, false)},
        {avc({secondSlice, Idr}), Sets + coded(secondSlice, false) + coded(Idr, false)},
        {avc({{}, {0x65}}), Sets + coded({0x65}, false)},
    };
    for (const auto& [in, expected] : cases) {
        Packet out({}, expected.size());
        EXPECT_TRUE(toAnnexBWithSets(in, out, Sets));
        EXPECT_EQ(out.Content(), expected);
        Packet tooSmall({}, expected.size() - 1);
        EXPECT_FALSE(toAnnexBWithSets(in, tooSmall, Sets));
        EXPECT_TRUE(tooSmall.Content().empty());
    }
    Packet out({}, 64);
    EXPECT_FALSE(toAnnexBWithSets(avc({Idr}), out, avc({Sps, Pps})));
    EXPECT_TRUE(toAnnexBWithSets(avc({Idr}), out, {}));
    EXPECT_EQ(out.Content(), coded(Idr));
}

TEST(PacketConversion, RefiningLeavesOneFormOfEverything) {
    Bytes otherPps = Pps;
    otherPps.back() ^= 0x40;
    Bytes otherSps = Sps;
    otherSps[3] ^= 1;  // level_idc
    const Bytes broken{0x67};
    const Bytes strangeSps{0x67, 0x42, 0x00, 0x0A, 0x00, 0x81};  // of an id that is out of range
    const struct {
        const char* what;
        Bytes in;
        Bytes out;
    } cases[] = {
        {"nothing", {}, {}},
        {"padding and short codes", Bytes{0} + coded(P1, false) + Bytes{0, 0} + coded(P2, false) + Bytes{0},
         annexB({P1, P2})},
        {"filler data", annexB({Filler, P1, Filler}), annexB({P1})},
        {"a key frame without sets", annexB({Aud, Recovery, Idr}), annexB({Aud, Sps, Pps, Recovery, Idr})},
        {"a recovery point", annexB({Recovery, P1}), annexB({Sps, Pps, Recovery, P1})},
        {"gradual refresh", annexB({LateRecovery, P1}), annexB({LateRecovery, P1})},
        {"no delimiter", annexB({Idr}), annexB({Sps, Pps, Idr})},
        {"no picture set", annexB({Sps, Recovery, Idr}), annexB({Sps, Pps, Recovery, Idr})},
        {"no sequence set", annexB({Aud, otherPps, Idr}), annexB({Aud, Sps, otherPps, Idr})},
        {"sets are there", annexB({Sps, otherPps, Idr}), annexB({Sps, otherPps, Idr})},
        {"sets twice", annexB({Sps, Pps, Sps, Pps, Idr}), annexB({Sps, Pps, Idr})},
        {"another set of the same id", annexB({Sps, Pps, otherPps, Pps, Idr}),
         annexB({Sps, Pps, otherPps, Pps, Idr})},
        {"another sequence set of the same id", annexB({Sps, Pps, otherSps, Pps, Idr}),
         annexB({Sps, Pps, otherSps, Pps, Idr})},
        {"sets that cannot be read", annexB({broken, broken, strangeSps, strangeSps, Pps, Idr}),
         annexB({broken, broken, strangeSps, strangeSps, Pps, Idr})},
        {"delimiters in the middle", annexB({Recovery, Aud, Sps, Aud, Pps, Idr}),
         annexB({Aud, Recovery, Sps, Pps, Idr})},
        {"two pictures", annexB({Aud, Idr, Aud, P1, Sps, Pps, Idr}),
         annexB({Aud, Sps, Pps, Idr, Aud, P1, Sps, Pps, Idr})},
        {"no picture", annexB({Sps, Sps, Aud}), annexB({Aud, Sps})},
    };
    for (const auto& [what, in, expected] : cases) {
        Packet out({}, expected.size());
        EXPECT_TRUE(refine(in, out)) << what;
        EXPECT_EQ(out.Content(), expected) << what;
        Packet again({}, expected.size());
        EXPECT_TRUE(refine(expected, again)) << what;
        EXPECT_EQ(again.Content(), expected) << what << ", again";
        if (!expected.empty()) {
            Packet tooSmall({}, expected.size() - 1);
            EXPECT_FALSE(refine(in, tooSmall)) << what;
            EXPECT_TRUE(tooSmall.Content().empty()) << what;
        }
    }
    Packet out({}, 64);
    const Bytes extension{0x6D, 0xC0};
    EXPECT_TRUE(refine(annexB({Idr}), out, annexB({Sps, extension, Pps})));
    EXPECT_EQ(out.Content(), annexB({Sps, extension, Pps, Idr}));
    EXPECT_FALSE(refine(avc({P1}), out));
    EXPECT_FALSE(refine(annexB({P1}), out, avc({Sps})));
}

}  // namespace
}  // namespace Mivra::Codecs::H264
