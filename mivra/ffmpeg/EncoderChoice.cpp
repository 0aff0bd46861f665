#include "mivra/ffmpeg/EncoderChoice.h"

#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/hwcontext.h>
}

namespace Mivra::FFmpeg {
namespace {

using Common::Codec_t;

constexpr const char* kNvidia = "/dev/nvidiactl";
constexpr const char* kRenderNode = "/dev/dri/renderD128";
constexpr auto kOpus = static_cast<Codec_t>(AV_CODEC_ID_OPUS);

constexpr EncoderCandidate kCandidates[] = {
    {Codec_t::H264, "h264_nvenc", kNvidia},
    {Codec_t::H264, "h264_qsv", kRenderNode},
    {Codec_t::H264, "h264_vaapi", kRenderNode, AV_HWDEVICE_TYPE_VAAPI},
    {Codec_t::H264, "libx264"},
    {Codec_t::H264, "libopenh264"},
    {Codec_t::H265, "hevc_nvenc", kNvidia},
    {Codec_t::H265, "hevc_qsv", kRenderNode},
    {Codec_t::H265, "hevc_vaapi", kRenderNode, AV_HWDEVICE_TYPE_VAAPI},
    {Codec_t::H265, "libx265"},
    {Codec_t::MPEG4, "mpeg4"},
    {Codec_t::MJPEG, "mjpeg"},
    {Codec_t::AAC, "aac"},
    {Codec_t::MP2, "mp2"},
    {Codec_t::MP3, "libmp3lame"},
    {Codec_t::MP3, "libshine"},
    {kOpus, "libopus"},
};

}  // namespace

std::span<const EncoderCandidate> g_encoderCandidates = kCandidates;

}  // namespace Mivra::FFmpeg
