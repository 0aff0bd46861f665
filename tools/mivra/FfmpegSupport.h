#pragma once

// Small helpers around FFmpeg's objects: ownership, error texts, and the functions beyond the loader's table.

#include <memory>
#include <string>

#include "mivra/common/model/Rational.h"
#include "mivra/ffmpeg/FfmpegOptional.h"
#include "mivra/ffmpeg/FfmpegProxy.h"
#include "tools/mivra/Console.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace Mivra::Tool {

/// One Load of FFmpeg for as long as the object lives.
class FfmpegUse {
public:
    FfmpegUse() : loaded(FFmpeg::FfmpegProxy::Load()) {}
    ~FfmpegUse();
    FfmpegUse(const FfmpegUse&) = delete;
    FfmpegUse& operator=(const FfmpegUse&) = delete;

    bool IsLoaded() const { return loaded; }

private:
    const bool loaded;
};

struct PacketDeleter {
    void operator()(AVPacket* packet) const { FFmpeg::FfmpegProxy::av_packet_free(&packet); }
};
using PacketPointer = std::unique_ptr<AVPacket, PacketDeleter>;

/// std::bad_alloc when there is no memory.
PacketPointer makePacket();

/// What an FFmpeg error number says, for people.
std::string errorText(int error);

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
