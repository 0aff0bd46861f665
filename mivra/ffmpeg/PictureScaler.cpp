#include "mivra/ffmpeg/PictureScaler.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace Mivra::FFmpeg {
namespace {

bool isFullRangeFormat(int format) {
    return format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_YUVJ422P || format == AV_PIX_FMT_YUVJ444P ||
           format == AV_PIX_FMT_YUVJ440P || format == AV_PIX_FMT_YUVJ411P;
}

/// Without the functions for it, libswscale takes every picture for BT.601 in the limited range.
void setColors(const AVFrame& frame, const PictureLayout& to, SwsContext* scaler) {
    if (FfmpegOptional::sws_getCoefficients == nullptr ||
        FfmpegOptional::sws_setColorspaceDetails == nullptr) {
        return;
    }
    constexpr int kOne = 1 << 16;  // contrast and saturation as they are
    const int* const matrix = FfmpegOptional::sws_getCoefficients(
        frame.colorspace == AVCOL_SPC_UNSPECIFIED ? SWS_CS_DEFAULT : frame.colorspace);
    const bool fromFull = frame.color_range == AVCOL_RANGE_JPEG || isFullRangeFormat(frame.format);
    // Unless the format says otherwise, pictures stay in their range.
    const bool toFull = isFullRangeFormat(to.format) || (frame.color_range == AVCOL_RANGE_JPEG);
    FfmpegOptional::sws_setColorspaceDetails(scaler, matrix, fromFull ? 1 : 0, matrix, toFull ? 1 : 0, 0,
                                             kOne, kOne);
}

}  // namespace

bool PictureScaler::prepare(const AVFrame& frame, const PictureLayout& to) {
    const Conversion wanted{frame.width, frame.height, frame.format, frame.color_range, frame.colorspace, to};
    if (scaler != nullptr && wanted == conversion) {
        return true;
    }
    scaler.reset(FfmpegProxy::sws_getContext(frame.width, frame.height, frame.format, to.width, to.height,
                                             to.format, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (scaler == nullptr) {
        return false;
    }
    setColors(frame, to, scaler.get());
    conversion = wanted;
    return true;
}

bool PictureScaler::Scale(const AVFrame& frame, const PictureLayout& to, std::uint8_t* base) {
    if (!prepare(frame, to)) {
        return false;
    }
    std::uint8_t* planes[kMostPlanes];
    to.Point(base, planes);
    return FfmpegProxy::sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, planes,
                                  to.linesizes) > 0;
}

bool PictureScaler::CanMake(const PictureLayout& to) {
    return ScalerPointer(FfmpegProxy::sws_getContext(to.width, to.height, AV_PIX_FMT_YUV420P, to.width,
                                                     to.height, to.format, SWS_BICUBIC, nullptr, nullptr,
                                                     nullptr)) != nullptr;
}

}  // namespace Mivra::FFmpeg
