#pragma once

#include <string_view>

#include "mivra/common/runtime/Export.h"

namespace Mivra::FFmpeg {

/// Sends FFmpeg's own messages into the library's log instead of to standard error, each as "FFmpeg: " and
/// the message. What FFmpeg calls panic, fatal and error is an error here, a warning a warning, information
/// (statistics of an encoder, say) a line of level 4; what is below that (verbose, debug, trace) is dropped
/// unseen. Process-wide. FFmpeg has to be loaded; every codec engine does this when it has loaded FFmpeg, and
/// so replaces a callback that the application has set. Any thread.
MIVRA_API void RouteFfmpegLog();

/// Sees, while it lives, the messages that FFmpeg gives on the thread that made it. They may be nested: the
/// innermost is told. Needs a routed log.
class MIVRA_API FfmpegMessageWatch {
public:
    FfmpegMessageWatch();
    FfmpegMessageWatch(const FfmpegMessageWatch&) = delete;
    FfmpegMessageWatch& operator=(const FfmpegMessageWatch&) = delete;
    virtual ~FfmpegMessageWatch();

    /// A message of AV_LOG_INFO or graver, in one line, of an object of FFmpeg's (null: of none in
    /// particular). Returns the level with which it goes on to the log; throws nothing.
    virtual int OnMessage(const void* object, int level, std::string_view message) noexcept = 0;
    /// Why an engine of this thread cannot serve its media types, in words: what its log line says.
    virtual void OnRefusal(std::string_view /*reason*/) noexcept {}

    /// For the engines: tells the watch of the calling thread, if there is one.
    static void TellRefusal(std::string_view reason) noexcept;

private:
    FfmpegMessageWatch* const outer;
};

}  // namespace Mivra::FFmpeg
