#pragma once

// Which hardware decodes: the devices that are tried, in order of preference, and the table through which
// tests make a device appear, be refused, or fail at a picture.

#include "mivra/ffmpeg/FfmpegObjects.h"

namespace Mivra::FFmpeg {

struct HardwareTable {
    /// A device of one of FFmpeg's types; null when the machine has none.
    AVBufferRef* (*makeDevice)(int type);
    /// Lets a context that is not open yet decode on the device, into pictures of a pixel format. False when
    /// there is no memory.
    bool (*attach)(AVCodecContext& context, AVBufferRef& device, int pixelFormat);
    /// Brings a decoded picture into memory when it lies on a device. 0, or FFmpeg's error number.
    int (*fetch)(AVFrame& frame);
};

/// The live table. Tests assign to its entries; nothing else does.
extern HardwareTable g_hardware;

/// Attaches the first device that both the codec and the machine have. Its name; null when there is none and
/// the context is as it was.
const char* attachHardware(const AVCodec& codec, AVCodecContext& context);

}  // namespace Mivra::FFmpeg
