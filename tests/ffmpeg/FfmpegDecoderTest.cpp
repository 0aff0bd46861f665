// The decoder against the ffmpeg program: of files that it makes in every codec, each decoded frame has the
// bytes and the time that it gives it, also after packets that were damaged.
#include "mivra/ffmpeg/FfmpegDecoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <random>
#include <string_view>

#include "mivra/ffmpeg/FfmpegObjects.h"
#include "tests/ffmpeg/CodedStream.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Soak.h"
#include "tests/support/TempFolder.h"

namespace Mivra::FFmpeg {
namespace {

using Common::ContentType_t;
using Common::MediaType;
using Media::DecoderParameters;
using Mivra::Test::CodedStream;
using Mivra::Test::FrameDigest;

constexpr const char* kPictures = "-f lavfi -i testsrc2=size=144x112:rate=25:duration=1.2 ";
constexpr const char* kTones = "-f lavfi -i 'aevalsrc=sin(440*t)|sin(660*t*t):s=48000:d=1' ";

struct Case {
    const char* name;
    ContentType_t content;
    const char* file;       // extension
    const char* arguments;  // of the encoder
    const char* oracle = "";
};

constexpr ContentType_t kVideo = ContentType_t::Video;
constexpr ContentType_t kAudio = ContentType_t::Audio;
const Case kCases[] = {
    {"H264", kVideo, "mp4", "-c:v libx264 -bf 3 -g 12"},
    {"H264AnnexB", kVideo, "h264", "-c:v libx264 -bf 2 -g 12"},
    {"H264Ts", kVideo, "ts", "-c:v libx264 -bf 2 -g 12"},
    {"H264Interlaced", kVideo, "mp4", "-c:v libx264 -flags +ilme+ildct -x264opts tff=1 -bf 2 -g 12"},
    {"H264TenBit", kVideo, "mp4", "-pix_fmt yuv420p10le -c:v libx264 -bf 2"},
    {"H264TenBit422", kVideo, "mp4", "-pix_fmt yuv422p10le -c:v libx264 -bf 2"},
    {"H264Chroma422", kVideo, "mkv", "-pix_fmt yuv422p -c:v libx264 -bf 2"},
    {"H264Cropped", kVideo, "mp4", "-vf scale=134:90 -c:v libx264 -bf 2"},
    {"H265", kVideo, "mp4", "-c:v libx265 -x265-params log-level=error -g 12"},
    {"H265Main10", kVideo, "mkv", "-pix_fmt yuv420p10le -c:v libx265 -x265-params log-level=error"},
    {"MPEG1", kVideo, "mpg", "-c:v mpeg1video -bf 2 -g 9"},
    {"MPEG2", kVideo, "ts", "-c:v mpeg2video -bf 2 -g 9"},
    {"MPEG2Interlaced", kVideo, "mpg", "-c:v mpeg2video -flags +ilme+ildct -bf 2 -g 9"},
    {"MPEG4", kVideo, "mp4", "-c:v mpeg4 -bf 2 -g 9"},
    {"H263", kVideo, "3gp", "-vf scale=176:144 -c:v h263"},
    {"WMV1", kVideo, "asf", "-c:v wmv1"},
    {"WMV2", kVideo, "asf", "-c:v wmv2"},
    {"MJPEG", kVideo, "avi", "-c:v mjpeg"},
    {"VP8", kVideo, "mkv", "-c:v libvpx -auto-alt-ref 1 -lag-in-frames 8 -g 12 -deadline realtime"},
    {"VP9", kVideo, "mkv",
     "-c:v libvpx-vp9 -auto-alt-ref 1 -lag-in-frames 8 -g 12 -deadline realtime -cpu-used 8"},
    {"Uncompressed", kVideo, "avi", "-pix_fmt bgr24 -c:v rawvideo"},
    {"AAC", kAudio, "mp4", "-c:a aac", "-c:a pcm_f32le"},
    {"AACAdts", kAudio, "aac", "-c:a aac", "-c:a pcm_f32le"},
    {"AACLatm", kAudio, "latm", "-c:a aac", "-c:a pcm_f32le"},
    {"MP2", kAudio, "mp2", "-c:a mp2", "-c:a pcm_s16le"},
    {"MP3", kAudio, "mp3", "-c:a libmp3lame", "-c:a pcm_f32le"},
    {"AC3", kAudio, "ac3", "-c:a ac3", "-c:a pcm_f32le"},
    {"EAC3", kAudio, "mkv", "-c:a eac3", "-c:a pcm_f32le"},
    {"DTS", kAudio, "mkv", "-strict -2 -c:a dca -b:a 768k", "-c:a pcm_f32le"},
    {"Opus", kAudio, "mkv", "-c:a libopus", "-c:a pcm_f32le"},
    {"FLAC", kAudio, "flac", "-sample_fmt s16 -c:a flac", "-c:a pcm_s16le"},
    {"ALAC", kAudio, "mp4", "-sample_fmt s16p -c:a alac", "-c:a pcm_s16le"},
    {"WavPack", kAudio, "mkv", "-sample_fmt s16p -c:a wavpack", "-c:a pcm_s16le"},
    {"TTA", kAudio, "mkv", "-sample_fmt s16 -c:a tta", "-c:a pcm_s16le"},
    {"Vorbis", kAudio, "mkv", "-c:a libvorbis", "-c:a pcm_f32le"},
    {"WMA1", kAudio, "asf", "-c:a wmav1", "-c:a pcm_f32le"},
    {"WMA2", kAudio, "asf", "-c:a wmav2", "-c:a pcm_f32le"},
    {"PCM", kAudio, "wav", "-c:a pcm_s16le", "-c:a pcm_s16le"},
    {"PCM24", kAudio, "mkv", "-c:a pcm_s24le", "-c:a pcm_s32le"},
    {"G711U", kAudio, "wav", "-ar 8000 -ac 1 -c:a pcm_mulaw", "-c:a pcm_s16le"},
    {"G711A", kAudio, "wav", "-ar 8000 -ac 1 -c:a pcm_alaw", "-c:a pcm_s16le"},
    {"G722", kAudio, "wav", "-ar 16000 -ac 1 -c:a g722", "-c:a pcm_s16le"},
    {"G726", kAudio, "wav", "-ar 8000 -ac 1 -c:a g726 -b:a 32k", "-c:a pcm_s16le"},
    {"G7231", kAudio, "mkv", "-ar 8000 -ac 1 -c:a g723_1 -b:a 6300", "-c:a pcm_s16le"},
    {"GSM", kAudio, "mkv", "-ar 8000 -ac 1 -c:a libgsm_ms", "-c:a pcm_s16le"},
    {"GSMRaw", kAudio, "gsm", "-ar 8000 -ac 1 -c:a libgsm", "-c:a pcm_s16le"},
    {"RealAudio", kAudio, "rm", "-ar 8000 -ac 1 -c:a real_144", "-c:a pcm_s16le"},
    {"AMRNB", kAudio, "amr", "", "-c:a pcm_f32le"},
    {"AMRWB", kAudio, "awb", "", "-c:a pcm_f32le"},
    {"G729", kAudio, "g729", "", "-c:a pcm_s16le"},
    {"MP1", kAudio, "mp2", "", "-c:a pcm_s16le"},
};

/// Codecs that FFmpeg decodes and does not encode: files of noise, which is speech of a kind to them.
struct Noise {
    const char* name;
    std::string_view head;   // of the file
    std::string_view frame;  // its first bytes
    std::size_t size;        // of a frame
};
// Bit allocations of MP1 small enough that no frame runs out of its packet: libavcodec reads on behind it,
// where the program has the next packet and the engine zeros.
constexpr Noise kNoise[] = {{"AMRNB", "#!AMR\n", "\x3c", 32},
                            {"AMRWB", "#!AMR-WB\n", "\x44", 61},
                            {"G729", "", "", 10},
                            {"MP1", "", "\xff\xff\xc4\x04!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!", 384}};

/// False when the codec is none of these.
bool writeNoise(const char* name, const std::string& path) {
    for (const Noise& noise : kNoise) {
        if (noise.name == std::string_view(name)) {
            std::mt19937 random(1);
            std::ofstream file(path, std::ios::binary);
            file << noise.head;
            for (int i = 0; i < 50; ++i) {
                file << noise.frame;
                for (std::size_t at = noise.frame.size(); at < noise.size; ++at) {
                    file << static_cast<char>(random() % 255);  // no byte of a sync word
                }
            }
            return true;
        }
    }
    return false;
}

class FfmpegDecoderTest : public testing::TestWithParam<Case> {
protected:
    FfmpegDecoderTest() { EXPECT_TRUE(use.IsLoaded()); }

