#include "mivra/common/runtime/FileLog.h"

#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "mivra/common/identity/GuidText.h"
#include "mivra/common/runtime/DebugOutput.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/LogFileAccess.h"
#include "mivra/common/runtime/LogLineText.h"
#include "mivra/platform/System.h"
#include "mivra/platform/ThreadId.h"

namespace Mivra::Common {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;
constexpr std::size_t kSecondSize = 20;  // "2024-05-31 13:07:09."

std::string_view baseName(const char* file) noexcept {
    const char* separator = std::strrchr(file, '\\');
    if (separator == nullptr) {
        separator = std::strrchr(file, '/');
    }
    return separator == nullptr ? file : separator + 1;
}

void appendLocation(LogLineText& text, const char* file, int line, const Guid* id) noexcept {
    text.Append("[");
    text.Append(baseName(file));
    text.Append("/");
    text.AppendNumber(line);
    if (id != nullptr) {
        char idText[kGuidTextLength + 1];
        FormatGuid(*id, idText);
        text.Append("/");
        text.Append(idText);
    }
    text.Append("] ");
}

// Keeps errno as the caller of a log function had it.
class ErrnoKeeper {
public:
    ErrnoKeeper() noexcept = default;
    ~ErrnoKeeper() { errno = kept; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    int kept = errno;
};

}  // namespace

FileLog::FileLog() = default;

FileLog::~FileLog() {
    AutoLock guard(lock);
    clear();
}

void FileLog::SetLogLevel(FileLogLevel value) {
    AutoLock guard(lock);
    setLevel(value);
}

void FileLog::setLevel(FileLogLevel value) {
    level.store(value, std::memory_order_relaxed);
    GlobalLog::LevelChanged(this, value);
}

void FileLog::SetMaxLogFileSize(std::int64_t size) {
    AutoLock guard(lock);
    maxFileSize = size;
}

void FileLog::SetRollingHistorySize(int count) {
    AutoLock guard(lock);
    historySize = count;
}

const char* FileLog::levelToUtf8(FileLogLevel level) noexcept {
    switch (level) {
        case Error:
            return "ERROR";
        case Warning:
            return "WARN ";
        case Information:
            return "INFO ";
        case Debug:
            return "DEBUG";
        case Trace:
            return "TRACE";
        default:
            return "     ";
    }
}

void FileLog::Log(FileLogLevel lineLevel, const char* format, ...) {
    if (lineLevel > GetLogLevel()) return;
    std::va_list arguments;
    va_start(arguments, format);
    logLocked(nullptr, 0, lineLevel, nullptr, format, arguments);
    va_end(arguments);
}

void FileLog::Log(const char* file, int line, FileLogLevel lineLevel, const char* format, ...) {
    if (lineLevel > GetLogLevel()) return;
    std::va_list arguments;
    va_start(arguments, format);
    logLocked(file, line, lineLevel, nullptr, format, arguments);
    va_end(arguments);
}

void FileLog::Log(const char* file, int line, FileLogLevel lineLevel, const Guid& id, const char* format,
                  ...) {
    if (lineLevel > GetLogLevel()) return;
    std::va_list arguments;
    va_start(arguments, format);
    logLocked(file, line, lineLevel, &id, format, arguments);
    va_end(arguments);
}

void FileLog::logLocked(const char* file, int line, FileLogLevel lineLevel, const Guid* id,
                        const char* format, std::va_list arguments) {
    const ErrnoKeeper keeper;
    AutoLock guard(lock);
    log(file, line, lineLevel, id, format, arguments);
}

void FileLog::log(const char* file, int line, FileLogLevel lineLevel, const Guid* id, const char* format,
                  std::va_list arguments) {
    const std::int64_t now = Platform::System().wallTime();
    char* text = lines[current];
    LogLineText composed(text, kLineSize, stamp(text, now));
    composed.Append("[");
    composed.AppendNumber(Platform::CurrentThreadId());
    composed.Append("] ");
    composed.Append({levelToUtf8(lineLevel), 5});
    composed.Append(" ");
    if (file != nullptr) {
        appendLocation(composed, file, line, id);
    }
    composed.AppendFormatted(format, arguments);
    const std::size_t size = composed.Finish();

    const char* previous = lines[1 - current];
    if (size == previousSize &&
        std::memcmp(text + kStampSize, previous + kStampSize, size - kStampSize) == 0) {
        if (repeatCount < INT32_MAX) ++repeatCount;
        return;
    }
    writeLine(text, size, now);
    WriteDebugOutput({text, size});
    current = 1 - current;
    previousSize = size;
    previousLevel = lineLevel;
    rollLog();
}

// Writes the 24 characters that every line begins with.
std::size_t FileLog::stamp(char* out, std::int64_t now) {
    std::int64_t second = now / kNanosecondsPerSecond;
    std::int64_t rest = now % kNanosecondsPerSecond;
    if (rest < 0) {
        rest += kNanosecondsPerSecond;
        --second;
    }
    if (second != stampSecond) {
        const auto time = static_cast<time_t>(second);
        tm local{};
        ::localtime_r(&time, &local);
        std::snprintf(stampText, sizeof stampText, "%04d-%02d-%02d %02d:%02d:%02d.", local.tm_year + 1900,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
        stampSecond = second;
    }
    const auto milliseconds = static_cast<int>(rest / kNanosecondsPerMillisecond);
    std::memcpy(out, stampText, kSecondSize);
    out[kSecondSize] = static_cast<char>('0' + milliseconds / 100);
    out[kSecondSize + 1] = static_cast<char>('0' + milliseconds / 10 % 10);
    out[kSecondSize + 2] = static_cast<char>('0' + milliseconds % 10);
    out[kSecondSize + 3] = ' ';
    return kStampSize;
}

void FileLog::writeLine(const char* text, std::size_t size, std::int64_t now) {
    if (descriptor == -1) return;
    followPath(now / kNanosecondsPerSecond);
    const LogFileLock file(descriptor);
    if (repeatCount >= 1) {
        writeSummary(file, now);
    }
    file.Append(text, size);
}

void FileLog::writeSummary(const LogFileLock& file, std::int64_t now) {
    char text[128];
    std::size_t size = stamp(text, now);
    size += static_cast<std::size_t>(std::snprintf(text + size, sizeof text - size,
                                                   "%s previous message repeated %d times\r\n",
                                                   levelToUtf8(previousLevel), repeatCount));
    file.Append(text, size);
    WriteDebugOutput({text, size});
    repeatCount = 0;
}

}  // namespace Mivra::Common
