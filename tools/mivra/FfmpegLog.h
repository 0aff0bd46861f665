#pragma once

#include <string>
#include <string_view>

#include "mivra/ffmpeg/FfmpegLog.h"

namespace Mivra::Tool {

/// Watches, on the thread that makes it, for the errors that FFmpeg tells of one object (an AVFormatContext).
class FfmpegErrorWatch : public FFmpeg::FfmpegMessageWatch {
public:
    explicit FfmpegErrorWatch(const void* object) : watched(object) {}

    /// The first such message; empty when there was none.
    const std::string& FirstError() const { return first; }

    int OnMessage(const void* object, int level, std::string_view message) noexcept override;

private:
    const void* const watched;
    std::string first;
};

}  // namespace Mivra::Tool
