#include "mivra/ffmpeg/PictureScaler.h"

#include <algorithm>
#include <iterator>

#include "mivra/ffmpeg/FrameFields.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace Mivra::FFmpeg {
namespace {

/// Formats that are in the full range by definition.
bool isFullRangeFormat(int format) {
    constexpr int kFormats[] = {
        AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUVJ444P, AV_PIX_FMT_YUVJ440P,
        AV_PIX_FMT_YUVJ411P, AV_PIX_FMT_GRAY8,    AV_PIX_FMT_GRAY9LE,  AV_PIX_FMT_GRAY9BE,
        AV_PIX_FMT_GRAY10LE, AV_PIX_FMT_GRAY10BE, AV_PIX_FMT_GRAY12LE, AV_PIX_FMT_GRAY12BE,
        AV_PIX_FMT_GRAY14LE, AV_PIX_FMT_GRAY14BE, AV_PIX_FMT_GRAY16LE, AV_PIX_FMT_GRAY16BE,
        AV_PIX_FMT_YA8,      AV_PIX_FMT_YA16LE,   AV_PIX_FMT_YA16BE};
    return std::find(std::begin(kFormats), std::end(kFormats), format) != std::end(kFormats);
}

/// Without the functions for it, libswscale takes every picture for BT.601 in the limited range.
void setColors(const AVFrame& frame, const PictureLayout& to, SwsContext* scaler) {
    if (FfmpegOptional::sws_getCoefficients == nullptr ||
        FfmpegOptional::sws_setColorspaceDetails == nullptr) {
        return;
    }
    constexpr int kOne = 1 << 16;  // contrast and saturation as they are
    const int space = storedNumber(frame.colorspace);
    const bool toldFull = storedNumber(frame.color_range) == AVCOL_RANGE_JPEG;
    const int* const matrix =
        FfmpegOptional::sws_getCoefficients(space == AVCOL_SPC_UNSPECIFIED ? SWS_CS_DEFAULT : space);
    const bool fromFull = toldFull || isFullRangeFormat(frame.format);
    // Unless the format says otherwise, pictures stay in their range.
    const bool toFull = isFullRangeFormat(to.format) || toldFull;
    FfmpegOptional::sws_setColorspaceDetails(scaler, matrix, fromFull ? 1 : 0, matrix, toFull ? 1 : 0, 0,
                                             kOne, kOne);
}

}  // namespace

bool PictureScaler::prepare(const AVFrame& frame, const PictureLayout& to) {
    const Conversion wanted{frame.width,
                            frame.height,
                            frame.format,
                            storedNumber(frame.color_range),
                            storedNumber(frame.colorspace),
                            to};
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
