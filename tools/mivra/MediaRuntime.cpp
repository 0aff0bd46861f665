#include "tools/mivra/MediaRuntime.h"

#include "tools/mivra/FfmpegLog.h"
#include "tools/mivra/ProblemError.h"

namespace Mivra::Tool {

MediaRuntime::MediaRuntime(const std::string& log, int logLevel) : library(log, logLevel) {
    if (!ffmpeg.IsLoaded()) {
        throw ProblemError(ExitCode::CannotOpen, ffmpegMissing());
    }
    FFmpeg::RouteFfmpegLog();
}

}  // namespace Mivra::Tool
