#include "mivra/ffmpeg/HardwareDevices.h"

#include "mivra/platform/System.h"

extern "C" {
#include <libavutil/hwcontext.h>
}

namespace Mivra::FFmpeg {
namespace {

struct Candidate {
    AVHWDeviceType type;
    const char* name;
    /// A file without which there is no such device, so that FFmpeg need not look (and complain); null: none.
    const char* file;
};
constexpr Candidate kCandidates[] = {
#if defined(_WIN32)
    {AV_HWDEVICE_TYPE_D3D11VA, "D3D11VA", nullptr},
    {AV_HWDEVICE_TYPE_DXVA2, "DXVA2", nullptr},
#elif defined(__APPLE__)
    {AV_HWDEVICE_TYPE_VIDEOTOOLBOX, "VideoToolbox", nullptr},
#else
    {AV_HWDEVICE_TYPE_VAAPI, "VAAPI", "/dev/dri"},
    {AV_HWDEVICE_TYPE_CUDA, "CUDA", "/dev/nvidiactl"},
#endif
};

AVBufferRef* makeDevice(int type) {
    for (const Candidate& candidate : kCandidates) {
        struct stat status {};
        if (candidate.type == type && candidate.file != nullptr &&
            Platform::System().pathStatus(candidate.file, &status) != 0) {
            return nullptr;
        }
    }
    AVBufferRef* device = nullptr;
    if (FfmpegProxy::av_hwdevice_ctx_create(&device, type, nullptr, nullptr, 0) < 0) {
        return nullptr;
    }
    return device;
}

/// Takes the device's pictures while libavcodec offers them, the software's when it has given the device up.
AVPixelFormat chooseFormat(AVCodecContext* context, const AVPixelFormat* formats) {
    const auto wanted = static_cast<AVPixelFormat>(reinterpret_cast<std::intptr_t>(context->opaque));
    const AVPixelFormat* format = formats;
    for (; *format != AV_PIX_FMT_NONE; ++format) {
        if (*format == wanted) {
            return wanted;
        }
    }
    return format == formats ? AV_PIX_FMT_NONE : format[-1];  // memory formats stand last
}

bool attach(AVCodecContext& context, AVBufferRef& device, int pixelFormat) {
    context.hw_device_ctx = FfmpegProxy::av_buffer_ref(&device);
    context.opaque = reinterpret_cast<void*>(static_cast<std::intptr_t>(pixelFormat));
    context.get_format = chooseFormat;
    return context.hw_device_ctx != nullptr;
}

int fetch(AVFrame& frame) {
    if (frame.hw_frames_ctx == nullptr) {
        return 0;
    }
    const FramePointer picture(FfmpegProxy::av_frame_alloc());
    if (picture == nullptr) {
        return AVERROR(ENOMEM);
    }
    const int error = FfmpegProxy::av_hwframe_transfer_data(picture.get(), &frame, 0);
    if (error < 0) {
        return error;
    }
    // The picture's memory takes the place of the surface; everything else that the frame says stays.
    FfmpegProxy::av_buffer_unref(&frame.hw_frames_ctx);
    for (int i = 0; i < AV_NUM_DATA_POINTERS; ++i) {
        FfmpegProxy::av_buffer_unref(&frame.buf[i]);
        frame.buf[i] = picture->buf[i];
        frame.data[i] = picture->data[i];
        frame.linesize[i] = picture->linesize[i];
        picture->buf[i] = nullptr;
    }
    frame.extended_data = frame.data;
    frame.format = picture->format;
    return 0;
}

/// The format in which the codec's pictures come from such a device; none when it cannot use one.
AVPixelFormat formatOn(const AVCodec& codec, AVHWDeviceType type) {
    for (int i = 0;; ++i) {
        const AVCodecHWConfig* const config = FfmpegProxy::avcodec_get_hw_config(&codec, i);
        if (config == nullptr) {
            return AV_PIX_FMT_NONE;
        }
        if (config->device_type == type && (config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) != 0) {
            return config->pix_fmt;
        }
    }
}

}  // namespace

constinit HardwareTable g_hardware = {makeDevice, attach, fetch};

const char* attachHardware(const AVCodec& codec, AVCodecContext& context) {
    for (const Candidate& candidate : kCandidates) {
        const AVPixelFormat format = formatOn(codec, candidate.type);
        if (format == AV_PIX_FMT_NONE) {
            continue;
        }
        const BufferPointer device(g_hardware.makeDevice(candidate.type));
        if (device != nullptr && g_hardware.attach(context, *device, format)) {
            return candidate.name;
        }
    }
    return nullptr;
}

}  // namespace Mivra::FFmpeg
