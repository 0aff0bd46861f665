#pragma once

// What the subcommands that run a session have in common, from the log to the last line.

#include <chrono>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "mivra/common/identity/Guid.h"
#include "tools/mivra/Console.h"
#include "tools/mivra/ExitCode.h"
#include "tools/mivra/Progress.h"
#include "tools/mivra/RelayMonitor.h"

namespace Mivra::Tool {

/// The library, and its log (empty: none), for as long as the object lives.
class LibraryUse {
public:
    LibraryUse(const std::string& log, int logLevel);
    ~LibraryUse();
    LibraryUse(const LibraryUse&) = delete;
    LibraryUse& operator=(const LibraryUse&) = delete;
};

/// What is wrong with the log's place; the log itself would try again and again, in silence.
std::optional<Problem> checkLogPlace(const std::string& log, int logLevel);

/// Ids in the order of the numbers: a session takes its sources and sinks in the order of their ids.
Common::Guid orderedId(std::size_t number);

/// In kPacketTimeBase.
double toSeconds(std::int64_t time);

void logFailedStep(const std::exception& error);

/// A step on the way to the end: whatever fails, the next ones are taken too.
template <typename Step>
void attempt(Step step) {
    try {
        step();
    } catch (const std::exception& error) {
        logFailedStep(error);
    }
}

/// A fatal error of a session, for the monitor: `advice` is what to try unless it was a time-out.
void failSession(RelayMonitor& monitor, const std::string& message, const char* advice = "");

/// Elapsed time and what the monitor has counted.
Progress countedSince(const RelayMonitor& monitor, std::chrono::steady_clock::time_point begin);

/// Tells the summary, which needs outputs and progress but for what was written, and the problems. The exit
/// code that follows from them.
ExitCode reportOutcome(RelayMonitor& monitor, Console& console, IProgressReporter& reporter, Summary summary,
                       const MediaCount& written, bool interrupted);

}  // namespace Mivra::Tool
