#include "mivra/ffmpeg/FrameLender.h"

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/FfmpegObjects.h"
#include "mivra/ffmpeg/FrameFields.h"

namespace Mivra::FFmpeg {
namespace {

using Common::FileLog;
using Common::LogLine;

void giveBack(void* opaque, std::uint8_t*) {
    static_cast<FrameBuffer*>(opaque)->Release();
}

bool isAligned(const PictureLayout& layout, const int (&alignment)[AV_NUM_DATA_POINTERS]) {
    for (int plane = 0; plane < layout.planes; ++plane) {
        if (alignment[plane] > 0 && layout.linesizes[plane] % alignment[plane] != 0) {
            return false;
        }
    }
    return true;
}

/// The layout that the codec wants for a picture of the frame's size: rows and planes begin where vector
/// instructions like it.
bool layoutFor(AVCodecContext& context, const AVFrame& frame, PictureLayout& layout) {
    const auto format = static_cast<AVPixelFormat>(frame.format);
    int width = frame.width;
    int height = frame.height;
    int alignment[AV_NUM_DATA_POINTERS] = {};
    FfmpegOptional::avcodec_align_dimensions2(&context, &width, &height, alignment);
    for (;;) {
        if (!makePictureLayout(format, width, height, 0, 0, layout)) {
            return false;
        }
        if (isAligned(layout, alignment)) {
            return true;
        }
        width += width & ~(width - 1);  // the next width with one more factor of two
    }
}

int getBuffer(AVCodecContext* context, AVFrame* frame, int flags) noexcept {
    PictureLayout layout;
    if (context->codec_type != AVMEDIA_TYPE_VIDEO || context->hw_frames_ctx != nullptr ||
        frame->hw_frames_ctx != nullptr || !layoutFor(*context, *frame, layout)) {
        return FfmpegOptional::avcodec_default_get_buffer2(context, frame, flags);
    }
    FrameBuffer* const buffer = static_cast<FramePool*>(context->opaque)->Lend(layout.size);
    if (buffer == nullptr) {
        return AVERROR(ENOMEM);
    }
    // Read-only for FFmpeg once the picture is complete: it cannot know who else is looking at it by then.
    frame->buf[0] = FfmpegOptional::av_buffer_create(buffer->Bytes(), static_cast<std::size_t>(layout.size),
                                                     giveBack, buffer, AV_BUFFER_FLAG_READONLY);
    if (frame->buf[0] == nullptr) {
        buffer->Release();
        return AVERROR(ENOMEM);
    }
    buffer->Layout() = layout;
    for (int plane = 0; plane < layout.planes; ++plane) {
        frame->data[plane] = buffer->Bytes() + layout.offsets[plane];
        frame->linesize[plane] = layout.linesizes[plane];
    }
    frame->extended_data = frame->data;
    return 0;
}

const char* missingFunction() {
    if (FfmpegOptional::av_buffer_create == nullptr) {
        return "av_buffer_create";
    }
    if (FfmpegOptional::avcodec_align_dimensions2 == nullptr) {
        return "avcodec_align_dimensions2";
    }
    return FfmpegOptional::avcodec_default_get_buffer2 == nullptr ? "avcodec_default_get_buffer2" : nullptr;
}

}  // namespace

void lendBuffers(FramePool& pool, const AVCodec& codec, AVCodecContext& context) {
    if (codec.type != AVMEDIA_TYPE_VIDEO || (codec.capabilities & AV_CODEC_CAP_DR1) == 0) {
        return;
    }
    if (const char* const missing = missingFunction()) {
        LogLine(FileLog::Warning, "FfmpegDecoder: FFmpeg lacks %s, every picture is copied", missing);
        return;
    }
    context.opaque = &pool;
    context.get_buffer2 = getBuffer;
    allowThreadedBuffers(context);
}

}  // namespace Mivra::FFmpeg
