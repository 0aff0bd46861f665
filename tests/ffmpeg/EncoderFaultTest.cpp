// The encoder when something is wrong, missing or full, and what it holds on to.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/EncoderChoice.h"
#include "mivra/ffmpeg/EncoderOptions.h"
#include "mivra/ffmpeg/FfmpegOptional.h"
#include "mivra/platform/System.h"
#include "tests/ffmpeg/EncoderFixture.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/Soak.h"

namespace Mivra::Test {
namespace {

using Common::Codec_t;
using Common::MediaType;
using Common::PixelFormat_t;
using Common::SampleFormat_t;
using FFmpeg::EncoderCandidate;
using FFmpeg::FfmpegEncoder;
using FFmpeg::FfmpegOptional;
using FFmpeg::FfmpegProxy;

/// Puts another value in a variable for as long as it lives.
template <typename T>
class Replaced {
public:
    Replaced(T& variable_, T value) : variable(variable_), old(variable_) { variable = value; }
    ~Replaced() { variable = old; }
    Replaced(const Replaced&) = delete;
    Replaced& operator=(const Replaced&) = delete;

private:
    T& variable;
    const T old;
};

class EncoderFaultTest : public EncoderTest {
protected:
    const MediaType video = videoInput({64, 48});
    const MediaType audio = audioInput(SampleFormat_t::S16, 48000, 2);
};

TEST_F(EncoderFaultTest, RefusesWithOneLineWhatCannotBeMade) {
    const MediaType h264 = wanted(Codec_t::H264);
    const MediaType aac = wanted(Codec_t::AAC);
    const auto with = [](MediaType type, const std::function<void(MediaType&)>& change) {
        change(type);
        return type;
    };
    struct Case {
        const char* says;
        MediaType input;
        MediaType output;
        std::string options;
    };
    const Case cases[] = {
        {"no encoder for codec 999999", video, wanted(static_cast<Codec_t>(999999)), ""},
        {"no encoder for codec 0", video, wanted(Codec_t::None), ""},
        {"of another content type", audio,
         with(aac, [](auto& t) { t.ContentType() = Common::ContentType_t::Video; }), ""},
        {"no raw audio", video, aac, ""},
        {"no raw picture", audio, h264, ""},
        {"no raw picture", with(video, [](auto& t) { t.CodecId() = Codec_t::MPEG4; }), h264, ""},
        {"no raw picture", with(video, [](auto& t) { t.Height() = -48; }), h264, ""},
        {"no raw picture", with(video, [](auto& t) { t.CodecMetadata()["Stride"] = 63; }), h264, ""},
        {"no raw picture", with(video, [](auto& t) { t.Width() = t.Height() = 1 << 30; }), h264, ""},
        {"no raw picture", with(video, [](auto& t) { t.PixelFormat() = static_cast<PixelFormat_t>(7777); }),
         h264, ""},
        {"size of the pictures", video, with(h264, [](auto& t) { t.Width() = 1 << 30; }), ""},
        {"no raw audio", with(audio, [](auto& t) { t.CodecId() = Codec_t::PCM_S16BE; }), aac, ""},
        {"no raw audio", with(audio, [](auto& t) { t.CodecId() = Codec_t::PCM_U8; }), aac, ""},
        {"no raw audio", with(audio, [](auto& t) { t.SampleRate() = 0; }), aac, ""},
        {"samples cannot be converted", with(audio, [](auto& t) { t.SampleRate() = 1; }), aac, ""},
        {"sample rate of 47999 Hz", audio,
         with(wanted(Codec_t::MP2), [](auto& t) { t.SampleRate() = 47999; }), ""},
        {"no layout of the channels", audio, with(wanted(Codec_t::MP2), [](auto& t) { t.Channels() = 6; }),
         ""},
        {"libopus: ", audio, wanted(static_cast<Codec_t>(AV_CODEC_ID_OPUS), 1), ""},
        {"unknown option 'sharpness'", video, h264, "preset=ultrafast:sharpness=3"},
        {"libx264: ", video, h264, "preset=fastest"},
        {"no value", video, h264, "preset"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.says);
        Common::LogLine(Common::FileLog::Debug, "%s", one.says);  // equal lines would be folded
        const auto encoder = make(one.input, one.output, one.options);
        EXPECT_FALSE(encoder->IsUsable());
        const std::string line = onlyError();
        EXPECT_NE(line.find(one.says), std::string::npos) << line;
        encoder->Drain();
        EXPECT_EQ(encoder->Read(), nullptr);
        EXPECT_FALSE(encoder->Write(picture(video, 0).get()));
    }
}

TEST(EncoderOptions, ArePairsWithEscapes) {
    using List = FFmpeg::EncoderOptionList;
    const std::pair<const char*, List> good[] = {
        {"", {}},
        {"a=1", {{"a", "1"}}},
        {"a=1:b=", {{"a", "1"}, {"b", ""}}},
        {"x=k=1\\:j=2:y=\\\\", {{"x", "k=1:j=2"}, {"y", "\\"}}},
        {"a\\=b=c", {{"a=b", "c"}}},
    };
    List list;
    std::string error;
    for (const auto& [text, expected] : good) {
        EXPECT_TRUE(FFmpeg::parseEncoderOptions(text, list, error)) << text;
        EXPECT_EQ(list, expected) << text;
    }
    for (const std::string& text :
         {std::string("a"), std::string("=1"), std::string("a=1:"), std::string("a=1::b=2"),
          std::string("a=\\"), std::string("a=\0", 3), std::string("\\")}) {
        EXPECT_FALSE(FFmpeg::parseEncoderOptions(text, list, error)) << text;
        EXPECT_TRUE(list.empty() && !error.empty());
    }
}

TEST(EncoderWithoutFfmpeg, IsUnusable) {
    LogCapture log;
    static void* (*s_findSymbol)(void*, const char*);
    s_findSymbol = Platform::g_system.findSymbol;
    const auto tryOne = [&] {
        MediaType input = videoInput({});
        MediaType output = wanted(Codec_t::MPEG4);
        EXPECT_FALSE(FfmpegEncoder(&input, &output, nullptr).IsUsable());
        EXPECT_EQ(FfmpegProxy::ReferenceCount(), 0);
        ASSERT_EQ(log.Errors().size(), 1U);
    };
    {
        const Replaced hidden(
            Platform::g_system.openLibrary, +[](const char*, int) -> void* {
                errno = ENOENT;
                return nullptr;
            });
        tryOne();
        EXPECT_TRUE(log.Contains("FFmpeg cannot be loaded"));
    }
    log.Clear();
    const Replaced hidden(
        Platform::g_system.findSymbol, +[](void* library, const char* name) {
            return std::string_view(name) == "av_buffer_create" ? nullptr : s_findSymbol(library, name);
        });
    tryOne();
    EXPECT_TRUE(log.Contains("FFmpeg lacks the function av_buffer_create"));
}

TEST_F(EncoderFaultTest, RefusesShortFramesAndReadsNothingBehindWholeOnes) {
    const auto pageSize = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    auto* const pages = static_cast<char*>(
        ::mmap(nullptr, 4 * pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ::mprotect(pages + 3 * pageSize, pageSize, PROT_NONE);
    for (const PixelFormat_t format : {PixelFormat_t::YUV420P, PixelFormat_t::RGB24}) {
        const MediaType input = videoInput({30, 26, format});
        const auto encoder = make(input, wanted(Codec_t::MPEG4));
        Frame model = picture(input, 0);
        const int size = model->ActualSize();
        char* const begin = pages + 3 * pageSize - size;
        std::memcpy(begin, model->Buffer(), static_cast<std::size_t>(size));
        const Frame atTheEnd = Frame::Adopt(new Common::PacketBuffer(begin, size));
        EXPECT_TRUE(encoder->Write(atTheEnd.get()));
        Frame::Adopt(encoder->Read());
        model->ActualSize() = size - 1;
        EXPECT_FALSE(encoder->Write(model.get()));
        EXPECT_NE(onlyError().find(std::to_string(size) + " are needed"), std::string::npos);
        model->ActualSize() = 0;
        EXPECT_FALSE(encoder->Write(model.get()));
        onlyError();
        EXPECT_FALSE(encoder->Write(nullptr));
        encoder->Drain();
        while (Frame::Adopt(encoder->Read())) {
        }
    }
    ::munmap(pages, 4 * pageSize);
    const auto encoder = make(audio, wanted(Codec_t::AAC));
    const Frame broken = tone(audio, 0, 1024);
    broken->ActualSize() -= 1;
    EXPECT_FALSE(encoder->Write(broken.get()));
    onlyError();
}

std::vector<std::uint8_t*> s_lent;
decltype(FfmpegOptional::av_buffer_create) s_createBuffer;

TEST_F(EncoderFaultTest, TakesPicturesWithoutACopyAndGivesThemBack) {
    s_lent.clear();
    s_createBuffer = FfmpegOptional::av_buffer_create;
    const Replaced spy(
        FfmpegOptional::av_buffer_create,
        +[](std::uint8_t* data, std::size_t size, void (*release)(void*, std::uint8_t*), void* opaque,
            int flags) {
            s_lent.push_back(data);
            return s_createBuffer(data, size, release, opaque, flags);
        });
    auto encoder = make(video, wanted(Codec_t::H264), "preset=ultrafast");
    const Frame frame = picture(video, 0);
    EXPECT_TRUE(encoder->Write(frame.get()));
    ASSERT_EQ(s_lent.size(), 1U);
    EXPECT_EQ(reinterpret_cast<char*>(s_lent[0]), frame->Buffer());
    encoder->Drain();
    const Frame packet = Frame::Adopt(encoder->Read());
    encoder.reset();
    EXPECT_EQ(frame->ReferenceCount(), 1);
    ASSERT_TRUE(packet);  // and outlives its encoder
    EXPECT_GT(bytesOf(*packet.get()).size(), 100U);
}

TEST_F(EncoderFaultTest, AllocatesNothingInTheSteadyState) {
    struct Case {
        Codec_t codec;
        MediaType input;
        const char* options;
    };
    for (const Case& one : {Case{Codec_t::H264, video, "bf=2"},
                            Case{Codec_t::MPEG4, videoInput({64, 48, PixelFormat_t::RGB24}), ""},
                            Case{Codec_t::AAC, audio, ""}}) {
        const MediaType& input = one.input;
        const auto encoder = make(input, wanted(one.codec), one.options);
        const bool pictures = input.Width() != 0;
        const auto round = [&](int from, int to) {
            for (int n = from; n < to; ++n) {
                const Frame frame = pictures ? picture(input, n) : tone(input, n * 1000, 1000);
                EXPECT_TRUE(encoder->Write(frame.get()));
                while (Frame::Adopt(encoder->Read())) {
                }
            }
        };
        round(0, 100);
        const FaultPlan counter(FaultKind::Allocate, UINT64_MAX);
        round(100, 200);
        EXPECT_EQ(counter.Calls(), 0U);
    }
}

TEST_F(EncoderFaultTest, EveryAllocationMayFail) {
    struct Case {
        Codec_t codec;
        MediaType input;
    };
    for (const Case& one : {Case{Codec_t::H264, videoInput({64, 48, PixelFormat_t::RGB24})},
                            Case{Codec_t::AAC, audioInput(SampleFormat_t::S16, 44100, 2)}}) {
        const MediaType& input = one.input;
        const Codec_t codec = one.codec;
        const Frames frames = input.Width() != 0 ? pictures(input, 4) : tones(input, 4000, 1000);
        MediaType in = input;
        MediaType out = wanted(codec);
        out.SampleRate() = input.Width() != 0 ? 0 : 48000;
        const std::uint64_t failures = ForEachNthFailure(FaultKind::Allocate, [&] {
            Media::MediaGlobal::Uninitialize();
            Media::MediaGlobal::Initialize(5120, 4, 51200, 2, 100000, 2);
            try {
                Media::EncoderParameters parameters =
                    encoderParameters(codec == Codec_t::H264 ? "preset=ultrafast" : "");
                FfmpegEncoder encoder(&in, &out, &parameters);
                for (const Frame& frame : frames) {
                    encoder.Write(frame.get());
                    Frame::Adopt(encoder.Read());
                }
                encoder.Drain();
                while (Frame::Adopt(encoder.Read())) {
                }
            } catch (const std::bad_alloc&) {  // of the media types' copies
            }
        });
        EXPECT_GT(failures, kCountsOperatorNew ? 10U : 0U);
    }
    log.Clear();
    Media::MediaGlobal::Uninitialize();
    Media::MediaGlobal::Initialize(1.0F);
}

bool s_full;
int s_failures;  // of sending that are to come
decltype(FfmpegProxy::avcodec_send_frame) s_sendFrame;

int sendFrame(AVCodecContext* context, const AVFrame* frame) {
    if (s_full) {
        return AVERROR(EAGAIN);
    }
    if (s_failures > 0) {
        --s_failures;
        return AVERROR(EIO);
    }
    return s_sendFrame(context, frame);
}

TEST_F(EncoderFaultTest, FullEncodersTakeNothingMoreAndLoseNothing) {
    s_sendFrame = FfmpegProxy::avcodec_send_frame;
    const Replaced gate(FfmpegProxy::avcodec_send_frame, sendFrame);
    const auto encoder = make(video, wanted(Codec_t::MPEG4));
    s_full = true;
    EXPECT_TRUE(encoder->Write(picture(video, 0).get()));  // waits in front of the encoder
    EXPECT_FALSE(encoder->Write(picture(video, 1).get()));
    encoder->Drain();
    EXPECT_EQ(encoder->Read(), nullptr);
    s_full = false;
    EXPECT_TRUE(Frame::Adopt(encoder->Read()));
    EXPECT_EQ(encoder->Read(), nullptr);
    EXPECT_FALSE(encoder->Write(picture(video, 1).get()));  // drained
    const auto sound = make(audio, wanted(Codec_t::AAC));
    EXPECT_TRUE(sound->Write(tone(audio, 0, 1000).get()));
    {
        const Replaced noMemory(
            FfmpegOptional::av_buffer_create,
            +[](std::uint8_t*, std::size_t, void (*)(void*, std::uint8_t*), void*, int) -> AVBufferRef* {
                return nullptr;
            });
        sound->Drain();  // the last samples stay where they are
        EXPECT_EQ(sound->Read(), nullptr);
    }
    EXPECT_TRUE(Frame::Adopt(sound->Read()));
    const auto other = make(video, wanted(Codec_t::MPEG4));
    s_failures = 1;
    EXPECT_FALSE(other->Write(picture(video, 0).get()));
    EXPECT_NE(onlyError().find("Input/output error"), std::string::npos);
    EXPECT_TRUE(other->Write(picture(video, 1).get()));
}

constexpr EncoderCandidate kBrokenHardware[] = {
    {Codec_t::H264, "h264_vaapi", "/dev/null", AV_HWDEVICE_TYPE_VAAPI},
    {Codec_t::H264, "mjpeg", "/dev/null"},
    {Codec_t::H264, "libx264"}};
constexpr EncoderCandidate kHardware[] = {{Codec_t::H264, "absent", "/dev/null"},
                                          {Codec_t::H264, "mpeg4", "/dev/absent"},
                                          {Codec_t::H264, "libx264", "/dev/null"},
                                          {Codec_t::H264, "libx264"},
                                          {Codec_t::H264, "mpeg4"}};

TEST_F(EncoderFaultTest, HardwareThatFailsIsReplacedBySoftware) {
    const Frames frames = pictures(video, 6);
    {
        const Replaced table(FFmpeg::g_encoderCandidates, std::span<const EncoderCandidate>(kBrokenHardware));
        MediaType input = video;
        MediaType output = wanted(Codec_t::H264);
        FfmpegEncoder encoder(&input, &output, nullptr);
        EXPECT_TRUE(encoder.IsUsable());
        EXPECT_EQ(log.Lines(Common::FileLog::Information).size(), 1U);  // the second is not even tried
        EXPECT_EQ(encode(encoder, frames).size(), 6U);
    }
    const Replaced table(FFmpeg::g_encoderCandidates, std::span<const EncoderCandidate>(kHardware));
    s_sendFrame = FfmpegProxy::avcodec_send_frame;
    const Replaced gate(FfmpegProxy::avcodec_send_frame, sendFrame);
    const auto encoder = make(video, wanted(Codec_t::H264), "tune=zerolatency");
    EXPECT_EQ(encode(*encoder, {frames[0]}).size(), 1U);
    const auto failing = make(video, wanted(Codec_t::H264));
    ASSERT_TRUE(failing->IsUsable());
    s_failures = 1;
    const Frames packets = encode(*failing, frames);
    ASSERT_EQ(packets.size(), 6U);
    EXPECT_EQ(packets[0]->Pts(), 0);  // the one that failed comes again
    EXPECT_EQ(log.Count("software goes on"), 1);
}

TEST_F(EncoderFaultTest, EnginesLeaveNothingBehind) {
    const auto residentPages = [] {
        std::string text = ReadWholeFile("/proc/self/statm");
        return std::stol(text.substr(text.find(' ') + 1));
    };
    const int count = SoakCount(30, 10000);
    const Frame frame = picture(video, 0);
    const Frame samples = tone(audio, 0, 2048);
    long before = 0;
    for (int n = 0; n < count; ++n) {
        for (const bool pictures : {true, false}) {
            const auto encoder = pictures ? make(video, wanted(Codec_t::H264), "preset=ultrafast")
                                          : make(audio, wanted(Codec_t::AAC));
            EXPECT_TRUE(encoder->Write(pictures ? frame.get() : samples.get()));
            if (n % 2 == 0) {  // else it goes with what it holds
                encoder->Drain();
                while (Frame::Adopt(encoder->Read())) {
                }
            }
        }
        log.Clear();  // else its lines are what grows
        if (n == count / 3) {
            before = residentPages();
        }
    }
    // A program that looks for leaks keeps what is freed for a while.
    EXPECT_TRUE(LeaksAllowed::kLooked || residentPages() - before < 1024);
}

}  // namespace
}  // namespace Mivra::Test
