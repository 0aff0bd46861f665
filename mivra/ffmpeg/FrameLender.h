#pragma once

#include "mivra/ffmpeg/FramePool.h"

struct AVCodec;
struct AVCodecContext;

namespace Mivra::FFmpeg {

/// Lets libavcodec decode into the buffers of a pool. Each picture lies in one buffer, laid out as its
/// Layout() says. The caller keeps the pool for as long as the context lives. To be called before the codec
/// is opened; where the codec brings its own memory or FFmpeg lacks a function for it (one log line), nothing
/// is changed and pictures are copied.
void lendBuffers(FramePool& pool, const AVCodec& codec, AVCodecContext& context);

}  // namespace Mivra::FFmpeg
