#include "mivra/ffmpeg/FfmpegLog.h"

#include <cstdarg>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/FfmpegProxy.h"

extern "C" {
#include <libavutil/log.h>
}

namespace Mivra::FFmpeg {
namespace {

using Common::FileLog;

constexpr int kLongestMessage = 1000;

thread_local FfmpegMessageWatch* t_watch = nullptr;

FileLog::FileLogLevel logLevel(int level) {
    if (level <= AV_LOG_ERROR) {
        return FileLog::Error;
    }
    return level <= AV_LOG_WARNING ? FileLog::Warning : FileLog::Debug;
}

void onMessage(void* object, int level, const char* format, va_list arguments) {
    if (level > AV_LOG_INFO) {
        return;
    }
    char text[kLongestMessage] = "";
    int prefix = 1;
    FfmpegProxy::av_log_format_line(object, level, format, arguments, text, sizeof(text), &prefix);
    std::string_view line(text);
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) {
        line.remove_suffix(1);
    }
    text[line.size()] = '\0';
    if (t_watch != nullptr) {
        level = t_watch->OnMessage(object, level, line);
    }
    if (!line.empty()) {
        Common::LogLine(logLevel(level), "FFmpeg: %s", text);
    }
}

}  // namespace

void RouteFfmpegLog() {
    FfmpegProxy::av_log_set_callback(onMessage);
}

FfmpegMessageWatch::FfmpegMessageWatch() : outer(t_watch) {
    t_watch = this;
}

FfmpegMessageWatch::~FfmpegMessageWatch() {
    t_watch = outer;
}

void FfmpegMessageWatch::TellRefusal(std::string_view reason) noexcept {
    if (t_watch != nullptr) {
        t_watch->OnRefusal(reason);
    }
}

}  // namespace Mivra::FFmpeg
