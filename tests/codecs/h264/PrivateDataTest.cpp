// Private data in both forms. What FFmpeg's MP4 muxer wrote, and every change of it, is the fuzz target's to
// replay.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "mivra/codecs/h264/AvcConfigurationRecord.h"
#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "tests/codecs/h264/Packets.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PrivateData.h"

namespace {

using namespace Mivra::Codecs::H264;
using Mivra::Common::MediaType;
using Mivra::Test::Bytes;
using Mivra::Test::coded;
using Mivra::Test::joined;
using Parser = H264ConfigurationParser;

MediaType TypeWith(const Bytes& data) {
    MediaType type;
    Mivra::Test::SetPrivateData(type, data);
    return type;
}

Bytes DataOf(const MediaType& type) {
    return Mivra::Test::PrivateDataOf<Bytes>(type);
}

const Bytes Sps{0x67, 0x42, 0xC0, 0x1E, 0x95};        // Baseline, level 3
const Bytes HigherSps{0x67, 0x42, 0x80, 0x28, 0x95};  // one constraint less, level 4
const Bytes HighSps{0x67, 0x64, 0x00, 0x29, 0xAE};    // id 0, 4:2:0, 8 bits
const Bytes Pps{0x68, 0xCE};
const Bytes Extension{0x6D, 0xE5, 0xC0};

/// Two sets of each kind and an extension.
const Bytes FullRecord = joined({{1, 0x64, 0, 0x29, 0xFD},  // High, length size 2
                                 {0xE2, 0, 5},
                                 HighSps,
                                 {0, 5},
                                 Sps,
                                 {2, 0, 2},
                                 Pps,
                                 {0, 2},
                                 Pps,
                                 {0xFD, 0xF8, 0xF9},  // 4:2:0, 8 and 9 bits
                                 {1, 0, 3},
                                 Extension});

TEST(AvcConfigurationRecord, ReadsEveryField) {
    const auto record = AvcConfigurationRecord::Read(FullRecord);
    ASSERT_TRUE(record && record->format);
    EXPECT_EQ(record->profile, 0x64);
    EXPECT_EQ(record->level, 0x29);
    EXPECT_EQ(record->lengthSize, 2);
    EXPECT_EQ(record->sets.sps.size(), 2U);
    EXPECT_EQ(record->sets.pps.size(), 2U);
    EXPECT_EQ(record->sets.spsExtensions.size(), 1U);
    EXPECT_EQ(record->format->chroma_format, 1);
    EXPECT_EQ(record->format->bit_depth_luma_minus8, 0);
    EXPECT_EQ(record->format->bit_depth_chroma_minus8, 1);
    Bytes written(record->Size());
    record->Write(written.data());
    EXPECT_EQ(written, FullRecord);
}

TEST(AvcConfigurationRecord, EndsWhereItMay) {
    const std::size_t pictureSetsEnd = FullRecord.size() - 9;
    for (std::size_t size = 0; size <= FullRecord.size(); ++size) {
        const Bytes cut(FullRecord.begin(), FullRecord.begin() + static_cast<std::ptrdiff_t>(size));
        const bool whole = size == FullRecord.size();
        // Behind the picture sets a record may end, and some end with a few other bytes.
        const bool good = whole || (size >= pictureSetsEnd && size <= pictureSetsEnd + 3);
        const auto record = AvcConfigurationRecord::Read(cut);
        EXPECT_EQ(record.has_value(), good) << size;
        EXPECT_TRUE(!record || record->format.has_value() == whole) << size;
    }
}

TEST(PrivateData, TellsWhatAllSetsKeepTo) {
    MediaType type;
    const Bytes stream = joined({coded({0x06, 0x05}), coded(Sps), coded(Pps), coded(HigherSps)});
    ASSERT_TRUE(Parser::GenerateCodecPrivateData(type, const_cast<unsigned char*>(stream.data()),
                                                 static_cast<int>(stream.size())));
    // Baseline records end with the picture sets; what is no set is left out.
    EXPECT_EQ(DataOf(type),
              joined({{1, 0x42, 0x80, 0x28, 0xFF, 0xE2, 0, 5}, Sps, {0, 5}, HigherSps, {1, 0, 2}, Pps}));
}

TEST(PrivateData, KeepsExtensionsBothWays) {
    MediaType type = TypeWith(FullRecord);
    EXPECT_TRUE(Parser::ConvertPrivateDataToAnnexB(type));
    EXPECT_EQ(DataOf(type), joined({coded(HighSps), coded(Sps), coded(Extension), coded(Pps), coded(Pps)}));
    EXPECT_TRUE(Parser::ConvertPrivateDataToAvc(type));
    const auto record = AvcConfigurationRecord::Read(DataOf(type));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->sets.spsExtensions.size(), 1U);
}

