#include "tools/mivra/CodecNames.h"

#include <algorithm>
#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace Mivra::Tool {
namespace {

using Common::Codec_t;
using Common::ContentType_t;

struct Word {
    ContentType_t kind;
    const char* name;
    int codec;
    bool listed = true;
};

constexpr Word kWords[] = {
    {ContentType_t::Video, "h264", AV_CODEC_ID_H264},
    {ContentType_t::Video, "avc", AV_CODEC_ID_H264, false},
    {ContentType_t::Video, "h265", AV_CODEC_ID_HEVC},
    {ContentType_t::Video, "hevc", AV_CODEC_ID_HEVC, false},
    {ContentType_t::Video, "mpeg2", AV_CODEC_ID_MPEG2VIDEO},
    {ContentType_t::Video, "mpeg4", AV_CODEC_ID_MPEG4},
    {ContentType_t::Video, "mjpeg", AV_CODEC_ID_MJPEG},
    {ContentType_t::Video, "vp8", AV_CODEC_ID_VP8},
    {ContentType_t::Video, "vp9", AV_CODEC_ID_VP9},
    {ContentType_t::Audio, "aac", AV_CODEC_ID_AAC},
    {ContentType_t::Audio, "mp2", AV_CODEC_ID_MP2},
    {ContentType_t::Audio, "mp3", AV_CODEC_ID_MP3},
    {ContentType_t::Audio, "ac3", AV_CODEC_ID_AC3},
    {ContentType_t::Audio, "opus", AV_CODEC_ID_OPUS},
    {ContentType_t::Audio, "flac", AV_CODEC_ID_FLAC},
    {ContentType_t::Audio, "pcm", AV_CODEC_ID_PCM_S16LE},
};

}  // namespace

std::optional<Codec_t> findCodec(ContentType_t kind, const std::string& word) {
    for (const Word& known : kWords) {
        if (known.kind == kind && word == known.name) {
            return static_cast<Codec_t>(known.codec);
        }
    }
    return std::nullopt;
}

std::string codecWords(ContentType_t kind) {
    std::string list;
    for (const Word& known : kWords) {
        if (known.kind == kind && known.listed) {
            list += list.empty() ? "" : ", ";
            list += known.name;
        }
    }
    return list;
}

std::int32_t usualBitrate(Codec_t codec, int width, int height, double framerate) {
    constexpr double kBitsOfAPixel = 0.2;
    constexpr double kBitsOfAStillPixel = 1.5;
    constexpr double kUsualRate = 25;
    const int number = static_cast<int>(codec);
    const bool stills = number == AV_CODEC_ID_MJPEG;
    if (!stills && number != AV_CODEC_ID_MPEG2VIDEO && number != AV_CODEC_ID_MPEG4 &&
        number != AV_CODEC_ID_VP8 && number != AV_CODEC_ID_VP9) {
        return 0;
    }
    const double bits = (stills ? kBitsOfAStillPixel : kBitsOfAPixel) * width * height *
                        (framerate > 0 ? framerate : kUsualRate);
    return static_cast<std::int32_t>(std::clamp(bits, 64e3, 2e9));
}

bool hasPresets(Codec_t codec) {
    return codec == Codec_t::H264 || codec == Codec_t::H265;
}

}  // namespace Mivra::Tool
