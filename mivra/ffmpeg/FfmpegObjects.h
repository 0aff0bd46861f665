#pragma once

// Ownership of FFmpeg's objects, for whoever holds a Load: a FfmpegUse is declared before the pointers, so
// that it outlives them.

#include <cstdint>
#include <memory>
#include <string>

#include "mivra/ffmpeg/FfmpegLog.h"
#include "mivra/ffmpeg/FfmpegOptional.h"
#include "mivra/ffmpeg/FfmpegProxy.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
}

namespace Mivra::FFmpeg {

/// One Load of FFmpeg for as long as the object lives, with FFmpeg's messages in the library's log.
class FfmpegUse {
public:
    FfmpegUse() : loaded(FfmpegProxy::Load()) {
        if (loaded) {
            RouteFfmpegLog();
        }
    }
    ~FfmpegUse() {
        if (loaded) {
            FfmpegProxy::Unload();
        }
    }
    FfmpegUse(const FfmpegUse&) = delete;
    FfmpegUse& operator=(const FfmpegUse&) = delete;

    bool IsLoaded() const { return loaded; }

private:
    const bool loaded;
};

struct PacketDeleter {
    void operator()(AVPacket* packet) const { FfmpegProxy::av_packet_free(&packet); }
};
using PacketPointer = std::unique_ptr<AVPacket, PacketDeleter>;

struct FrameDeleter {
    void operator()(AVFrame* frame) const { FfmpegProxy::av_frame_free(&frame); }
};
using FramePointer = std::unique_ptr<AVFrame, FrameDeleter>;

struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const { FfmpegProxy::avcodec_free_context(&context); }
};
using CodecContextPointer = std::unique_ptr<AVCodecContext, CodecContextDeleter>;

struct BufferDeleter {
    void operator()(AVBufferRef* buffer) const { FfmpegProxy::av_buffer_unref(&buffer); }
};
using BufferPointer = std::unique_ptr<AVBufferRef, BufferDeleter>;

struct ScalerDeleter {
    void operator()(SwsContext* scaler) const { FfmpegProxy::sws_freeContext(scaler); }
};
using ScalerPointer = std::unique_ptr<SwsContext, ScalerDeleter>;

struct ResamplerDeleter {
    void operator()(SwrContext* resampler) const { FfmpegProxy::swr_free(&resampler); }
};
using ResamplerPointer = std::unique_ptr<SwrContext, ResamplerDeleter>;

/// Options by name, as FFmpeg takes them.
class Dictionary {
public:
    Dictionary() = default;
    ~Dictionary() { FfmpegProxy::av_dict_free(&entries); }
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;

    /// False when there is no memory.
    bool Set(const char* key, const char* value) {
        return FfmpegProxy::av_dict_set(&entries, key, value, 0) >= 0;
    }
    /// For calls that take what they know out of it.
    AVDictionary** Address() { return &entries; }

private:
    AVDictionary* entries = nullptr;
};

/// What an FFmpeg error number says, for log lines.
std::string errorText(int error);

}  // namespace Mivra::FFmpeg
