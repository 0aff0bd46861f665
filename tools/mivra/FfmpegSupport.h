#pragma once

// Small helpers around FFmpeg's objects: ownership, error texts, and the functions beyond the loader's table.

#include <memory>
#include <string>

#include "mivra/common/model/Rational.h"
#include "mivra/ffmpeg/FfmpegObjects.h"
#include "mivra/ffmpeg/FfmpegOptional.h"
#include "mivra/ffmpeg/FfmpegProxy.h"
#include "tools/mivra/Console.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace Mivra::Tool {

using FFmpeg::errorText;
using FFmpeg::FfmpegUse;
using FFmpeg::PacketPointer;

/// std::bad_alloc when there is no memory.
PacketPointer makePacket();

inline AVRational toAvRational(const Common::Rational& value) {
    return {value.Num(), value.Den()};
}

/// A name for people: "h264", or the codec's number when nobody knows one.
std::string codecName(int codec);

/// The first of the functions beyond the loader's table that reading / writing cannot do without and that is
/// missing here; null when all are there. Load must have succeeded.
const char* missingForReading();
const char* missingForWriting();

Problem ffmpegMissing();
Problem functionMissing(const char* name);

}  // namespace Mivra::Tool
