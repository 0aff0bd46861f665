#include "mivra/common/runtime/GlobalLog.h"

#include <atomic>
#include <climits>

#include "mivra/platform/System.h"

namespace Mivra::Common {
namespace {

// The published log, its level (0 when there is none), the calls inside it, and whether somebody waits for
// them to leave. All sequentially consistent but for the level: a caller that saw the log is seen by Retire.
constinit std::atomic<FileLog*> s_log{nullptr};
constinit std::atomic<int> s_level{FileLog::Off};
constinit std::atomic<std::uint32_t> s_inFlight{0};
constinit std::atomic<bool> s_retiring{false};

bool isFiltered(FileLog::FileLogLevel level) noexcept {
    return level > s_level.load(std::memory_order_relaxed);
}

class Visit {
public:
    Visit() noexcept {
        s_inFlight.fetch_add(1);
        log = s_log.load();
    }
    ~Visit() {
        if (s_inFlight.fetch_sub(1) == 1 && s_retiring.load()) {
            Platform::System().wakeWord(&s_inFlight, INT_MAX);
        }
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    FileLog* log;
};

}  // namespace

void GlobalLog::Publish(FileLog* log) noexcept {
    s_level.store(log->GetLogLevel(), std::memory_order_relaxed);
    s_log.store(log);
}

FileLog* GlobalLog::Get() noexcept {
    return s_log.load();
}

FileLog* GlobalLog::Retire() noexcept {
    s_retiring.store(true);
    FileLog* log = s_log.exchange(nullptr);
    s_level.store(FileLog::Off, std::memory_order_relaxed);
    while (const std::uint32_t inside = s_inFlight.load()) {
        Platform::System().waitWord(&s_inFlight, inside, -1);
    }
    s_retiring.store(false);
    return log;
}

void GlobalLog::LevelChanged(const FileLog* log, FileLog::FileLogLevel level) noexcept {
    if (s_log.load() == log) {
        s_level.store(level, std::memory_order_relaxed);
    }
}

void GlobalLog::Write(const char* source, int line, FileLog::FileLogLevel level, const char* format,
                      std::va_list arguments) noexcept {
    const Visit visit;
    if (visit.log == nullptr) return;
    try {
        visit.log->logLocked(source, line, level, nullptr, format, arguments);
    } catch (...) {
        // A line that cannot be written is dropped.
    }
}

void LogLine(FileLog::FileLogLevel level, const char* format, ...) noexcept {
    if (isFiltered(level)) return;
    std::va_list arguments;
    va_start(arguments, format);
    GlobalLog::Write(nullptr, 0, level, format, arguments);
    va_end(arguments);
}

void LogLineAt(const char* source, int line, FileLog::FileLogLevel level, const char* format, ...) noexcept {
    if (isFiltered(level)) return;
    std::va_list arguments;
    va_start(arguments, format);
    GlobalLog::Write(source, line, level, format, arguments);
    va_end(arguments);
}

}  // namespace Mivra::Common
