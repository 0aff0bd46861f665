#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

#include "mivra/common/runtime/Annotations.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

class Guid;
class LogFileLock;

/// The process's log: timestamped, levelled lines in one rolling file, with runs of equal lines folded into
/// one. The library makes and owns the one instance (MivraCommonGetLog). Any thread may log; several
/// processes may share one file. Failures to write are ignored and logging goes on.
///
/// A line: "2024-05-31 13:07:09.042 [4711] INFO  [Source/42/identifier] message\r\n" in local time, with the
/// kernel's thread id; the location stands there only when it is given. A line has at most 10240 bytes with
/// its ending; what is longer is cut.
///
/// Rolling, for app.log and a history of 3 (the oldest is deleted):
///     app.log -> app.000.log -> app.001.log -> app.002.log
class MIVRA_API FileLog {
public:
    enum FileLogLevel : int { Off = 0, Error = 1, Warning = 2, Information = 3, Debug = 4, Trace = 5 };

    /// Level 3 and no file.
    FileLog();
    /// No other thread may be logging.
    ~FileLog();
    FileLog(const FileLog&) = delete;
    FileLog& operator=(const FileLog&) = delete;

    /// Closes the file, if any, and opens the one at the path, unless the level is 0; null: no file. Tries
    /// ten times, a second apart; a file that cannot be opened leaves one line on standard output. The next
    /// line is never taken for a repeat, but repeats counted so far are kept for the next summary.
    void Initialize(FileLogLevel level, const wchar_t* path);

    /// Changes what is written; opens and closes nothing.
    void SetLogLevel(FileLogLevel level);
    FileLogLevel GetLogLevel() const noexcept { return level.load(std::memory_order_relaxed); }

    /// Size in bytes at which the file rolls, 2097152 at first. It is looked at once a minute at most.
    void SetMaxLogFileSize(std::int64_t size);
    /// Rolled files that are kept, 1 at first; with 0 the file keeps growing.
    void SetRollingHistorySize(int count);

    /// Writes a line when its level is not above the configured one. `file` may be a path: what follows its
    /// last backslash, or else its last slash, is written.
    void Log(FileLogLevel level, const char* format, ...) MIVRA_PRINTF(3, 4);
    void Log(const char* file, int line, FileLogLevel level, const char* format, ...) MIVRA_PRINTF(5, 6);
    void Log(const char* file, int line, FileLogLevel level, const Guid& id, const char* format, ...)
        MIVRA_PRINTF(6, 7);

protected:
    void clear() MIVRA_REQUIRES(lock);
    void createLogFile() MIVRA_REQUIRES(lock);
    std::wstring generateLogFilePath(int index) const MIVRA_REQUIRES(lock);
    void rollLog() MIVRA_REQUIRES(lock);
    void log(const char* file, int line, FileLogLevel lineLevel, const Guid* id, const char* format,
             std::va_list arguments) MIVRA_REQUIRES(lock) MIVRA_PRINTF(6, 0);
    /// The level's name in a line, always five characters.
    static const char* levelToUtf8(FileLogLevel level) noexcept;

    static constexpr std::size_t kLineSize = 10240;
    // "2024-05-31 13:07:09.042 ", never part of the comparison of lines.
    static constexpr std::size_t kStampSize = 24;

    mutable CritSec lock;

private:
    friend class GlobalLog;

    // The file that the descriptor names, to tell whether the path still names it.
    struct FileIdentity {
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        bool known = false;
    };
    enum class PathCheck { Same, Other, Unknown };

    void logLocked(const char* file, int line, FileLogLevel lineLevel, const Guid* id, const char* format,
                   std::va_list arguments) MIVRA_EXCLUDES(lock) MIVRA_PRINTF(6, 0);
    void setLevel(FileLogLevel value) MIVRA_REQUIRES(lock);
    std::size_t stamp(char* out, std::int64_t now) MIVRA_REQUIRES(lock);
    void writeLine(const char* text, std::size_t size, std::int64_t now) MIVRA_REQUIRES(lock);
    void writeSummary(const LogFileLock& file, std::int64_t now) MIVRA_REQUIRES(lock);
    bool openOnce() MIVRA_REQUIRES(lock);
    PathCheck checkPath() const MIVRA_REQUIRES(lock);
    void followPath(std::int64_t seconds) MIVRA_REQUIRES(lock);
    void rollFile() MIVRA_REQUIRES(lock);
    void moveChain() MIVRA_REQUIRES(lock);

    std::atomic<FileLogLevel> level{Information};
    // The line in work and the one before; they change roles with every line that is written.
    char lines[2][kLineSize] MIVRA_GUARDED_BY(lock) = {};
    int current MIVRA_GUARDED_BY(lock) = 0;
    std::size_t previousSize MIVRA_GUARDED_BY(lock) = 0;  // 0: the next line is no repeat
    FileLogLevel previousLevel MIVRA_GUARDED_BY(lock) = Trace;
    std::int32_t repeatCount MIVRA_GUARDED_BY(lock) = 0;

    std::int64_t maxFileSize MIVRA_GUARDED_BY(lock) = 2097152;
    std::int32_t historySize MIVRA_GUARDED_BY(lock) = 1;
    std::int64_t lastRollCheck MIVRA_GUARDED_BY(lock) = 0;  // seconds since 1970
    std::int64_t lastPathCheck MIVRA_GUARDED_BY(lock) = 0;

    std::wstring logPath MIVRA_GUARDED_BY(lock);
    std::wstring basePath MIVRA_GUARDED_BY(lock);   // without the extension
    std::wstring extension MIVRA_GUARDED_BY(lock);  // with its dot
    std::string systemPath MIVRA_GUARDED_BY(lock);  // logPath in UTF-8
    int descriptor MIVRA_GUARDED_BY(lock) = -1;
    FileIdentity identity MIVRA_GUARDED_BY(lock);

    // "2024-05-31 13:07:09." of the second it was made for.
    std::int64_t stampSecond MIVRA_GUARDED_BY(lock) = INT64_MIN;
    char stampText[64] MIVRA_GUARDED_BY(lock) = {};
};

}  // namespace Mivra::Common
