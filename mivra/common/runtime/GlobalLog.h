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

}  // namespace Mivra::Common
