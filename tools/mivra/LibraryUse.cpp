#include "tools/mivra/LibraryUse.h"

#include <cstdio>
#include <system_error>

#include "mivra/common/MivraCommon.h"
#include "mivra/common/runtime/FileLog.h"
#include "tools/mivra/RelayFiles.h"
#include "tools/mivra/Rescale.h"

namespace Mivra::Tool {

LibraryUse::LibraryUse(const std::string& log, int logLevel) {
    MivraCommonInitialize();
    if (!log.empty()) {
        const std::wstring path = widePath(log);
        MivraCommonSetLog(logLevel, path.c_str());
    }
}

LibraryUse::~LibraryUse() {
    MivraCommonShutdown();
}

std::optional<Problem> checkLogPlace(const std::string& log, int logLevel) {
    const int error = log.empty() || logLevel == 0 ? 0 : tryToWrite(log);
    if (error == 0) {
        return std::nullopt;
    }
    return Problem{"cannot write the log: " + std::generic_category().message(error), log,
                   "name a file in a folder that you may write to"};
}

Common::Guid orderedId(std::size_t number) {
    char text[37];
    std::snprintf(text, sizeof(text), "00000000-0000-4000-8000-%012zx", number + 1);
    return Common::Guid(text);
}

double toSeconds(std::int64_t time) {
    return static_cast<double>(time) / static_cast<double>(kPacketSecond);
}

void logFailedStep(const std::exception& error) {
    MivraCommonGetLog()->Log(Common::FileLog::Warning, "Relay::stop: %s", error.what());
}

void failSession(RelayMonitor& monitor, const std::string& message, const char* advice) {
    const bool timeout = message.find("timeout") != std::string::npos;
    monitor.Fail(timeout ? ExitCode::TimeOut : ExitCode::Failed,
                 {message, "", timeout ? "is the input slow or stuck?" : advice});
}

Progress countedSince(const RelayMonitor& monitor, std::chrono::steady_clock::time_point begin) {
    Progress now;
    now.elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    now.packets = monitor.Packets();
    now.bytes = monitor.Bytes();
    now.queued = monitor.Queued();
    return now;
}

ExitCode reportOutcome(RelayMonitor& monitor, Console& console, IProgressReporter& reporter, Summary summary,
                       const MediaCount& written, bool interrupted) {
    const std::optional<RelayMonitor::Failure> failure = monitor.FirstFailure();
    const std::vector<Problem> damages = monitor.Damages();
    summary.state = failure.has_value() ? "failed"
                    : interrupted       ? "interrupted"
                    : !damages.empty()  ? "damaged"
                                        : "done";
    summary.progress.packets = written.packets;
    summary.progress.bytes = written.bytes;
    summary.progress.position = toSeconds(written.position);
    reporter.Finish(summary);
    for (const Problem& damage : damages) {
        console.Error(damage);
    }
    if (failure.has_value()) {
        console.Error(failure->problem);
        return failure->code;
    }
    return !damages.empty() && !interrupted ? ExitCode::Damaged : ExitCode::Done;
}

}  // namespace Mivra::Tool
