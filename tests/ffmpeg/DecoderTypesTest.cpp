// What the decoder makes of media types: wanted outputs, streams that change on the way, private data that
// says too little, too much or something else than the packets, and types that it cannot serve.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/FfmpegDecoder.h"
#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FfmpegObjects.h"
#include "mivra/ffmpeg/HevcRecord.h"
#include "mivra/platform/System.h"
#include "tests/ffmpeg/CodedStream.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace Mivra::Test {
namespace {

using Common::Codec_t;
using Common::ContentType_t;
using Common::MediaType;
using Common::PacketBuffer;
using Common::PixelFormat_t;
using Common::Reference;
using Common::SampleFormat_t;
using FFmpeg::FfmpegDecoder;
using Media::DecoderParameters;

constexpr ContentType_t kVideo = ContentType_t::Video;
constexpr ContentType_t kAudio = ContentType_t::Audio;

struct Decoded {
    std::vector<FrameDigest> frames;
    std::string bytes;             // of all frames, as they came
    std::vector<int> changes;      // frames with which the output type became another
    std::vector<MediaType> types;  // and what it became
};

/// Writes all packets and reads all frames, looking at the flag after each.
Decoded decode(FfmpegDecoder& decoder, CodedStream& stream) {
    Decoded result;
    const auto read = [&] {
        while (PacketBuffer* const taken = decoder.Read()) {
            const auto frame = Reference<PacketBuffer>::Adopt(taken);
            EXPECT_EQ(frame->NewMediaType() != nullptr, decoder.OutputMediaTypeDirty());
            if (std::exchange(decoder.OutputMediaTypeDirty(), false)) {
                result.changes.push_back(static_cast<int>(result.frames.size()));
                result.types.push_back(decoder.GetOutputMediaType());
            }
            result.bytes.append(frame->Buffer(), static_cast<std::size_t>(frame->ActualSize()));
            result.frames.push_back(Digest(*frame.get(), decoder.GetOutputMediaType()));
        }
    };
    for (const auto& packet : stream.packets) {
        decoder.Write(packet.get());
        read();
    }
    decoder.Drain();
    read();
    return result;
}

std::vector<std::string> hashes(const std::vector<FrameDigest>& frames) {
    std::vector<std::string> result;
    for (const FrameDigest& frame : frames) {
        result.push_back(frame.hash);
    }
    return result;
}

template <typename T>
std::vector<T> operator+(std::vector<T> left, const std::vector<T>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

void setPrivateData(MediaType& type, const std::string& data) {
    std::free(type.CodecPrivateData());
    type.CodecPrivateData() = static_cast<char*>(std::malloc(data.size()));
    std::memcpy(type.CodecPrivateData(), data.data(), data.size());
    type.CodecPrivateDataSize() = static_cast<int>(data.size());
}

class DecoderTypesTest : public testing::Test {
protected:
    std::string video(const std::string& name, const std::string& size, const std::string& arguments) {
        RunFfmpeg("-f lavfi -i testsrc2=size=" + size + ":rate=25:duration=0.6 " + arguments + " " +
                  (folder / name));
        return folder / name;
    }
    std::string audio(const std::string& name, const std::string& arguments) {
        RunFfmpeg("-f lavfi -i 'aevalsrc=sin(440*t)|sin(660*t*t):s=48000:d=0.5' " + arguments + " " +
                  (folder / name));
        return folder / name;
    }
    int refusals() const { return log.Count("FfmpegDecoder::FfmpegDecoder["); }

    const FFmpeg::FfmpegUse use;
    LogCapture log;
    const TempFolder folder;
};

TEST_F(DecoderTypesTest, ScalesAndConvertsAsFfmpegDoes) {
    const std::string path = video("a.mp4", "144x112", "-c:v libx264 -bf 2");
    CodedStream stream = ReadStream(path, kVideo);
    struct Wanted {
        PixelFormat_t format;
        const char* name;
        int width, height, stride, rows;
    };
    for (const Wanted& wanted : {Wanted{PixelFormat_t::NV12, "nv12", 100, 60, 0, 0},
                                 Wanted{PixelFormat_t::BGRA, "bgra", 200, 130, 800, 0},
                                 Wanted{PixelFormat_t::RGB24, "rgb24", 99, 0, 333, 0},
                                 Wanted{PixelFormat_t::YUV420P, "yuv420p", 0, 0, 144, 0},
                                 Wanted{PixelFormat_t::YUV422P, "yuv422p", 0, 0, 256, 120},
                                 Wanted{PixelFormat_t::GRAY8, "gray", 0, 0, 0, 0}}) {
        SCOPED_TRACE(wanted.name);
        MediaType output;
        output.PixelFormat() = wanted.format;
        output.Width() = wanted.width;
        output.Height() = wanted.height;
        if (wanted.stride != 0) output.CodecMetadata()[FFmpeg::Key::kStride] = wanted.stride;
        if (wanted.rows != 0) output.CodecMetadata()[FFmpeg::Key::kRows] = wanted.rows;
        FfmpegDecoder decoder(&stream.type, &output, nullptr);
        ASSERT_TRUE(decoder.IsUsable());
        const Decoded got = decode(decoder, stream);
        const int width = wanted.width != 0 ? wanted.width : 144;
        const int height = wanted.height != 0 ? wanted.height : 112;
        EXPECT_EQ(hashes(got.frames),
                  hashes(FfmpegDigests(path, kVideo,
                                       "-vf scale=" + std::to_string(width) + ":" + std::to_string(height) +
                                           ":flags=bicubic" + " -pix_fmt " + wanted.name)));
        MediaType told = decoder.GetOutputMediaType();
        EXPECT_EQ(told.Width(), width);
        EXPECT_EQ(told.PixelFormat(), wanted.format);
        // Square pixels at first; the picture keeps its shape on a screen.
        EXPECT_NEAR(told.PixelAspectRatio().ToDouble(), 144.0 / width * height / 112, 1e-9);
        const int stride = told.CodecMetadata()[FFmpeg::Key::kStride];
        const int rows = told.CodecMetadata()[FFmpeg::Key::kRows];
        EXPECT_TRUE(wanted.stride == 0 ||
                    (stride == wanted.stride && rows == (wanted.rows == 0 ? height : wanted.rows)));
    }
    EXPECT_TRUE(log.Errors().empty());
}

TEST_F(DecoderTypesTest, ResamplesAsFfmpegDoes) {
    const std::string path = audio("a.mp4", "-c:a aac");
    CodedStream stream = ReadStream(path, kAudio);
    MediaType output;
    output.SampleFormat() = SampleFormat_t::S16;
    output.SampleRate() = 44100;
    output.Channels() = 1;
    FfmpegDecoder decoder(&stream.type, &output, nullptr);
    const Decoded got = decode(decoder, stream);
    RunFfmpeg("-i " + path + " -ar 44100 -ac 1 -f s16le " + (folder / "raw"));
    EXPECT_TRUE(got.bytes == ReadWholeFile(folder / "raw")) << got.bytes.size();
    std::int64_t samples = 0;
    for (const FrameDigest& frame : got.frames) {  // the times follow the samples
        EXPECT_LE(std::abs(frame.time - samples * 10000000 / 44100), 300);
        samples += frame.size / 2;
    }
}

TEST_F(DecoderTypesTest, FollowsAStreamThatChangesItsSize) {
    const std::string first = video("a.h264", "144x112", "-c:v libx264 -bf 2 -g 8");
    const std::string second = video("b.h264", "96x64", "-pix_fmt yuv422p -c:v libx264 -bf 2 -g 8");
    WriteWholeFile(folder / "both.h264", ReadWholeFile(first) + ReadWholeFile(second) + ReadWholeFile(first));
    CodedStream stream = ReadStream(folder / "both.h264", kVideo);
    const auto a = hashes(FfmpegDigests(first, kVideo));
    const auto b = hashes(FfmpegDigests(second, kVideo));
    for (const int threads : {1, 4}) {
        DecoderParameters parameters;
        parameters.ThreadCount = threads;
        FfmpegDecoder decoder(&stream.type, nullptr, &parameters);
        const Decoded got = decode(decoder, stream);
        EXPECT_EQ(hashes(got.frames), a + b + a);
        EXPECT_EQ(got.changes, (std::vector<int>{0, 15, 30}));
        ASSERT_EQ(got.types.size(), 3u);
        EXPECT_EQ(got.types[1].Width(), 96);
        EXPECT_EQ(got.types[1].PixelFormat(), PixelFormat_t::YUV422P);
    }
}

TEST_F(DecoderTypesTest, FollowsATypeThatTravelsWithAPacket) {
    const std::string first = video("a.mp4", "144x112", "-c:v libx264 -bf 2 -g 8");
    const std::string second = video("b.mp4", "96x64", "-c:v libx265 -x265-params log-level=error");
    CodedStream stream = ReadStream(first, kVideo);
    CodedStream other = ReadStream(second, kVideo);
    other.packets[0]->NewMediaType() = new MediaType(other.type);
    stream.packets = stream.packets + other.packets;
    FfmpegDecoder decoder(&stream.type, nullptr, nullptr);
    const Decoded got = decode(decoder, stream);
    EXPECT_EQ(hashes(got.frames),
              hashes(FfmpegDigests(first, kVideo)) + hashes(FfmpegDigests(second, kVideo)));
    EXPECT_EQ(got.changes, (std::vector<int>{0, 15}));

    // A type that cannot be decoded stops the decoder until one comes that can be.
    CodedStream broken;
    broken.Add("what nobody knows").NewMediaType() = new MediaType(other.type);
    broken.packets[0]->NewMediaType()->CodecId() = static_cast<Codec_t>(123456);
    decoder.Write(broken.packets[0].get());
    EXPECT_FALSE(decoder.IsUsable());
    EXPECT_TRUE(DecodeAll(decoder, other).size() == 15u);
    EXPECT_TRUE(decoder.IsUsable());
}

TEST_F(DecoderTypesTest, FollowsAudioThatChangesRateAndChannels) {
    const std::string first = audio("a.aac", "-c:a aac");
    const std::string second = audio("b.aac", "-ar 44100 -ac 1 -c:a aac");
    CodedStream stream = ReadStream(first, kAudio);
    const CodedStream other = ReadStream(second, kAudio);
    constexpr std::int64_t kLater = 100000000;
    for (const auto& packet : other.packets) {
        packet->Pts() += kLater;
    }
    stream.packets = stream.packets + other.packets;
    FfmpegDecoder decoder(&stream.type, nullptr, nullptr);
    const Decoded got = decode(decoder, stream);
    ASSERT_EQ(got.changes.size(), 1u);  // the first was known beforehand
    EXPECT_EQ(got.types[0].SampleRate(), 44100);
    EXPECT_EQ(got.types[0].Channels(), 1);
    EXPECT_GE(got.frames.size(), stream.packets.size() - 1);

    MediaType output;
    output.SampleFormat() = SampleFormat_t::S16;
    output.SampleRate() = 48000;
    output.Channels() = 2;
    FfmpegDecoder steady(&stream.type, &output, nullptr);
    const Decoded converted = decode(steady, stream);
    EXPECT_TRUE(converted.changes.empty());
    const auto later = std::find_if(converted.frames.begin(), converted.frames.end(),
                                    [](const FrameDigest& frame) { return frame.time > kLater / 2; });
    ASSERT_NE(later, converted.frames.end());
    EXPECT_NEAR(static_cast<double>(later->time), static_cast<double>(other.packets[0]->Pts()), 1);
    EXPECT_NEAR(static_cast<double>(converted.bytes.size()), 2 * 0.53 * 48000 * 4, 48000 * 4 * 0.1);
}

TEST_F(DecoderTypesTest, PrivateDataMayBeOfTheOtherCarriageMissingOrWrong) {
    using Codecs::H264::H264ConfigurationParser;
    const std::string path = video("a.mp4", "144x112", "-c:v libx264 -bf 3 -g 8");
    const auto expected = hashes(FfmpegDigests(path, kVideo));
    CodedStream avc = ReadStream(path, kVideo);
    RunFfmpeg("-i " + path + " -c copy " + (folder / "a.h264"));
    CodedStream annexB = ReadStream(folder / "a.h264", kVideo);
    const MediaType none;

    struct Mix {
        CodedStream* packets;
        MediaType type;
    };
    MediaType converted(avc.type);
    ASSERT_TRUE(H264ConfigurationParser::ConvertPrivateDataToAnnexB(converted));
    MediaType bare(annexB.type);
    bare.CodecPrivateDataSize() = 0;
    bare.SetReorderingQueueDepth(-1);
    for (const Mix& mix :
         {Mix{&annexB, avc.type}, Mix{&avc, converted}, Mix{&annexB, bare}, Mix{&annexB, annexB.type}}) {
        MediaType type(mix.type);
        FfmpegDecoder decoder(&type, nullptr, nullptr);
        EXPECT_EQ(hashes(decode(decoder, *mix.packets).frames), expected);
    }
    const std::string film = video("b.mp4", "144x112", "-c:v libx265 -x265-params log-level=error -g 8");
    const auto frames = hashes(FfmpegDigests(film, kVideo));
    CodedStream lengths = ReadStream(film, kVideo);
    RunFfmpeg("-i " + film + " -c copy " + (folder / "b.h265"));
    CodedStream codes = ReadStream(folder / "b.h265", kVideo);
    const std::string record(lengths.type.CodecPrivateData(),
                             static_cast<std::size_t>(lengths.type.CodecPrivateDataSize()));
    const std::vector<std::uint8_t> sets =
        FFmpeg::hevcRecordToAnnexB({reinterpret_cast<const std::uint8_t*>(record.data()), record.size()});
    for (CodedStream* stream : {&lengths, &codes}) {
        for (const std::string& data : {record, std::string(sets.begin(), sets.end())}) {
            MediaType type(stream->type);
            setPrivateData(type, data);
            FfmpegDecoder decoder(&type, nullptr, nullptr);
            EXPECT_EQ(hashes(decode(decoder, *stream).frames), frames);
        }
    }
    EXPECT_TRUE(log.Errors().empty());
    for (const char* garbage :
         {"\x01", "\x01\x64\xff\xff\xff\xff\xff\xff", "no private data at all", "\xff\xff"}) {
        for (CodedStream* stream : {&avc, &annexB, &lengths, &codes}) {
            MediaType type(stream->type);
            setPrivateData(type, garbage);
            FfmpegDecoder decoder(&type, nullptr, nullptr);  // usable or not
            decode(decoder, *stream);
        }
    }

    const std::string tones = audio("a.aac", "-c:a aac");
    CodedStream adts = ReadStream(tones, kAudio);
    const auto heard = hashes(FfmpegDigests(tones, kAudio, "-c:a pcm_f32le"));
    for (const std::string& data :
         {std::string(adts.packets[0]->Buffer(), 7), std::string("\x11\x90", 2),
          std::string("\x12\x08", 2)}) {  // its header, its configuration, and another
        MediaType type(adts.type);
        setPrivateData(type, data);
        FfmpegDecoder decoder(&type, nullptr, nullptr);
        EXPECT_EQ(hashes(decode(decoder, adts).frames), heard);
    }
}

TEST_F(DecoderTypesTest, ARowOfBadPacketsIsToldOnceAndMarksTheNextFrame) {
    const CodedStream good = ReadStream(audio("a.aac", "-c:a aac"), kAudio);
    CodedStream stream;
    for (std::size_t i = 0; i < 20; ++i) {
        stream.Add(i >= 5 && i < 9 ? "no packet" : good.bytes[i]);
    }
    MediaType type(good.type);
    FfmpegDecoder decoder(&type, nullptr, nullptr);
    std::string marks;  // a letter for each frame
    for (const auto& packet : stream.packets) {
        decoder.Write(packet.get());
        while (PacketBuffer* const taken = decoder.Read()) {
            marks += Reference<PacketBuffer>::Adopt(taken)->ExtraData().empty() ? 'g' : 'b';
        }
    }
    EXPECT_EQ(marks, "gggggbgggggggggg");
    EXPECT_EQ(log.Count("FfmpegDecoder::Write["), 1);
}

TEST_F(DecoderTypesTest, WhatCannotBeServedIsUnusableAndSaysSo) {
    MediaType input;
    input.ContentType() = kVideo;
    input.CodecId() = Codec_t::MPEG2;
    const auto usable = [&](MediaType* in, MediaType* out) {
        log.Clear();
        Common::LogLine(Common::FileLog::Trace, "next");  // else equal lines are folded
        FfmpegDecoder decoder(in, out, nullptr);
        decoder.Write(nullptr);
        decoder.Drain();
        EXPECT_EQ(decoder.Read(), nullptr);
        EXPECT_EQ(refusals(), decoder.IsUsable() ? 0 : 1);
        return decoder.IsUsable();
    };
    EXPECT_TRUE(usable(&input, nullptr));
    EXPECT_FALSE(usable(nullptr, nullptr));
    const auto refused = [&](MediaType changed, const std::function<void(MediaType&)>& change, bool output) {
        change(changed);
        return !usable(output ? &input : &changed, output ? &changed : nullptr);
    };
    EXPECT_TRUE(refused(
        input, [](MediaType& t) { t.CodecId() = static_cast<Codec_t>(99999999); }, false));
    EXPECT_TRUE(refused(
        input, [](MediaType& t) { t.CodecId() = Codec_t::None; }, false));
    EXPECT_TRUE(refused(
        input, [](MediaType& t) { t.ContentType() = ContentType_t::Text; }, false));
    EXPECT_TRUE(refused(
        {}, [](MediaType& t) { t.PixelFormat() = static_cast<PixelFormat_t>(44); }, true));  // a surface
    EXPECT_TRUE(refused(
        {}, [](MediaType& t) { t.PixelFormat() = static_cast<PixelFormat_t>(9999); }, true));
    EXPECT_TRUE(refused(
        {}, [](MediaType& t) { t.Width() = -5; }, true));
    EXPECT_TRUE(refused(
        {}, [](MediaType& t) { t.Width() = t.Height() = 2000000000; }, true));
    EXPECT_TRUE(refused(
        {}, [](MediaType& t) { t.CodecId() = Codec_t::H264; }, true));
    EXPECT_TRUE(refused(
        {}, [](MediaType& t) { t.ContentType() = kAudio; }, true));
    input.ContentType() = kAudio;
    input.CodecId() = Codec_t::MP2;
    EXPECT_TRUE(usable(&input, nullptr));
    EXPECT_TRUE(refused(
        {}, [](MediaType& t) { t.SampleFormat() = static_cast<SampleFormat_t>(77); }, true));
    EXPECT_TRUE(refused(
        {}, [](MediaType& t) { t.Channels() = 1000; }, true));
    EXPECT_TRUE(refused(
        {}, [](MediaType& t) { t.SampleRate() = -1; }, true));
    EXPECT_TRUE(refused(
        {}, [](MediaType& t) { t.CodecId() = Codec_t::AAC; }, true));
}

TEST_F(DecoderTypesTest, FramesCarryWhatTheirPacketsSaid) {
    CodedStream stream = ReadStream(video("a.mp4", "96x64", "-c:v libx264 -bf 2 -g 8"), kVideo);
    std::map<std::int64_t, int> numbers;  // by presentation time
    for (std::size_t i = 0; i < stream.packets.size(); ++i) {
        PacketBuffer& packet = *stream.packets[i].get();
        const int number = static_cast<int>(i);
        packet.StreamIndex() = 7;
        packet.ProgramIndex() = number;
        packet.FilePosition() = 1000 + number;
        packet.SourceId() = "camera";
        packet.Discontinuity() = number == 4;
        packet.POIs()[1] = number;
        numbers[packet.Pts()] = number;
    }
    FfmpegDecoder decoder(&stream.type, nullptr, nullptr);
    int seen = 0;
    const auto read = [&] {
        while (PacketBuffer* const taken = decoder.Read()) {
            const auto frame = Reference<PacketBuffer>::Adopt(taken);
            ASSERT_EQ(numbers.count(frame->Pts()), 1u);
            const int number = numbers[frame->Pts()];
            EXPECT_EQ(frame->StreamIndex(), 7);
            EXPECT_EQ(frame->ProgramIndex(), number);
            EXPECT_EQ(frame->FilePosition(), 1000 + number);
            EXPECT_EQ(frame->SourceId(), "camera");
            EXPECT_EQ(frame->Discontinuity(), number == 4);
            EXPECT_EQ(frame->POIs()[1], number);
            EXPECT_EQ(frame->KeyFrame(), stream.packets[static_cast<std::size_t>(number)]->KeyFrame());
            EXPECT_EQ(frame->Duration(), 400000);
            ++seen;
        }
    };
    for (const auto& packet : stream.packets) {
        decoder.Write(packet.get());
        read();
    }
    decoder.Drain();
    read();
    EXPECT_EQ(seen, 15);
}

}  // namespace
}  // namespace Mivra::Test
