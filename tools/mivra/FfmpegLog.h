#pragma once

#include <string>

namespace Mivra::Tool {

/// Sends FFmpeg's own messages into the library's log instead of to standard error: errors and warnings as
/// such, information as debugging. FFmpeg has to be loaded. Process-wide; before other threads use FFmpeg.
void routeFfmpegLog();

/// Watches, on the thread that makes it, for the errors that FFmpeg tells of one object (an AVFormatContext).
/// One of these at a time on a thread.
class FfmpegErrorWatch {
public:
    explicit FfmpegErrorWatch(const void* object);
    ~FfmpegErrorWatch();
    FfmpegErrorWatch(const FfmpegErrorWatch&) = delete;
    FfmpegErrorWatch& operator=(const FfmpegErrorWatch&) = delete;

    /// The first such message; empty when there was none.
    const std::string& FirstError() const { return first; }

private:
    friend struct FfmpegMessages;

    const void* const watched;
    std::string first;
};

}  // namespace Mivra::Tool