    std::string makeFile(const Case& test) const {
        const std::string path = folder / (std::string("coded.") + test.file);
        if (writeNoise(test.name, path)) {
            return path;
        }
        Mivra::Test::RunFfmpeg((test.content == kVideo ? kPictures : kTones) + std::string(test.arguments) +
                               " " + path);
        return path;
    }

    const FfmpegUse use;
    Mivra::Test::LogCapture log;
    const Mivra::Test::TempFolder folder;
};

/// Equal frames in equal order; times may differ by what the oracle's coarser clock rounds.
void expectSame(const std::vector<FrameDigest>& got, const std::vector<FrameDigest>& expected,
                std::int64_t tolerance) {
    ASSERT_EQ(got.size(), expected.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].size, expected[i].size) << i;
        ASSERT_EQ(got[i].hash, expected[i].hash) << i;
        EXPECT_LE(std::abs(got[i].time - expected[i].time), tolerance)
            << i << ": " << got[i].time << " " << expected[i].time;
    }
}

/// Writes so many packets of the stream in turn, with bytes changed, cut off, doubled, or left out.
void writeDamaged(FfmpegDecoder& decoder, const CodedStream& stream, int count, unsigned seed) {
    std::mt19937 random(seed);
    for (int i = 0; i < count; ++i) {
        const auto& good = stream.packets[static_cast<std::size_t>(i) % stream.packets.size()];
        CodedStream damaged;
        std::string bytes(good->Buffer(), static_cast<std::size_t>(good->ActualSize()));
        for (unsigned changes = random() % 4; changes > 0 && !bytes.empty(); --changes) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        if (random() % 8 == 0) {
            bytes.resize(random() % (bytes.size() + 1));
        }
        Common::PacketBuffer& packet = damaged.Add(bytes);
        packet.CopyAttributes(good.get());
        const unsigned fate = random() % 16;
        for (unsigned times = fate == 0 ? 0 : fate == 1 ? 2 : 1; times > 0; --times) {
            decoder.Write(&packet);
        }
        while (Common::PacketBuffer* const frame = decoder.Read()) {
            EXPECT_LE(frame->ActualSize(), frame->Size());
            frame->Release();
        }
    }
}

