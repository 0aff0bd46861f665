#include "tools/mivra/MediaRuntime.h"

#include "mivra/common/MivraCommon.h"
#include "tools/mivra/FfmpegLog.h"
#include "tools/mivra/ProblemError.h"

namespace Mivra::Tool {

MediaRuntime::Library::Library() {
    MivraCommonInitialize();
}

MediaRuntime::Library::~Library() {
    MivraCommonShutdown();
}

MediaRuntime::MediaRuntime() {
    if (!ffmpeg.IsLoaded()) {
        throw ProblemError(ExitCode::CannotOpen, ffmpegMissing());
    }
    FFmpeg::RouteFfmpegLog();
}

}  // namespace Mivra::Tool
