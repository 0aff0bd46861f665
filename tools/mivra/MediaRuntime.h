#pragma once

#include <string>

#include "tools/mivra/FfmpegSupport.h"
#include "tools/mivra/LibraryUse.h"

namespace Mivra::Tool {

/// The library and FFmpeg for as long as the object lives, FFmpeg's own messages going into the library's
/// log. One at a time.
class MediaRuntime {
public:
    /// log: empty for none. ProblemError when FFmpeg cannot be loaded.
    explicit MediaRuntime(const std::string& log = {}, int logLevel = 0);
    MediaRuntime(const MediaRuntime&) = delete;
    MediaRuntime& operator=(const MediaRuntime&) = delete;

private:
    LibraryUse library;
    FfmpegUse ffmpeg;
};

}  // namespace Mivra::Tool
