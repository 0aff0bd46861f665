// The encoder: what FFmpeg's programs say of what it makes, and that bytes and times are those that the
// libraries alone would give.
#include "mivra/ffmpeg/FfmpegEncoder.h"

#include <algorithm>
#include <cctype>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "tests/ffmpeg/EncoderFixture.h"

namespace Mivra::Test {
namespace {

using Common::Codec_t;
using Common::MediaType;
using Common::PixelFormat_t;
using Common::SampleFormat_t;
using FFmpeg::FfmpegEncoder;
using FFmpeg::FfmpegOptional;
using FFmpeg::FfmpegProxy;

constexpr auto kOpus = static_cast<Codec_t>(AV_CODEC_ID_OPUS);

class FfmpegEncoderTest : public EncoderTest {
protected:
    static std::unique_ptr<FfmpegEncoder> make(MediaType input, MediaType output,
                                               const std::string& options = {}) {
        Media::EncoderParameters parameters = encoderParameters(options);
        auto encoder = std::make_unique<FfmpegEncoder>(&input, &output, &parameters);
        EXPECT_TRUE(encoder->IsUsable());
        return encoder;
    }
};

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
    {"MPEG4 with B-frames", Codec_t::MPEG4, PixelFormat_t::YUV420P, "bf=2:qmin=3:qmax=3", "mov"},
};

TEST_F(FfmpegEncoderTest, PicturesAreWhatFfmpegTakesAndKeepTheirTimes) {
    for (const VideoCase& one : kVideoCases) {
        SCOPED_TRACE(one.name);
        MediaType input = videoInput({176, 144, one.format, {30000, 1001}});
        const auto encoder = make(input, wanted(one.codec), one.options);
        const Frames frames = pictures(input, 40);
        const Frames packets = encode(*encoder, frames);
        ASSERT_EQ(packets.size(), frames.size());
        const std::string file = folder / "packets";
        mux(file, one.container, *encoder->GetOutputMediaType(), packets);
        EXPECT_EQ(run("ffmpeg -v warning -xerror -i " + file + " -f null -"), "");
        EXPECT_EQ(
            run("ffprobe -v warning -count_frames -show_entries stream=nb_read_frames -of csv=p=0 " + file),
            "40\n");
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

}  // namespace
}  // namespace Mivra::Test