TEST(PrivateData, RefusesWhatMakesNone) {
    const Mivra::Test::LogCapture log;
    const Bytes kept{9, 9};
    Bytes sps = Sps;
    Bytes pps = Pps;
    Bytes broken{0x67, 0x64, 0, 0x29, 0x00};      // no chroma_format_idc
    Bytes deep{0x67, 0x64, 0, 0x29, 0xA1, 0x18};  // bit_depth_luma_minus8 is 7
    Bytes startCode{0x67, 0x42, 0, 0x1E, 0, 0, 1};
    Bytes large(65536, 0x68);
    const auto unit = [](Bytes& bytes) { return std::pair(bytes.data(), static_cast<int>(bytes.size())); };
    const struct {
        const char* why;
        Parser::UnitList spsList;
        Parser::UnitList ppsList;
        bool annexB;  // is there in this form
    } cases[] = {
        {"no sequence set", {}, {unit(pps)}, false},
        {"null", {{nullptr, 5}}, {}, false},
        {"negative", {unit(sps)}, {{pps.data(), -1}}, false},
        {"other type", {unit(pps)}, {unit(pps)}, true},
        {"too short", {{sps.data(), 3}}, {}, true},
        {"no chroma format", {unit(broken)}, {}, true},
        {"depth", {unit(deep)}, {}, true},
        {"32 sequence sets", Parser::UnitList(32, unit(sps)), {}, true},
        {"256 picture sets", {unit(sps)}, Parser::UnitList(256, unit(pps)), true},
        {"longer than 16 bits", {unit(sps)}, {unit(large)}, true},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.why);
        MediaType type = TypeWith(kept);
        EXPECT_FALSE(Parser::GenerateCodecPrivateData(type, one.spsList, one.ppsList));
        EXPECT_EQ(DataOf(type), kept);
        EXPECT_EQ(Parser::GenerateAnnexBCodecPrivateData(type, one.spsList, one.ppsList), one.annexB);
        EXPECT_EQ(DataOf(type) == kept, !one.annexB);
    }
    large.pop_back();
    MediaType longest;
    EXPECT_TRUE(Parser::GenerateCodecPrivateData(longest, {unit(sps)}, {unit(large)}));
    EXPECT_TRUE(Parser::GenerateCodecPrivateData(longest, sps.data(), 5, nullptr, 0));
    EXPECT_EQ(DataOf(longest), joined({{1, 0x42, 0xC0, 0x1E, 0xFF, 0xE1, 0, 5}, Sps, {0}}));
    EXPECT_FALSE(Parser::GenerateCodecPrivateData(longest, nullptr, 0, pps.data(), 2));
    MediaType type = TypeWith(kept);
    EXPECT_FALSE(Parser::GenerateAnnexBCodecPrivateData(type, {unit(startCode)}, {}));
    EXPECT_FALSE(Parser::ConvertPrivateDataToAvc(type));  // no start code
    EXPECT_TRUE(Parser::ConvertPrivateDataToAnnexB(type));
    EXPECT_EQ(DataOf(type), kept);
    EXPECT_TRUE(log.Contains("H264ConfigurationParser::ConvertPrivateDataToAvc: "));
    MediaType cut = TypeWith({1, 0x42});
    EXPECT_FALSE(Parser::ConvertPrivateDataToAnnexB(cut));
    EXPECT_EQ(DataOf(cut), (Bytes{1, 0x42}));
    MediaType none;
    EXPECT_TRUE(Parser::ConvertPrivateDataToAvc(none) && Parser::ConvertPrivateDataToAnnexB(none));
}

