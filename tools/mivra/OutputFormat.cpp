#include "tools/mivra/OutputFormat.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>

#include "tools/mivra/MediaFile.h"
#include "tools/mivra/NetworkAddress.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {
namespace {

using Common::ContentType_t;
using Common::MediaType;

constexpr std::size_t kAny = SIZE_MAX;

/// What has a stream type in MPEG-2 transport streams; all else would be private data that players pass over.
constexpr int kTransportCodecs[] = {
    AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_MPEG4,    AV_CODEC_ID_H264,
    AV_CODEC_ID_HEVC,       AV_CODEC_ID_CAVS,       AV_CODEC_ID_AVS2,     AV_CODEC_ID_AVS3,
    AV_CODEC_ID_DIRAC,      AV_CODEC_ID_VC1,        AV_CODEC_ID_MP1,      AV_CODEC_ID_MP2,
    AV_CODEC_ID_MP3,        AV_CODEC_ID_AAC,        AV_CODEC_ID_AAC_LATM, AV_CODEC_ID_AC3,
    AV_CODEC_ID_EAC3,       AV_CODEC_ID_DTS,        AV_CODEC_ID_TRUEHD,   AV_CODEC_ID_OPUS,
    AV_CODEC_ID_S302M,
};
/// What the format's own description allows; libavformat knows more, but refuses it when it comes to writing.
constexpr int kFlashCodecs[] = {
    AV_CODEC_ID_FLV1,      AV_CODEC_ID_FLASHSV,    AV_CODEC_ID_FLASHSV2, AV_CODEC_ID_VP6F,
    AV_CODEC_ID_VP6A,      AV_CODEC_ID_H264,       AV_CODEC_ID_MP3,      AV_CODEC_ID_AAC,
    AV_CODEC_ID_SPEEX,     AV_CODEC_ID_NELLYMOSER, AV_CODEC_ID_PCM_U8,   AV_CODEC_ID_PCM_S16LE,
    AV_CODEC_ID_ADPCM_SWF, AV_CODEC_ID_PCM_MULAW,  AV_CODEC_ID_PCM_ALAW,
};
constexpr int kH264[] = {AV_CODEC_ID_H264};
constexpr int kAac[] = {AV_CODEC_ID_AAC};

constexpr OutputFormat kFormats[] = {
    {".ts", "mpegts", kAny, kAny, kTransportCodecs},
    {".mp4", "mp4", kAny, kAny, {}},
    {".mkv", "matroska", kAny, kAny, {}},
    {".flv", "flv", 1, 1, kFlashCodecs},
    {".h264", "h264", 1, 0, kH264},
    {".aac", "adts", 0, 1, kAac},
    {".m4a", "ipod", 0, kAny, kAac},
};

constexpr std::int64_t kDefaultStreamBonus = 5000000;

/// FLV has numbers for few sample rates; codecs that carry their own, and telephony's, need none.
bool hasFlashRate(const MediaType& type) {
    switch (static_cast<int>(type.CodecId())) {
        case AV_CODEC_ID_MP3:
        case AV_CODEC_ID_PCM_U8:
        case AV_CODEC_ID_PCM_S16LE:
        case AV_CODEC_ID_ADPCM_SWF: {
            const int rate = type.SampleRate();
            return rate == 44100 || rate == 22050 || rate == 11025;
        }
        default:
            return true;
    }
}

/// Matroska keeps cover pictures as attachments.
bool isMatroskaCover(const OutputFormat& format, const MediaType& type) {
    const int codec = static_cast<int>(type.CodecId());
    return std::strcmp(format.muxer, "matroska") == 0 && isStill(type) &&
           (codec == AV_CODEC_ID_MJPEG || codec == AV_CODEC_ID_PNG);
}

bool holds(const OutputFormat& format, const AVOutputFormat& muxer, const MediaType& type) {
    const int codec = static_cast<int>(type.CodecId());
    if (!format.codecs.empty()) {
        return std::find(format.codecs.begin(), format.codecs.end(), codec) != format.codecs.end() &&
               (std::strcmp(format.muxer, "flv") != 0 || hasFlashRate(type));
    }
    return isMatroskaCover(format, type) ||
           FFmpeg::FfmpegOptional::avformat_query_codec(&muxer, codec, FF_COMPLIANCE_NORMAL) > 0;
}

std::int64_t score(const MediaType& type) {
    if (isStill(type)) {
        return 1;
    }
    const std::int64_t disposition = numberOf(type, Key::kDisposition, 0);
    const std::int64_t size = type.ContentType() == ContentType_t::Video
                                  ? std::int64_t{type.Width()} * type.Height()
                                  : type.Channels();
    return size + ((disposition & AV_DISPOSITION_DEFAULT) != 0 ? kDefaultStreamBonus : 0);
}

}  // namespace

const OutputFormat* findOutputFormat(const std::string& path) {
    const bool stream = path == kStandardStream || NetworkAddress::IsOne(path);
    std::string extension = stream ? ".ts" : std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const OutputFormat& format : kFormats) {
        if (extension == format.extension) {
            return &format;
        }
    }
    return nullptr;
}

std::string outputExtensions() {
    std::string text;
    for (const OutputFormat& format : kFormats) {
        text += (text.empty() ? "" : ", ") + std::string(format.extension);
    }
    return text;
}

std::vector<std::size_t> chooseStreams(const OutputFormat& format, const AVOutputFormat& muxer,
                                       const std::vector<MediaType>& types) {
    std::vector<std::size_t> chosen;
    for (const auto& [kind, most] :
         {std::pair{ContentType_t::Video, format.mostVideo}, {ContentType_t::Audio, format.mostAudio}}) {
        std::vector<std::size_t> candidates;
        for (std::size_t i = 0; i < types.size(); ++i) {
            if (types[i].ContentType() == kind && holds(format, muxer, types[i])) {
                candidates.push_back(i);
            }
        }
        if (candidates.size() > most) {
            std::stable_sort(candidates.begin(), candidates.end(),
                             [&](std::size_t a, std::size_t b) { return score(types[a]) > score(types[b]); });
            candidates.resize(most);
        }
        chosen.insert(chosen.end(), candidates.begin(), candidates.end());
    }
    std::sort(chosen.begin(), chosen.end());
    return chosen;
}

}  // namespace Mivra::Tool
