#include "tools/mivra/FfmpegLog.h"

#include <cstdarg>
#include <string_view>

#include "mivra/common/MivraCommon.h"
#include "mivra/common/runtime/FileLog.h"
#include "tools/mivra/FfmpegSupport.h"

namespace Mivra::Tool {
namespace {

using Common::FileLog;

constexpr int kLongestMessage = 1000;

thread_local FfmpegErrorWatch* t_watch = nullptr;

FileLog::FileLogLevel logLevel(int level) {
    if (level <= AV_LOG_ERROR) {
        return FileLog::Error;
    }
    return level <= AV_LOG_WARNING ? FileLog::Warning : FileLog::Debug;
}

}  // namespace

/// What FFmpeg says, on its way to a watch.
struct FfmpegMessages {
    static void tell(FfmpegErrorWatch& watch, const void* object, int level, std::string_view message) {
        if (object != watch.watched || level > AV_LOG_ERROR || !watch.first.empty()) {
            return;
        }
        // "[format @ address] message"
        const std::size_t end = message.find("] ");
        if (message.substr(0, 1) == "[" && end != message.npos) {
            message.remove_prefix(end + 2);
        }
        watch.first = message;
    }
};

namespace {

void onMessage(void* object, int level, const char* format, va_list arguments) {
    if (level > AV_LOG_INFO) {
        return;
    }
    char text[kLongestMessage] = "";
    int prefix = 1;
    FFmpeg::FfmpegProxy::av_log_format_line(object, level, format, arguments, text, sizeof(text), &prefix);
    std::string_view line(text);
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) {
        line.remove_suffix(1);
    }
    text[line.size()] = '\0';
    if (FileLog* const log = MivraCommonGetLog(); log != nullptr && !line.empty()) {
        log->Log(logLevel(level), "FFmpeg: %s", text);
    }
    if (t_watch != nullptr) {
        FfmpegMessages::tell(*t_watch, object, level, line);
    }
}

}  // namespace

void routeFfmpegLog() {
    FFmpeg::FfmpegProxy::av_log_set_callback(onMessage);
}

FfmpegErrorWatch::FfmpegErrorWatch(const void* object) : watched(object) {
    t_watch = this;
}

FfmpegErrorWatch::~FfmpegErrorWatch() {
    t_watch = nullptr;
}

}  // namespace Mivra::Tool
