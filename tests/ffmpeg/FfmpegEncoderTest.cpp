// The encoder: what FFmpeg's programs say of what it makes, and that times are kept.
#include "mivra/ffmpeg/FfmpegEncoder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/ffmpeg/HevcRecord.h"
#include "tests/ffmpeg/EncoderFixture.h"
#include "tests/support/FaultInjection.h"

extern "C" {
#include <libavutil/log.h>
}

namespace Mivra::Test {
namespace {

using Common::Codec_t;
using Common::MediaType;
using Common::PixelFormat_t;
using Common::SampleFormat_t;
using FFmpeg::FfmpegProxy;

constexpr auto kOpus = static_cast<Codec_t>(AV_CODEC_ID_OPUS);

using FfmpegEncoderTest = EncoderTest;

struct VideoCase {
    const char* name;
    Codec_t codec;
    PixelFormat_t format;
    const char* options;
    const char* container;
};

const VideoCase kVideoCases[] = {
    {"H264", Codec_t::H264, PixelFormat_t::YUV420P, "preset=ultrafast", "mov"},
    {"H264 with B-frames", Codec_t::H264, PixelFormat_t::YUV420P, "preset=veryfast:bf=3:g=20", "mov"},
    {"H264 of RGB", Codec_t::H264, PixelFormat_t::RGB24, "preset=ultrafast", "mov"},
    {"H265", Codec_t::H265, PixelFormat_t::YUV420P, "preset=ultrafast:x265-params=log-level=0", "mov"},
    {"MJPEG", Codec_t::MJPEG, PixelFormat_t::NV12, "qmin=2:qmax=3", "mov"},
    {"MPEG4 with B-frames", Codec_t::MPEG4, PixelFormat_t::YUV420P, "bf=2:qmin=3:qmax=3", "mov"},
};

TEST_F(FfmpegEncoderTest, PicturesAreWhatFfmpegTakesAndKeepTheirTimes) {
    for (const VideoCase& one : kVideoCases) {
        SCOPED_TRACE(one.name);
        if (one.codec == Codec_t::H265 && !kCountsOperatorNew) {
            continue;  // under ThreadSanitizer, which does not see how libx265 keeps its threads apart
        }
        const LeaksAllowed leaks(one.codec == Codec_t::H265);
        MediaType input = videoInput({176, 144, one.format, {30000, 1001}});
        const auto encoder = make(input, wanted(one.codec), one.options);
        const Frames frames = pictures(input, 40);
        const Frames packets = encode(*encoder, frames);
        ASSERT_EQ(packets.size(), frames.size());
        const std::string file = folder / "packets";
        mux(file, one.container, *encoder->GetOutputMediaType(), packets);
        const std::string decoded = run("ffmpeg -v warning -xerror -i " + file + " -f framecrc -");
        EXPECT_EQ(std::count(decoded.begin(), decoded.end(), '\n') -
                      std::count(decoded.begin(), decoded.end(), '#'),
                  40);
        std::vector<std::int64_t> times;
        for (std::size_t at = 0; at < packets.size(); ++at) {
            times.push_back(packets[at]->Pts());
            EXPECT_LE(packets[at]->Dts(), packets[at]->Pts());
            EXPECT_TRUE(at == 0 || packets[at]->Dts() > packets[at - 1]->Dts());
            EXPECT_EQ(packets[at]->Duration(), pictureTime(1, input.Framerate()));
        }
        EXPECT_TRUE(packets[0]->KeyFrame() && packets[0]->CleanPoint());
        std::sort(times.begin(), times.end());
        for (std::size_t at = 0; at < times.size(); ++at) {
            EXPECT_EQ(times[at], frames[at]->Pts());
        }
    }
}

TEST_F(FfmpegEncoderTest, RecordsOfH265AreThoseOfFfmpeg) {
    if (!kCountsOperatorNew) {
        GTEST_SKIP() << "ThreadSanitizer does not see how libx265 keeps its threads apart";
    }
    const LeaksAllowed leaks(true);
    for (const PixelFormat_t format :
         {PixelFormat_t::YUV420P, static_cast<PixelFormat_t>(AV_PIX_FMT_YUV444P10LE)}) {
        const MediaType input = videoInput({176, 144, format, {25, 1}});
        const std::string options = "preset=ultrafast:x265-params=log-level=0\\:info=0\\:temporal-layers=1";
        const auto prefixed = make(input, wanted(Codec_t::H265), options);
        MediaType output = wanted(Codec_t::H265);
        setPrivateData(output, std::string("\0\0\0\1", 4));
        const auto codes = make(input, output, options);
        const std::string stream = folder / "x.h265";
        WriteWholeFile(stream, bytesOf(encode(*codes, pictures(input, 4))));
        run("ffmpeg -v error -y -i " + stream + " -c copy " + (folder / "x.mp4"));
        const std::string file = ReadWholeFile(folder / "x.mp4");
        std::string record = privateData(*prefixed->GetOutputMediaType());
        const std::size_t box = file.find("hvcC");
        ASSERT_NE(box, std::string::npos);
        EXPECT_EQ(record, file.substr(box + 4, record.size()));
        for (const auto& encoder : {prefixed.get(), codes.get()}) {
            const std::vector<std::uint8_t> bytes(record.begin(), record.end());
            const std::vector<std::uint8_t> sets = FFmpeg::hevcRecordToAnnexB(bytes);
            EXPECT_EQ(FFmpeg::makeHevcRecord(sets), bytes);
            EXPECT_EQ(encoder == codes.get(),
                      privateData(*encoder->GetOutputMediaType()) == std::string(sets.begin(), sets.end()));
        }
    }
}

struct AudioCase {
    const char* name;
    Codec_t codec;
    SampleFormat_t format;
    int rate;
    int bitrate;
    const char* container;
};

const AudioCase kAudioCases[] = {
    {"AAC", Codec_t::AAC, SampleFormat_t::FLTP, 48000, 128000, "nut"},
    {"AAC of whole numbers", Codec_t::AAC, SampleFormat_t::S16, 44100, 96000, "nut"},
    {"MP2", Codec_t::MP2, SampleFormat_t::S16, 48000, 192000, "nut"},
    {"MP3", Codec_t::MP3, SampleFormat_t::S16, 44100, 128000, "nut"},
    {"Opus", kOpus, SampleFormat_t::FLT, 48000, 64000, "nut"},
    {"FLAC", Codec_t::FLAC, SampleFormat_t::S16, 44100, 0, "nut"},
    {"PCM", Codec_t::PCM_S16LE, SampleFormat_t::S16, 48000, 0, "matroska"},
    {"G711", Codec_t::G711A, SampleFormat_t::S16, 8000, 0, "matroska"},
};

TEST_F(FfmpegEncoderTest, SamplesAreWhatFfmpegTakesAndKeepTheirTimes) {
    for (const AudioCase& one : kAudioCases) {
        SCOPED_TRACE(one.name);
        const MediaType input = audioInput(one.format, one.rate, 2);
        const auto encoder = make(input, wanted(one.codec, one.bitrate));
        const MediaType& type = *encoder->GetOutputMediaType();
        const Frames packets = encode(*encoder, tones(input, one.rate, 1000));
        ASSERT_FALSE(packets.empty());
        const std::string file = folder / "packets";
        mux(file, one.container, type, packets);
        EXPECT_EQ(run("ffmpeg -v warning -xerror -guess_layout_max 0 -i " + file + " -f null -"), "");
        const std::int64_t padding = FFmpeg::metadataNumber(type, FFmpeg::Key::kInitialPadding, 0);
        const std::int64_t step = FFmpeg::metadataNumber(type, FFmpeg::Key::kFrameSamples, 1000);
        std::int64_t sample = -padding;
        for (const Frame& packet : packets) {
            EXPECT_EQ(packet->Pts(),
                      FfmpegProxy::av_rescale_q(sample, {1, one.rate}, FFmpeg::kEngineTimeBase));
            EXPECT_EQ(packet->Dts(), packet->Pts());
            sample += step;
        }
        EXPECT_GE(sample + padding, one.rate);  // everything went in
    }
}

TEST_F(FfmpegEncoderTest, TimesOffTheGridComeOutAsTheyWentIn) {
    const MediaType input = videoInput({});
    for (const Codec_t codec : {Codec_t::H264, Codec_t::MPEG4}) {
        Frames frames = pictures(input, 60);
        std::vector<std::int64_t> times;
        std::int64_t time = -7 * kSecond;
        for (std::size_t n = 0; n < frames.size(); ++n) {
            // Jitter, two very close, and gaps of up to an hour.
            time += n % 7 == 3 ? 1
                    : n == 40  ? 3600 * kSecond
                               : 400000 + std::int64_t(n * n * 7919 % 200000) - 100000;
            frames[n]->Pts() = time;
            frames[n]->Duration() = 1000 + std::int64_t(n);
            frames[n]->StreamIndex() = 3;
            frames[n]->Discontinuity() = n == 40;
            times.push_back(time);
        }
        const auto encoder = make(input, wanted(codec), "bf=2:g=15");
        const Frames packets = encode(*encoder, frames);
        ASSERT_EQ(packets.size(), frames.size());
        for (std::size_t at = 0; at < packets.size(); ++at) {
            const auto n = std::find(times.begin(), times.end(), packets[at]->Pts()) - times.begin();
            ASSERT_LT(n, 60);
            EXPECT_EQ(packets[at]->Duration(), 1000 + n);
            EXPECT_EQ(packets[at]->Discontinuity(), n == 40);
            EXPECT_EQ(packets[at]->StreamIndex(), 3);
            EXPECT_LE(packets[at]->Dts(), packets[at]->Pts());
            EXPECT_TRUE(at == 0 || packets[at]->Dts() > packets[at - 1]->Dts()) << at;
            times[std::size_t(n)] = INT64_MIN;
        }
    }
}

TEST_F(FfmpegEncoderTest, SamplesKeepTheTimesOfTheirBuffers) {
    const MediaType input = audioInput(SampleFormat_t::S16, 48000, 1);
    Frames frames = tones(input, 10240, 1024);
    for (std::size_t n = 5; n < frames.size(); ++n) {
        frames[n]->Pts() += 3 * kSecond + 1;  // a gap
    }
    frames[7]->Pts() = INT64_MIN;  // follows from the one before
    MediaType output = wanted(Codec_t::AAC);
    output.Timescale() = {1, 1000};
    const auto encoder = make(input, output);
    const Frames packets = encode(*encoder, frames);
    ASSERT_EQ(packets.size(), 11U);
    for (std::size_t n = 0; n < packets.size(); ++n) {
        const std::int64_t sample = (std::int64_t(n) - 1) * 1024;
        const std::int64_t gap = n > 5 ? 3 * kSecond + 1 : 0;
        const std::int64_t exact =
            FfmpegProxy::av_rescale_q(sample, {1, 48000}, FFmpeg::kEngineTimeBase) + gap;
        EXPECT_EQ(packets[n]->Pts(), FfmpegProxy::av_rescale_q(exact, FFmpeg::kEngineTimeBase, {1, 1000}))
            << n;
    }
}

TEST_F(FfmpegEncoderTest, SamplesOfAnotherRateAreConvertedAndKeepTheirTimes) {
    const MediaType input = audioInput(SampleFormat_t::FLT, 44100, 2);
    MediaType output = wanted(Codec_t::PCM_S16LE);
    output.SampleRate() = 48000;
    output.Channels() = 1;
    const auto encoder = make(input, output);
    const Frames packets = encode(*encoder, tones(input, 44100, 441));
    std::int64_t samples = 0;
    for (const Frame& packet : packets) {
        EXPECT_EQ(packet->Pts(), FfmpegProxy::av_rescale_q(samples, {1, 48000}, FFmpeg::kEngineTimeBase));
        samples += packet->ActualSize() / 2;
    }
    EXPECT_EQ(samples, 48000);
    EXPECT_EQ(encoder->GetOutputMediaType()->Bitrate(), 768000);
    EXPECT_FALSE(encoder->GetOutputMediaType()->Compressed());

    // A rate that changes on the way: the tone goes on, in time.
    const MediaType other = audioInput(SampleFormat_t::FLT, 32000, 2);
    Frames changing = tones(input, 22050, 441);
    for (int from = 16000; from < 32000; from += 320) {
        changing.push_back(tone(other, from, 320));
    }
    changing[50]->NewMediaType() = new MediaType(other);
    changing.back()->Pts() += kSecond;
    const Frames changed = encode(*make(input, output), changing);
    std::int64_t position = 0;
    for (const Frame& packet : changed) {
        const std::int64_t time = FfmpegProxy::av_rescale_q(position, {1, 48000}, FFmpeg::kEngineTimeBase);
        const std::int64_t gap = position > 47500 ? kSecond : 0;
        EXPECT_LE(std::abs(packet->Pts() - time - gap), 1) << position;
        position += packet->ActualSize() / 2;
    }
    const std::string got = bytesOf(changed);
    const std::string expected = bytesOf(packets);
    ASSERT_EQ(got.size(), expected.size());
    for (int at = 0; at < 48000; ++at) {
        std::int16_t mine = 0;
        std::int16_t theirs = 0;
        std::memcpy(&mine, &got[static_cast<std::size_t>(2 * at)], sizeof(mine));
        std::memcpy(&theirs, &expected[static_cast<std::size_t>(2 * at)], sizeof(theirs));
        const bool atSeam = std::abs(at - 24000) < 100 || at > 47900;
        ASSERT_LE(std::abs(mine - theirs), atSeam ? 8000 : 100) << at;
    }

    // What follows a type that cannot be taken is refused like it, until one comes that can.
    const auto wary = make(input, output);
    const Frame frame = tone(input, 0, 441);
    for (const int rate : {0, -1, 44100}) {
        if (rate >= 0) {
            MediaType* const next = new MediaType(input);
            next->SampleRate() = rate;
            delete std::exchange(frame->NewMediaType(), next);
        }
        EXPECT_EQ(wary->Write(frame.get()), rate > 0);
        delete std::exchange(frame->NewMediaType(), nullptr);
    }
    EXPECT_EQ(log.Errors().size(), 1U);
    log.Clear();
}

TEST_F(FfmpegEncoderTest, LosslessCodecsGiveBackWhatWentIn) {
    const MediaType input = videoInput({});
    const Frames frames = pictures(input, 10);
    MediaType output = wanted(Codec_t::H264);
    const auto encoder = make(input, output, "qp=0:preset=veryfast:bf=2");
    const Frames packets = encode(*encoder, frames);
    mux(folder / "lossless.mov", "mov", *encoder->GetOutputMediaType(), packets);
    const std::string decoded =
        run("ffmpeg -v warning -i " + (folder / "lossless.mov") + " -f rawvideo -pix_fmt yuv420p -");
    EXPECT_TRUE(decoded == bytesOf(frames));
    const MediaType audio = audioInput(SampleFormat_t::S16, 48000, 2);
    const Frames samples = tones(audio, 5000, 333);
    EXPECT_TRUE(bytesOf(encode(*make(audio, wanted(Codec_t::PCM_S16LE)), samples)) == bytesOf(samples));
}

TEST_F(FfmpegEncoderTest, LayoutsOfTheSamePictureGiveTheSamePackets) {
    for (const PixelFormat_t format : {PixelFormat_t::YUV420P, PixelFormat_t::NV12, PixelFormat_t::RGB24}) {
        const MediaType packed = videoInput({62, 46, format});
        MediaType padded = packed;
        padded.CodecMetadata()["Stride"] = format == PixelFormat_t::RGB24 ? 200 : 80;
        padded.CodecMetadata()["Rows"] = 64;
        Frames changing = pictures(packed, 5);
        const Frames others = pictures(padded, 10);
        changing.insert(changing.end(), others.begin() + 5, others.end());
        changing[5]->NewMediaType() = new MediaType(padded);
        const std::string expected =
            bytesOf(encode(*make(packed, wanted(Codec_t::MPEG4)), pictures(packed, 10)));
        EXPECT_TRUE(bytesOf(encode(*make(padded, wanted(Codec_t::MPEG4)), others)) == expected);
        EXPECT_TRUE(bytesOf(encode(*make(packed, wanted(Codec_t::MPEG4)), changing)) == expected);
    }
}

TEST_F(FfmpegEncoderTest, PicturesAreScaledToTheOutputsSize) {
    const MediaType input = videoInput({176, 144, PixelFormat_t::RGBA});
    MediaType output = wanted(Codec_t::H264, 200000);
    output.Width() = 88;
    output.Height() = 72;
    output.CodecMetadata()["Profile"] = FF_PROFILE_H264_BASELINE;
    output.CodecMetadata()["Level"] = 21;
    output.PixelFormat() = PixelFormat_t::RGBA;  // which libx264 has not
    const auto encoder = make(input, output, "preset=veryfast");
    const MediaType& type = *encoder->GetOutputMediaType();
    EXPECT_EQ(type.PixelFormat(), PixelFormat_t::YUV420P);
    EXPECT_EQ(type.GetProfileLevel(), 0x42c015U);
    mux(folder / "small.mov", "mov", type, encode(*encoder, pictures(input, 3)));
    const std::string file = folder / "small.mov";
    EXPECT_EQ(run("ffprobe -v warning -show_entries stream=width,height,profile,level -of csv=p=0 " + file),
              "Constrained Baseline,88,72,21\n");
    const std::string ours = run("ffmpeg -v error -i " + file + " -f rawvideo -pix_fmt gray -");
    const std::string theirs = bytesOf(pictures(input, 3));
    const auto mean = [](const std::string& bytes) {
        double sum = 0;
        for (const char byte : bytes) {
            sum += static_cast<unsigned char>(byte);
        }
        return sum / double(bytes.size());
    };
    EXPECT_EQ(ours.size(), 3U * 88 * 72);
    EXPECT_NEAR(mean(ours), mean(theirs), 8);
}

TEST_F(FfmpegEncoderTest, PrivateDataAndItsFormAreAsAskedFor) {
    using Codecs::H264::H264ConfigurationParser;
    const MediaType input = videoInput({});
    const Frames frames = pictures(input, 4);
    const auto prefixed = make(input, wanted(Codec_t::H264), "preset=ultrafast");
    EXPECT_TRUE(prefixed->IsOutputMediaTypeDirty());
    MediaType type = *prefixed->GetOutputMediaType();
    EXPECT_EQ(privateData(type).substr(0, 1), "\1");
    const Frames lengths = encode(*prefixed, frames);
    EXPECT_FALSE(prefixed->IsOutputMediaTypeDirty());
    MediaType output = wanted(Codec_t::H264);
    setPrivateData(output, std::string("\0\0\0\1", 4));
    const auto codes = make(input, output, "preset=ultrafast");
    EXPECT_EQ(codes->GetOutputMediaType()->CodecPrivateDataSize(), 0);
    const Frames units = encode(*codes, frames);
    EXPECT_TRUE(codes->IsOutputMediaTypeDirty());
    MediaType annexB = *codes->GetOutputMediaType();
    WriteWholeFile(folder / "x.h264", bytesOf(units));
    EXPECT_EQ(run("ffprobe -v warning -count_frames -show_entries stream=nb_read_frames -of csv=p=0 " +
                  (folder / "x.h264")),
              "4\n");
    EXPECT_TRUE(H264ConfigurationParser::ConvertPrivateDataToAnnexB(type));
    EXPECT_EQ(privateData(type), privateData(annexB));
    EXPECT_NE(bytesOf(units).find(privateData(annexB)), std::string::npos);
    const auto aac = make(audioInput(SampleFormat_t::S16, 48000, 2), wanted(Codec_t::AAC));
    EXPECT_EQ(privateData(*aac->GetOutputMediaType()).substr(0, 2), "\x11\x90");  // ISO/IEC 14496-3 1.6.2.1
    EXPECT_EQ(aac->GetOutputMediaType()->ToBucketMediaType(), "mp4a.40.2");
    EXPECT_EQ(aac->GetOutputMediaType()->ChannelLayout(), 2U);
}

TEST_F(FfmpegEncoderTest, MessagesOfFfmpegGoToTheLog) {
    struct Watch : FFmpeg::FfmpegMessageWatch {
        int OnMessage(const void* object, int level, std::string_view message) noexcept override {
            seen.push_back({object, level, std::string(message)});
            return level == AV_LOG_FATAL ? AV_LOG_INFO : level;
        }
        std::vector<std::tuple<const void*, int, std::string>> seen;
    };
    const MediaType input = videoInput({});
    Watch watch;
    const auto encoder = make(input, wanted(Codec_t::H264), "preset=ultrafast");
    EXPECT_TRUE(log.Contains("FFmpeg: [libx264"));
    EXPECT_EQ(log.Lines(Common::FileLog::Warning).size(), 0U);
    EXPECT_TRUE(watch.seen.empty());  // told to the innermost, which is the engine's
    SwsContext* const none = FfmpegProxy::sws_getContext(16, 16, AV_PIX_FMT_VAAPI, 16, 16, AV_PIX_FMT_YUV420P,
                                                         4, nullptr, nullptr, nullptr);
    EXPECT_EQ(none, nullptr);
    ASSERT_EQ(watch.seen.size(), 1U);
    EXPECT_EQ(std::get<1>(watch.seen[0]), AV_LOG_ERROR);
    EXPECT_NE(onlyError().find("FFmpeg: [swscaler @"), std::string::npos);
}

}  // namespace
}  // namespace Mivra::Test