TEST_P(FfmpegDecoderTest, GivesTheFramesThatFfmpegGives) {
    const Case& test = GetParam();
    const std::string path = makeFile(test);
    CodedStream stream = Mivra::Test::ReadStream(path, test.content);
    const std::vector<FrameDigest> expected = Mivra::Test::FfmpegDigests(path, test.content, test.oracle);
    ASSERT_GE(expected.size(), 1u);
    for (const int threads : {1, 2, 4}) {
        SCOPED_TRACE(threads);
        DecoderParameters parameters;
        parameters.ThreadCount = threads;
        log.Clear();
        FfmpegDecoder decoder(&stream.type, nullptr, &parameters);
        ASSERT_TRUE(decoder.IsUsable()) << ::testing::PrintToString(log.Errors());
        const std::vector<FrameDigest> got = Mivra::Test::DecodeAll(decoder, stream);
        constexpr std::int64_t kSecond = 10000000;
        // Its clock for audio ticks in samples, and glides over the whole milliseconds of some containers.
        const bool coarse = std::string(test.file) == "mkv" || std::string(test.file) == "asf";
        const std::int64_t sample = kSecond / std::max(stream.type.SampleRate(), 1);
        expectSame(got, expected, test.content == kVideo ? 0 : coarse ? kSecond / 1000 : sample);
        EXPECT_TRUE(log.Errors().empty()) << log.Errors()[0];

        writeDamaged(decoder, stream, Mivra::Test::SoakCount(150, 10000), static_cast<unsigned>(threads));
        Mivra::Test::DecodeAll(decoder, stream);  // whatever the damage left behind
        const std::vector<FrameDigest> again = Mivra::Test::DecodeAll(decoder, stream);
        ASSERT_EQ(again.size(), got.size());
        for (std::size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(again[i].hash, got[i].hash) << i;
        }
        if (test.content == kAudio) {
            break;  // always one thread
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Codecs, FfmpegDecoderTest, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& one) { return std::string(one.param.name); });

}  // namespace
}  // namespace Mivra::FFmpeg