TEST(PrivateData, KeepsTheTypeWhenThereIsNoMemory) {
    for (const auto conversion : {Parser::ConvertPrivateDataToAnnexB, Parser::ConvertPrivateDataToAvc}) {
        const Bytes annexB = joined({coded(HighSps), coded(Pps)});
        const Bytes& before = conversion == Parser::ConvertPrivateDataToAvc ? annexB : FullRecord;
        const auto failed = Mivra::Test::ForEachNthFailure(Mivra::Test::FaultKind::Allocate, [&] {
            MediaType type;
            {
                const Mivra::Test::FaultPause pause;
                type = TypeWith(before);
            }
            bool converted = false;
            try {
                converted = conversion(type);
            } catch (const std::bad_alloc&) {
            }
            const Mivra::Test::FaultPause pause;
            EXPECT_EQ(DataOf(type) == before, !converted);
        });
        EXPECT_GE(failed, 1U);
    }
}

TEST(ByteMembers, TakeCallersMemory) {
    const Bytes unit{0, 0, 0, 1, 0x09, 0xF0, 0, 0, 1, 0x65, 0x88, 0, 0, 3, 1};
    unsigned char* data = const_cast<unsigned char*>(unit.data());
    const int size = static_cast<int>(unit.size());
    int length = 9;
    EXPECT_EQ(Parser::FindNextStartCode(data, size, length), 0);
    EXPECT_EQ(length, 4);
    EXPECT_EQ(Parser::FindNextStartCode(data + 1, size - 1, length), 0);
    EXPECT_EQ(length, 3);
    EXPECT_EQ(Parser::FindNextStartCode(data + 9, size - 9, length), -1);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(Parser::FindNextStartCode(nullptr, 5, length), -1);
    EXPECT_EQ(Parser::FindNextStartCode(data, -1, length), -1);
    EXPECT_EQ(Parser::FindNalUnit(data, size, NalUnitTypes::SliceIdr), 9);
    EXPECT_EQ(Parser::FindNalUnit(data, size, NalUnitTypes::Sei), -1);

    unsigned char* out = data;
    int outSize = 9;
    ASSERT_TRUE(Parser::RemoveForbiddenSequenceEmulation(data + 9, 6, out, outSize));
    EXPECT_EQ(Bytes(out, out + outSize), (Bytes{0x65, 0x88, 0, 0, 1}));
    unsigned char* again = nullptr;
    int againSize = 0;
    ASSERT_TRUE(Parser::ApplyForbiddenSequenceEmulation(out, outSize, again, againSize));
    EXPECT_EQ(Bytes(again, again + againSize), (Bytes{0x65, 0x88, 0, 0, 3, 1}));
    std::free(out);
    std::free(again);
    for (const auto convert :
         {Parser::RemoveForbiddenSequenceEmulation, Parser::ApplyForbiddenSequenceEmulation}) {
        ASSERT_TRUE(convert(data, 0, out, outSize));  // nothing, in memory that free() takes
        EXPECT_EQ(outSize, 0);
        std::free(out);
        for (const auto& [in, inSize] : {std::pair(data, -1), std::pair<unsigned char*, int>(nullptr, 4)}) {
            out = data;
            EXPECT_FALSE(convert(in, inSize, out, outSize));
            EXPECT_EQ(out, nullptr);
        }
        const Mivra::Test::FaultPlan noMemory(Mivra::Test::FaultKind::Allocate, 1);
        EXPECT_FALSE(convert(data, size, out, outSize));
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(outSize, 0);
    }
}

}  // namespace
