#pragma once

#include "tools/mivra/FfmpegSupport.h"

namespace Mivra::Tool {

/// The library and FFmpeg for as long as the object lives, FFmpeg's own messages going into the library's
/// log. One at a time.
class MediaRuntime {
public:
    /// ProblemError when FFmpeg cannot be loaded.
    MediaRuntime();
    MediaRuntime(const MediaRuntime&) = delete;
    MediaRuntime& operator=(const MediaRuntime&) = delete;

private:
    struct Library {
        Library();
        ~Library();
    };

    Library library;
    FfmpegUse ffmpeg;
};

}  // namespace Mivra::Tool
