#include "tools/mivra/Relay.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#include "mivra/common/runtime/Reference.h"
#include "mivra/media/MediaSession.h"
#include "tools/mivra/FileSource.h"
#include "tools/mivra/Interrupt.h"
#include "tools/mivra/LibraryUse.h"
#include "tools/mivra/MediaRuntime.h"
#include "tools/mivra/MuxSink.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/Progress.h"
#include "tools/mivra/RelayFiles.h"
#include "tools/mivra/RelayMonitor.h"

namespace Mivra::Tool {
namespace {

using Common::Reference;
using Media::MediaSession;

constexpr int kLookMilliseconds = 100;

/// One relay from start to end.
class Relay {
public:
    Relay(const RelayOptions& what, Console& where)
        : options(what),
          console(where),
          shared(std::make_shared<RelayShared>(static_cast<int>(what.inputs.size()), where)),
          begin(Clock::now()),
          clientReport(what.clients ? what.statsSeconds : 0) {}

    ExitCode Run() {
        makeSources();
        makeSinks();
        session.AddErrorListener([this](void*, Media::ErrorEventArgs* args) { onError(*args); });
        // A file may end, pause or be held back.
        session.SetNoCaptureTimeout(std::numeric_limits<std::int64_t>::max());
        reporter = makeProgressReporter(console, options.json, options.statsSeconds);
        session.Start();
        while (!shared->monitor.Wait(kLookMilliseconds, Interrupt::Descriptor()) &&
               !Interrupt::IsRequested()) {
            const Progress now = progress();
            reporter->Update(now);
            clientReport.Update(shared->board, now, *reporter);
        }
        stop();
        return report();
    }

private:
    using Clock = std::chrono::steady_clock;

    void makeSources() {
        for (std::size_t i = 0; i < options.inputs.size(); ++i) {
            FileSourceOptions source;
            source.path = options.inputs[i];
            source.index = static_cast<int>(i);
            source.realtime = options.realtime;
            source.length = static_cast<std::int64_t>(options.seconds * static_cast<double>(kPacketSecond));
            source.loops = options.loops;
            sources.emplace_back(new FileSource(source, shared));
            sources.back()->SetUniqueId(orderedId(i));
            steer(*sources.back().get());
            session.AddSource(sources.back().get());
        }
    }

    void steer(FileSource& source) const {
        source.SetLoop(options.loops != 0);
        if (options.rate > 0) {
            source.SetPlaybackRate(options.rate);
        }
        if (options.seek > 0) {
            source.SetPosition(std::llround(options.seek * static_cast<double>(kPacketSecond)));
        }
    }

    void makeSinks() {
        for (std::size_t i = 0; i < options.outputs.size(); ++i) {
            MuxSinkOptions sink;
            sink.path = options.outputs[i];
            sink.format = findOutputFormat(sink.path);
            sink.last = i + 1 == options.outputs.size();
            sinks.emplace_back(new MuxSink(sink, shared));
            sinks.back()->SetUniqueId(orderedId(i));
            session.AddSink(sinks.back().get());
        }
    }

    // What comes from the sources and sinks has been told to the monitor before; a source that is stopped
    // while it opens fails, which is nothing to tell.
    void onError(const Media::ErrorEventArgs& error) {
        if (!error.fatal || stopping) {
            return;
        }
        failSession(shared->monitor, error.message);
    }

    // Whatever fails on the way, a thread that cannot be started say, the outputs are finished.
    void stop() {
        stopping = true;
        interrupted = Interrupt::IsRequested() && !shared->monitor.FirstFailure().has_value();
        shared->stop.Raise();
        for (const auto& source : sources) {
            attempt([&] { source->Stop(); });
        }
        attempt([&] { session.Stop(); });
        stopSinks();
    }

    // All at once: one may wait long for a peer that takes little.
    void stopSinks() {
        std::vector<std::thread> threads;
        threads.reserve(sinks.size());
        for (const auto& sink : sinks) {
            const auto stopIt = [&sink] { attempt([&] { sink->Stop(); }); };
            try {
                threads.emplace_back(stopIt);
            } catch (const std::system_error&) {
                stopIt();
            }
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    Progress progress() const {
        Progress now = countedSince(shared->monitor, begin);
        double position = std::numeric_limits<double>::max();
        for (const auto& source : sources) {
            now.duration = std::max(now.duration, toSeconds(source->PlayingTime()));
            if (!source->IsEos()) {
                position = std::min(position, toSeconds(source->Played()));
            }
            now.position = std::max(now.position, toSeconds(source->Played()));
        }
        now.position = std::min(now.position, position);
        if (options.seconds > 0 && (now.duration > 0 || options.loops < 0)) {
            now.duration = now.duration > 0 ? std::min(now.duration, options.seconds) : options.seconds;
        }
        return now;
    }

    ExitCode report() {
        Summary summary;
        summary.progress = progress();
        MediaCount most;
        for (const auto& sink : sinks) {
            summary.outputs.push_back(sink->GetSummary());
            most = std::max(most, summary.outputs.back().written,
                            [](const MediaCount& a, const MediaCount& b) { return a.packets < b.packets; });
        }
        return reportOutcome(shared->monitor, console, *reporter, std::move(summary), most, interrupted);
    }

    const RelayOptions& options;
    Console& console;
    const std::shared_ptr<RelayShared> shared;
    const Clock::time_point begin;
    std::vector<Reference<FileSource>> sources;
    std::vector<Reference<MuxSink>> sinks;
    std::unique_ptr<IProgressReporter> reporter;
    ClientReport clientReport;
    bool interrupted = false;
    std::atomic<bool> stopping{false};
    MediaSession session;
};

}  // namespace

ExitCode relay(const RelayOptions& options) {
    const bool mediaOnOutput =
        std::find(options.outputs.begin(), options.outputs.end(), kStandardStream) != options.outputs.end();
    Console console(mediaOnOutput ? STDERR_FILENO : STDOUT_FILENO);
    if (const std::optional<Problem> wrong = checkRelayFiles(options.inputs, options.outputs, options.log)) {
        console.Error(*wrong);
        return ExitCode::Usage;
    }
    if (const std::optional<Problem> wrong = checkLogPlace(options.log, options.logLevel)) {
        console.Error(*wrong);
        return ExitCode::Usage;
    }
    const Interrupt interrupt;
    try {
        const MediaRuntime runtime(options.log, options.logLevel);
        return Relay(options, console).Run();
    } catch (const ProblemError& error) {
        console.Error(error.problem);
        return error.code;
    }
}

}  // namespace Mivra::Tool
