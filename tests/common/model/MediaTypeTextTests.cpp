#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <sstream>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include "mivra/common/model/MediaNames.h"
#include "mivra/common/model/MediaType.h"

namespace Mivra::Test {
namespace {

using namespace Common;

MediaType fromHex(const std::string& codec, const std::string& hex) {
    return MediaType::FromParameterString("codecId=" + codec + "&privateData=" + hex);
}

TEST(MediaTypeText, NumbersAreThoseOfFfmpeg) {
    const std::pair<Codec_t, AVCodecID> codecs[] = {
        {Codec_t::WMV3, AV_CODEC_ID_WMV3},         {Codec_t::UNCOMPRESSED, AV_CODEC_ID_RAWVIDEO},
        {Codec_t::H264, AV_CODEC_ID_H264},         {Codec_t::VP8, AV_CODEC_ID_VP8},
        {Codec_t::VP9, AV_CODEC_ID_VP9},           {Codec_t::H265, AV_CODEC_ID_HEVC},
        {Codec_t::G711U, AV_CODEC_ID_PCM_MULAW},   {Codec_t::PCM_S16BE_PLANAR, AV_CODEC_ID_PCM_S16BE_PLANAR},
        {Codec_t::G722, AV_CODEC_ID_ADPCM_G722},   {Codec_t::RA_288, AV_CODEC_ID_RA_288},
        {Codec_t::AAC_LATM, AV_CODEC_ID_AAC_LATM}, {Codec_t::WMALOSSLESS, AV_CODEC_ID_WMALOSSLESS},
        {Codec_t::APE, AV_CODEC_ID_APE},           {Codec_t::G729, AV_CODEC_ID_G729}};
    for (const auto& [ours, theirs] : codecs) {
        EXPECT_EQ(static_cast<int>(ours), theirs);
    }
    EXPECT_EQ(static_cast<int>(PixelFormat_t::NV12), AV_PIX_FMT_NV12);
    EXPECT_EQ(static_cast<int>(PixelFormat_t::BGRA), AV_PIX_FMT_BGRA);
    EXPECT_EQ(static_cast<int>(SampleFormat_t::DBLP), AV_SAMPLE_FMT_DBLP);
    // Each enumerator that has a display name of its own has that name; the rest are the ranges.
    std::istringstream names(
        "0 None/1 MPEG1/2 MPEG2/4 H263/7 MJPEG/12 MPEG4/13 Uncompressed/17 WMV/18 WMV/71 WMV/70 VC1/"
        "27 H264/139 VP8/167 VP9/173 H265/65536 PCM/65541 PCM/65542 G711U/65543 G711A/65544 PCM/"
        "65566 PCM/65567 Codec 65567/69643 G726/69660 G722/73728 AMR_NB/73729 AMR_WB/77824 RealAudio/"
        "77825 RealAudio/86016 MP2/86017 MP3/86018 AAC/86019 AC3/86020 DTS/86021 Vorbis/"
        "86022 Codec 86022/86023 WMA/86024 WMA/86052 WMA/86053 WMA/86054 WMA/86028 FLAC/86032 ALAC/"
        "86034 GSM/86037 TrueSpeech/86038 TTA/86040 QCELP/86041 WavPack/86046 GSM_MS/86048 Ape/"
        "86056 EAC3/86058 MP1/86065 AAC-LATM/86068 G723_1/86069 G729/-5 Codec -5");
    int code = 0;
    for (std::string name; names >> code && std::getline(names >> std::ws, name, '/');) {
        EXPECT_EQ(CodecName(static_cast<Codec_t>(code)), name);
    }
    EXPECT_EQ(code, -5) << "the last";
}

TEST(MediaTypeText, ParsesTheNamesItKnows) {
    struct Case {
        const char* name;
        int code;
    };
    constexpr Case Cases[] = {
        {"mpeg1", 1},         {"mpeg2", 2},      {"h263", 4},     {"mjpeg", 7},      {"mpeg4", 12},
        {"uncompressed", 13}, {"wmv", 71},       {"vc1", 70},     {"H264", 27},      {"vp8", 139},
        {"Vp9", 167},         {"h265", 173},     {"HEVC", 173},   {"pcm", 65536},    {"g711u", 65542},
        {"g711a", 65543},     {"g726", 69643},   {"g722", 69660}, {"amr_nb", 73728}, {"amr_wb", 73729},
        {"mp2", 86016},       {"mp3", 86017},    {"aac", 86018},  {"ac3", 86019},    {"dts", 86020},
        {"vorbis", 86021},    {"flac", 86028},   {"alac", 86032}, {"gsm", 86034},    {"qcelp", 86040},
        {"wavpack", 86041},   {"gsm_ms", 86046}, {"ape", 86048},  {"eac3", 86056},   {"mp1", 86058},
        {"AAC-LATM", 86065},  {"g723_1", 86068}, {"g729", 86069}, {"None", 0},       {"realaudio", 0},
        {"wma", 0},           {"truespeech", 0}, {"tta", 0},      {"Codec 27", 0},   {"", 0},
    };
    for (const Case& c : Cases) {
        const MediaType type = MediaType::FromParameterString(std::string("codecId=") + c.name);
        EXPECT_EQ(static_cast<int>(type.CodecId()), c.code) << c.name;
    }
    constexpr const char* Formats[] = {"u8",  "S16",  "s32",  "flt",  "dbl",
                                       "u8p", "s16p", "S32p", "fltp", "dblp"};
    for (int i = 0; i < 10; ++i) {
        const MediaType type = MediaType::FromParameterString(std::string("sampleFormat=") + Formats[i]);
        EXPECT_EQ(static_cast<int>(type.SampleFormat()), i);
    }
    EXPECT_STREQ(SampleFormatName(static_cast<SampleFormat_t>(10)), "Unknown");
    EXPECT_STREQ(SampleFormatName(SampleFormat_t::None), "Unknown");
}

TEST(MediaTypeText, PrintsOneLineForLogs) {
    struct Case {
        const char* parameters;
        const char* expected;
    };
    constexpr Case Cases[] = {
        {"", "Empty"},
        {"contentType=text", "Text"},
        {"contentType=BINARY", "Binary"},
        {"contentType=Video&codecId=H264&bitrate=2000999&width=1920&height=1080&framerate=25",
         "Video H264 2000 kbps 1920x1080 25 fps"},
        {"contentType=Video&codecId=H265&width=1&height=2&framerate=29.97",
         "Video H265 0 kbps 1x2 29.97 fps"},
        {"contentType=Video&codecId=uncompressed&width=4&height=2&bitrate=9000",
         "Video Uncompressed pixel format -1 4x2 0 fps"},
        {"contentType=Audio&codecId=pcm&sampleFormat=S16&sampleRate=48000&channels=2",
         "Audio PCM sample format S16 48000 Hz 2 ch"},
        {"contentType=Audio&codecId=AAC&bitrate=1128000&sampleRate=44100&channels=1",
         "Audio AAC 1128 kbps 44100 Hz 1 ch"},
    };
    for (const Case& c : Cases) {
        EXPECT_EQ(MediaType::FromParameterString(c.parameters).ToString(), c.expected);
    }
    MediaType big = MediaType::FromParameterString("contentType=Audio&sampleRate=8000&channels=1");
    big.CodecId() = Codec_t::PCM_S16BE;
    EXPECT_EQ(big.ToString(), "Audio PCM 0 kbps 8000 Hz 1 ch") << "only 65536 names its samples";
}

TEST(MediaTypeText, WritesTheParameterString) {
    // Unknown keys, names and numbers leave the defaults; the string is otherwise its own inverse.
    struct Case {
        const char* parameters;
        const char* expected;
    };
    constexpr Case Cases[] = {
        {"", "contentType=Unknown&codecId=None&bitrate=0"},
        {"contentType=Smell&codecId=Sound&bitrate=fast&colour=red&&=&width",
         "contentType=Unknown&codecId=None&bitrate=0"},
        {"bitrate=99999999999&privateData=123&contentType=text", "contentType=Text&codecId=None&bitrate=0"},
        {"privateData=1g&contenttype=text", "contentType=Unknown&codecId=None&bitrate=0"},
        {"contentType=Audio&codecId=AAC&bitrate=-5&privateData=12F0&sampleRate=44100&channels=2&"
         "bitsPerSample=16&isAdts=1",
         "contentType=Audio&codecId=AAC&bitrate=-5&privateData=12f0&sampleRate=44100&channels=2&"
         "bitsPerSample=16&isAdts=1"},
        {"contentType=Audio&codecId=AAC-LATM&isAdts=1",
         "contentType=Audio&codecId=AAC-LATM&bitrate=0&sampleRate=0&channels=0&bitsPerSample=0"},
        {"contentType=Video&codecId=H265&width=3&height=4&framerate=23.976023976",
         "contentType=Video&codecId=H265&bitrate=0&width=3&height=4&framerate=23.976"},
        // A record with two sequence sets and one picture set: the first of each.
        {"codecId=H264&privateData=0164001fffe2000267640001680100026"
         "8ce",
         "contentType=Unknown&codecId=H264&bitrate=0&privateData=0164001fffe20002676400016801000268ce"
         "&privateDataSdp=Z2Q=,aM4=&profileLevel=000000"},
        // No picture set, a cut picture set, no sequence set, a cut record, and what is no record.
        {"codecId=H264&privateData=0164001fffe10002676400",
         "contentType=Unknown&codecId=H264&bitrate=0&privateData=0164001fffe10002676400&privateDataSdp=Z2Q="
         "&profileLevel=000000"},
        {"codecId=H264&privateData=0164001fffe1000267640100ff68",
         "contentType=Unknown&codecId=H264&bitrate=0&privateData=0164001fffe1000267640100ff68&privateDataSdp="
         "Z2Q="
         "&profileLevel=000000"},
        {"codecId=H264&privateData=0164001fffe000",
         "contentType=Unknown&codecId=H264&bitrate=0&privateData=0164001fffe000&profileLevel=000000"},
        {"codecId=H264&privateData=01",
         "contentType=Unknown&codecId=H264&bitrate=0&privateData=01&profileLevel=000000"},
        {"codecId=H264&privateData=00000001674d",
         "contentType=Unknown&codecId=H264&bitrate=0&privateData=00000001674d&profileLevel=000000"},
        // Annex B tells the sets of a record, and stays what it is; a unit alone tells no sets.
        {"codecId=H264&privateData=0000000167640028acda01e0089f9500000168dae3882d80",
         "contentType=Unknown&codecId=H264&bitrate=0&privateData="
         "0000000167640028acda01e0089f9500000168dae3882d80"
         "&privateDataSdp=Z2QAKKzaAeAIn5U=,aNrjiC2A&profileLevel=640028"},
        {"codecId=H264&privateData=67640028acda01e0089f95",
         "contentType=Unknown&codecId=H264&bitrate=0&privateData=67640028acda01e0089f95&profileLevel=640028"},
    };
    for (const Case& c : Cases) {
        const std::string written = MediaType::FromParameterString(c.parameters).ToParameterString();
        EXPECT_EQ(written, c.expected);
        EXPECT_EQ(MediaType::FromParameterString(written).ToParameterString(), c.expected);
    }
    MediaType type = fromHex("H264", "01");
    type.SetProfileLevel(0x4D401F);
    EXPECT_NE(type.ToParameterString().find("&profileLevel=4d401f"), std::string::npos);
    EXPECT_TRUE(MediaType::FromParameterString("framerate=29.97").Framerate() == Rational(30000, 1001));
}

TEST(MediaTypeText, NamesTheCodecForContainers) {
    EXPECT_EQ(fromHex("AAC", "1210").ToBucketMediaType(), "mp4a.40.2");
    EXPECT_EQ(fromHex("AAC-LATM", "f8").ToBucketMediaType(), "mp4a.40.31");
    EXPECT_EQ(fromHex("AAC", "").ToBucketMediaType(), "");
    EXPECT_EQ(fromHex("AC3", "1210").ToBucketMediaType(), "");
    MediaType video = fromHex("H264", "01");
    video.SetProfileLevel(0x640029);
    EXPECT_EQ(video.ToBucketMediaType(), "avc1.640029");
    EXPECT_EQ(fromHex("H264", "67640028acda01e0089f95").ToBucketMediaType(), "avc1.640028");
}

// A locale that groups digits and writes a comma changes no text.
TEST(MediaTypeText, KnowsNoLocale) {
    struct Commas : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::string parameters =
        "contentType=Video&codecId=H265&bitrate=2000000&width=1920&height=1080&framerate=29.97";
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Commas));
    const char* found = nullptr;
    for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8", "de_DE"}) {
        found = found != nullptr ? found : std::setlocale(LC_NUMERIC, name);
    }
    const MediaType type = MediaType::FromParameterString(parameters);
    const std::string written = type.ToParameterString();
    const std::string line = type.ToString();
    std::setlocale(LC_NUMERIC, "C");
    std::locale::global(before);
    EXPECT_EQ(written, parameters);
    EXPECT_EQ(line, "Video H265 2000 kbps 1920x1080 29.97 fps");
}

}  // namespace
}  // namespace Mivra::Test
