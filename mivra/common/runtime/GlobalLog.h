#pragma once

// How the library itself logs: one line to the process-wide FileLog, from any thread at any time. Before
// initialization, after shutdown and during it the line is dropped; a call in flight keeps the log alive.
// Nothing is thrown.

#include "mivra/common/runtime/Annotations.h"
#include "mivra/common/runtime/FileLog.h"

namespace Mivra::Common {

void LogLine(FileLog::FileLogLevel level, const char* format, ...) noexcept MIVRA_PRINTF(2, 3);

/// The same with a source location: "[source/line] " stands in front of the message.
void LogLineAt(const char* source, int line, FileLog::FileLogLevel level, const char* format, ...) noexcept
    MIVRA_PRINTF(4, 5);

/// Who owns the process-wide log puts it here and takes it away again (the entry points).
class GlobalLog {
public:
    static void Publish(FileLog* log) noexcept;
    /// The published log, null when there is none. Only the owner may use it without further care.
    static FileLog* Get() noexcept;
    /// Unpublishes the log and waits until no call is inside it; returns it, or null.
    static FileLog* Retire() noexcept;
    /// A log tells its new level here, so that filtered lines cost one look.
    static void LevelChanged(const FileLog* log, FileLog::FileLogLevel level) noexcept;
    /// Writes to the published log, if any.
    static void Write(const char* source, int line, FileLog::FileLogLevel level, const char* format,
                      std::va_list arguments) noexcept MIVRA_PRINTF(4, 0);
};

}  // namespace Mivra::Common
