#include "mivra/codecs/aac/ConfigurationParser.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/Reference.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PrivateData.h"

namespace Mivra::Codecs::AAC {
namespace {

using Common::GeneralException;
using Common::MediaType;
using Common::PacketBuffer;
using Media::MediaGlobal;
using Test::PrivateDataOf;
using Test::SetPrivateData;
using namespace std::string_literals;
using Packet = Common::Reference<PacketBuffer>;

std::string bytes(unsigned long long value, int count) {
    std::string text;
    for (int i = count - 1; i >= 0; --i) {
        text += static_cast<char>(value >> (8 * i));
    }
    return text;
}

Packet wrap(std::string& data) {
    return Packet::Adopt(new PacketBuffer(data.data(), static_cast<int>(data.size())));
}

std::string headerOf(MediaType& type) {
    const auto [length, header] = ConfigurationParser::AdtsGenerateHeader(&type);
    const std::unique_ptr<unsigned char, void (*)(void*)> owner(header, std::free);
    return std::string(reinterpret_cast<const char*>(header), static_cast<std::size_t>(length));
}

TEST(AacConfiguration, RefusesWhatIsCutOffAndKeepsWhatItKnew) {
    unsigned char data[] = {0x12, 0x10};
    ConfigurationParser parser;
    EXPECT_TRUE(parser.Parse(data, 0, 2));
    for (const int size : {1, 0, -1}) {
        EXPECT_FALSE(parser.Parse(data, 0, size));
    }
    EXPECT_FALSE(parser.Parse(nullptr, 0, 2));
    EXPECT_EQ(parser.GetSampleRate(), 44100);
    EXPECT_EQ(parser.GetChannels(), 2);
}

TEST(AacConfiguration, FieldsBecomeConfigurationAndHeader) {
    struct Case {
        const char* privateData;
        int rate, channels;
        unsigned long long layout;
        unsigned config;
        unsigned long long header;
        unsigned long long layoutAfter;
    };
    // An unknown rate is index 0, seven channels are configuration 0, a configuration goes before the count
    // and is written with its low bits; without private data the profile of a header is 0.
    for (const Case& test : {
             Case{"", 44100, 2, 0, 0x1210, 0xFFF110800'01FFC, 2},
             Case{"\x12\x10", 44100, 2, 0, 0x1210, 0xFFF150800'01FFC, 2},
             Case{"\x0A", 7350, 8, 0, 0x0E38, 0xFFF131C00'01FFC, 7},
             Case{"\x12", 50000, 1, 0, 0x1008, 0xFFF140400'01FFC, 1},
             Case{"\x12", 48000, 7, 0, 0x1180, 0xFFF14C000'01FFC, 0},
             Case{"\x12", 48000, 9, 0, 0x1180, 0xFFF14C000'01FFC, 0},
             Case{"\x12", 48000, -1, 0, 0x1180, 0xFFF14C000'01FFC, 0},
             Case{"\x12", 96000, 2, 13, 0x1068, 0xFFF141400'01FFC, 13},
             Case{"\x02\x10", 48000, 6, 0, 0x11B0, 0xFFF1CD800'01FFC, 6},
         }) {
        MediaType type;
        SetPrivateData(type, std::string(test.privateData));
        type.CodecId() = Common::Codec_t::AAC;
        type.SampleRate() = test.rate;
        type.Channels() = test.channels;
        type.ChannelLayout() = test.layout;
        SCOPED_TRACE(test.header);
        EXPECT_EQ(headerOf(type), bytes(test.header, 7));
        EXPECT_EQ(type.ChannelLayout(), test.layout);  // a header changes nothing
        ConfigurationParser::GenerateCodecPrivateData(&type);
        EXPECT_EQ(PrivateDataOf(type), bytes(test.config, 2));
        EXPECT_EQ(type.ChannelLayout(), test.layoutAfter);
    }
}

// What is inside of the data is the fuzz target's, like configurations that are normalised.
TEST(AacAdts, LooksForASyncwordFromAnyStart) {
    std::string data = "\xFF\xF1\xFF\xF1";
    for (const auto& [start, found] : {std::pair{-5, 0}, {1, 2}, {3, -1}, {INT_MAX, -1}}) {
        EXPECT_EQ(ConfigurationParser::AdtsFindSync(wrap(data).get(), start), found) << start;
    }
    EXPECT_EQ(ConfigurationParser::AdtsFindSync(nullptr, 0), -1);
}

class AacFrames : public ::testing::Test {
protected:
    AacFrames() {
        MediaGlobal::Uninitialize();
        const Media::AllocatorProperties one{1024, 1, false, 1};
        MediaGlobal::Initialize(one, {16384, 1, false, 1}, {65536, 1, false, 1});
        type.SampleRate() = 48000;
        type.Channels() = 2;
        parser.Parse(&type);
    }
    ~AacFrames() override {
        EXPECT_TRUE(log.Errors().empty());
        MediaGlobal::Uninitialize();
    }

    Mivra::Test::LogCapture log;
    MediaType type;
    ConfigurationParser parser;
};

TEST_F(AacFrames, CarryHeaderPayloadAndAttributes) {
    for (const int payload : {0, 1, 100, 8184, 8185, 10000}) {
        std::string data = "skip" + std::string(static_cast<std::size_t>(payload), 'p');
        const Packet in = wrap(data);
        in->Position() = 4;
        in->Pts() = 77;
        in->SourceId() = "source";
        PacketBuffer* out = nullptr;
        parser.AdtsInsertHeader(in.get(), out);
        const Packet frame = Packet::Adopt(out);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->ActualSize(), payload + 7);
        EXPECT_EQ(frame->Position(), 0);
        EXPECT_EQ(frame->Pts(), 77);
        EXPECT_EQ(frame->SourceId(), "source");
        EXPECT_EQ(in->Position(), 4);
        const unsigned length = static_cast<unsigned>(payload + 7) & 0x1FFF;  // of more only the low bits
        const std::string header =
            bytes(0xFFF10C80001FFCULL | static_cast<unsigned long long>(length) << 13, 7);
        EXPECT_EQ(std::string(frame->Buffer(), 7), header) << payload;
        EXPECT_EQ(std::string(frame->Buffer() + 7, static_cast<std::size_t>(payload)), data.substr(4));
    }
    EXPECT_EQ(parser.GetAdtsHeader()[4], 0);  // the template stays
}

TEST_F(AacFrames, NeedAHeaderAndAPositionInTheData) {
    std::string data = "data";
    const Packet in = wrap(data);
    PacketBuffer* const before = in.get();
    PacketBuffer* out = before;
    try {
        ConfigurationParser().AdtsInsertHeader(in.get(), out);
        FAIL();
    } catch (const GeneralException& error) {
        EXPECT_STREQ(error.what(), "ADTS header has not been initialized");
    }
    for (const int position : {-1, 5}) {
        in->Position() = position;
        EXPECT_THROW(parser.AdtsInsertHeader(in.get(), out), GeneralException);
    }
    EXPECT_EQ(out, before);
}

TEST_F(AacFrames, AreNullWhenThePoolsAreEmpty) {
    const Packet taken = Packet::Adopt(MediaGlobal::LockBuffer(100));
    std::string data = "data";
    const Packet in = wrap(data);
    PacketBuffer* out = in.get();
    parser.AdtsInsertHeader(in.get(), out);
    EXPECT_EQ(out, nullptr);
}

TEST_F(AacFrames, ComeFromDeepCopiesToo) {
    ConfigurationParser copy(parser);
    ConfigurationParser assigned;
    assigned = parser;
    assigned = static_cast<const ConfigurationParser&>(assigned);
    EXPECT_NE(copy.GetAdtsHeader(), parser.GetAdtsHeader());
    type.SampleRate() = 8000;
    parser.Parse(&type);
    for (const ConfigurationParser* other : {&copy, &assigned}) {
        EXPECT_EQ(other->GetSampleRate(), 48000);
        EXPECT_EQ(other->GetChannels(), 2);
        ASSERT_EQ(other->GetAdtsHeaderLength(), 7);
        EXPECT_EQ(std::memcmp(other->GetAdtsHeader(), "\xFF\xF1\x0C\x80\x00\x1F\xFC", 7), 0);
    }
    assigned = ConfigurationParser();
    EXPECT_EQ(assigned.GetAdtsHeader(), nullptr);
    EXPECT_EQ(assigned.GetAdtsHeaderLength(), 0);
}

TEST_F(AacFrames, WithoutMemoryNothingChanges) {
    SetPrivateData(type, "old"s);
    ConfigurationParser other;
    for (int step = 0; step < 3; ++step) {
        const Mivra::Test::FaultPlan plan(Mivra::Test::FaultKind::Allocate, 1);
        EXPECT_THROW(step == 0   ? ConfigurationParser::GenerateCodecPrivateData(&type)
                     : step == 1 ? static_cast<void>(other.Parse(&type))
                                 : static_cast<void>(other = parser),
                     std::bad_alloc);
    }
    EXPECT_EQ(PrivateDataOf(type), "old");
    EXPECT_EQ(other.GetAdtsHeader(), nullptr);
    EXPECT_EQ(other.GetSampleRate(), 0);
}

}  // namespace
}  // namespace Mivra::Codecs::AAC
