#include "mivra/common/model/MediaType.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/common/model/BinaryForms.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/PrivateData.h"

namespace Mivra::Test {
namespace {

using namespace Common;
using namespace std::string_literals;

/// Every field set to a value of its own.
MediaType fullType(ContentType_t content) {
    MediaType type;
    type.ContentType() = content;
    type.CodecId() = content == ContentType_t::Audio ? Codec_t::AAC : Codec_t::H264;
    type.Bitrate() = 3000;
    type.FrameSize() = 4;
    type.FrameDuration() = std::int64_t{5} << 33;
    type.Timescale() = Rational(1, 90000);
    type.Compressed() = false;
    type.FixedSizeSamples() = true;
    type.ExpectedFrameSize() = 7;
    SetPrivateData(type, "\x12\x10"s);
    type.CodecMetadata()["Profile"] = 100;
    type.Width() = 1280;
    type.Height() = 720;
    type.PixelFormat() = PixelFormat_t::NV12;
    type.Framerate() = Rational(30000, 1001);
    type.PixelAspectRatio() = Rational(4, 3);
    type.SampleFormat() = SampleFormat_t::FLTP;
    type.SampleRate() = 48000;
    type.Channels() = 6;
    type.ChannelLayout() = 0x8000000000000003u;
    type.BitsPerSample() = 16;
    return type;
}

TEST(MediaType, HasItsDefaults) {
    const MediaType type;
    EXPECT_EQ(type.ContentType(), ContentType_t::Unknown);
    EXPECT_EQ(type.CodecId(), Codec_t::None);
    EXPECT_TRUE(type.Timescale() == Rational(1, 10000000));
    EXPECT_TRUE(type.Compressed());
    EXPECT_FALSE(type.FixedSizeSamples());
    EXPECT_EQ(type.CodecPrivateData(), nullptr);
    EXPECT_EQ(static_cast<int>(type.PixelFormat()), -1);
    EXPECT_EQ(static_cast<int>(type.SampleFormat()), -1);
    EXPECT_TRUE(type.Framerate() == Rational() && type.PixelAspectRatio() == Rational(1, 1));
    EXPECT_TRUE(type == MediaType());
}

TEST(MediaType, ComparesWhatCounts) {
    using Change = std::function<void(MediaType&)>;
    struct Case {
        ContentType_t content;
        Change change;
        bool shallow;
        bool whole;
    };
    constexpr auto V = ContentType_t::Video;
    constexpr auto A = ContentType_t::Audio;
    constexpr auto T = ContentType_t::Text;
    const Case cases[] = {
        {V, [](MediaType&) {}, true, true},
        {V, [](MediaType& t) { t.ContentType() = A; }, false, false},
        {V, [](MediaType& t) { t.CodecId() = Codec_t::H265; }, false, false},
        {V, [](MediaType& t) { t.Width() = 1; }, false, false},
        {V, [](MediaType& t) { t.Height() = 1; }, false, false},
        {V, [](MediaType& t) { t.PixelFormat() = PixelFormat_t::YUV420P; }, false, false},
        {V, [](MediaType& t) { t.Framerate() = 25; }, false, false},
        {V, [](MediaType& t) { t.PixelAspectRatio() = 1; }, false, false},
        {V, [](MediaType& t) { t.SampleRate() = 1; }, true, true},
        {V, [](MediaType& t) { t.Timescale() = Rational(1, 1000); }, true, false},
        {V, [](MediaType& t) { t.Bitrate() = 2000; }, true, true},
        {V, [](MediaType& t) { t.Bitrate() = 1999; }, true, false},
        {V, [](MediaType& t) { t.Bitrate() = 4001; }, true, false},
        {V, [](MediaType& t) { t.Bitrate() = INT32_MIN; }, true, false},
        {V, [](MediaType& t) { SetPrivateData(t, "\x12\x11"s); }, true, false},
        {V, [](MediaType& t) { SetPrivateData(t, "\x12"s); }, true, false},
        {V, [](MediaType& t) { t.Compressed() = true, t.FrameSize() = t.ExpectedFrameSize() = 99; }, true,
         true},
        {V, [](MediaType& t) { t.CodecMetadata()["x"] = t.FrameDuration() = 1; }, true, true},
        {A, [](MediaType& t) { t.SampleFormat() = SampleFormat_t::S16; }, false, false},
        {A, [](MediaType& t) { t.SampleRate() = 1; }, false, false},
        {A, [](MediaType& t) { t.Channels() = 1; }, false, false},
        {A, [](MediaType& t) { t.ChannelLayout() = 3; }, false, false},
        {A, [](MediaType& t) { t.BitsPerSample() = 1; }, false, false},
        {A, [](MediaType& t) { t.Width() = 1; }, true, true},
        {A, [](MediaType& t) { t.Bitrate() = 3001; }, true, false},  // of fixed-size samples
        {T, [](MediaType& t) { t.Bitrate() = t.Width() = t.Channels() = 0; }, true, true},
    };
    for (const Case& c : cases) {
        const MediaType original = fullType(c.content);
        MediaType changed(original);
        c.change(changed);
        EXPECT_EQ(original.IsEqualShallow(changed), c.shallow) << &c - cases;
        EXPECT_EQ(original == changed, c.whole) << &c - cases;
        EXPECT_EQ(original != changed, !c.whole) << &c - cases;
    }
}

TEST(MediaType, TakesTheBitrateToleranceOfTheLeftSide) {
    MediaType fast = fullType(ContentType_t::Video);
    MediaType slow(fast);
    slow.Bitrate() = 2000;
    EXPECT_TRUE(fast == slow);
    EXPECT_FALSE(slow == fast);
    MediaType loud = fullType(ContentType_t::Audio);
    loud.FixedSizeSamples() = false;
    MediaType quiet(loud);
    quiet.Bitrate() = 2400;
    EXPECT_TRUE(loud == quiet);
    EXPECT_FALSE(quiet == loud);
}

TEST(MediaType, CopiesDeeplyWithItsCaches) {
    MediaType original = fullType(ContentType_t::Video);
    original.SetProfileLevel(0x640029);
    original.SetReorderingQueueDepth(3);
    MediaType copy;
    SetPrivateData(copy, "old"s);
    copy = original;
    original.CodecPrivateData()[0] = 'x';
    original.CodecMetadata()["Profile"] = 1;
    EXPECT_EQ(PrivateDataOf(copy), "\x12\x10");
    EXPECT_EQ(static_cast<int>(copy.CodecMetadata()["Profile"]), 100);
    EXPECT_EQ(copy.GetProfileLevel(), 0x640029u);
    EXPECT_EQ(copy.GetReorderingQueueDepth(), 3);
    EXPECT_EQ(Written(copy).size(), Written(original).size());
    const MediaType& alias = copy;
    copy = alias;
    EXPECT_EQ(PrivateDataOf(copy), "\x12\x10");
    copy = MediaType();
    EXPECT_EQ(copy.CodecPrivateData(), nullptr);
}

TEST(MediaType, WritesAndReadsTheKnownBytes) {
    const std::string head(
        "\1\0\0\0\0\0\0\0\x1B\0\0\x0B\xB8\0\0\0\4\0\0\0\x0A\0\0\0\0\0\0\0\1\0\1\x5F\x90\0\1", 35);
    const std::string privateData("\0\0\0\7\0\0\0\2\x12\x10", 10);
    const std::string video("\0\0\5\0\0\0\2\xD0\0\0\0\x17\0\0\x75\x30\0\0\3\xE9\0\0\0\4\0\0\0\3", 28);
    const std::string audio("\0\0\0\x08\0\0\xBB\x80\0\0\0\6\x80\0\0\0\0\0\0\3\0\0\0\x10", 24);
    const std::string metadata = Written(fullType(ContentType_t::Video).CodecMetadata());
    EXPECT_EQ(Written(fullType(ContentType_t::Video)), head + privateData + video + metadata);
    std::string form = Written(fullType(ContentType_t::Audio));
    EXPECT_EQ(form.substr(1, 8), Int32(1) + Int32(86018));
    EXPECT_EQ(form.substr(45), audio + metadata);
    form = Written(fullType(ContentType_t::Text));
    EXPECT_EQ(form.substr(45), metadata);
    for (const ContentType_t content : {ContentType_t::Video, ContentType_t::Audio, ContentType_t::Text}) {
        const std::string known = Written(fullType(content));
        EXPECT_TRUE(ReadAs<MediaType>(known, [&](MediaType& read) { EXPECT_EQ(Written(read), known); }));
    }

    std::vector<char> bytes(4096);
    WithPacket(bytes, [&](PacketBuffer* packet) {
        packet->ActualSize() = 0;
        fullType(ContentType_t::Video).ToPacketBuffer(packet);
        EXPECT_EQ(packet->ActualSize(), packet->Position());
        EXPECT_EQ(std::string(bytes.data(), 35), head);
    });
}

// Whatever can be read reads the same again when it is written: that is the fuzz target's, in both orders.
TEST(MediaType, HostileSizesFailWithoutMemory) {
    std::string form = Written(fullType(ContentType_t::Video));
    constexpr std::size_t SizeOffset = 39;
    for (const std::int64_t size : {std::int64_t{INT32_MAX}, std::int64_t{-1}, std::int64_t{INT32_MIN}}) {
        form.replace(SizeOffset, 4, Int32(size));
        std::vector<char> bytes(form.begin(), form.end());
        WithPacket(bytes, [](PacketBuffer* packet) {
            EndianBinaryReader reader(packet);
            const AllocationMeter meter;
            EXPECT_THROW(MediaType{&reader}, GeneralException);
            EXPECT_LE(meter.Peak(), 64 * 1024);
        });
    }
}

TEST(MediaType, DerivesTheProfileLevelFromPrivateData) {
    MediaType type;
    type.ContentType() = ContentType_t::Audio;
    EXPECT_EQ(type.GetProfileLevel(), 0u);
    SetPrivateData(type, "\x92\x10"s);
    type.CodecId() = Codec_t::AC3;
    EXPECT_EQ(type.GetProfileLevel(), 0u);
    type.CodecId() = Codec_t::AAC_LATM;
    EXPECT_EQ(type.GetProfileLevel(), 18u) << "the byte is unsigned";
    SetPrivateData(type, "\x12\x10"s);
    EXPECT_EQ(type.GetProfileLevel(), 18u) << "cached";
    type.SetProfileLevel(0);
    EXPECT_EQ(type.GetProfileLevel(), 2u) << "0 is not cached";
    // High 4.0, 1920 x 1080, 68 map units: 32768 / 120 / 68. A set that is cut off tells nothing.
    const std::string sps = "\x67\x64\x00\x28\xAC\xDA\x01\xE0\x08\x9F\x95"s;
    for (const std::string& form : {sps, "\0\0\1"s + sps, "\1\x64\0\x28\xFF\xE1\0\x0B"s + sps + "\0"s}) {
        MediaType video;
        video.CodecId() = Codec_t::H264;
        SetPrivateData(video, form);
        EXPECT_EQ(video.GetProfileLevel(), 0x640028u);
        EXPECT_EQ(video.GetReorderingQueueDepth(), 4);
        EXPECT_EQ(PrivateDataOf(video), form);
        MediaType cut;
        cut.CodecId() = Codec_t::H264;
        SetPrivateData(cut, sps.substr(0, 10));
        EXPECT_EQ(cut.GetProfileLevel(), 0u);
        EXPECT_EQ(cut.GetReorderingQueueDepth(), 0);
        SetPrivateData(cut, form);
        EXPECT_EQ(cut.GetReorderingQueueDepth(), 0) << "computed once";
        cut.SetReorderingQueueDepth(3);
        EXPECT_EQ(cut.GetReorderingQueueDepth(), 3);
    }
}

TEST(MediaType, LosesNothingWhenMemoryEnds) {
    const MediaType original = fullType(ContentType_t::Video);
    const std::string form = Written(original);
    ForEachNthFailure(FaultKind::Allocate, [&] {
        MediaType target;
        try {
            target = fullType(ContentType_t::Audio);
            target = original;
            ReadAs<MediaType>(form, [](MediaType&) {});
        } catch (const std::bad_alloc&) {
            EXPECT_TRUE(target == MediaType() || target == fullType(ContentType_t::Audio) ||
                        target == original);
        }
    });
}

}  // namespace
}  // namespace Mivra::Test
