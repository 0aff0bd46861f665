#include "tools/mivra/Record.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>
#include <memory>
#include <optional>

#include "mivra/common/runtime/Reference.h"
#include "tools/mivra/FileSource.h"
#include "tools/mivra/Interrupt.h"
#include "tools/mivra/LibraryUse.h"
#include "tools/mivra/MediaRuntime.h"
#include "tools/mivra/NetworkAddress.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/Progress.h"
#include "tools/mivra/RecordNames.h"
#include "tools/mivra/RecordSink.h"
#include "tools/mivra/RecordTrigger.h"

namespace Mivra::Tool {
namespace {

using Common::Reference;
using Media::MediaSession;
using Media::MediaState;

constexpr int kLookMilliseconds = 50;
constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
bool isFile(const std::string& path) {
    struct stat status {};
    return path != kStandardStream && ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::int64_t toTime(double seconds) {
    return std::llround(seconds * static_cast<double>(kPacketSecond));
}

/// One recording from start to end.
class Recording {
public:
    Recording(const RecordOptions& what, RecordNames& fileNames, IRecordTrigger& beginning, Console& where)
        : options(what),
          names(fileNames),
          trigger(beginning),
          console(where),
          shared(std::make_shared<RelayShared>(static_cast<int>(what.inputs.size()), where)),
          begin(Clock::now()),
          clientReport(what.clients ? what.statsSeconds : 0) {}

    ExitCode Run() {
        makeSources();
        makeSink();
        session.AddErrorListener([this](void*, Media::ErrorEventArgs* args) { onError(*args); });
        setNoSamples();
        reporter = makeProgressReporter(console, options.json, options.statsSeconds);
        session.StartBuffering(options.preroll, options.cache);
        while (!shared->monitor.Wait(kLookMilliseconds, Interrupt::Descriptor(), descriptorToWatch()) &&
               !Interrupt::IsRequested()) {
            if (!waitedSince.has_value()) {
                beginToWait();
            } else if (!isTriggered) {
                lookForTrigger();
            }
            tellPreroll();
            if (shared->monitor.HaveSourcesEnded() && isAllWritten()) {
                break;
            }
            const Progress now = progress();
            reporter->Update(now);
            clientReport.Update(shared->board, now, *reporter);
        }
        stop();
        return report();
    }

private:
    using Clock = std::chrono::steady_clock;

    static double since(Clock::time_point then) {
        return std::chrono::duration<double>(Clock::now() - then).count();
    }

    void makeSources() {
        for (std::size_t i = 0; i < options.inputs.size(); ++i) {
            FileSourceOptions source;
            source.path = options.inputs[i];
            source.index = static_cast<int>(i);
            source.realtime = isFile(source.path);
            source.stills = false;  // or the pre-roll would begin with a picture that comes once
            sources.emplace_back(new FileSource(source, shared));
            sources.back()->SetUniqueId(orderedId(i));
            session.AddSource(sources.back().get());
        }
    }

    void makeSink() {
        const std::string place = names.At(std::time(nullptr));
        sink = Reference<RecordSink>(new RecordSink(*findOutputFormat(place), place, shared));
        sink->SetNextUri([this] { return names.Next(std::time(nullptr)); });
        sink->SetRotationPeriod(static_cast<int>(std::lround(options.rotation * 1000)));
        session.AddSink(sink.get());
    }

    // Files may end before others do, and what comes from the network watches itself.
    void setNoSamples() {
        if (options.noSamples > 0) {
            session.SetNoCaptureTimeout(toTime(options.noSamples));
        } else if (std::all_of(options.inputs.begin(), options.inputs.end(), [](const std::string& name) {
                       return isFile(name) || NetworkAddress::IsOne(name);
                   })) {
            session.SetNoCaptureTimeout(kNever);
        }
    }

    int descriptorToWatch() const {
        return waitedSince.has_value() && !isTriggered ? trigger.Descriptor() : -1;
    }

    void beginToWait() {
        if (session.State() == MediaState::Started) {
            waitedSince = Clock::now();
            reporter->Tell(trigger.Waiting());
            lookForTrigger();
        }
    }

    void lookForTrigger() {
        if (!trigger.HasFired(since(*waitedSince))) {
            return;
        }
        isTriggered = true;
        triggerTime = played();
        if (options.seconds > 0) {
            sink->EndAt(triggerTime + toTime(options.seconds));
        }
        session.Start();
    }

    void tellPreroll() {
        const std::int64_t first = sink->Begun();
        if (isTold || first == kUnsetTime) {
            return;
        }
        isTold = true;
        const double delivered = std::max(toSeconds(triggerTime - first), 0.0);
        char text[120];
        std::snprintf(text, sizeof(text), "recording: %d s of pre-roll asked for, %.2f s delivered",
                      options.preroll, delivered);
        reporter->Tell(
            {"recording", {{"asked", static_cast<double>(options.preroll)}, {"delivered", delivered}}, text});
    }

    // The sources have ended: whether the session has passed on all that they brought.
    bool isAllWritten() {
        if (!isTriggered && waitedSince.has_value()) {
            shared->monitor.Fail(ExitCode::TimeOut,
                                 {"the inputs ended before the trigger", "", "nothing is recorded"});
            return true;
        }
        return session.State() == MediaState::Running && shared->budget.BytesInFlight() == 0;
    }

    // What comes from the sources and sinks has been told to the monitor before; a source that is stopped
    // while it opens fails, which is nothing to tell.
    void onError(const Media::ErrorEventArgs& error) {
        if (!error.fatal && !error.message.starts_with("mivra: ")) {
            shared->monitor.Note(error.message);  // of the session itself, about what it keeps
        }
        if (!error.fatal || stopping) {
            return;
        }
        failSession(shared->monitor, error.message, "see the log");
    }

    void stop() {
        stopping = true;
        interrupted = Interrupt::IsRequested() && !shared->monitor.FirstFailure().has_value();
        shared->stop.Raise();
        for (const auto& source : sources) {
            attempt([&] { source->Stop(); });
        }
        attempt([&] { session.Stop(); });
        attempt([&] { sink->Stop(); });
        tellPreroll();
        if (isTriggered && !interrupted && sink->Begun() == kUnsetTime) {
            shared->monitor.Fail(ExitCode::TimeOut,
                                 {"no key frame came before the end", "", "nothing is recorded"});
        }
    }

    std::int64_t played() const {
        std::int64_t most = 0;
        for (const auto& source : sources) {
            most = std::max(most, source->Played());
        }
        return most;
    }

    Progress progress() const {
        Progress now;
        now.elapsed = since(begin);
        now.packets = shared->monitor.Packets();
        now.bytes = shared->monitor.Bytes();
        now.position = toSeconds(played());
        for (const auto& source : sources) {
            now.duration = std::max(now.duration, toSeconds(source->PlayingTime()));
        }
        if (isTriggered && options.seconds > 0) {
            const double end = toSeconds(triggerTime) + options.seconds;
            now.duration = now.duration > 0 ? std::min(now.duration, end) : end;
        }
        return now;
    }

    ExitCode report() {
        Summary summary;
        summary.progress = progress();
        summary.outputs = sink->Summaries();
        MediaCount all;
        for (const OutputSummary& output : summary.outputs) {
            all.packets += output.written.packets;
            all.bytes += output.written.bytes;
            all.position = std::max(all.position, output.written.position - sink->Begun());
        }
        return reportOutcome(shared->monitor, console, *reporter, std::move(summary), all, interrupted);
    }

    const RecordOptions& options;
    RecordNames& names;  // on the session's thread, once that runs
    IRecordTrigger& trigger;
    Console& console;
    const std::shared_ptr<RelayShared> shared;
    const Clock::time_point begin;
    std::vector<Reference<FileSource>> sources;
    Reference<RecordSink> sink;
    std::unique_ptr<IProgressReporter> reporter;
    ClientReport clientReport;
    std::optional<Clock::time_point> waitedSince;
    bool isTriggered = false;
    bool isTold = false;
    std::int64_t triggerTime = 0;
    bool interrupted = false;
    std::atomic<bool> stopping{false};
    MediaSession session;
};

}  // namespace

ExitCode record(const RecordOptions& options) {
    Console console(STDOUT_FILENO);
    RecordNames names(options.output, options.inputs, options.log);
    try {
        if (const std::optional<Problem> wrong = names.Check()) {
            throw ProblemError(ExitCode::Usage, *wrong);
        }
        if (NetworkAddress::IsOne(options.output) && options.rotation > 0) {
            throw ProblemError(ExitCode::Usage,
                               {"--rotate is for files", options.output, "leave it away, or name a file"});
        }
        if (const std::optional<Problem> wrong = checkLogPlace(options.log, options.logLevel)) {
            throw ProblemError(ExitCode::Usage, *wrong);
        }
        const Interrupt interrupt;
        const std::unique_ptr<IRecordTrigger> trigger = makeRecordTrigger(options.trigger);
        const MediaRuntime runtime(options.log, options.logLevel);
        return Recording(options, names, *trigger, console).Run();
    } catch (const ProblemError& error) {
        console.Error(error.problem);
        return error.code;
    }
}

}  // namespace Mivra::Tool
