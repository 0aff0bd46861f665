#include <gtest/gtest.h>

#include <climits>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "tests/codecs/h264/Packets.h"
#include "tests/support/LogCapture.h"

namespace Mivra::Codecs::H264 {
namespace {

using namespace Test;
using Parser = H264ConfigurationParser;

constexpr auto UserData = SeiPayloadTypes::UserDataUnregistered;

bool insert(Packet& packet, SeiPayloadTypes type, const Bytes& payload) {
    return Parser::InsertSei(packet.get(), type, payload.data(), static_cast<int>(payload.size()));
}

TEST(Sei, FindsAMessageWhereverItStands) {
    const Bytes payload{1, 2, 3};
    const struct {
        const char* what;
        Bytes units;
        std::optional<Bytes> found;
    } cases[] = {
        {"no unit", coded(P1), std::nullopt},
        {"alone", coded({0x06, 5, 3, 1, 2, 3, 0x80}) + coded(P1), payload},
        {"without a slice", coded({0x06, 5, 3, 1, 2, 3, 0x80}), payload},
        {"behind another message", coded({0x06, 6, 1, 0xC4, 5, 3, 1, 2, 3, 0x80}) + coded(P1), payload},
        {"behind types of 254 and 255", coded({0x06, 254, 1, 9, 0xFF, 0, 1, 9, 5, 1, 7, 0x80}), Bytes{7}},
        {"in the second unit", coded(Recovery) + coded({0x06, 5, 3, 1, 2, 3, 0x80}, false) + coded(P1),
         payload},
        {"the first of two", coded({0x06, 5, 1, 7, 5, 1, 8, 0x80}) + coded(P1), Bytes{7}},
        {"behind the slice, where none belongs", coded(P1) + coded({0x06, 5, 3, 1, 2, 3, 0x80}),
         std::nullopt},
        {"empty", coded({0x06, 5, 0, 0x80}) + coded(P1), Bytes{}},
        {"emulation prevention", coded({0x06, 5, 4, 0, 0, 3, 0, 3, 0x80}), Bytes{0, 0, 0, 3}},
        {"the same in the message in front", coded({0x06, 6, 3, 0, 0, 3, 1, 5, 1, 9, 0x80}), Bytes{9}},
        {"a last byte like trailing bits", coded({0x06, 5, 1, 0x80, 0x80}), Bytes{0x80}},
        {"no trailing bits", coded({0x06, 5, 1, 7}), Bytes{7}},
        {"one byte too many", coded({0x06, 5, 4, 1, 2, 3, 0x80}), std::nullopt},
        {"one byte too many, hidden", coded({0x06, 5, 4, 0, 0, 3, 1, 0x80}), std::nullopt},
        {"a wrong unit in front of a right one", coded({0x06, 5, 9, 0x80}) + coded({0x06, 5, 1, 7, 0x80}),
         Bytes{7}},
        {"no size", coded({0x06, 5}), std::nullopt},
        {"no end of the type", coded({0x06, 0xFF, 0xFF}), std::nullopt},
        {"no end of the size", coded({0x06, 5, 0xFF}), std::nullopt},
        {"only a header", coded({0x06}), std::nullopt},
    };
    for (const auto& [what, units, found] : cases) {
        EXPECT_EQ(Parser::FindSei(Packet(units).get(), UserData), found) << what;
    }
    EXPECT_EQ(Parser::FindSei(Packet(Bytes{1} + coded({0x06, 5, 1, 7, 0x80}), 0, 1).get(), UserData),
              Bytes{7});
    EXPECT_EQ(Parser::FindSei(nullptr, UserData), std::nullopt);
}

TEST(Sei, GoesInFrontOfTheFirstSlice) {
    const Bytes prefix{0x6E, 0x40, 0x50, 0x67};
    const Bytes message{0x06, 5, 1, 7, 0x80};
    const Bytes period{0x06, 0, 1, 7, 0x80};
    const struct {
        SeiPayloadTypes type;
        Bytes in;
        Bytes out;
    } cases[] = {
        {UserData, coded(Idr), coded(message) + coded(Idr)},
        {UserData, coded(Aud) + coded(Sps) + coded(Pps) + coded(Idr, false) + coded(Idr),
         coded(Aud) + coded(Sps) + coded(Pps) + coded(message) + coded(Idr, false) + coded(Idr)},
        {UserData, coded(Recovery) + coded(P1), coded(Recovery) + coded(message) + coded(P1)},
        {UserData, coded(prefix) + coded(P1), coded(message) + coded(prefix) + coded(P1)},
        {UserData, coded(prefix) + coded(Recovery) + coded({0x22, 0x88}),
         coded(prefix) + coded(Recovery) + coded(message) + coded({0x22, 0x88})},
        {SeiPayloadTypes::BufferingPeriod, coded(Aud) + coded(Recovery) + coded(Recovery) + coded(P1),
         coded(Aud) + coded(period) + coded(Recovery) + coded(Recovery) + coded(P1)},
        {SeiPayloadTypes::BufferingPeriod, coded(P1), coded(period) + coded(P1)},
    };
    for (const auto& [type, in, out] : cases) {
        Packet packet(Bytes{1, 2} + in, message.size() + 4, 2);
        EXPECT_TRUE(insert(packet, type, {7}));
        EXPECT_EQ(packet.Content(), Bytes({1, 2}) + out);
        EXPECT_EQ(packet->Position(), 2);
        Packet tooSmall(in, message.size() + 3);
        EXPECT_FALSE(insert(tooSmall, type, {7}));
        EXPECT_EQ(tooSmall.Content(), in);
    }
}

TEST(Sei, RefusesWhatCannotBeInserted) {
    Mivra::Test::LogCapture log;
    Packet packet(coded(P1), 64);
    const unsigned char byte = 0;
    EXPECT_FALSE(Parser::InsertSei(nullptr, UserData, &byte, 1));
    EXPECT_FALSE(Parser::InsertSei(packet.get(), UserData, nullptr, 1));
    EXPECT_FALSE(Parser::InsertSei(packet.get(), static_cast<SeiPayloadTypes>(-1), &byte, 1));
    EXPECT_FALSE(Parser::InsertSei(packet.get(), static_cast<SeiPayloadTypes>(INT_MAX), &byte, 1));
    for (const int size : {INT_MIN, -1, 65, INT_MAX}) {
        EXPECT_FALSE(Parser::InsertSei(packet.get(), UserData, &byte, size));
    }
    EXPECT_EQ(packet.Content(), coded(P1));
    Packet noSlice(coded(Sps), 64);
    EXPECT_FALSE(insert(noSlice, UserData, {7}));
    EXPECT_TRUE(log.Contains("H264ConfigurationParser::InsertSei: no slice, or no room for 1 bytes"));
}

}  // namespace
}  // namespace Mivra::Codecs::H264
